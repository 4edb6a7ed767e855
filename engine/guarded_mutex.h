// The guarded discipline: the one way in which the module takes and releases its locks.
//
// It never fails to its caller: what goes wrong is logged, and the caller goes on. A lock that has
// to block is announced to the platform's blocked-thread diagnostics under the caller's name. When
// the previous owner died holding the lock, the taker revives it (platform/revival.h).
#pragma once

#include "platform/revival.h"

/// Takes `lock` for the operation `caller` (static storage) at `line`.
void guarded_mutex_lock(guarded_mutex_t *lock, const char *caller, int line) TARVO_ACQUIRE(*lock);

/// Releases `lock`, or ends the revival that the caller began.
void guarded_mutex_unlock(guarded_mutex_t *lock) TARVO_RELEASE(*lock);

/// Holds a lock for a scope.
class TARVO_SCOPED_CAPABILITY guarded_lock {
 public:
  guarded_lock(guarded_mutex_t &lock, const char *caller, int line = __builtin_LINE())
      TARVO_ACQUIRE(lock)
      : lock_(lock) {
    guarded_mutex_lock(&lock_, caller, line);
  }
  ~guarded_lock() TARVO_RELEASE() { guarded_mutex_unlock(&lock_); }
  guarded_lock(const guarded_lock &) = delete;
  guarded_lock &operator=(const guarded_lock &) = delete;

 private:
  guarded_mutex_t &lock_;
};
