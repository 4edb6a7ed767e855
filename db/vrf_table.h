// VRF table: the VPN routing tables that the agent announced, by table ID, with their VRF names.
//
// It is kept whether or not discovery is active. The worker changes it with the nd mutex held;
// readers hold that mutex too. Bounded by the tables that the agent announces.
#pragma once

#include <cstddef>
#include <cstdint>

#include "engine/state.h"
#include "engine/vrf_name.h"
#include "platform/tree.h"

/// Bit of a VRF's flags: the RIB layer accepted to redistribute the table.
constexpr uint32_t TARVO_ND_VRF_REDIST_ON = 0x1;

struct tarvo_nd_vrf_t {
  avl_node_t node;
  uint32_t table_id;
  vrf_name_t vrf_name;  ///< need not be unique
  uint32_t flags;
};

static_assert(offsetof(tarvo_nd_vrf_t, node) == 0, "tree calls cast node to record");
static_assert(offsetof(tarvo_nd_vrf_t, table_id) == sizeof(avl_node_t),
              "where tarvo_nd_tableid_cmp looks for it");
static_assert(offsetof(tarvo_nd_vrf_t, vrf_name) == 28);
static_assert(offsetof(tarvo_nd_vrf_t, flags) == 276);
static_assert(sizeof(tarvo_nd_vrf_t) == 280);

/// Root of the tree, ordered by tarvo_nd_tableid_cmp.
extern void *tarvo_nd_vrf_tree TARVO_GUARDED_BY(tarvo_nd_mutex);

/// The VRF of a routing table, or null.
tarvo_nd_vrf_t *tarvo_nd_vrf_lookup(uint32_t table_id) TARVO_REQUIRES(tarvo_nd_mutex);

/// The lowest table ID with that VRF name; 0 for null or when there is none.
uint32_t tarvo_nd_vrf_name2tableid(const char *vrf_name) TARVO_REQUIRES(tarvo_nd_mutex);

/// A table was announced (`add`) or withdrawn. Worker thread.
void tarvo_nd_handle_table_update(uint32_t table_id, const char *vrf_name, bool add)
    TARVO_REQUIRES(tarvo_nd_mutex) TARVO_EXCLUDES(tarvo_nd_workq_mutex);
