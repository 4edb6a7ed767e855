#include "db/activation.h"

#include "db/nhop_table.h"
#include "db/vrf_redist.h"
#include "engine/log.h"
#include "engine/shared_words.h"
#include "engine/timers.h"
#include "platform/pool.h"

// New records start zeroed: their creation writes only what is not zero.
constexpr unsigned long kPoolFlags = CHUNK_GROW | CHUNK_ZERO | CHUNK_TRIM;
static_assert(kPoolFlags == 769);

static void destroy_pool(void *&pool) {
  if (pool != nullptr) chunk_destroy(pool);
  pool = nullptr;
}

static void destroy_pools() TARVO_REQUIRES(tarvo_nd_mutex) {
  destroy_pool(tarvo_nd_nhop_chunk);
  destroy_pool(tarvo_nd_table_chunk);
}

static bool create_next_hop_table() TARVO_REQUIRES(tarvo_nd_mutex) {
  tarvo_nd_nhop_chunk =
      chunk_create("PE Discovery NHop Chunk", sizeof(tarvo_nd_nhop_t), 100, kPoolFlags, 0, 0);
  if (tarvo_nd_nhop_chunk == nullptr) {
    tarvo_nd_log_err_mem("During mallocing NHop Chunk");
    return false;
  }
  tarvo_nd_table_chunk = chunk_create("PE Discovery Table ID Chunk", sizeof(tarvo_nd_nhop_table_t),
                                      250, kPoolFlags, 0, 0);
  if (tarvo_nd_table_chunk == nullptr) {
    destroy_pools();
    tarvo_nd_log_err_mem("During mallocing Table ID Chunk");
    return false;
  }
  if (wavl_init(&tarvo_nd_nhop_tree, 1, 0, tarvo_nd_nhop_cmp) != 0) {
    destroy_pools();
    tarvo_nd_log_err_mem("During mallocing NHop tree");
    return false;
  }
  return true;
}

static void delete_every_nhop() TARVO_REQUIRES(tarvo_nd_mutex) {
  tarvo_nd_nhop_t *nhop = tarvo_nd_nhop_tree_first();
  while (nhop != nullptr) {
    tarvo_nd_nhop_t *next = tarvo_nd_nhop_tree_next(nhop);
    tarvo_nd_nhop_delete(nhop);
    nhop = next;
  }
}

void tarvo_nd_activate() {
  if (!create_next_hop_table()) return;
  tarvo_nd_vrf_walk_redist(TARVO_ND_REDIST_START);
  const uint32_t interval = tarvo_nd_start_refresh_phase();
  // Last: whoever sees the flag finds everything in place.
  tarvo_nd_set_active(1);
  // A setter that did not see it yet left its interval to us.
  if (tarvo_nd_get_refresh_interval() != interval) tarvo_nd_restart_cycle();
}

void tarvo_nd_deactivate() {
  // First: the deletions below tell nobody, and no reader begins to look.
  tarvo_nd_set_active(0);
  tarvo_nd_vrf_walk_redist(TARVO_ND_REDIST_STOP);
  tarvo_nd_stop_timers();
  delete_every_nhop();
  wavl_finish(&tarvo_nd_nhop_tree);
  destroy_pools();
}
