// Revival of robust locks whose owners die, also while they revive or wait.
#include "platform/revival.h"

#include <errno.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

void init_robust(pthread_mutex_t *mutex) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
  pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
  pthread_mutex_init(mutex, &attributes);
}

bool pending(guarded_mutex_t *g) {
  return __atomic_load_n(&g->revival_pending, __ATOMIC_SEQ_CST) != 0;
}

// The lock and unlock that the service is made for.
struct robust_lock : guarded_mutex_t {
  robust_lock() : guarded_mutex_t{} {
    init_robust(&mutex);
    init_robust(&revival_mutex);
    pthread_cond_init(&revival_cond, nullptr);
  }
  void lock() {
    const int rc = pthread_mutex_lock(&mutex);
    if (rc == EOWNERDEAD)
      rmx_revive_and_mark_mutex(this);
    else
      ASSERT_EQ(rc, 0);
    if (pending(this)) {
      ASSERT_EQ(rmx_wait_on_revival_condvar(this), 0);
    }
  }
  void unlock() {
    if (!pending(this)) {
      ASSERT_EQ(pthread_mutex_unlock(&mutex), 0);
      return;
    }
    const struct timespec never = {0, 0};
    ASSERT_EQ(pthread_mutex_timedlock(&revival_mutex, &never), EDEADLK) << "not the reviver";
    pthread_cond_signal(&revival_cond);
    __atomic_store_n(&revival_pending, 0, __ATOMIC_SEQ_CST);
    ASSERT_EQ(pthread_mutex_unlock(&revival_mutex), 0);
  }
  // Whether another thread could take `mutex` now.
  bool mutex_is_free() {
    bool free = false;
    std::thread([&] {
      free = pthread_mutex_trylock(&mutex) == 0;
      if (free) pthread_mutex_unlock(&mutex);
    }).join();
    return free;
  }
  void kill_owner() {
    std::thread([this] { lock(); }).join();
  }
};

TEST(Revival, OthersWaitUntilTheReviverEndsIt) {
  robust_lock g;
  g.kill_owner();
  g.lock();
  ASSERT_TRUE(pending(&g));
  EXPECT_TRUE(g.mutex_is_free()) << "the unlock does not touch it, so reviving released it";
  EXPECT_EQ(rmx_wait_on_revival_condvar(&g), 0) << "the reviver itself goes on at once";

  bool revival_over = false;  // plain: the lock covers it
  std::thread other([&] {
    g.lock();
    EXPECT_TRUE(revival_over);
    EXPECT_FALSE(pending(&g));
    EXPECT_FALSE(g.mutex_is_free());
    g.unlock();
  });
  while (g.mutex_is_free()) std::this_thread::yield();  // until the other one holds it and waits
  revival_over = true;
  g.unlock();
  other.join();

  g.lock();
  EXPECT_FALSE(pending(&g)) << "an ordinary lock again";
  g.unlock();
}

TEST(Revival, AReviverThatDiesIsReplaced) {
  robust_lock g;
  g.kill_owner();
  g.kill_owner();  // this one revives and dies
  ASSERT_TRUE(pending(&g));
  g.lock();
  EXPECT_TRUE(pending(&g));
  EXPECT_TRUE(g.mutex_is_free());
  g.unlock();
  EXPECT_FALSE(pending(&g));
}

// The reviver died between clearing the mark and releasing the companion.
TEST(Revival, ARevivalThatEndedHalfWayIsOver) {
  robust_lock g;
  ASSERT_EQ(pthread_mutex_lock(&g.mutex), 0);
  std::thread([&] { pthread_mutex_lock(&g.revival_mutex); }).join();
  EXPECT_EQ(rmx_wait_on_revival_condvar(&g), 0);
  EXPECT_FALSE(g.mutex_is_free()) << "the lock is held by way of `mutex`";
  g.unlock();
  EXPECT_EQ(pthread_mutex_lock(&g.revival_mutex), 0);
  pthread_mutex_unlock(&g.revival_mutex);
}

// A waiter that finds the mark set and the companion free waits for the mark, not for the signal.
TEST(Revival, AWaitFollowsTheMark) {
  robust_lock g;
  __atomic_store_n(&g.revival_pending, 1, __ATOMIC_SEQ_CST);
  std::thread waiter([&] {
    g.lock();
    g.unlock();
  });
  while (g.mutex_is_free()) std::this_thread::yield();
  ASSERT_EQ(pthread_mutex_lock(&g.revival_mutex), 0);
  pthread_cond_signal(&g.revival_cond);
  __atomic_store_n(&g.revival_pending, 0, __ATOMIC_SEQ_CST);
  pthread_mutex_unlock(&g.revival_mutex);
  waiter.join();
}

TEST(Revival, AWaitThatFailsSaysWhy) {
  robust_lock g;
  std::thread([&] { pthread_mutex_lock(&g.revival_mutex); }).join();
  ASSERT_EQ(pthread_mutex_lock(&g.revival_mutex), EOWNERDEAD);
  pthread_mutex_unlock(&g.revival_mutex);  // without making it consistent: it is lost
  pthread_mutex_lock(&g.mutex);
  EXPECT_EQ(rmx_wait_on_revival_condvar(&g), ENOTRECOVERABLE);
  pthread_mutex_unlock(&g.mutex);

  g.kill_owner();
  g.lock();
  EXPECT_FALSE(pending(&g)) << "without the companion the reviver keeps `mutex`";
  EXPECT_FALSE(g.mutex_is_free());
  g.unlock();
}

TEST(Revival, ExcludesWhoeverDies) {
  constexpr int kRounds = 150, kThreads = 4;
  robust_lock g;
  // Increments in two steps are lost without exclusion. Atomic only because a thread sanitizer does
  // not know that an owner's death hands on what it wrote.
  std::atomic<int> entered{0};
  for (int round = 0; round < kRounds; ++round) {
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
      const bool dies = (round * 7 + i * 5) % 3 == 0;
      threads.emplace_back([&g, &entered, dies] {
        g.lock();
        entered.store(entered.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        if (!dies) g.unlock();
      });
    }
    for (std::thread &t : threads) t.join();
  }
  g.lock();
  EXPECT_EQ(entered, kRounds * kThreads);
  g.unlock();
}

}  // namespace
