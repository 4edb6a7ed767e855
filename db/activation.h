// Discovery's two states: the next-hop table, redistribution and the refresh timer exist together
// while a client is registered, and not otherwise.
#pragma once

#include "engine/state.h"

/// The first client came. What fails is logged and undone; discovery then stays inactive.
void tarvo_nd_activate() TARVO_REQUIRES(tarvo_nd_mutex);

/// The last client left. Nobody is told.
void tarvo_nd_deactivate() TARVO_REQUIRES(tarvo_nd_mutex);
