// The module's two locks. What threads share is guarded by one of them, but for the words of
// engine/shared_words.h, what start-up sets once, and the locks' own companions.
//
// Order: the workQ mutex may be taken while the nd mutex is held, never the other way round, and
// neither twice by one thread.
#pragma once

#include "engine/guarded_mutex.h"

/// The "nd mutex": discovery database, start and stop of the timers, queries.
extern guarded_mutex_t tarvo_nd_mutex;

/// The "workQ mutex": the work queue and its pool.
extern guarded_mutex_t tarvo_nd_workq_mutex TARVO_ACQUIRED_AFTER(tarvo_nd_mutex);
