// Timers on the real clock. Every wait is for a delivery, with a bound that only a fault reaches.
#include "platform/timer.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <signal.h>
#include <time.h>

#include <atomic>
#include <random>
#include <thread>
#include <vector>

#include "platform/event.h"

namespace {

constexpr struct timespec kHour = {3600, 0}, kZero = {0, 0};

struct timespec milliseconds(long n) {
  return {n / 1000, n % 1000 * 1'000'000};
}

struct Timer : testing::Test {
  sem_t delivered;
  void *tree = nullptr;

  Timer() {
    sem_init(&delivered, 0, 0);
    struct sigevent event = {};
    event.sigev_notify = SIGEV_THREAD;
    event.sigev_value.sival_ptr = &delivered;
    event.sigev_notify_function = [](union sigval v) {
      sem_post(static_cast<sem_t *>(v.sival_ptr));
    };
    tree = mgd_timer_tree_new(&event, 0);
    event = {};  // the tree has its copy
  }
  ~Timer() override { mgd_timer_tree_destroy(tree); }

  mgd_timer_leaf_t *leaf(unsigned type) {
    return static_cast<mgd_timer_leaf_t *>(mgd_timer_leaf_new(tree, 0, type, 0));
  }
  void start(mgd_timer_leaf_t *l, struct timespec delay) { mgd_timer_leaf_start(l, &delay); }
  struct timespec remaining(mgd_timer_leaf_t *l) {
    struct timespec left;
    mgd_timer_leaf_remaining(l, &left);
    return left;
  }
  bool wait() {
    struct timespec until;
    clock_gettime(CLOCK_REALTIME, &until);
    until.tv_sec += 20;
    return sem_timedwait(&delivered, &until) == 0;
  }
  bool more_delivered() { return sem_trywait(&delivered) == 0; }
};

TEST_F(Timer, RunsFromStartToStop) {
  mgd_timer_leaf_t *l = leaf(7);
  EXPECT_EQ(mgd_timer_leaf_type(l), 7u);
  EXPECT_EQ(mgd_timer_leaf_running(l), 0);
  EXPECT_EQ(mgd_timer_tree_first_expired(tree), nullptr);

  start(l, kZero);
  EXPECT_EQ(mgd_timer_tree_first_expired(tree), l) << "a zero delay has expired at once";
  ASSERT_TRUE(wait());
  EXPECT_EQ(mgd_timer_leaf_running(l), 1) << "expired, but not handled";
  EXPECT_EQ(remaining(l).tv_sec + remaining(l).tv_nsec, 0);

  start(l, kZero);
  ASSERT_TRUE(wait()) << "delivered once per start";
  start(l, kHour);
  EXPECT_EQ(mgd_timer_tree_first_expired(tree), nullptr) << "restarted";
  EXPECT_EQ(remaining(l).tv_sec, 3599);
  mgd_timer_leaf_stop(l);
  mgd_timer_leaf_stop(l);
  EXPECT_EQ(mgd_timer_leaf_running(l), 0);
  EXPECT_EQ(remaining(l).tv_sec + remaining(l).tv_nsec, 0);
  EXPECT_FALSE(more_delivered());
}

TEST_F(Timer, ExpiresInOrderOfDeadline) {
  mgd_timer_leaf_t *far = leaf(1), *late = leaf(2), *early = leaf(3);
  struct timespec begin, end;
  clock_gettime(CLOCK_MONOTONIC, &begin);
  start(far, kHour);  // the thread already sleeps for it when the others come
  start(late, milliseconds(60));
  start(early, milliseconds(20));
  ASSERT_TRUE(wait() && wait());
  clock_gettime(CLOCK_MONOTONIC, &end);
  EXPECT_GE((end.tv_sec - begin.tv_sec) * 1000 + (end.tv_nsec - begin.tv_nsec) / 1'000'000, 59);

  EXPECT_EQ(mgd_timer_tree_first_expired(tree), early);
  mgd_timer_leaf_stop(early);
  EXPECT_EQ(mgd_timer_tree_first_expired(tree), late);
  start(late, kHour);
  EXPECT_EQ(mgd_timer_tree_first_expired(tree), nullptr);
}

TEST_F(Timer, AStoppedLeafDeliversNothing) {
  mgd_timer_leaf_t *stopped = leaf(1), *other = leaf(2);
  start(stopped, milliseconds(10));
  mgd_timer_leaf_stop(stopped);
  start(other, milliseconds(30));
  ASSERT_TRUE(wait());
  EXPECT_EQ(mgd_timer_tree_first_expired(tree), other);
  EXPECT_FALSE(more_delivered());
}

TEST_F(Timer, TakesAnyDelay) {
  constexpr struct {
    struct timespec delay;
    bool expired;
    int64_t least_seconds;
  } kDelays[] = {{{-1, 0}, true, 0},
                 {{0, 1}, true, 0},
                 {{UINT32_MAX, 0}, false, UINT32_MAX - 1},
                 {{INT64_MAX / 1'000'000'000, 999'999'999}, false, int64_t{1} << 32},
                 {{INT64_MAX, 999'999'999}, false, int64_t{1} << 32}};
  for (const auto &d : kDelays) {
    mgd_timer_leaf_t *l = leaf(1);
    start(l, d.delay);
    if (d.expired) {
      ASSERT_TRUE(wait());
    }
    EXPECT_EQ(mgd_timer_tree_first_expired(tree), d.expired ? l : nullptr) << d.delay.tv_sec;
    EXPECT_GE(remaining(l).tv_sec, d.least_seconds);
    mgd_timer_leaf_stop(l);
  }
}

TEST_F(Timer, Refuses) {
  struct sigevent event = {};
  event.sigev_notify = 12345;
  EXPECT_EQ(mgd_timer_tree_new(&event, 0), nullptr);
  EXPECT_EQ(mgd_timer_tree_new(nullptr, 0), nullptr);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(mgd_timer_leaf_new(nullptr, 0, 1, 0), nullptr);
  mgd_timer_tree_destroy(nullptr);
}

TEST_F(Timer, DeliversASignal) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGRTMIN);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  struct sigevent event = {};
  event.sigev_notify = SIGEV_SIGNAL;
  event.sigev_signo = SIGRTMIN;
  event.sigev_value.sival_int = 42;
  void *signals = mgd_timer_tree_new(&event, 0);
  auto *l = static_cast<mgd_timer_leaf_t *>(mgd_timer_leaf_new(signals, 0, 1, 0));
  start(l, milliseconds(5));
  siginfo_t info;
  const struct timespec bound = {20, 0};
  EXPECT_EQ(sigtimedwait(&set, &info, &bound), SIGRTMIN);
  EXPECT_EQ(info.si_value.sival_int, 42);
  mgd_timer_tree_destroy(signals);
}

// Threads start and stop leaves at random while an event manager's thread handles what expires.
TEST(TimerStress, NoExpiryIsLost) {
  struct world {
    void *mgr = event_mgr_create(), *tree = nullptr;
    std::atomic<bool> ending{false};
    std::atomic<int> handled{0};
    static int handler(void *context) {
      auto *w = static_cast<world *>(context);
      while (mgd_timer_leaf_t *l = mgd_timer_tree_first_expired(w->tree)) {
        mgd_timer_leaf_stop(l);
        ++w->handled;
        if (mgd_timer_leaf_type(l) == 99) event_mgr_stop(w->mgr);
      }
      return 0;
    }
  } w;
  struct sigevent event = {};
  event_init_sigevent(w.mgr, event_async_attach(w.mgr, EVENT_COALESCE, world::handler, &w), 0, 0,
                      &event);
  w.tree = mgd_timer_tree_new(&event, 0);
  const auto new_leaf = [&w](unsigned type) {
    return static_cast<mgd_timer_leaf_t *>(mgd_timer_leaf_new(w.tree, 0, type, 0));
  };
  std::vector<mgd_timer_leaf_t *> leaves;
  for (unsigned type = 0; type < 8; ++type) leaves.push_back(new_leaf(type));

  std::thread dispatcher([&w] { event_mgr_dispatch(w.mgr); });
  std::vector<std::thread> users;
  for (unsigned seed : {1u, 2u}) {
    users.emplace_back([&leaves, seed] {
      std::mt19937 random(seed);
      for (int i = 0; i < 3000; ++i) {
        mgd_timer_leaf_t *l = leaves[random() % leaves.size()];
        const struct timespec delay = {0, static_cast<long>(random() % 100'000)};
        random() % 4 == 0 ? mgd_timer_leaf_stop(l) : mgd_timer_leaf_start(l, &delay);
      }
    });
  }
  for (std::thread &t : users) t.join();
  const struct timespec after_all_others = milliseconds(5);
  mgd_timer_leaf_start(new_leaf(99), &after_all_others);
  dispatcher.join();
  EXPECT_GT(w.handled, 1);
  for (mgd_timer_leaf_t *l : leaves) EXPECT_EQ(mgd_timer_leaf_running(l), 0);
  mgd_timer_tree_destroy(w.tree);
  event_mgr_destroy(w.mgr);
}

}  // namespace
