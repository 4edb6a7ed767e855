#include <pthread.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <random>

#include "engine/worker.h"
#include "tests/interleave/interleave.h"

constexpr int kMain = 4;
constexpr int kNobody = -1;

namespace {

struct modelled {
  pthread_mutex_t *mutex;
  int owner = kNobody;
  bool orphaned = false;      ///< its owner died
  bool inconsistent = false;  ///< taken after that, and not made consistent yet
};

struct fiber {
  ucontext_t context;
  const modelled *wants = nullptr;        ///< blocked until it is free
  const pthread_cond_t *waits = nullptr;  ///< blocked until it is signalled, too
  bool done = true;
};

struct decision {
  int count, taken;
};

}  // namespace

static modelled locks[] = {{&tarvo_nd_mutex.mutex},
                           {&tarvo_nd_mutex.revival_mutex},
                           {&tarvo_nd_workq_mutex.mutex},
                           {&tarvo_nd_workq_mutex.revival_mutex}};
static fiber fibers[kMain + 1];
static int self = kMain;
static const scenario *running;
static bool quitting;
static int points;

static enum { kAll, kRandom, kAgain } mode;
static std::string schedule, wanted;  // the thread at each choice: so far, and of kAgain
static std::vector<decision> path;    // of kAll
static size_t depth;
static int preemptions_left;
static std::minstd_rand random_numbers;
static unsigned reluctance;

// ------------------------------------------ Choice ------------------------------------------

void fail(const char *what) {
  fprintf(stderr, "interleave: %s\n  thread %d, again with: TARVO_SCHEDULE='%s:%s'\n", what, self,
          running == nullptr ? "" : running->name.c_str(), schedule.c_str());
  _exit(1);
}

static int next_on_path(int count) {
  if (depth == path.size()) path.push_back({count, 0});
  require(path[depth].count == count, "a schedule ran differently the second time");
  return path[depth++].taken;
}

// The first `gratis` candidates cost nothing; the others are a preemption or a wake-up for nothing.
static int choose(const int *candidates, int count, int gratis) {
  int taken = 0;
  if (mode == kAgain) {
    const int next = schedule.size() < wanted.size() ? wanted[schedule.size()] - '0' : kNobody;
    const int *found = std::find(candidates, candidates + count, next);
    if (found != candidates + count) taken = static_cast<int>(found - candidates);
  } else if (mode == kRandom) {
    const bool stays = gratis != 0 && random_numbers() % reluctance != 0;
    taken = static_cast<int>(random_numbers() % static_cast<unsigned>(stays ? gratis : count));
  } else if (const int affordable = preemptions_left > 0 ? count : gratis; affordable > 1) {
    taken = next_on_path(affordable);
  }
  if (taken >= gratis) --preemptions_left;
  schedule += static_cast<char>('0' + candidates[taken]);
  return candidates[taken];
}

// The run is over, or only the worker is left, or something went wrong.
static int nobody_can_run() {
  int next = kMain;
  for (int i = 0; i < kMain; ++i) {
    if (fibers[i].done) continue;
    const pthread_cond_t *waits = fibers[i].waits;
    require(next == kMain && waits != nullptr && waits != &tarvo_nd_mutex.revival_cond, "deadlock");
    next = i;
  }
  require(next == kMain || !work_queued(), "lost wake-up: work is queued, and the worker waits");
  quitting = true;
  return next;
}

static bool is_free(const modelled *m) { return m == nullptr || m->owner == kNobody; }

static int next_to_run() {
  int candidates[kMain + 1];
  int count = 0;
  const auto add = [&](bool others, bool waiting) {
    for (int i = 0; i < kMain; ++i) {
      const fiber &f = fibers[i];
      if ((i != self) == others && (f.waits != nullptr) == waiting && !f.done && is_free(f.wants))
        candidates[count++] = i;
    }
  };
  add(false, false);
  const bool able = count != 0;
  add(true, false);
  if (count == 0) return nobody_can_run();
  const int gratis = able ? 1 : count;
  add(true, true);
  return count == 1 ? candidates[0] : choose(candidates, count, gratis);
}

static void switch_to(int next) {
  fiber &from = fibers[self];
  self = next;
  swapcontext(&from.context, &fibers[next].context);
}

// The running fiber has come to a point, or cannot go on.
static void go_on() {
  const int next = next_to_run();
  fibers[next].waits = nullptr;
  if (next != self) switch_to(next);
}

void point(const char *what) {
  if (self == kMain) return;
  if (mode == kAgain) fprintf(stderr, "%*s%d %s\n", self * 20, "", self, what);
  require(++points < 10000, "a schedule does not end");
  go_on();
}

// ------------------------------------------- Runs -------------------------------------------

void worker() {
  while (!quitting) tarvo_nd_work_round();
}

static void fiber_life() {
  for (;;) {
    running->threads[static_cast<size_t>(self)]();
    for (modelled &m : locks) {
      if (m.owner != self) continue;
      require(running->deaths, "a thread ends with a lock held");
      m.owner = kNobody;
      m.orphaned = true;
    }
    fibers[self].done = true;
    go_on();
  }
}

