// Every interleaving: the module's threads as fibers of one thread, of which the scheduler chooses
// the next one at every point where it can matter: around the locks' pthread calls, at the words of
// engine/shared_words.h, at the timer tree's question. Mutexes and conditions are models, so a
// blocked fiber is one that cannot be chosen; when none can, it is a deadlock or a lost wake-up.
// The main fiber prepares and clears up alone, between the runs.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "engine/state.h"

using steps = std::function<void()>;

struct scenario {
  std::string name;
  steps prepare;               ///< on the main fiber, from the standing state
  std::vector<steps> threads;  ///< at most four
  steps check;                 ///< on the main fiber, when all are done
  bool deaths = false;         ///< threads end while they hold a lock
  int deeper = 0;              ///< preemptions beyond those asked for, where few find nothing
};

// ---- scheduler.cpp ----

/// Another thread may go on here. Not a point on the main fiber.
void point(const char *what);
/// Whether the running thread holds the lock, be it by the mutex or by its companion.
bool holds(const guarded_mutex_t &lock);
/// Reports the schedule that led here and ends the process.
[[noreturn]] void fail(const char *what);
inline void require(bool met, const char *what) {
  if (!met) fail(what);
}

/// The worker's thread. It ends when nobody is left who could give it work.
void worker();
/// Runs every schedule with at most that many preemptions, or wake-ups for nothing; counts them.
uint64_t run_all(const scenario &s, int preemptions);
void run_random(const scenario &s, uint64_t seed);
/// Runs a schedule as fail() printed it, and traces it.
void run_again(const scenario &s, const std::string &schedule);

// ---- world.cpp: the surroundings, which check what must hold at every call ----

constexpr uint32_t kHop1 = 0x0100000a, kHop2 = 0x0200000a;  ///< 10.0.0.1, 10.0.0.2
constexpr uint32_t kIntervals[] = {300, 10, 1};             ///< of start-up, of the setters

void create_world();
/// Standing state: client 1 for all VPNs and client 2 for A; tables 7 (A) and 8 (B); 10.0.0.1 by
/// table 7, 10.0.0.2 by both. The end brings back the state after load.
void begin_run();
void end_run();
/// One timer runs exactly while discovery is active. Called when the nd mutex changes hands.
void check_timers();
bool work_queued();
int32_t nhop_count();

/// The running timer expires, and the event's thread handles it.
void expire();
void tell(uint32_t client_id, uint32_t event, const void *data);
/// Of the current run: ENDs told, and work requests by fate.
extern int ends, offered, handled, purged;
