// Revival of robust locks whose owners die, also while they revive; names and announced waits.
#include "contract.h"

namespace contract {
namespace {

struct robust_lock : guarded_mutex_t {
  robust_lock() : guarded_mutex_t{} {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
    pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    for (pthread_mutex_t *m : {&mutex, &revival_mutex}) pthread_mutex_init(m, &attributes);
    pthread_cond_init(&revival_cond, nullptr);
  }
  bool pending() { return __atomic_load_n(&revival_pending, __ATOMIC_SEQ_CST) != 0; }
  void lock() {
    const int rc = pthread_mutex_lock(&mutex);
    if (rc == EOWNERDEAD) rmx_revive_and_mark_mutex(this);
    ASSERT_EQ(pending() ? rmx_wait_on_revival_condvar(this) : 0, 0);
  }
  void unlock(bool dies_half_way = false) {
    pthread_mutex_t *held = pending() ? &revival_mutex : &mutex;
    pthread_cond_signal(&revival_cond);
    __atomic_store_n(&revival_pending, 0, __ATOMIC_SEQ_CST);
    ASSERT_EQ(dies_half_way ? 0 : pthread_mutex_unlock(held), 0);
  }
  bool mutex_is_free() {
    return pthread_mutex_trylock(&mutex) == 0 && pthread_mutex_unlock(&mutex) == 0;
  }
};

TEST(locks, WaitUntilTheLastReviverEndsIt) {
  for (int deaths : {1, 2, 3}) {  // of the owner, then of revivers
    robust_lock g;
    for (int i = 0; i < deaths; ++i) on_threads(1, [&](int) { g.lock(); });
    g.lock();
    EXPECT_TRUE(g.pending() && g.mutex_is_free()) << "reviving marks the lock and releases it";
    EXPECT_EQ(rmx_wait_on_revival_condvar(&g), 0) << "the reviver itself goes on at once";
    std::jthread other([&] {
      g.lock();
      EXPECT_TRUE(!g.pending() && !g.mutex_is_free());
      EXPECT_EQ(pthread_mutex_lock(&g.revival_mutex), 0) << "who waited has let go of it";
      pthread_mutex_unlock(&g.revival_mutex);
      g.unlock();
    });
    while (g.mutex_is_free()) std::this_thread::yield();  // until the other one holds it and waits
    g.unlock();
  }
}

TEST(locks, AWaitThatFailsSaysWhy) {
  robust_lock g;
  on_threads(1, [&](int) { pthread_mutex_lock(&g.revival_mutex); });
  ASSERT_EQ(pthread_mutex_lock(&g.revival_mutex), EOWNERDEAD);
  pthread_mutex_unlock(&g.revival_mutex);  // without making it consistent: it is lost
  pthread_mutex_lock(&g.mutex);
  EXPECT_EQ(rmx_wait_on_revival_condvar(&g), ENOTRECOVERABLE);
  pthread_mutex_unlock(&g.mutex);
  on_threads(1, [&](int) { g.lock(); });
  g.lock();
  EXPECT_FALSE(g.pending() || g.mutex_is_free()) << "no companion: the reviver keeps `mutex`";
  g.unlock();
}

TEST(locks, ExcludeWhoeverDiesAnywhere) {
  robust_lock g;
  // Atomic since a thread sanitizer does not know that a death hands on what its thread wrote.
  std::atomic<int> entered{0};
  for (int round = 0; round < 150; ++round) {
    on_threads(4, [&](int i) {
      g.lock();
      entered.store(entered.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
      if ((round + i) % 3 != 0) g.unlock((round + i) % 3 == 1 && round % 2 == 0);
    });
  }
  EXPECT_EQ(entered, 600);
}

std::string threads_now() {
  std::string text;
  const auto collect = [](const ptd_info_t *i, void *arg) {
    char line[99];
    snprintf(line, sizeof line, "%s %s %s %d %d\n", i->name, i->object != nullptr ? "object" : "-",
             i->caller != nullptr ? i->caller : "-", i->line, i->wait_kind);
    *static_cast<std::string *>(arg) += line;
    return 1;
  };
  ptd_walk_threads(collect, &text);
  return text;
}

std::string system_name() {
  char name[16];
  pthread_getname_np(pthread_self(), name, sizeof name);
  return name;
}

TEST(threads, ShowWhatOtherThreadsWaitFor) {
  std::jthread walker([](std::stop_token ended) {
    while (!ended.stop_requested()) threads_now();
  });
  for (int i = 0; i < 100; ++i)  // threads come and go
    on_threads(3, [](int own) { ptd_set_mutex_block(&own, "take", own); });
  on_threads(1, [main = pthread_self()](int object) {
    const auto expect = [](const char *shown) {
      on_threads(1, [shown](int) { EXPECT_EQ(threads_now(), shown); });
    };
    set_thread_name("given", main);
    expect("");
    EXPECT_NE(system_name(), "given");
    ptd_set_mutex_block(&object, "take", 42);
    expect(" object take 42 0\n");
    ptd_unset_mutex_block();
    expect(" - - 0 0\n");
    set_thread_name("mpls_vpn", pthread_self());
    ptd_set_syscall_block_internal(PTD_WAIT_CONDITION, &object, 0, 0);
    expect("mpls_vpn object - 0 6\n");
    ptd_set_syscall_unblock();
    set_thread_name("a_name_of_more_than_fifteen", pthread_self());
    expect("a_name_of_more_ - - 0 0\n");
    EXPECT_EQ(system_name(), "a_name_of_more_");
    remove_thread_name(nullptr);
    expect(" - - 0 0\n");
    EXPECT_NE(system_name(), "a_name_of_more_");
  });
  EXPECT_EQ(threads_now(), "") << "a thread that ended is unknown";
  EXPECT_EQ(system_name(), "given");
}

}  // namespace
}  // namespace contract
