// The platform's memory pools, which are the module's.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace agent {

/// A pool as the platform lists it, its name kept.
struct pool_info {
  std::string name;
  uint64_t element_size = 0;
  uint64_t in_use = 0;
  uint64_t chunks = 0;
  uint64_t bytes = 0;
  uint64_t limit = 0;
};

/// In order of creation. Any thread.
std::vector<pool_info> list_pools();

/// Requests that the module has queued and not yet handled. Any thread.
uint64_t requests_queued();

}  // namespace agent
