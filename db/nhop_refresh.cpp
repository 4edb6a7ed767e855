#include "db/nhop_refresh.h"

#include "db/nhop_table.h"

void tarvo_nd_nhop_mark_all() {
  for (tarvo_nd_nhop_t *nhop = tarvo_nd_nhop_tree_first(); nhop != nullptr;
       nhop = tarvo_nd_nhop_tree_next(nhop)) {
    if ((nhop->flags & TARVO_ND_NHOP_REACHABLE) != 0) nhop->flags |= TARVO_ND_NHOP_RERESOLVE;
    for (tarvo_nd_nhop_table_t *ref = tarvo_nd_nhop_table_first(&nhop->tables); ref != nullptr;
         ref = tarvo_nd_nhop_table_next(&nhop->tables, ref)) {
      ref->ref_count = 0;
    }
  }
}

// An entry that has no reference to begin with, since there was no memory for one, stays: the next
// add or delete of its address finds it.
static void sweep_nhop(tarvo_nd_nhop_t *nhop) TARVO_REQUIRES(tarvo_nd_mutex) {
  tarvo_nd_nhop_table_t *ref = tarvo_nd_nhop_table_first(&nhop->tables);
  if (ref == nullptr) return;
  while (ref != nullptr) {
    tarvo_nd_nhop_table_t *next = tarvo_nd_nhop_table_next(&nhop->tables, ref);
    if (ref->ref_count == 0) tarvo_nd_nhop_table_delete(ref, nhop);
    ref = next;
  }
  if (tarvo_nd_nhop_table_empty(&nhop->tables)) tarvo_nd_nhop_delete(nhop);
}

void tarvo_nd_nhop_sweep() {
  tarvo_nd_nhop_t *nhop = tarvo_nd_nhop_tree_first();
  while (nhop != nullptr) {
    tarvo_nd_nhop_t *next = tarvo_nd_nhop_tree_next(nhop);
    sweep_nhop(nhop);
    nhop = next;
  }
}
