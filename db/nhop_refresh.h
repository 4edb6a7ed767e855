// Refresh by mark and sweep: the mark asks for every reference to be reported again, the sweep
// removes those that were not.
#pragma once

#include "engine/state.h"

/// Zeroes every reference's count and marks every reachable next hop for re-resolution. Tells
/// nobody. Worker thread.
void tarvo_nd_nhop_mark_all() TARVO_REQUIRES(tarvo_nd_mutex);

/// Removes the references that nobody reported since the last mark, and the next hops that they
/// leave without references; not those that had none. Worker thread.
void tarvo_nd_nhop_sweep() TARVO_REQUIRES(tarvo_nd_mutex);
