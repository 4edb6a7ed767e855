// The agent's lock type: std::mutex with the annotations that let the compiler check lock rules.
//
// `mutex` is a BasicLockable, so std::condition_variable_any waits on it directly.
#pragma once

#include <mutex>

#include "platform/thread_annotations.h"

namespace agent {

class TARVO_CAPABILITY("mutex") mutex {
 public:
  void lock() TARVO_ACQUIRE() { lock_.lock(); }
  void unlock() TARVO_RELEASE() { lock_.unlock(); }

 private:
  std::mutex lock_;
};

class TARVO_SCOPED_CAPABILITY scoped_lock {
 public:
  explicit scoped_lock(mutex &lock) TARVO_ACQUIRE(lock) : lock_(lock) { lock_.lock(); }
  ~scoped_lock() TARVO_RELEASE() { lock_.unlock(); }
  scoped_lock(const scoped_lock &) = delete;
  scoped_lock &operator=(const scoped_lock &) = delete;

 private:
  mutex &lock_;
};

}  // namespace agent
