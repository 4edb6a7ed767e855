// The RIB's thread: one loop over sockets, jobs of other threads, and redistribution.
//
// The lock covers the jobs and what other threads wait for (its order stands in fence.h); the
// descriptors are the thread's own.
// A job is its caller's, who waits for it, so there are no more jobs than calling threads; the
// station bounds the descriptors.
#pragma once

#include <poll.h>

#include <condition_variable>
#include <cstdint>
#include <exception>
#include <functional>
#include <thread>
#include <vector>

#include "agent/mutex.h"

namespace agent {

class fence;
class progress;
class redistribution;
class rib;

class rib_thread {
 public:
  /// Starts the thread, which outlives nothing of what it is given.
  rib_thread(rib &routes, redistribution &reports, fence &pace);
  /// Ends it. Nobody waits in call() or settle() any more.
  ~rib_thread();
  rib_thread(const rib_thread &) = delete;
  rib_thread &operator=(const rib_thread &) = delete;

  /// Runs `job` on the RIB thread and returns when it is done; on that thread itself, at once. What
  /// the job throws is thrown here.
  void call(const std::function<void()> &job);

  /// Returns once every request queued before has been handled, with the dumps that it asked for
  /// (while the fence is closed: at once). Never from the RIB thread.
  void settle();
  /// Where settle() tells how far a dump is. Before settle() is called.
  void tell_progress_to(progress &dumps) { dumps_ = &dumps; }

  /// Calls `ready` whenever poll() reports `events` on `fd`. RIB thread only; both may be called
  /// from `ready`.
  void add_fd(int fd, short events, std::function<void(short revents)> ready);
  void remove_fd(int fd);

 private:
  struct job {
    const std::function<void()> &run;
    bool done = false;
    std::exception_ptr failure = nullptr;
    job *next = nullptr;
  };
  struct watched {
    std::function<void(short)> ready;
    bool removed = false;
  };

  void loop();
  void run_jobs();
  void serve_fds();
  void wake();
  void await_idle();

  rib &routes_;
  redistribution &reports_;
  fence &pace_;
  int wakeup_fd_;
  progress *dumps_ = nullptr;

  mutex lock_;
  std::condition_variable_any changed_;
  job *jobs_ TARVO_GUARDED_BY(lock_) = nullptr;  ///< the first of them
  uint32_t idle_waiters_ TARVO_GUARDED_BY(lock_) = 0;
  bool stop_ TARVO_GUARDED_BY(lock_) = false;
  uint64_t idles_ TARVO_GUARDED_BY(lock_) = 0;  ///< times that waiters found the RIB idle

  // The thread's own; the two run in parallel, since poll() wants its records in a row. The first
  // is the wake-up's.
  std::vector<pollfd> polled_;
  std::vector<watched> watched_;
  bool told_poll_ = false;
  bool told_memory_ = false;

  std::thread thread_;
};

}  // namespace agent