static void create_fiber(ucontext_t *context, char *stack, size_t size) {
  getcontext(context);
  context->uc_stack = {stack, 0, size};
  makecontext(context, fiber_life, 0);
}

static void create_fibers() {
  static char stacks[kMain][256 * 1024];
  for (int i = 0; i < kMain; ++i) create_fiber(&fibers[i].context, stacks[i], sizeof stacks[i]);
  for (int number : {SIGSEGV, SIGABRT}) signal(number, [](int) { fail("the process ends"); });
}

static void run(const scenario &s) {
  if (running == nullptr) create_fibers();
  running = &s;
  quitting = false;
  points = 0;
  depth = 0;
  schedule.clear();
  begin_run();
  s.prepare();
  for (size_t i = 0; i < s.threads.size(); ++i) fibers[i].done = false;
  go_on();
  s.check();
  end_run();
  for (const modelled &m : locks)
    require(m.owner == kNobody && !m.orphaned, "a lock is held or broken after the run");
}

// The last choice that has another candidate takes it.
static bool next_path() {
  while (!path.empty() && path.back().taken + 1 == path.back().count) path.pop_back();
  if (path.empty()) return false;
  ++path.back().taken;
  return true;
}

uint64_t run_all(const scenario &s, int preemptions) {
  mode = kAll;
  uint64_t count = 0;
  do {
    preemptions_left = preemptions;
    run(s);
    ++count;
  } while (next_path());
  return count;
}

void run_random(const scenario &s, uint64_t seed) {
  mode = kRandom;
  random_numbers.seed(static_cast<unsigned>(seed % 2147483646 + 1));
  reluctance = 2u << random_numbers() % 5;
  run(s);
}

void run_again(const scenario &s, const std::string &again) {
  mode = kAgain;
  wanted = again;
  run(s);
}

// ------------------------------------------- Locks -------------------------------------------

static modelled &model_of(const pthread_mutex_t *mutex) {
  for (modelled &m : locks)
    if (m.mutex == mutex) return m;
  fail("an unknown mutex");
}

bool holds(const guarded_mutex_t &lock) {
  return model_of(lock.revival_pending != 0 ? &lock.revival_mutex : &lock.mutex).owner == self;
}

static modelled &reach_lock(const pthread_mutex_t *mutex, const char *operation) {
  require(mutex != &tarvo_nd_mutex.mutex || !holds(tarvo_nd_workq_mutex),
          "lock order: the nd mutex inside the workQ mutex");
  point(operation);
  return model_of(mutex);
}

static int take(modelled &m) {
  fibers[self].wants = nullptr;
  m.owner = self;
  m.inconsistent = m.orphaned;
  m.orphaned = false;
  const int result = m.inconsistent ? EOWNERDEAD : 0;
  // The mark of a revival is read next, and it changes without this mutex.
  if (running->deaths) point("taken");
  return result;
}

static void release(modelled &m) {
  require(!m.inconsistent, "a lock is released before it is sound");
  if (m.mutex == &tarvo_nd_mutex.mutex) check_timers();
  m.owner = kNobody;
}

extern "C" int __wrap_pthread_mutex_trylock(pthread_mutex_t *mutex) {
  modelled &m = reach_lock(mutex, "trylock");
  return m.owner == kNobody ? take(m) : EBUSY;
}

extern "C" int __wrap_pthread_mutex_lock(pthread_mutex_t *mutex) {
  modelled &m = reach_lock(mutex, "lock");
  if (m.owner == self) return EDEADLK;
  fibers[self].wants = &m;
  if (m.owner != kNobody) go_on();
  return take(m);
}

// The module's time limit is always past.
extern "C" int __wrap_pthread_mutex_timedlock(pthread_mutex_t *mutex, const timespec *) {
  modelled &m = reach_lock(mutex, "timedlock");
  if (m.owner == self) return EDEADLK;
  return m.owner == kNobody ? take(m) : ETIMEDOUT;
}

extern "C" int __wrap_pthread_mutex_unlock(pthread_mutex_t *mutex) {
  point("unlock");
  modelled &m = model_of(mutex);
  if (m.owner != self) return EPERM;
  release(m);
  point("unlocked");
  return 0;
}

extern "C" int __wrap_pthread_mutex_consistent(pthread_mutex_t *mutex) {
  model_of(mutex).inconsistent = false;
  return 0;
}

extern "C" int __wrap_pthread_cond_wait(pthread_cond_t *cond, pthread_mutex_t *mutex) {
  point("wait");
  modelled &m = model_of(mutex);
  if (m.owner != self) return EPERM;
  release(m);
  fibers[self].wants = &m;
  fibers[self].waits = cond;
  go_on();
  return take(m);
}

extern "C" int __wrap_pthread_cond_signal(pthread_cond_t *cond) {
  point("signal");
  // The end of a revival, after which the mutex, free all along, decides who holds the lock.
  if (cond == &tarvo_nd_mutex.revival_cond) check_timers();
  for (fiber &f : fibers) {
    if (f.waits != cond) continue;
    f.waits = nullptr;
    break;
  }
  return 0;
}
