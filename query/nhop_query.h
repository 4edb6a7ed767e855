// Locked queries for the callers inside the module. The exported ones are in tarvo/discovery.h,
// where their results and rules are described; these share them.
#pragma once

#include <cstdint>

#include "engine/state.h"
#include "engine/vrf_name.h"
#include "tarvo/records.h"

/// A VRF name copied out while the lock was held.
struct tarvo_nd_vrf_name_copy_t {
  bool known;  ///< false: no VRF has the table, and `name` is empty
  vrf_name_t name;
};

uint32_t tarvo_nd_lookup_nhop(uint32_t nhop_addr, tarvo_nd_nhop_t *out)
    TARVO_EXCLUDES(tarvo_nd_mutex);
uint32_t tarvo_nd_first_nhop(tarvo_nd_nhop_t *out) TARVO_EXCLUDES(tarvo_nd_mutex);
/// The next hop with the lowest address above the given one, which need not exist.
uint32_t tarvo_nd_next_nhop(uint32_t nhop_addr, tarvo_nd_nhop_t *out)
    TARVO_EXCLUDES(tarvo_nd_mutex);

/// The reference with the lowest table ID of one next hop, or the lowest above a given one, which
/// need not exist. When asked for, the table's VRF name is copied in the same holding of the lock,
/// before the worker can free it; it is written only on success, like `out`.
uint32_t tarvo_nd_first_tableid(uint32_t nhop_addr, tarvo_nd_nhop_table_t *out,
                                tarvo_nd_vrf_name_copy_t *vrf_name = nullptr)
    TARVO_EXCLUDES(tarvo_nd_mutex);
uint32_t tarvo_nd_next_tableid(uint32_t nhop_addr, uint32_t table_id, tarvo_nd_nhop_table_t *out,
                               tarvo_nd_vrf_name_copy_t *vrf_name = nullptr)
    TARVO_EXCLUDES(tarvo_nd_mutex);

/// The reference that the first VRF with that name (by table ID) makes to a next hop.
uint32_t tarvo_nd_lookup_tableid(uint32_t nhop_addr, const char *vrf_name,
                                 tarvo_nd_nhop_table_t *out) TARVO_EXCLUDES(tarvo_nd_mutex);
