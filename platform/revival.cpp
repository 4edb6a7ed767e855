// Revival of locks whose owner died. Everything is in the lock itself.
//
// Who holds the companion with the mark set is the reviver, and by that the lock's holder. The mark
// is changed only with the companion held, and read by the lock's users without it, hence atomic.
// At most one thread waits at a time, since it waits with `mutex` held.
#include "revival.h"

#include <errno.h>

namespace {

bool revival_pending(const guarded_mutex_t *g) {
  return __atomic_load_n(&g->revival_pending, __ATOMIC_ACQUIRE) != 0;
}

// Holding the companion, whose owner may have died (`rc` tells) between any two steps of ending
// the revival. Either the revival has ended, or it falls to the caller to end it.
int inherit(guarded_mutex_t *g, int rc) {
  if (rc == EOWNERDEAD) rc = pthread_mutex_consistent(&g->revival_mutex);
  if (rc != 0) return rc;
  if (!revival_pending(g)) return pthread_mutex_unlock(&g->revival_mutex);
  return pthread_mutex_unlock(&g->mutex);
}

}  // namespace

void rmx_revive_and_mark_mutex(void *lock) {
  auto *g = static_cast<guarded_mutex_t *>(lock);
  int rc = pthread_mutex_lock(&g->revival_mutex);
  if (rc == EOWNERDEAD) rc = pthread_mutex_consistent(&g->revival_mutex);
  pthread_mutex_consistent(&g->mutex);
  // Without the companion there is nothing to mark: the caller keeps `mutex`, which is sound again.
  if (rc != 0) return;

  __atomic_store_n(&g->revival_pending, 1, __ATOMIC_RELEASE);
  pthread_mutex_unlock(&g->mutex);
}

int rmx_wait_on_revival_condvar(void *lock) {
  auto *g = static_cast<guarded_mutex_t *>(lock);
  int rc = pthread_mutex_lock(&g->revival_mutex);
  if (rc == EDEADLK) return 0;  // the caller is the reviver
  // The mark decides, not the signal: that comes first, and may find nobody waiting.
  while (rc == 0 && revival_pending(g)) rc = pthread_cond_wait(&g->revival_cond, &g->revival_mutex);
  if (rc != 0 && rc != EOWNERDEAD) return rc;
  return inherit(g, rc);
}
