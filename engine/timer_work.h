// What the worker does for the requests of the refresh cycle and for a RIB restart.
#pragma once

#include "engine/state.h"

/// The refresh phase ended: marks every next hop and has every table reported again.
void tarvo_nd_handle_refresh_expired() TARVO_REQUIRES(tarvo_nd_mutex);

/// The RIB restarted: as a refresh, with redistribution asked for anew, and the clear phase from
/// now on.
void tarvo_nd_handle_rib_restart() TARVO_REQUIRES(tarvo_nd_mutex);
