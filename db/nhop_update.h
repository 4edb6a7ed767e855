// Next-hop reports: what one add or delete request does to the next-hop table.
#pragma once

#include <cstdint>

#include "engine/state.h"

/// A route of `table_id` has (`add`) or no longer has this next hop (network byte order). Worker
/// thread, only while discovery is active.
void tarvo_nd_handle_nhop_update(uint32_t table_id, uint32_t nhop_addr, bool add)
    TARVO_REQUIRES(tarvo_nd_mutex);
