#include "agent/pools.h"

#include "platform/pool.h"

namespace agent {

std::vector<pool_info> list_pools() {
  std::vector<pool_info> result;
  chunk_walk_pools(
      [](const chunk_info_t *info, void *arg) {
        static_cast<std::vector<pool_info> *>(arg)->push_back(
            {info->name, info->element_size, info->in_use, info->chunks, info->bytes, info->limit});
        return 1;
      },
      &result);
  return result;
}

uint64_t requests_queued() {
  for (const pool_info &pool : list_pools())
    if (pool.name == "PE Discovery workQ Chunk") return pool.in_use;
  return 0;
}

}  // namespace agent
