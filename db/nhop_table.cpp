#include "db/nhop_table.h"

#include <arpa/inet.h>

#include <cstring>

#include "db/notify.h"
#include "engine/shared_words.h"
#include "platform/pool.h"
#include "tarvo/agent_services.h"

wavl_tree_t tarvo_nd_nhop_tree;
int32_t tarvo_nd_nhop_count = 0;
int32_t tarvo_nd_nhop_limit_logged = 0;
void *tarvo_nd_nhop_chunk = nullptr;
void *tarvo_nd_table_chunk = nullptr;

// The trees have one order of their records.
constexpr unsigned long kThread = 0;

static int compare(uint32_t a, uint32_t b) {
  if (a < b) return TREE_BEFORE;
  return a == b ? TREE_EQUAL : TREE_AFTER;
}

int tarvo_nd_nhop_cmp(const void *a, const void *b) {
  return compare(ntohl(static_cast<const tarvo_nd_nhop_t *>(a)->info.nhop_addr),
                 ntohl(static_cast<const tarvo_nd_nhop_t *>(b)->info.nhop_addr));
}

static uint32_t table_id_of(const void *record) {
  static_assert(offsetof(tarvo_nd_nhop_table_t, table_id) == sizeof(wavl_node_t));
  const char *field = static_cast<const char *>(record) + sizeof(wavl_node_t);
  return *reinterpret_cast<const uint32_t *>(field);
}

int tarvo_nd_tableid_cmp(const void *a, const void *b) {
  return compare(table_id_of(a), table_id_of(b));
}

tarvo_nd_nhop_t *tarvo_nd_nhop_lookup(uint32_t nhop_addr) {
  tarvo_nd_nhop_t key = {};
  key.info.nhop_addr = nhop_addr;
  return static_cast<tarvo_nd_nhop_t *>(wavl_search(&tarvo_nd_nhop_tree, &key, kThread));
}

tarvo_nd_nhop_t *tarvo_nd_nhop_tree_first() {
  return static_cast<tarvo_nd_nhop_t *>(wavl_get_first(&tarvo_nd_nhop_tree, kThread));
}

tarvo_nd_nhop_t *tarvo_nd_nhop_tree_next(const tarvo_nd_nhop_t *nhop) {
  if (nhop == nullptr) return nullptr;
  return static_cast<tarvo_nd_nhop_t *>(wavl_get_next(&tarvo_nd_nhop_tree, nhop, kThread));
}

tarvo_nd_nhop_table_t *tarvo_nd_nhop_table_lookup(wavl_tree_t *tables, uint32_t table_id) {
  if (tables == nullptr) return nullptr;
  tarvo_nd_nhop_table_t key = {};
  key.table_id = table_id;
  return static_cast<tarvo_nd_nhop_table_t *>(wavl_search(tables, &key, kThread));
}

tarvo_nd_nhop_table_t *tarvo_nd_nhop_table_first(wavl_tree_t *tables) {
  if (tables == nullptr) return nullptr;
  return static_cast<tarvo_nd_nhop_table_t *>(wavl_get_first(tables, kThread));
}

tarvo_nd_nhop_table_t *tarvo_nd_nhop_table_next(wavl_tree_t *tables,
                                                const tarvo_nd_nhop_table_t *ref) {
  if (tables == nullptr || ref == nullptr) return nullptr;
  return static_cast<tarvo_nd_nhop_table_t *>(wavl_get_next(tables, ref, kThread));
}

bool tarvo_nd_nhop_table_empty(wavl_tree_t *tables) {
  return tarvo_nd_nhop_table_first(tables) == nullptr;
}

void tarvo_nd_nhop_copy(tarvo_nd_nhop_t *to, const tarvo_nd_nhop_t *nhop) {
  memcpy(&to->info, &nhop->info, sizeof to->info);  // padding and all
  to->flags = nhop->flags;
}

void tarvo_nd_nhop_resolve(tarvo_nd_nhop_t *nhop) {
  if (nhop == nullptr) return;
  if (tarvo_rib_ipv4_get_prefix_route(&nhop->info) == 0) {
    nhop->flags |= TARVO_ND_NHOP_REACHABLE;
    return;
  }
  nhop->info.prefix = 0;
  nhop->info.prefix_len = 0;
  nhop->flags &= ~TARVO_ND_NHOP_REACHABLE;
}

void tarvo_nd_nhop_notify_all(tarvo_nd_nhop_t *nhop, bool add) {
  if (tarvo_nd_is_active() == 0) return;
  tarvo_nd_notify_clients(nhop, nullptr, add);
  for (tarvo_nd_nhop_table_t *ref = tarvo_nd_nhop_table_first(&nhop->tables); ref != nullptr;
       ref = tarvo_nd_nhop_table_next(&nhop->tables, ref)) {
    tarvo_nd_notify_clients(nhop, ref, add);
  }
}

void tarvo_nd_nhop_table_delete(tarvo_nd_nhop_table_t *ref, tarvo_nd_nhop_t *nhop) {
  if (ref == nullptr || nhop == nullptr) return;
  if ((nhop->flags & TARVO_ND_NHOP_REACHABLE) != 0) tarvo_nd_notify_clients(nhop, ref, false);
  wavl_delete_thread(&nhop->tables, kThread, ref);
  chunk_free(tarvo_nd_table_chunk, ref);
}

void tarvo_nd_nhop_table_delete_all(tarvo_nd_nhop_t *nhop) {
  tarvo_nd_nhop_table_t *ref = tarvo_nd_nhop_table_first(&nhop->tables);
  while (ref != nullptr) {
    tarvo_nd_nhop_table_t *next = tarvo_nd_nhop_table_next(&nhop->tables, ref);
    tarvo_nd_nhop_table_delete(ref, nhop);
    ref = next;
  }
}

void tarvo_nd_nhop_delete(tarvo_nd_nhop_t *nhop) {
  if (nhop == nullptr) return;
  tarvo_nd_nhop_table_delete_all(nhop);
  // The all-VPN clients hear last, when no VRF reports the next hop any more.
  if ((nhop->flags & TARVO_ND_NHOP_REACHABLE) != 0) tarvo_nd_notify_clients(nhop, nullptr, false);
  wavl_delete_thread(&tarvo_nd_nhop_tree, kThread, nhop);
  tarvo_nd_nhop_free(nhop);
}

void tarvo_nd_nhop_free(tarvo_nd_nhop_t *nhop) {
  if (nhop == nullptr) return;
  tarvo_nd_nhop_table_delete_all(nhop);
  wavl_finish(&nhop->tables);
  chunk_free(tarvo_nd_nhop_chunk, nhop);
  --tarvo_nd_nhop_count;
  tarvo_nd_nhop_limit_logged = 0;
}
