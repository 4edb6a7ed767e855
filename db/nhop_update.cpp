#include "db/nhop_update.h"

#include "db/nhop_table.h"
#include "db/notify.h"
#include "engine/log.h"
#include "platform/pool.h"

static bool refused_at_limit() TARVO_REQUIRES(tarvo_nd_mutex) {
  if (tarvo_nd_nhop_count < TARVO_ND_MAX_NHOPS) return false;
  if (tarvo_nd_nhop_limit_logged == 0) {
    tarvo_nd_log_disc_limit("Discovered PE targets has exceeded the maximum number");
    tarvo_nd_nhop_limit_logged = 1;
  }
  return true;
}

static tarvo_nd_nhop_t *create_nhop(uint32_t nhop_addr) TARVO_REQUIRES(tarvo_nd_mutex) {
  if (refused_at_limit()) return nullptr;

  auto *nhop = static_cast<tarvo_nd_nhop_t *>(chunk_malloc(tarvo_nd_nhop_chunk));
  if (nhop == nullptr) {
    tarvo_nd_log_err_mem("During mallocing Nhop Chunk");
    return nullptr;
  }
  if (wavl_init(&nhop->tables, 1, 0, tarvo_nd_tableid_cmp) != 0) {
    chunk_free(tarvo_nd_nhop_chunk, nhop);
    return nullptr;
  }
  ++tarvo_nd_nhop_count;
  nhop->info.nhop_addr = nhop_addr;
  if (wavl_insert_thread(&tarvo_nd_nhop_tree, 0, nhop) == nullptr) {
    tarvo_nd_nhop_free(nhop);
    return nullptr;
  }
  return nhop;
}

// A marked entry keeps its old route until the new one is known, so that an unchanged route tells
// nobody and a vanished one is withdrawn with the prefix that was announced.
static void reresolve(tarvo_nd_nhop_t *nhop) TARVO_REQUIRES(tarvo_nd_mutex) {
  tarvo_nd_nhop_t now = {};
  now.info.nhop_addr = nhop->info.nhop_addr;
  tarvo_nd_nhop_resolve(&now);
  if ((now.flags & TARVO_ND_NHOP_REACHABLE) != 0) {
    nhop->flags |= TARVO_ND_NHOP_REACHABLE;
    if (now.info.prefix != nhop->info.prefix || now.info.prefix_len != nhop->info.prefix_len) {
      nhop->info.prefix = now.info.prefix;
      nhop->info.prefix_len = now.info.prefix_len;
      tarvo_nd_nhop_notify_all(nhop, true);
    }
  } else {
    tarvo_nd_nhop_notify_all(nhop, false);
    nhop->info.prefix = 0;
    nhop->info.prefix_len = 0;
    nhop->flags &= ~TARVO_ND_NHOP_REACHABLE;
  }
  nhop->flags &= ~TARVO_ND_NHOP_RERESOLVE;
}

static void check_route(tarvo_nd_nhop_t *nhop) TARVO_REQUIRES(tarvo_nd_mutex) {
  if ((nhop->flags & TARVO_ND_NHOP_RERESOLVE) != 0) {
    reresolve(nhop);
  } else if ((nhop->flags & TARVO_ND_NHOP_REACHABLE) == 0) {
    tarvo_nd_nhop_resolve(nhop);
    if ((nhop->flags & TARVO_ND_NHOP_REACHABLE) != 0) tarvo_nd_nhop_notify_all(nhop, true);
  }
}

static void count_reference(tarvo_nd_nhop_t *nhop, uint32_t table_id)
    TARVO_REQUIRES(tarvo_nd_mutex) {
  tarvo_nd_nhop_table_t *ref = tarvo_nd_nhop_table_lookup(&nhop->tables, table_id);
  if (ref != nullptr) {
    ++ref->ref_count;
    return;
  }
  ref = static_cast<tarvo_nd_nhop_table_t *>(chunk_malloc(tarvo_nd_table_chunk));
  if (ref == nullptr) {
    tarvo_nd_log_err_mem("During mallocing Nhop TableId Chunk");
    return;
  }
  ref->table_id = table_id;
  if (wavl_insert_thread(&nhop->tables, 0, ref) == nullptr) {
    chunk_free(tarvo_nd_table_chunk, ref);
    return;
  }
  ref->ref_count = 1;
  if ((nhop->flags & TARVO_ND_NHOP_REACHABLE) != 0) tarvo_nd_notify_clients(nhop, ref, true);
}

static void add_report(uint32_t table_id, uint32_t nhop_addr) TARVO_REQUIRES(tarvo_nd_mutex) {
  tarvo_nd_nhop_t *nhop = tarvo_nd_nhop_lookup(nhop_addr);
  if (nhop == nullptr) nhop = create_nhop(nhop_addr);
  if (nhop == nullptr) return;
  check_route(nhop);
  count_reference(nhop, table_id);
}

static void delete_report(uint32_t table_id, uint32_t nhop_addr) TARVO_REQUIRES(tarvo_nd_mutex) {
  tarvo_nd_nhop_t *nhop = tarvo_nd_nhop_lookup(nhop_addr);
  if (nhop == nullptr) return;  // refused at the limit, or swept already

  tarvo_nd_nhop_table_t *ref = tarvo_nd_nhop_table_lookup(&nhop->tables, table_id);
  if (ref != nullptr && ref->ref_count > 1) {
    --ref->ref_count;
    return;
  }
  tarvo_nd_nhop_table_delete(ref, nhop);
  if (tarvo_nd_nhop_table_empty(&nhop->tables)) tarvo_nd_nhop_delete(nhop);
}

void tarvo_nd_handle_nhop_update(uint32_t table_id, uint32_t nhop_addr, bool add) {
  if (add) {
    add_report(table_id, nhop_addr);
  } else {
    delete_report(table_id, nhop_addr);
  }
}
