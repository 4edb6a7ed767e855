/**
 * @file
 * Managed timers: a tree of typed one-shot leaves on CLOCK_MONOTONIC.
 *
 * A leaf counts as running from its start until it is stopped, also while it is expired and not
 * yet handled. When a leaf expires the tree's sigevent is delivered, once per expiry; who receives
 * it asks for the first expired leaf, stops or restarts it, and asks again until there is none.
 * A delivery may find that its leaf has been stopped in the meantime. Every call is safe from any
 * thread. One thread per tree waits for deadlines; nothing polls.
 */
#ifndef TARVO_PLATFORM_TIMER_H
#define TARVO_PLATFORM_TIMER_H

#include "export.h"

struct sigevent;
struct timespec;

PLATFORM_BEGIN

/** A timer: one leaf of a tree. */
typedef struct mgd_timer_leaf mgd_timer_leaf_t;

/**
 * A tree whose expiries are delivered through a copy of `event`: SIGEV_THREAD calls its function
 * on the tree's own thread, SIGEV_SIGNAL queues its signal to the process, SIGEV_NONE does
 * nothing. Any other kind is refused. The second argument is 0. Returns a handle, or null with
 * errno set. The caller's signal mask is as it was; the tree's thread takes no signals.
 */
PLATFORM_API void *mgd_timer_tree_new(struct sigevent *event, int zero);

/**
 * Ends the tree's thread and frees the tree with its leaves, which nobody uses any more. Not from a
 * delivery. Null is ignored.
 */
PLATFORM_API void mgd_timer_tree_destroy(void *tree);

/** A stopped leaf of the tree, or null with errno set. The second and fourth arguments are 0. */
PLATFORM_API void *mgd_timer_leaf_new(void *tree, int zero1, unsigned type, int zero2);

/**
 * (Re)starts the leaf: it expires `delay` from now. A delay of zero, or a negative one, has expired
 * at once; any 32-bit number of seconds is exact. No delay overflows, up to the greatest time_t and
 * 999999999 ns: one that is too long for the deadline is shortened, to 2^32 s at least.
 */
PLATFORM_API void mgd_timer_leaf_start(mgd_timer_leaf_t *l, const struct timespec *delay);

/** Stops the leaf; an expiry not yet handled is forgotten. No effect on a stopped leaf. */
PLATFORM_API void mgd_timer_leaf_stop(mgd_timer_leaf_t *l);

/** 1 from start to stop, else 0. */
PLATFORM_API int mgd_timer_leaf_running(mgd_timer_leaf_t *l);

/** Time until expiry; zero when expired or stopped. */
PLATFORM_API void mgd_timer_leaf_remaining(mgd_timer_leaf_t *l, struct timespec *left);

/** The running leaf that expired first, or null. Equal deadlines: the one created first. */
PLATFORM_API mgd_timer_leaf_t *mgd_timer_tree_first_expired(void *tree);

/** The type given at creation. */
PLATFORM_API unsigned mgd_timer_leaf_type(mgd_timer_leaf_t *l);

PLATFORM_END

#endif
