#include "engine/guarded_mutex.h"

#include <atomic>
#include <cerrno>
#include <ctime>

#include "engine/log.h"
#include "engine/state.h"
#include "platform/thread_diag.h"

static std::atomic_ref<int32_t> pending(guarded_mutex_t *lock) {
  return std::atomic_ref<int32_t>(lock->revival_pending);
}

static void report_lock(const guarded_mutex_t *lock, int error) {
  tarvo_nd_log_internal(
      lock == &tarvo_nd_mutex ? "Cannot lock nd mutex, error" : "Cannot lock workQ mutex, error",
      error);
}

static void report_unlock(const guarded_mutex_t *lock, int error) {
  tarvo_nd_log_internal(lock == &tarvo_nd_mutex ? "Cannot unlock nd mutex, error"
                                                : "Cannot unlock workQ mutex, error",
                        error);
}

// The lock is busy, or the trylock failed in a way that the blocking call will tell better.
static int lock_blocking(guarded_mutex_t *lock, const char *caller, int line) {
  ptd_set_mutex_block(lock, caller, line);
  const int result = pthread_mutex_lock(&lock->mutex);
  ptd_unset_mutex_block();
  return result;
}

void guarded_mutex_lock(guarded_mutex_t *lock, const char *caller,
                        int line) TARVO_NO_THREAD_SAFETY_ANALYSIS {
  int result = pthread_mutex_trylock(&lock->mutex);
  if (result != 0 && result != EOWNERDEAD) {
    result = lock_blocking(lock, caller, line);
    if (result != 0 && result != EOWNERDEAD) {
      report_lock(lock, result);
      return;
    }
  }
  if (result == EOWNERDEAD) rmx_revive_and_mark_mutex(lock);

  // The reviver comes through here too; the platform lets it pass at once.
  if (pending(lock).load() != 0) {
    const int error = rmx_wait_on_revival_condvar(lock);
    if (error != 0) report_lock(lock, error);
  }
}

// What the fatal assertions of an unlock print.
static const char kCondition[] = "retcode == EOK";

static void end_revival(guarded_mutex_t *lock) {
  tarvo_nd_require_ok(pthread_cond_signal(&lock->revival_cond), 350, kCondition);
  pending(lock).store(0);
  tarvo_nd_require_ok(pthread_mutex_unlock(&lock->revival_mutex), 355, kCondition);
}

// During a revival the reviver holds the companion, not the lock proper, so who holds the
// companion decides what an unlock means. The time in the past makes the probe return at once.
static void unlock_during_revival(guarded_mutex_t *lock) {
  const timespec past = {};
  const int probe = pthread_mutex_timedlock(&lock->revival_mutex, &past);
  switch (probe) {
    case EDEADLK:
      end_revival(lock);
      return;
    case 0:
      tarvo_nd_require_ok(pthread_mutex_unlock(&lock->revival_mutex), 341, kCondition);
      report_unlock(lock, EPERM);
      return;
    case ETIMEDOUT:
    case EBUSY:
      report_unlock(lock, EPERM);
      return;
    default:
      report_unlock(lock, probe);
  }
}

void guarded_mutex_unlock(guarded_mutex_t *lock) TARVO_NO_THREAD_SAFETY_ANALYSIS {
  if (pending(lock).load() != 0) {
    unlock_during_revival(lock);
    return;
  }
  const int result = pthread_mutex_unlock(&lock->mutex);
  if (result != 0) report_unlock(lock, result);
}
