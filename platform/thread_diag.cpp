// Thread names and announced waits: one record per thread, in thread-local storage, on one list.
//
// A thread joins the list when it first names itself or announces a wait, and leaves it when it
// ends. Neither takes memory, since the system ends a process that has none for a thread's storage
// or its destructors: a thread that finds no place for its clean-up is just not listed. The lock
// covers the list and the names; announcements are plain atomic stores of their own thread, so that
// they cost next to nothing, and a reader may catch one half way. As many records as threads.
#include "thread_diag.h"

#include <errno.h>
#include <string.h>

#include <atomic>

#include "lock_private.h"

namespace {

constexpr size_t kNameSize = 16;  // the system's limit, with the final NUL

platform::mutex list_lock;

struct record {
  std::atomic<const void *> object;
  std::atomic<const char *> caller;
  std::atomic<int> line;
  std::atomic<int> wait_kind;
  bool listed;  // of the thread itself
  char name[kNameSize] TARVO_GUARDED_BY(list_lock);
  record *previous TARVO_GUARDED_BY(list_lock);
  record *next TARVO_GUARDED_BY(list_lock);
};

record *first TARVO_GUARDED_BY(list_lock);

// Reserved with the thread's stack, and usable until the thread is gone.
[[gnu::tls_model("initial-exec")]] constinit thread_local record own_record{};

void leave_list(void *own) {
  const auto *r = static_cast<record *>(own);
  platform::hold held(list_lock);
  (r->previous == nullptr ? first : r->previous->next) = r->next;
  if (r->next != nullptr) r->next->previous = r->previous;
}

bool leaves_at_its_end(record *r) {
  static pthread_key_t key;
  static const bool has_key = pthread_key_create(&key, leave_list) == 0;
  return has_key && pthread_setspecific(key, r) == 0;
}

void join_list(record *r) {
  if (!leaves_at_its_end(r)) return;
  r->listed = true;
  platform::hold held(list_lock);
  r->next = first;
  if (first != nullptr) first->previous = r;
  first = r;
}

record *listed_record() {
  record *r = &own_record;
  if (!r->listed) join_list(r);
  return r;
}

void announce(const void *object, const char *caller, int line, int wait_kind) {
  record *r = listed_record();
  r->object.store(object, std::memory_order_relaxed);
  r->caller.store(caller, std::memory_order_relaxed);
  r->line.store(line, std::memory_order_relaxed);
  r->wait_kind.store(wait_kind, std::memory_order_relaxed);
}

void set_system_name(const char *name, pthread_t thread) {
  char cut[kNameSize] = {};
  strncpy(cut, name, kNameSize - 1);
  pthread_setname_np(thread, cut);
}

void set_own_name(const char *name) {
  record *r = listed_record();
  platform::hold held(list_lock);
  strncpy(r->name, name, kNameSize - 1);
}

}  // namespace

void set_thread_name(const char *name, pthread_t thread) {
  set_system_name(name, thread);
  if (pthread_equal(thread, pthread_self())) set_own_name(name);
}

void remove_thread_name(void *) {
  set_system_name(program_invocation_short_name, pthread_self());
  set_own_name("");
}

void ptd_set_mutex_block(void *lock, const char *caller, int line) {
  announce(lock, caller, line, 0);
}

void ptd_unset_mutex_block(void) { announce(nullptr, nullptr, 0, 0); }

void ptd_set_syscall_block_internal(int kind, void *object, long, long) {
  announce(object, nullptr, 0, kind);
}

void ptd_set_syscall_unblock(void) { announce(nullptr, nullptr, 0, 0); }

void ptd_walk_threads(int (*visit)(const ptd_info_t *info, void *arg), void *arg) {
  platform::hold held(list_lock);
  for (record *r = first; r != nullptr; r = r->next) {
    const ptd_info_t info = {.name = r->name,
                             .object = r->object.load(std::memory_order_relaxed),
                             .caller = r->caller.load(std::memory_order_relaxed),
                             .line = r->line.load(std::memory_order_relaxed),
                             .wait_kind = r->wait_kind.load(std::memory_order_relaxed)};
    if (visit(&info, arg) == 0) return;
  }
}
