// Managed timers: the running leaves of a tree in order of deadline, and one thread that sleeps
// until the first of them that it has not delivered yet.
//
// The tree's lock covers the tree and its leaves and is held for a few steps at a time; the
// sigevent is delivered without it. Leaves that expired and were not handled yet stay in front,
// marked as delivered. Leaves live as long as their tree and nothing else bounds them. Deadlines
// are nanoseconds of CLOCK_MONOTONIC and saturate after 292 years.
#include "timer.h"

#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <new>

#include "lock_private.h"
#include "tree.h"

namespace {

struct timer_tree {
  platform::mutex lock;
  pthread_cond_t changed;  // a leaf was started, or the tree ends
  struct sigevent event;   // never changes
  pthread_t thread;
  bool ending TARVO_GUARDED_BY(lock) = false;
  mgd_timer_leaf_t *newest TARVO_GUARDED_BY(lock) = nullptr;
  wavl_tree_t running TARVO_GUARDED_BY(lock);
};

}  // namespace

struct mgd_timer_leaf {
  wavl_node_t node;  // in the tree's `running` while the leaf runs
  timer_tree *tree;
  mgd_timer_leaf *older;
  uint64_t serial;  // position in order of creation
  unsigned type;
  bool running TARVO_GUARDED_BY(tree->lock);
  bool delivered TARVO_GUARDED_BY(tree->lock);
  int64_t deadline TARVO_GUARDED_BY(tree->lock);
};

namespace {

constexpr int64_t kSecond = 1'000'000'000;

int64_t now() {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return t.tv_sec * kSecond + t.tv_nsec;
}

struct timespec to_timespec(int64_t nanoseconds) {
  return {.tv_sec = nanoseconds / kSecond, .tv_nsec = nanoseconds % kSecond};
}

int64_t deadline_after(const struct timespec *delay) {
  int64_t sum;
  if (delay->tv_sec < 0) return now();
  if (__builtin_mul_overflow(delay->tv_sec, kSecond, &sum) ||
      __builtin_add_overflow(sum, delay->tv_nsec, &sum) || __builtin_add_overflow(sum, now(), &sum))
    return INT64_MAX;
  return sum;
}

// The analysis cannot know that a leaf reached through its tree has that tree's lock, which is
// held.
void lock_is_held(const mgd_timer_leaf_t *l) TARVO_ASSERTS(l->tree->lock) { (void)l; }

int compare_deadlines(const void *a, const void *b) {
  const auto *x = static_cast<const mgd_timer_leaf_t *>(a);
  const auto *y = static_cast<const mgd_timer_leaf_t *>(b);
  lock_is_held(x);
  lock_is_held(y);
  if (x->deadline != y->deadline) return x->deadline < y->deadline ? TREE_BEFORE : TREE_AFTER;
  if (x->serial != y->serial) return x->serial < y->serial ? TREE_BEFORE : TREE_AFTER;
  return TREE_EQUAL;
}

mgd_timer_leaf_t *first_running(timer_tree *t) TARVO_REQUIRES(t->lock) {
  return static_cast<mgd_timer_leaf_t *>(wavl_get_first(&t->running, 0));
}

mgd_timer_leaf_t *first_undelivered(timer_tree *t) TARVO_REQUIRES(t->lock) {
  mgd_timer_leaf_t *l = first_running(t);
  for (; l != nullptr; l = static_cast<mgd_timer_leaf_t *>(wavl_get_next(&t->running, l, 0))) {
    lock_is_held(l);
    if (!l->delivered) break;
  }
  return l;
}

bool expired(const mgd_timer_leaf_t *l) TARVO_REQUIRES(l->tree->lock) {
  return l->deadline <= now();
}

void stop_leaf(mgd_timer_leaf_t *l) TARVO_REQUIRES(l->tree->lock) {
  if (l->running) wavl_delete_thread(&l->tree->running, 0, l);
  l->running = false;
}

// Waits for the next expiry and marks it as delivered. False when the tree ends.
bool next_expiry(timer_tree *t) {
  platform::hold held(t->lock);
  while (!t->ending) {
    mgd_timer_leaf_t *l = first_undelivered(t);
    if (l == nullptr) {
      pthread_cond_wait(&t->changed, t->lock.native());
      continue;
    }
    lock_is_held(l);
    if (expired(l)) {
      l->delivered = true;
      return true;
    }
    const struct timespec until = to_timespec(l->deadline);
    pthread_cond_timedwait(&t->changed, t->lock.native(), &until);
  }
  return false;
}

void deliver(const struct sigevent &event) {
  if (event.sigev_notify == SIGEV_THREAD)
    event.sigev_notify_function(event.sigev_value);
  else if (event.sigev_notify == SIGEV_SIGNAL)
    sigqueue(getpid(), event.sigev_signo, event.sigev_value);
}

void *timer_thread(void *arg) {
  auto *t = static_cast<timer_tree *>(arg);
  pthread_setname_np(pthread_self(), "timers");
  while (next_expiry(t)) deliver(t->event);
  return nullptr;
}

bool deliverable(const struct sigevent *event) {
  if (event == nullptr) return false;
  if (event->sigev_notify == SIGEV_THREAD) return event->sigev_notify_function != nullptr;
  return event->sigev_notify == SIGEV_SIGNAL || event->sigev_notify == SIGEV_NONE;
}

// The process's signals are for its other threads.
int start_thread(timer_tree *t) {
  sigset_t all, previous;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &previous);
  const int rc = pthread_create(&t->thread, nullptr, timer_thread, t);
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  return rc;
}

