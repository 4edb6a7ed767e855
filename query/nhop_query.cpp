#include "query/nhop_query.h"

#include "db/nhop_table.h"
#include "db/vrf_table.h"
#include "engine/shared_words.h"
#include "tarvo/discovery.h"

static void copy_out(tarvo_nd_nhop_t *out, const tarvo_nd_nhop_t *nhop)
    TARVO_REQUIRES(tarvo_nd_mutex) {
  tarvo_nd_nhop_copy(out, nhop);
}

static void copy_out(tarvo_nd_nhop_table_t *out, const tarvo_nd_nhop_table_t *ref)
    TARVO_REQUIRES(tarvo_nd_mutex) {
  out->table_id = ref->table_id;
  out->ref_count = ref->ref_count;
}

// The frame of every query: refuse, lock, find one record, copy it out.
template <typename Record, typename Find>
static uint32_t query(const char *caller, Record *out, Find find, int line = __builtin_LINE())
    TARVO_EXCLUDES(tarvo_nd_mutex) {
  if (out == nullptr) return TARVO_ND_ERR_INVALID_ARG;
  if (tarvo_nd_is_active() == 0) return TARVO_ND_ERR_NOT_FOUND;

  guarded_lock hold(tarvo_nd_mutex, caller, line);
  // Discovery may have ended while we waited for the lock, and the tree with it.
  if (tarvo_nd_is_active() == 0) return TARVO_ND_ERR_NOT_FOUND;
  const Record *found = find();
  if (found == nullptr) return TARVO_ND_ERR_NOT_FOUND;
  copy_out(out, found);
  return TARVO_ND_OK;
}

static tarvo_nd_nhop_t *nhop_after(uint32_t nhop_addr) TARVO_REQUIRES(tarvo_nd_mutex) {
  tarvo_nd_nhop_t key = {};
  key.info.nhop_addr = nhop_addr;
  return tarvo_nd_nhop_tree_next(&key);
}

// The first next hop from `nhop` on that the table refers to.
static tarvo_nd_nhop_t *nhop_of_table(tarvo_nd_nhop_t *nhop, uint32_t table_id)
    TARVO_REQUIRES(tarvo_nd_mutex) {
  while (nhop != nullptr && tarvo_nd_nhop_table_lookup(&nhop->tables, table_id) == nullptr)
    nhop = tarvo_nd_nhop_tree_next(nhop);
  return nhop;
}

static void copy_vrf_name(tarvo_nd_vrf_name_copy_t *to, uint32_t table_id)
    TARVO_REQUIRES(tarvo_nd_mutex) {
  const char *name = tarvo_nd_tableid2vrf_name(table_id);
  to->known = name != nullptr;
  tarvo_nd_vrf_name_copy(to->name, name);
}

static wavl_tree_t *tables_of(uint32_t nhop_addr) TARVO_REQUIRES(tarvo_nd_mutex) {
  tarvo_nd_nhop_t *nhop = tarvo_nd_nhop_lookup(nhop_addr);
  return nhop == nullptr ? nullptr : &nhop->tables;
}

static tarvo_nd_nhop_table_t *with_vrf_name(tarvo_nd_nhop_table_t *ref,
                                            tarvo_nd_vrf_name_copy_t *vrf_name)
    TARVO_REQUIRES(tarvo_nd_mutex) {
  if (ref != nullptr && vrf_name != nullptr) copy_vrf_name(vrf_name, ref->table_id);
  return ref;
}

uint32_t tarvo_nd_lookup_nhop(uint32_t nhop_addr, tarvo_nd_nhop_t *out) {
  return query(__func__, out,
               [&]() TARVO_REQUIRES(tarvo_nd_mutex) { return tarvo_nd_nhop_lookup(nhop_addr); });
}

uint32_t tarvo_nd_first_nhop(tarvo_nd_nhop_t *out) {
  return query(__func__, out,
               []() TARVO_REQUIRES(tarvo_nd_mutex) { return tarvo_nd_nhop_tree_first(); });
}

