/**
 * @file
 * Thread names, and what each thread is blocked on.
 *
 * A thread announces a wait just before it blocks and withdraws it just after; the announcement
 * costs a few stores to memory of its own. ptd_walk_threads shows all of them at any time.
 */
#ifndef TARVO_PLATFORM_THREAD_DIAG_H
#define TARVO_PLATFORM_THREAD_DIAG_H

#include <pthread.h>

#include "export.h"

PLATFORM_BEGIN

/**
 * Names a thread (cut to 15 characters, the system's limit). ptd_walk_threads shows the names that
 * threads gave themselves; a name given to another thread is seen by the system's tools only.
 */
PLATFORM_API void set_thread_name(const char *name, pthread_t thread);

/** Takes the calling thread's name away; the system's tools see the program's again. The argument,
 * null, makes it a clean-up handler. */
PLATFORM_API void remove_thread_name(void *unused);

/** The calling thread is about to block on `lock` in the operation `caller` (static storage). */
PLATFORM_API void ptd_set_mutex_block(void *lock, const char *caller, int line);
/** The calling thread goes on: it has the lock, or gave up. */
PLATFORM_API void ptd_unset_mutex_block(void);

/** Kind of a system wait: on a condition variable. */
enum { PTD_WAIT_CONDITION = 6 };

/** The calling thread is about to block in a system wait on `object`. */
PLATFORM_API void ptd_set_syscall_block_internal(int kind, void *object, long zero1, long zero2);
/** The calling thread goes on after a system wait. */
PLATFORM_API void ptd_set_syscall_unblock(void);

/** What is known of one thread that was named or has announced a wait. */
typedef struct ptd_info {
  const char *name;   /**< empty when it has none */
  const void *object; /**< what it waits for, or null */
  const char *caller; /**< operation that waits for a lock, or null */
  int line;           /**< line of that operation */
  int wait_kind;      /**< kind of a system wait, or 0 */
} ptd_info_t;

/**
 * Calls `visit` for every known thread while it returns 1. Any thread. A thread that announces or
 * withdraws a wait meanwhile may show half of it. `visit` must call neither
 * this service nor the module, which announces waits with its locks held.
 */
PLATFORM_API void ptd_walk_threads(int (*visit)(const ptd_info_t *info, void *arg), void *arg);

PLATFORM_END

#endif
