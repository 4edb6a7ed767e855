// Events and timers. Every wait has a bound that only a fault reaches.
#include <signal.h>

#include "contract.h"

namespace contract {
namespace {

void raise_event(const struct sigevent &event) { event.sigev_notify_function(event.sigev_value); }

struct sigevent attach(void *mgr, event_handler handler, void *context) {
  struct sigevent event = {};
  const int code = event_async_attach(mgr, EVENT_COALESCE, handler, context);
  EXPECT_EQ(event_init_sigevent(mgr, code, 0, 0, &event), 0);
  return event;
}

// Its handler attaches another event, and raises its own until it stops the manager.
struct counted {
  void *mgr;
  int stop_at, runs = 0;
  struct sigevent event = attach(mgr, handler, this);
  static int handler(void *context) {
    auto *c = static_cast<counted *>(context);
    attach(c->mgr, handler, c);
    ++c->runs == c->stop_at ? event_mgr_stop(c->mgr) : raise_event(c->event);
    return 0;
  }
};

TEST(events, CoalesceAndLoseNeitherAStopNorARaise) {
  void *mgr = event_mgr_create();
  counted once{mgr, 1}, thrice{mgr, 3};
  event_mgr_stop(mgr);
  for (int i = 0; i < 3; ++i) raise_event(once.event);
  for (const auto &runs : {std::pair(0, 0), {1, 0}, {1, 3}}) {
    EXPECT_EQ(event_mgr_dispatch(mgr), 0);
    EXPECT_EQ(std::pair(once.runs, thrice.runs), runs);
    if (once.runs == 1) raise_event(thrice.event);
  }
  event_mgr_destroy(mgr);
}

TEST(events, Refuse) {
  void *mgr = event_mgr_create();
  struct sigevent event = attach(mgr, counted::handler, nullptr);
  const auto refused = [](int rc) { return rc == -1 && std::exchange(errno, 0) == EINVAL; };
  EXPECT_TRUE(refused(event_async_attach(nullptr, EVENT_COALESCE, counted::handler, nullptr)));
  EXPECT_TRUE(refused(event_async_attach(mgr, 1, counted::handler, nullptr)));
  EXPECT_TRUE(refused(event_async_attach(mgr, EVENT_COALESCE, nullptr, nullptr)));
  EXPECT_TRUE(refused(event_init_sigevent(mgr, 1 << 30, 0, 0, &event)));
  EXPECT_TRUE(refused(event_mgr_dispatch(nullptr)));
  event_mgr_destroy(mgr);
}

TEST(events, ReachTheDispatcherFromAnyThread) {
  struct counts {
    std::atomic<int> posted{0}, seen{0};
    static int handler(void *context) {
      auto *c = static_cast<counts *>(context);
      return c->seen = c->posted.load();
    }
  } c;
  void *mgr = event_mgr_create();
  const struct sigevent event = attach(mgr, counts::handler, &c);
  std::jthread dispatcher([mgr] { event_mgr_dispatch(mgr); });
  on_threads(2, [&](int) {
    for (int i = 0; i < 1000; ++i) {
      const int mine = ++c.posted;
      for (raise_event(event); c.seen < mine;) std::this_thread::yield();
    }
  });
  event_mgr_stop(mgr);
  dispatcher.join();
  event_mgr_destroy(mgr);
}

std::vector<mgd_timer_leaf_t *> new_leaves(void *tree, unsigned n) {
  std::vector<mgd_timer_leaf_t *> leaves;
  for (unsigned type = 0; type < n; ++type)
    leaves.push_back(static_cast<mgd_timer_leaf_t *>(mgd_timer_leaf_new(tree, 0, type, 0)));
  return leaves;
}

void start(mgd_timer_leaf_t *l, int64_t seconds, long nanoseconds) {
  const struct timespec delay = {seconds, nanoseconds};
  mgd_timer_leaf_start(l, &delay);
}

using std::chrono::steady_clock;

TEST(timers, AgreeWithAList) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGRTMIN);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  struct sigevent event = {};
  event.sigev_notify = 12345;
  EXPECT_EQ(mgd_timer_tree_new(&event, 0), nullptr);
  event.sigev_notify = SIGEV_SIGNAL;
  event.sigev_signo = SIGRTMIN;
  event.sigev_value.sival_int = 42;
  sigset_t before = {}, after = {};
  pthread_sigmask(SIG_SETMASK, nullptr, &before);
  void *tree = mgd_timer_tree_new(&event, 0);
  pthread_sigmask(SIG_SETMASK, nullptr, &after);
  EXPECT_EQ(memcmp(&before, &after, sizeof before), 0) << "the caller's signal mask";
  event = {};  // the tree has its copy
  const auto delivered = [&set](time_t bound) {
    siginfo_t info;
    const struct timespec t = {bound, 0};
    return sigtimedwait(&set, &info, &t) == SIGRTMIN && info.si_value.sival_int == 42;
  };
  // Seconds of delay, and at least left of it.
  constexpr int64_t kLimit = INT64_MAX / 1'000'000'000, kLong = int64_t{1} << 32;
  constexpr int64_t kDelays[][2] = {{0, 0},          {-1, 0},
                                    {3600, 3599},    {UINT32_MAX, UINT32_MAX - 1},
                                    {kLimit, kLong}, {INT64_MAX, kLong}};
  const auto leaves = new_leaves(tree, 5);
  std::vector<mgd_timer_leaf_t *> expired;  // in order of deadline
  std::mt19937 random(1);
  for (int step = 0; step < 3000; ++step) {
    mgd_timer_leaf_t *l = leaves[random() % 5];
    const auto &[delay, least] = kDelays[random() % 6];
    const long nanoseconds = delay < kLimit ? 0 : 999'999'999;
    const bool stop = random() % 4 == 0, expires = !stop && least == 0;
    const std::string at = "step " + std::to_string(step) +
                           (stop ? ": stopped"
                                 : ": started with " + std::to_string(delay) + " s " +
                                       std::to_string(nanoseconds) + " ns");
    for (auto t = steady_clock::now(); t == steady_clock::now();) continue;  // no equal deadlines
    stop ? mgd_timer_leaf_stop(l) : start(l, delay, nanoseconds);
    std::erase(expired, l);
    if (expires) expired.push_back(l);
    ASSERT_TRUE(!expires || delivered(20)) << at;
    struct timespec left = {};
    mgd_timer_leaf_remaining(l, &left);
    ASSERT_EQ(left.tv_sec + left.tv_nsec == 0, stop || expires) << at;
    ASSERT_GE(left.tv_sec, stop ? 0 : least) << at;
    ASSERT_EQ(mgd_timer_leaf_running(l), !stop) << at;
    ASSERT_EQ(mgd_timer_tree_first_expired(tree), expired.empty() ? nullptr : expired[0]) << at;
  }
  EXPECT_FALSE(delivered(0)) << "once per start";
  mgd_timer_tree_destroy(tree);
}

