/**
 * @file
 * Pools of fixed-size elements.
 *
 * A pool grows by chunks of `count` elements and gives chunks back when they empty, keeping a few
 * so that a pool that breathes does not thrash: two at first, more (128 at most) for a pool that
 * keeps needing what it gave back, and fewer again when it no longer does. A pool that fills and
 * empties the same 80 chunks again and again gives back a fifth of them at most, on average
 * from the sixth time on. One pool is used by one thread at a time (its user's lock); creating and
 * listing pools is safe from any thread, and so is destroying one that nobody uses any more.
 */
#ifndef TARVO_PLATFORM_POOL_H
#define TARVO_PLATFORM_POOL_H

#include "export.h"

PLATFORM_BEGIN

/** Flag bits of chunk_create. */
enum {
  CHUNK_GROW = 0x001, /**< add a chunk when none has a free element; without it one chunk is all */
  CHUNK_ZERO = 0x100, /**< every element handed out is zero-filled, recycled ones too */
  CHUNK_TRIM = 0x200  /**< give emptied chunks back to the system, memory and all; else keep them */
};

/**
 * Creates a pool of elements of `size` bytes (aligned to 8). `name` is copied. The last two
 * arguments are 0. Returns a handle, or null with errno set: without memory, for a null name, for a
 * size or count of 0, or when a chunk would exceed the address space. The first chunk is allocated
 * with the first element.
 */
PLATFORM_API void *chunk_create(const char *name, unsigned long size, unsigned long count,
                                unsigned long flags, unsigned long zero1, unsigned long zero2);

/** Frees the pool with everything still in it. Null is ignored. */
PLATFORM_API void chunk_destroy(void *pool);

/** An element, or null when memory is gone or the pool's limit is reached. */
PLATFORM_API void *chunk_malloc(void *pool);

/**
 * Returns an element to the pool it came from. An element that is not in use ends the process: with
 * a message on standard error that names the pool, as long as the element's chunk is held. Of one
 * whose chunk was given back nothing is known, and freeing it may do anything.
 */
PLATFORM_API void chunk_free(void *pool, void *element);

/** Limits the elements in use at once; 0, as at creation, is no limit. */
PLATFORM_API void chunk_set_limit(void *pool, uint64_t elements);

/** What is known of one pool. `name` is valid during the call only. */
typedef struct chunk_info {
  const char *name;      /**< as at creation */
  uint64_t element_size; /**< bytes asked for */
  uint64_t in_use;       /**< elements handed out */
  uint64_t chunks;       /**< chunks held */
  uint64_t bytes;        /**< memory held, bookkeeping included */
  uint64_t limit;        /**< 0: none */
} chunk_info_t;

/**
 * Calls `visit` for every pool in order of creation while it returns 1. Any thread; the figures
 * of a pool in use are each exact but not of one instant. `visit` must neither create nor destroy
 * pools, nor call the module, whose worker does so with its lock held.
 */
PLATFORM_API void chunk_walk_pools(int (*visit)(const chunk_info_t *info, void *arg), void *arg);

PLATFORM_END

#endif
