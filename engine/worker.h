// The worker: the one thread that changes the discovery database.
#pragma once

#include "engine/state.h"

/// Entry of the thread; never returns. It may be cancelled, so it and what it calls unwind.
extern "C" void *tarvo_nd_process_work_req(void *unused);

/// One round of its loop: handles one request, or waits for one wake-up when there is none.
void tarvo_nd_work_round() TARVO_EXCLUDES(tarvo_nd_mutex, tarvo_nd_workq_mutex);
