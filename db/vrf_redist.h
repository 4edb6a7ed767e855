// Route redistribution: asking the RIB layer to report the next hops of the VPN tables.
#pragma once

#include <cstdint>

#include "db/vrf_table.h"

enum tarvo_nd_redist_action : uint32_t {
  TARVO_ND_REDIST_START = 1,    ///< switch on what is off
  TARVO_ND_REDIST_STOP = 2,     ///< switch off what is on
  TARVO_ND_REDIST_RESET = 3,    ///< have what is on reported again, switch on what is off
  TARVO_ND_REDIST_RESTART = 4,  ///< take everything as off and switch it on
};

/// Applies the action (a tarvo_nd_redist_action) to one tarvo_nd_vrf_t, whose flag follows the RIB
/// layer's acceptance. A callback of avl_walk: returns 1 to go on, 0 for a null entry. Worker
/// thread.
int tarvo_nd_vrf_redist(void *entry, void *action) TARVO_REQUIRES(tarvo_nd_mutex);

/// Applies an action to every table in order of table ID. Worker thread.
void tarvo_nd_vrf_walk_redist(tarvo_nd_redist_action action) TARVO_REQUIRES(tarvo_nd_mutex);
