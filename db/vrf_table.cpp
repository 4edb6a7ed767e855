#include "db/vrf_table.h"

#include <cstdlib>

#include "db/nhop_table.h"
#include "db/vrf_redist.h"
#include "engine/log.h"
#include "engine/shared_words.h"
#include "engine/work_queue.h"
#include "platform/named_alloc.h"

void *tarvo_nd_vrf_tree = nullptr;

tarvo_nd_vrf_t *tarvo_nd_vrf_lookup(uint32_t table_id) {
  tarvo_nd_vrf_t key = {};
  key.table_id = table_id;
  return static_cast<tarvo_nd_vrf_t *>(avl_search(tarvo_nd_vrf_tree, &key, tarvo_nd_tableid_cmp));
}

uint32_t tarvo_nd_vrf_name2tableid(const char *vrf_name) {
  if (vrf_name == nullptr) return 0;
  for (void *node = avl_get_first(tarvo_nd_vrf_tree); node != nullptr; node = avl_get_next(node)) {
    const auto *vrf = static_cast<const tarvo_nd_vrf_t *>(node);
    if (tarvo_nd_vrf_name_compare(vrf->vrf_name, vrf_name) == 0) return vrf->table_id;
  }
  return 0;
}

static void redist(tarvo_nd_vrf_t *vrf, tarvo_nd_redist_action action)
    TARVO_REQUIRES(tarvo_nd_mutex) {
  tarvo_nd_vrf_redist(vrf, &action);
}

static void add_table(uint32_t table_id, const char *vrf_name) TARVO_REQUIRES(tarvo_nd_mutex) {
  if (tarvo_nd_vrf_lookup(table_id) != nullptr) return;

  auto *vrf =
      static_cast<tarvo_nd_vrf_t *>(calloc_named(1, sizeof(tarvo_nd_vrf_t), "TARVO DISC VRF Info"));
  if (vrf == nullptr) {
    tarvo_nd_log_err_mem("During mallocing vrf information");
    return;
  }
  vrf->table_id = table_id;
  tarvo_nd_vrf_name_copy(vrf->vrf_name, vrf_name);
  if (avl_insert(&tarvo_nd_vrf_tree, vrf, tarvo_nd_tableid_cmp) == nullptr) {
    free(vrf);
    return;
  }
  // While discovery is inactive the table stays off; activation switches every table on.
  if (tarvo_nd_is_active() != 0) redist(vrf, TARVO_ND_REDIST_START);
}

static void withdraw_references(uint32_t table_id) TARVO_REQUIRES(tarvo_nd_mutex) {
  tarvo_nd_nhop_t *nhop = tarvo_nd_nhop_tree_first();
  while (nhop != nullptr) {
    tarvo_nd_nhop_t *next = tarvo_nd_nhop_tree_next(nhop);
    tarvo_nd_nhop_table_t *ref = tarvo_nd_nhop_table_lookup(&nhop->tables, table_id);
    if (ref != nullptr) {
      tarvo_nd_nhop_table_delete(ref, nhop);
      if (tarvo_nd_nhop_table_empty(&nhop->tables)) tarvo_nd_nhop_delete(nhop);
    }
    nhop = next;
  }
}

static void delete_table(uint32_t table_id) TARVO_REQUIRES(tarvo_nd_mutex)
    TARVO_EXCLUDES(tarvo_nd_workq_mutex) {
  tarvo_nd_vrf_t *vrf = tarvo_nd_vrf_lookup(table_id);
  if (vrf == nullptr) return;

  if (tarvo_nd_is_active() != 0) {
    redist(vrf, TARVO_ND_REDIST_STOP);
    // While the entry is still in the tree, so that its name leads to the clients to be told.
    withdraw_references(table_id);
    // After the callbacks of these withdrawals, which may queue reports of the table.
    tarvo_nd_del_nhop_update_from_work_req(table_id);
  }
  tarvo_nd_vrf_t key = {};
  key.table_id = table_id;
  avl_delete(&tarvo_nd_vrf_tree, &key, tarvo_nd_tableid_cmp);
  free(vrf);
}

void tarvo_nd_handle_table_update(uint32_t table_id, const char *vrf_name, bool add) {
  if (add) {
    add_table(table_id, vrf_name);
  } else {
    delete_table(table_id);
  }
}
