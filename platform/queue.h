/**
 * @file
 * Intrusive FIFO queues.
 *
 * An element is any record whose first member is a pointer, the link to its successor. The queue
 * owns that word while the element is queued; it owns no memory. Nothing here locks: whoever
 * shares a queue between threads holds a lock of its own around every call.
 */
#ifndef TARVO_PLATFORM_QUEUE_H
#define TARVO_PLATFORM_QUEUE_H

#include "export.h"

PLATFORM_BEGIN

/** A queue of all zero bytes is a valid empty queue. */
typedef struct queue {
  void *head;        /**< first element, or null; first word of the queue */
  void *tail;        /**< last element, or null; the layer's own, as is what follows */
  uint64_t reserved; /**< not looked at */
} queue_t;

static_assert(offsetof(queue_t, head) == 0, "the queue's first word is its head");
static_assert(sizeof(queue_t) == 24, "part of the client group's layout");

/** Makes `q` an empty queue. The second argument is 0. */
PLATFORM_API void queue_init(queue_t *q, unsigned long zero);

/** Appends `element` at the tail. */
PLATFORM_API void queue_enqueue(queue_t *q, void *element);

/** Removes and returns the head, or null when the queue is empty. */
PLATFORM_API void *queue_dequeue(queue_t *q);

/** The successor of a queued element, or null at the tail. */
PLATFORM_API void *queue_get_next(void *element);

/** Unlinks `element`, whose predecessor is `previous` (null: it is the head). Constant time. */
PLATFORM_API void queue_remqueue(queue_t *q, void *element, void *previous);

/** Unlinks `element`, searching for its predecessor from the head. No effect when it is absent. */
PLATFORM_API void queue_unqueue(queue_t *q, void *element);

PLATFORM_END

#endif
