// Discovery's two states: the next-hop table, redistribution and the refresh timer exist together
// or not at all, from the first client's registration to the last one's end, unless activation
// failed.
#pragma once

#include "engine/state.h"

/// The first client came. What fails is logged and undone; discovery then stays inactive.
void tarvo_nd_activate() TARVO_REQUIRES(tarvo_nd_mutex);

/// The last client left. Nobody is told.
void tarvo_nd_deactivate() TARVO_REQUIRES(tarvo_nd_mutex);
