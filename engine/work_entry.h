// Builders of work requests for the callers inside the module. The exported entry calls are in
// tarvo/discovery.h.
#pragma once

#include "engine/state.h"

/// Queues the expiry of a phase. Timer handler, with the nd mutex held. A request that cannot be
/// queued is logged and lost: the cycle goes on without that phase's work.
void tarvo_nd_enqueue_refresh_expired() TARVO_EXCLUDES(tarvo_nd_workq_mutex);
void tarvo_nd_enqueue_clear_expired() TARVO_EXCLUDES(tarvo_nd_workq_mutex);
