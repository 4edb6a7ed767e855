// The two timers of the refresh cycle, of which one runs while discovery is active.
//
// The refresh phase ends in a refresh request and starts the clear phase; the clear phase ends in
// a clear request and starts the refresh phase. Leaves are started and stopped with the nd mutex
// held. The next phase starts when the previous one expires, not when the worker has done its
// work, so the cycle keeps its length.
#pragma once

#include <csignal>
#include <cstdint>

#include "engine/state.h"

/// Seconds of the two phases of a cycle.
struct tarvo_nd_phases {
  uint32_t refresh;
  uint32_t clear;
};

/// How an interval divides into phases.
constexpr tarvo_nd_phases tarvo_nd_phases_of(uint32_t interval) {
  constexpr uint32_t kLongestClear = 29;
  const uint32_t clear = interval < kLongestClear ? interval / 2 : kLongestClear;
  return {interval - clear, clear};
}

/// Build the tree, then its two leaves, at start-up before any other thread. False with errno set.
[[nodiscard]] bool tarvo_nd_timer_tree_create(sigevent *event);
[[nodiscard]] bool tarvo_nd_refresh_timer_create();
[[nodiscard]] bool tarvo_nd_clear_timer_create();

/// Handles every expired leaf. On the thread that dispatches the agent's event manager.
int tarvo_nd_timer_handler(void *context);

/// Seconds until the current cycle ends; negative while discovery is inactive, and while more than
/// 2^31 - 1 are left. Any thread.
int32_t tarvo_nd_get_refresh_interval_remaining() TARVO_EXCLUDES(tarvo_nd_mutex);

/// Starts one phase, of the length that the interval gives it now. The other leaf is stopped. The
/// refresh phase returns that interval.
uint32_t tarvo_nd_start_refresh_phase() TARVO_REQUIRES(tarvo_nd_mutex);
void tarvo_nd_start_clear_phase() TARVO_REQUIRES(tarvo_nd_mutex);

/// Stops the leaf that runs, if any.
void tarvo_nd_stop_running_timers() TARVO_REQUIRES(tarvo_nd_mutex);

/// Begins a refresh phase, whichever phase runs.
void tarvo_nd_restart_cycle() TARVO_REQUIRES(tarvo_nd_mutex);

/// Stops both leaves without a test.
void tarvo_nd_stop_timers() TARVO_REQUIRES(tarvo_nd_mutex);
