#include "tests/interleave/scheduler.h"

#include <pthread.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <random>

#include "engine/state.h"
#include "engine/worker.h"
#include "tests/interleave/sanitizer.h"

constexpr int kMain = 4;
constexpr int kNobody = -1;

namespace {

struct modelled {
  pthread_mutex_t *mutex;
  const char *name;
  int owner = kNobody;
  bool orphaned = false;      ///< its owner died
  bool inconsistent = false;  ///< taken after that, and not made consistent yet
};

struct fiber {
  ucontext_t context;
  fiber_stack stack;
  modelled *wants = nullptr;              ///< blocked until it is free
  const pthread_cond_t *waits = nullptr;  ///< blocked until it is signalled, too
  bool done = true;
};

/// A choice on the way of run_all: the candidates and which was taken.
struct decision {
  int candidates[kMain + 1];
  int count;
  int taken;
};

}  // namespace

static modelled locks[] = {{&tarvo_nd_mutex.mutex, "nd"},
                           {&tarvo_nd_mutex.revival_mutex, "nd companion"},
                           {&tarvo_nd_workq_mutex.mutex, "workQ"},
                           {&tarvo_nd_workq_mutex.revival_mutex, "workQ companion"}};
static fiber fibers[kMain + 1];
static int self = kMain;
static const scenario *running;
static bool quitting;
static int steps;

static enum { kAll, kRandom, kAgain } mode;
static std::string schedule;  // the thread chosen at each choice so far
static std::string wanted;    // of kAgain
static std::vector<decision> path;
static size_t depth;
static int preemptions_left;
static std::minstd_rand random_numbers;
static unsigned reluctance;

// ------------------------------------------ Choice ------------------------------------------

void fail(const std::string &what) {
  fprintf(stderr, "interleave: %s\n  thread %d, again with: TARVO_SCHEDULE='%s:%s'\n", what.c_str(),
          self, running == nullptr ? "" : running->name.c_str(), schedule.c_str());
  _exit(1);
}

static int choose_systematically(const int *candidates, int count) {
  if (depth == path.size()) {
    path.push_back({{}, count, 0});
    std::copy_n(candidates, count, path.back().candidates);
  }
  const decision &d = path[depth++];
  require(d.count == count && std::equal(candidates, candidates + count, d.candidates),
          "a schedule ran differently the second time");
  return d.taken;
}

// The first `gratis` candidates cost nothing; a further one is a preemption or a wake-up for
// nothing.
static int choose(const int *candidates, int count, int gratis) {
  int taken = 0;
  if (mode == kAgain) {
    const char next = schedule.size() < wanted.size() ? wanted[schedule.size()] : '?';
    taken = std::max<int>(
        0, static_cast<int>(std::find(candidates, candidates + count, next - '0') - candidates));
    if (taken == count) taken = 0;
  } else if (mode == kRandom) {
    const bool stay = gratis != 0 && random_numbers() % reluctance != 0;
    taken = static_cast<int>(random_numbers() % static_cast<unsigned>(stay ? gratis : count));
  } else if (const int affordable = preemptions_left > 0 ? count : gratis; affordable > 1) {
    taken = choose_systematically(candidates, affordable);
  }
  if (taken >= gratis) --preemptions_left;
  schedule += static_cast<char>('0' + candidates[taken]);
  return candidates[taken];
}

static bool wanted_is_free(const fiber &f) {
  return f.wants == nullptr || f.wants->owner == kNobody;
}

static void switch_to(int next) {
  fiber &from = fibers[self];
  self = next;
  switch_begins(from.stack, fibers[next].stack);
  swapcontext(&from.context, &fibers[next].context);
  switch_ended(from.stack);
}

static bool waits_for_work(const fiber &f) {
  return f.waits != nullptr && f.waits != &tarvo_nd_mutex.revival_cond &&
         f.waits != &tarvo_nd_workq_mutex.revival_cond;
}

// Nobody can run: the run is over, or only the worker is left, or something went wrong.
static int nobody_can_run() {
  int next = kMain;
  for (int i = 0; i < kMain; ++i) {
    if (fibers[i].done) continue;
    require(waits_for_work(fibers[i]) && next == kMain, "deadlock");
    next = i;
  }
  if (next == kMain) return next;
  require(!work_queued(), "lost wake-up: work is queued, and the worker waits");
  quitting = true;
  return next;
}

