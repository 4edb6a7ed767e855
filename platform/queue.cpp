// Intrusive FIFO queues: a singly linked list through the first word of each element, with a tail
// pointer for constant-time appends. The caller's lock covers a queue; its elements bound it.
#include "queue.h"

namespace {

struct link {
  link *next;
};

link *as_link(void *element) { return static_cast<link *>(element); }

}  // namespace

void queue_init(queue_t *q, unsigned long) { *q = {}; }

void queue_enqueue(queue_t *q, void *element) {
  as_link(element)->next = nullptr;
  if (q->tail == nullptr)
    q->head = element;
  else
    as_link(q->tail)->next = as_link(element);
  q->tail = element;
}

void *queue_dequeue(queue_t *q) {
  void *head = q->head;
  if (head != nullptr) queue_remqueue(q, head, nullptr);
  return head;
}

void *queue_get_next(void *element) { return as_link(element)->next; }

void queue_remqueue(queue_t *q, void *element, void *previous) {
  link *next = as_link(element)->next;
  if (previous == nullptr)
    q->head = next;
  else
    as_link(previous)->next = next;
  if (q->tail == element) q->tail = previous;
  as_link(element)->next = nullptr;
}

void queue_unqueue(queue_t *q, void *element) {
  void *previous = nullptr;
  for (void *at = q->head; at != nullptr; previous = at, at = queue_get_next(at)) {
    if (at != element) continue;
    queue_remqueue(q, element, previous);
    return;
  }
}