// Two threads start and stop leaves while the tree's own thread handles those that expire.
TEST(timers, LoseNoExpiry) {
  struct world {
    void *tree;
    std::atomic<bool> done{false};
    static void handle(union sigval value) {
      auto *w = static_cast<world *>(value.sival_ptr);
      while (mgd_timer_leaf_t *l = mgd_timer_tree_first_expired(w->tree)) {
        mgd_timer_leaf_stop(l);
        if (mgd_timer_leaf_type(l) == 8) w->done = true;
      }
    }
  } w;
  struct sigevent event = {};
  event.sigev_notify = SIGEV_THREAD;
  event.sigev_notify_function = world::handle;
  event.sigev_value.sival_ptr = &w;
  w.tree = mgd_timer_tree_new(&event, 0);
  const auto leaves = new_leaves(w.tree, 9);
  on_threads(2, [&](int seed) {
    std::mt19937 random(static_cast<unsigned>(seed));
    for (int i = 0; i < 3000; ++i) {
      mgd_timer_leaf_t *l = leaves[random() % 8];
      random() % 4 == 0 ? mgd_timer_leaf_stop(l) : start(l, 0, random() % 100'000);
    }
  });
  const auto begin = steady_clock::now();
  start(leaves[8], 0, 20'000'000);  // after all others
  while (!w.done) std::this_thread::yield();
  EXPECT_GE(steady_clock::now() - begin, std::chrono::milliseconds(20));
  for (mgd_timer_leaf_t *l : leaves) EXPECT_EQ(mgd_timer_leaf_running(l), 0);
  mgd_timer_tree_destroy(w.tree);
}

}  // namespace
}  // namespace contract