uint32_t tarvo_nd_next_nhop(uint32_t nhop_addr, tarvo_nd_nhop_t *out) {
  return query(__func__, out,
               [&]() TARVO_REQUIRES(tarvo_nd_mutex) { return nhop_after(nhop_addr); });
}

uint32_t tarvo_nd_first_tableid(uint32_t nhop_addr, tarvo_nd_nhop_table_t *out,
                                tarvo_nd_vrf_name_copy_t *vrf_name) {
  return query(__func__, out, [&]() TARVO_REQUIRES(tarvo_nd_mutex) {
    return with_vrf_name(tarvo_nd_nhop_table_first(tables_of(nhop_addr)), vrf_name);
  });
}

uint32_t tarvo_nd_next_tableid(uint32_t nhop_addr, uint32_t table_id, tarvo_nd_nhop_table_t *out,
                               tarvo_nd_vrf_name_copy_t *vrf_name) {
  return query(__func__, out, [&]() TARVO_REQUIRES(tarvo_nd_mutex) {
    tarvo_nd_nhop_table_t key = {};
    key.table_id = table_id;
    return with_vrf_name(tarvo_nd_nhop_table_next(tables_of(nhop_addr), &key), vrf_name);
  });
}

uint32_t tarvo_nd_lookup_tableid(uint32_t nhop_addr, const char *vrf_name,
                                 tarvo_nd_nhop_table_t *out) {
  return query(__func__, out, [&]() TARVO_REQUIRES(tarvo_nd_mutex) -> tarvo_nd_nhop_table_t * {
    const uint32_t table_id = tarvo_nd_vrf_name2tableid(vrf_name);
    if (table_id == 0) return nullptr;
    return tarvo_nd_nhop_table_lookup(tables_of(nhop_addr), table_id);
  });
}

uint32_t tarvo_nd_first_nhop_by_tableid(uint32_t table_id, tarvo_nd_nhop_t *out) {
  if (table_id == 0) return tarvo_nd_first_nhop(out);
  return query(__func__, out, [&]() TARVO_REQUIRES(tarvo_nd_mutex) {
    return nhop_of_table(tarvo_nd_nhop_tree_first(), table_id);
  });
}

uint32_t tarvo_nd_next_nhop_by_tableid(uint32_t table_id, uint32_t nhop_addr,
                                       tarvo_nd_nhop_t *out) {
  if (table_id == 0) return tarvo_nd_next_nhop(nhop_addr, out);
  return query(__func__, out, [&]() TARVO_REQUIRES(tarvo_nd_mutex) {
    return nhop_of_table(nhop_after(nhop_addr), table_id);
  });
}

uint32_t tarvo_nd_lookup_nhop_by_tableid(uint32_t table_id, uint32_t nhop_addr,
                                         tarvo_nd_nhop_t *out) {
  if (table_id == 0) return tarvo_nd_lookup_nhop(nhop_addr, out);
  return query(__func__, out, [&]() TARVO_REQUIRES(tarvo_nd_mutex) -> tarvo_nd_nhop_t * {
    tarvo_nd_nhop_t *nhop = tarvo_nd_nhop_lookup(nhop_addr);
    if (nhop == nullptr) return nullptr;
    return tarvo_nd_nhop_table_lookup(&nhop->tables, table_id) == nullptr ? nullptr : nhop;
  });
}

// No lock and no active test: the VRF table outlives discovery, and the caller holds the nd mutex
// for as long as it uses the name.
const char *tarvo_nd_tableid2vrf_name(uint32_t table_id) TARVO_NO_THREAD_SAFETY_ANALYSIS {
  const tarvo_nd_vrf_t *vrf = tarvo_nd_vrf_lookup(table_id);
  return vrf == nullptr ? nullptr : vrf->vrf_name;
}
