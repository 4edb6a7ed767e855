// Fence: tells when the module has handled everything queued so far, and paces the RIB thread.
//
// It is a client of the module under a VRF name that no table can have: its resend brings
// RESEND_END and nothing else, in queue order. It is registered while anyone watches. The lock
// covers the counters; it is held while a resend is queued, so that tickets are numbered in queue
// order, and never while waiting.
//
// Order of locks, of the agent and the module: nd mutex, this lock (pass() holds it while a burst
// is queued), the redistribution's, the module's workQ mutex. The RIB thread's lock comes before
// the redistribution's, and is taken with none of the others held. Clang's analysis cannot follow
// the order through callbacks.
//
// Reports are queued in bursts, and one of the two threads works on the queue at a time: together
// they would wait for each other's lock and cache lines at each report, which costs twice the CPU
// and no less time. So the lock is held while a burst is queued, behind a fence at which the worker
// waits, and the next burst waits until the worker is through with this one. There is one fence a
// process, since the module's callback carries no context.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>

#include "agent/mutex.h"

namespace agent {

class fence {
 public:
  /// The fence's own client ID; no watch may use it.
  static constexpr uint32_t kClientId = 0xffffffff;

  fence();
  ~fence();
  fence(const fence &) = delete;
  fence &operator=(const fence &) = delete;

  /// Registers the fence with the module, and returns when the module has it; before the first
  /// watcher registers. False: the module had no memory for it, and the fence stays closed. Not
  /// from the RIB thread.
  bool open();
  /// Waits for what is outstanding and unregisters it; after the last watcher unregistered. Not
  /// from the RIB thread.
  void close();
  bool is_open() const;

  /// Returns once every request queued before the call has been handled. At once while closed.
  void wait();

  /// Whether the worker takes requests: with the fence, once what was queued before is handled,
  /// however long it takes; while closed, a request of no effect has to leave the queue soon. Not
  /// from the RIB thread.
  bool module_answers();

  /// Queues a burst of reports by `hand_over`, which must not call the fence, once the burst before
  /// is handled. False: closed, so that the reports would reach nobody.
  bool pass(const std::function<void()> &hand_over);

 private:
  static void on_event(uint32_t client_id, uint32_t event, const void *data);
  void handle(uint32_t event);
  void issue() TARVO_REQUIRES(lock_);
  void await(uint64_t ticket) TARVO_REQUIRES(lock_);

  mutable mutex lock_;
  std::condition_variable_any changed_;
  bool open_ TARVO_GUARDED_BY(lock_) = false;
  bool registered_ TARVO_GUARDED_BY(lock_) = false;
  uint64_t issued_ TARVO_GUARDED_BY(lock_) = 0;   ///< resends queued
  uint64_t handled_ TARVO_GUARDED_BY(lock_) = 0;  ///< RESEND_ENDs seen
  uint64_t burst_ TARVO_GUARDED_BY(lock_) = 0;    ///< the last burst's ticket
};

}  // namespace agent
