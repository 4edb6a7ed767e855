/**
 * @file
 * Locks that survive the death of their owner.
 *
 * When `mutex` is robust and its owner dies, the next thread to take it becomes the reviver. It
 * calls rmx_revive_and_mark_mutex and goes on as the lock's holder, but what it holds from then on
 * is the companion `revival_mutex`, with `revival_pending` set; `mutex` is made consistent and
 * released. A thread that takes `mutex` meanwhile and sees the mark waits, still holding `mutex`,
 * in rmx_wait_on_revival_condvar until the reviver ends the revival: it signals `revival_cond`,
 * clears the mark and releases the companion, in that order. A mutex that is not robust never
 * reports a dead owner, and none of this happens.
 *
 * Both mutexes are error-checking: by that the reviver is told from those who wait. Whoever makes
 * `mutex` robust makes the companion robust too, or a reviver's death is the end of its waiters.
 */
#ifndef TARVO_PLATFORM_REVIVAL_H
#define TARVO_PLATFORM_REVIVAL_H

#include <pthread.h>

#include "export.h"
#include "thread_annotations.h"

PLATFORM_BEGIN

/** A lock with its companion. */
typedef struct TARVO_CAPABILITY("mutex") guarded_mutex {
  pthread_mutex_t mutex;         /**< the lock proper; first, so that its address is the lock's */
  pthread_mutex_t revival_mutex; /**< held by the reviver instead of `mutex` */
  pthread_cond_t revival_cond;   /**< signalled when the revival ends */
  int32_t revival_pending;       /**< non-zero during a revival; only atomic accesses */
} guarded_mutex_t;

static_assert(offsetof(guarded_mutex_t, mutex) == 0, "the lock's address is its mutex's");

/**
 * Called by the thread that took `mutex` of `lock` (a guarded_mutex_t) and was told that its owner
 * died. On return the caller holds the lock by way of the companion, and the mark is set; when the
 * companion is lost (ENOTRECOVERABLE) it holds `mutex` itself, made consistent, without a mark.
 */
PLATFORM_API void rmx_revive_and_mark_mutex(void *lock);

/**
 * Called with `mutex` of `lock` held and the mark seen. Returns 0 once the caller may go on as the
 * lock's holder, at once for the reviver itself; else the error number of the wait that failed.
 * When the reviver died too, between whatever steps, the caller becomes the reviver, or the lock's
 * plain holder if the mark is gone.
 */
PLATFORM_API int rmx_wait_on_revival_condvar(void *lock);

PLATFORM_END

#endif
