// Event manager: one eventfd that wakes the dispatching thread, and one mark per attached event.
//
// Raising an event sets its mark and, unless it was set already, writes the eventfd; both need no
// lock. The dispatching thread clears a mark before it runs the handler, so a raise that comes
// during the run brings another one. The lock covers the list of attachments, which only grows;
// each costs one allocation, and nothing else bounds them.
#include "event.h"

#include <errno.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <new>

#include "lock_private.h"

namespace {

struct manager;

struct attachment {
  manager *owner;
  event_handler handler;
  void *context;
  int code;
  attachment *next;  // under the owner's lock
  std::atomic<bool> raised{false};
};

struct manager {
  int wake_fd;
  std::atomic<bool> stopping{false};
  platform::mutex lock;
  attachment *first TARVO_GUARDED_BY(lock) = nullptr;
  attachment *last TARVO_GUARDED_BY(lock) = nullptr;
};

// A full counter (which takes 2^64 writes) is a wake-up too, so the result does not matter.
void wake(manager *m) {
  const uint64_t one = 1;
  while (write(m->wake_fd, &one, sizeof one) < 0 && errno == EINTR) {
  }
}

void raise_event(union sigval value) {
  auto *a = static_cast<attachment *>(value.sival_ptr);
  const int saved_errno = errno;
  if (!a->raised.exchange(true)) wake(a->owner);
  errno = saved_errno;
}

// The attachment after `a`, or the first for null.
attachment *next_attachment(manager *m, attachment *a) {
  platform::hold held(m->lock);
  return a == nullptr ? m->first : a->next;
}

void run_raised(manager *m) {
  for (attachment *a = next_attachment(m, nullptr); a != nullptr; a = next_attachment(m, a)) {
    if (m->stopping.load()) return;  // what is still marked runs at the next dispatch
    if (a->raised.exchange(false)) a->handler(a->context);
  }
}

bool wait_for_wake(manager *m) {
  uint64_t wakes;
  while (read(m->wake_fd, &wakes, sizeof wakes) < 0) {
    if (errno != EINTR) return false;
  }
  return true;
}

int refuse(int error) {
  errno = error;
  return -1;
}

}  // namespace

void *event_mgr_create(void) {
  auto *m = new (std::nothrow) manager;
  if (m == nullptr) {
    errno = ENOMEM;
    return nullptr;
  }
  m->wake_fd = eventfd(0, EFD_CLOEXEC);
  if (m->wake_fd >= 0) return m;

  const int error = errno;
  delete m;
  errno = error;
  return nullptr;
}

void event_mgr_destroy(void *mgr) {
  auto *m = static_cast<manager *>(mgr);
  if (m == nullptr) return;
  attachment *a = next_attachment(m, nullptr);
  while (a != nullptr) {
    attachment *next = next_attachment(m, a);
    delete a;
    a = next;
  }
  close(m->wake_fd);
  delete m;
}

int event_mgr_dispatch(void *mgr) {
  auto *m = static_cast<manager *>(mgr);
  if (m == nullptr) return refuse(EINVAL);
  for (;;) {
    run_raised(m);
    if (m->stopping.exchange(false)) return 0;
    if (!wait_for_wake(m)) return -1;
  }
}

void event_mgr_stop(void *mgr) {
  auto *m = static_cast<manager *>(mgr);
  m->stopping.store(true);
  wake(m);
}

int event_async_attach(void *mgr, unsigned kind, event_handler handler, void *context) {
  auto *m = static_cast<manager *>(mgr);
  if (m == nullptr || kind != EVENT_COALESCE || handler == nullptr) return refuse(EINVAL);
  auto *a = new (std::nothrow) attachment{m, handler, context, 0, nullptr};
  if (a == nullptr) return refuse(ENOMEM);

  platform::hold held(m->lock);
  if (m->last == nullptr) {
    m->first = a;
  } else {
    a->code = m->last->code + 1;
    m->last->next = a;
  }
  m->last = a;
  return a->code;
}

int event_init_sigevent(void *mgr, int code, long, long, struct sigevent *event) {
  auto *m = static_cast<manager *>(mgr);
  if (m == nullptr || event == nullptr) return refuse(EINVAL);
  attachment *a = next_attachment(m, nullptr);
  while (a != nullptr && a->code != code) a = next_attachment(m, a);
  if (a == nullptr) return refuse(EINVAL);

  event->sigev_notify = SIGEV_THREAD;
  event->sigev_notify_function = raise_event;
  event->sigev_value.sival_ptr = a;
  return 0;
}
