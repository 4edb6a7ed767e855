// Lock and condition of the platform's own sources, in a form that Clang's analysis can follow.
//
// Both are constant-initialised and never destroyed, so globals made of them work from the first
// constructor of the process to its last destructor.
#pragma once

#include <pthread.h>

#include "thread_annotations.h"

namespace platform {

class TARVO_CAPABILITY("mutex") mutex {
 public:
  void lock() TARVO_ACQUIRE() { pthread_mutex_lock(&native_); }
  void unlock() TARVO_RELEASE() { pthread_mutex_unlock(&native_); }
  pthread_mutex_t *native() { return &native_; }

 private:
  pthread_mutex_t native_ = PTHREAD_MUTEX_INITIALIZER;
};

class TARVO_SCOPED_CAPABILITY hold {
 public:
  explicit hold(mutex &m) TARVO_ACQUIRE(m) : mutex_(m) { mutex_.lock(); }
  ~hold() TARVO_RELEASE() { mutex_.unlock(); }
  hold(const hold &) = delete;
  hold &operator=(const hold &) = delete;

 private:
  mutex &mutex_;
};

}  // namespace platform