// The running fiber has come to a point, or cannot go on.
static void go_on() {
  int candidates[kMain + 1];
  int count = 0;
  const auto add = [&](bool waiting) {
    for (int i = 0; i < kMain; ++i) {
      const fiber &f = fibers[i];
      if (i != self && !f.done && (f.waits != nullptr) == waiting && wanted_is_free(f))
        candidates[count++] = i;
    }
  };
  const fiber &me = fibers[self];
  const bool able = self != kMain && !me.done && me.waits == nullptr && wanted_is_free(me);
  if (able) candidates[count++] = self;
  add(false);
  const int gratis = able ? 1 : count;
  int next = 0;
  if (count == 0) {
    next = nobody_can_run();
  } else {
    add(true);
    next = count == 1 ? candidates[0] : choose(candidates, count, gratis);
  }
  fibers[next].waits = nullptr;
  if (next != self) switch_to(next);
}

void point(const char *what) {
  if (self == kMain) return;
  if (mode == kAgain) fprintf(stderr, "%*s%d %s\n", self * 20, "", self, what);
  require(++steps < 10000, "a schedule does not end");
  go_on();
}

// ------------------------------------------- Runs -------------------------------------------

void worker() {
  while (!quitting) tarvo_nd_work_round();
}

static void fiber_life() {
  first_switch_ended(fibers[kMain].stack);
  switch_to(kMain);
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

static void died(int) { fail("the process was ended"); }

static void create_fibers() {
  constexpr size_t kStack = 256 * 1024;
  on_sanitizer_report([] { fail("a sanitizer's report, above"); });
  signal(SIGSEGV, died);
  signal(SIGABRT, died);
  for (int i = 0; i < kMain; ++i) {
    fiber &f = fibers[i];
    f.stack = {new char[kStack], kStack, nullptr};
    getcontext(&f.context);
    f.context.uc_stack.ss_sp = f.stack.bottom;
    f.context.uc_stack.ss_size = kStack;
    makecontext(&f.context, fiber_life, 0);
    switch_to(i);
  }
}

static void run(const scenario &s) {
  if (fibers[0].stack.bottom == nullptr) create_fibers();
  running = &s;
  quitting = false;
  steps = 0;
  depth = 0;
  schedule.clear();
  begin_run();
  if (s.prepare) s.prepare();
  for (size_t i = 0; i < s.threads.size(); ++i) fibers[i].done = false;
  go_on();
  if (s.check) s.check();
  end_run();
  for (const modelled &m : locks)
    require(m.owner == kNobody && !m.orphaned, "a lock is held or broken after the run");
  running = nullptr;
}

// The next way: the last choice that has another candidate takes it.
static bool next_path() {
  while (!path.empty() && path.back().taken + 1 == path.back().count) path.pop_back();
  if (path.empty()) return false;
  ++path.back().taken;
  return true;
}

uint64_t run_all(const scenario &s, int preemptions) {
  mode = kAll;
  path.clear();
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

static bool held(const modelled &mutex, const modelled &companion, const guarded_mutex_t &lock) {
  return (lock.revival_pending != 0 ? companion : mutex).owner == self;
}

bool nd_held() { return held(locks[0], locks[1], tarvo_nd_mutex); }
bool workq_held() { return held(locks[2], locks[3], tarvo_nd_workq_mutex); }

static modelled &model_of(const pthread_mutex_t *mutex) {
  for (modelled &m : locks)
    if (m.mutex == mutex) return m;
  fail("an unknown mutex");
}

static modelled &reach(const pthread_mutex_t *mutex, const char *operation) {
  modelled &m = model_of(mutex);
  if (mode == kAgain && self != kMain) fprintf(stderr, "%d  of the %s mutex:\n", self, m.name);
  point(operation);
  return m;
}

static modelled &reach_lock(const pthread_mutex_t *mutex, const char *operation) {
  require(mutex != &tarvo_nd_mutex.mutex || !workq_held(),
          "lock order: the nd mutex inside the workQ mutex");
  return reach(mutex, operation);
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
  modelled &m = reach(mutex, "unlock");
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
  modelled &m = reach(mutex, "wait");
  if (m.owner != self) return EPERM;
  release(m);
  fibers[self].wants = &m;
  fibers[self].waits = cond;
  go_on();
  return take(m);
}

extern "C" int __wrap_pthread_cond_signal(pthread_cond_t *cond) {
  point("signal");
  if (cond == &tarvo_nd_mutex.revival_cond) check_timers();
  for (fiber &f : fibers) {
    if (f.waits != cond) continue;
    f.waits = nullptr;
    break;
  }
  return 0;
}