void init_condition(pthread_cond_t *cond) {
  pthread_condattr_t attributes;
  pthread_condattr_init(&attributes);
  pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
  pthread_cond_init(cond, &attributes);
  pthread_condattr_destroy(&attributes);
}

void *fail(int error) {
  errno = error;
  return nullptr;
}

}  // namespace

// Nobody else knows the tree yet.
void *mgd_timer_tree_new(struct sigevent *event, int) TARVO_NO_THREAD_SAFETY_ANALYSIS {
  if (!deliverable(event)) return fail(EINVAL);
  auto *t = new (std::nothrow) timer_tree;
  if (t == nullptr) return fail(ENOMEM);
  t->event = *event;
  wavl_init(&t->running, 1, 0, compare_deadlines);
  init_condition(&t->changed);

  const int rc = start_thread(t);
  if (rc == 0) return t;
  pthread_cond_destroy(&t->changed);
  delete t;
  return fail(rc);
}

// Once the thread has ended, nobody else uses the tree.
void mgd_timer_tree_destroy(void *tree) TARVO_NO_THREAD_SAFETY_ANALYSIS {
  auto *t = static_cast<timer_tree *>(tree);
  if (t == nullptr) return;
  t->lock.lock();
  t->ending = true;
  pthread_cond_signal(&t->changed);
  t->lock.unlock();
  pthread_join(t->thread, nullptr);

  for (mgd_timer_leaf_t *l = t->newest; l != nullptr;) {
    mgd_timer_leaf_t *older = l->older;
    delete l;
    l = older;
  }
  pthread_cond_destroy(&t->changed);
  delete t;
}

void *mgd_timer_leaf_new(void *tree, int, unsigned type, int) {
  auto *t = static_cast<timer_tree *>(tree);
  if (t == nullptr) return fail(EINVAL);
  auto *l = new (std::nothrow) mgd_timer_leaf_t{};
  if (l == nullptr) return fail(ENOMEM);
  l->tree = t;
  l->type = type;

  platform::hold held(t->lock);
  l->older = t->newest;
  l->serial = l->older == nullptr ? 0 : l->older->serial + 1;
  t->newest = l;
  return l;
}

void mgd_timer_leaf_start(mgd_timer_leaf_t *l, const struct timespec *delay) {
  platform::hold held(l->tree->lock);
  stop_leaf(l);
  l->deadline = deadline_after(delay);
  l->delivered = false;
  l->running = true;
  wavl_insert_thread(&l->tree->running, 0, l);
  pthread_cond_signal(&l->tree->changed);
}

void mgd_timer_leaf_stop(mgd_timer_leaf_t *l) {
  platform::hold held(l->tree->lock);
  stop_leaf(l);  // the thread wakes up at the old deadline and finds nothing to do
}

int mgd_timer_leaf_running(mgd_timer_leaf_t *l) {
  platform::hold held(l->tree->lock);
  return l->running;
}

void mgd_timer_leaf_remaining(mgd_timer_leaf_t *l, struct timespec *left) {
  platform::hold held(l->tree->lock);
  const int64_t nanoseconds = l->running ? l->deadline - now() : 0;
  *left = to_timespec(nanoseconds > 0 ? nanoseconds : 0);
}

mgd_timer_leaf_t *mgd_timer_tree_first_expired(void *tree) {
  auto *t = static_cast<timer_tree *>(tree);
  platform::hold held(t->lock);
  mgd_timer_leaf_t *l = first_running(t);
  if (l == nullptr) return nullptr;
  lock_is_held(l);
  return expired(l) ? l : nullptr;
}

unsigned mgd_timer_leaf_type(mgd_timer_leaf_t *l) { return l->type; }
