// The work queue: a FIFO of requests in elements of one pool, bounded by memory alone.
//
// Any thread appends; the worker takes from the head. Both hold the workQ mutex for one
// allocation or release, one copy and one link, and never during database work. The purge of a
// deleted table alone walks the whole queue under it.
#pragma once

#include "engine/state.h"
#include "engine/work_request.h"

/// Builds the queue and its pool, at start-up before any other thread. False without memory.
[[nodiscard]] bool tarvo_nd_workq_create();

/// Queues a copy of `request` and wakes the worker. Any thread, also with the nd mutex held.
/// Returns 1 queued, also when the wake-up failed (logged), 0 not queued (a null request or no
/// memory; logged).
int tarvo_nd_work_enqueue(const tarvo_nd_work_req_t *request) TARVO_EXCLUDES(tarvo_nd_workq_mutex);

/// Moves the head into `request`. When the queue is empty, waits for one wake-up instead and
/// returns false: the caller comes round again. Worker thread.
[[nodiscard]] bool tarvo_nd_work_dequeue(tarvo_nd_work_req_t *request, const char *caller)
    TARVO_EXCLUDES(tarvo_nd_workq_mutex);

/// Drops the queued next-hop requests of a table that is being deleted; all others keep their
/// order. Worker thread, with the nd mutex held.
void tarvo_nd_del_nhop_update_from_work_req(uint32_t table_id) TARVO_REQUIRES(tarvo_nd_mutex)
    TARVO_EXCLUDES(tarvo_nd_workq_mutex);
