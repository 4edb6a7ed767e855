// Every interleaving: the module's threads as fibers of one thread, of which the scheduler chooses
// the next one at every point where the choice can matter.
//
// Points stand before and after what threads share: the locks' pthread calls, the words of
// engine/shared_words.h, the timer tree's question. Mutexes and conditions are models, so a blocked
// fiber is one that cannot be chosen; when none can, and not all are done, it is a deadlock or a
// lost wake-up. The main fiber prepares and clears up alone, between the runs.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

struct scenario {
  std::string name;
  std::function<void()> prepare;               ///< on the main fiber, from the standing state
  std::vector<std::function<void()>> threads;  ///< at most four
  std::function<void()> check;                 ///< on the main fiber, when all are done
  bool deaths = false;                         ///< threads end while they hold a lock
};

/// Another thread may go on here. Not a point on the main fiber.
void point(const char *what);

/// Whether the running thread holds a lock, be it by the mutex or by its companion.
bool nd_held();
bool workq_held();

/// Reports the schedule that led here and ends the process.
[[noreturn]] void fail(const std::string &what);
inline void require(bool holds, const char *what) {
  if (!holds) fail(what);
}

/// The worker's thread. It ends when nobody is left who could give it work.
void worker();

/// Runs every schedule with at most that many preemptions (or wake-ups without a signal); returns
/// how many there were.
uint64_t run_all(const scenario &s, int preemptions);
void run_random(const scenario &s, uint64_t seed);
/// Runs a schedule as fail() printed it, and traces it.
void run_again(const scenario &s, const std::string &schedule);

/// Of the world: brings the module to the standing state and back to the state after load.
void begin_run();
void end_run();
/// Of the world: called whenever the nd mutex changes hands, and to see whether work is queued.
void check_timers();
bool work_queued();
