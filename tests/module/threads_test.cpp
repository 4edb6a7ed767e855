// The real worker thread with producers, readers, the setter, the timer handler and clients that
// come and go, all at once. Run under ThreadSanitizer and AddressSanitizer in CI.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <semaphore>
#include <thread>

#include "engine/shared_words.h"
#include "engine/timers.h"
#include "platform/pool.h"
#include "query/nhop_query.h"
#include "tarvo/agent_services.h"
#include "tests/module/database_view.h"
#include "tests/module/world.h"

// What happened so far. Every request is offered once and then handled, purged or refused.
static std::atomic<int> offered;  // but for the timers' requests, which are told by traces
static int expired, refused, activated, named, amiss;

static bool offer(bool queued) {
  ++offered;
  if (!queued) std::this_thread::yield();
  return queued;
}

static std::counting_semaphore<> replays{0};

static void count_replay(uint32_t, uint32_t event, const void *) {
  const char *name = tarvo_nd_tableid2vrf_name(2);  // the lock is held
  EXPECT_STREQ(name == nullptr ? "A" : name, "A");
  if (event == TARVO_ND_EVENT_END) replays.release();
}

static void come(uint32_t id, const char *vrf) {
  while (!offer(tarvo_pe_discovery_register(id, vrf, count_replay) == TARVO_ND_OK)) continue;
}

// Adds what was recorded since the last tally. Table 9 stays announced, so it is switched on,
// before discovery counts as active, once in every activation.
static void tally() {
  for (const std::string &line : w.take()) {
    if (line.ends_with("During mallocing route update information")) {
      ++refused;
    } else if (line.starts_with("log") || line.starts_with("wrong")) {
      ++amiss;
    }
    named += line == "name mpls_vpn";
    activated += line == "rib on 9 while inactive";
    expired += line.ends_with("interval expired");
  }
}

// Discovery begins and ends: clients come, and when all are told what there is, all leave. Requests
// are handled in order: all that was queued before is done by then, too.
static void flip(unsigned &seed) {
  const uint32_t clients = 1 + rand_r(&seed) % 3;
  for (uint32_t id = 1; id <= clients; ++id) come(id, id == 2 ? "A" : nullptr);
  for (uint32_t id = 1; id <= clients; ++id) replays.acquire();
  for (uint32_t id = 1; id <= clients; ++id)
    while (!offer(tarvo_pe_discovery_unregister(id) == TARVO_ND_OK)) continue;
  tally();
}

static void produce_reports(unsigned &seed) {
  const uint32_t address = htonl(0x0a000000u + rand_r(&seed) % 20);
  offer(tarvo_nd_enqueue_nhop_update(1 + rand_r(&seed) % 3, address, rand_r(&seed) % 3));
}

static void change_tables(unsigned &seed) {
  offer(tarvo_nd_enqueue_table_update("A", 1 + rand_r(&seed) % 3, rand_r(&seed) % 2));
  if (rand_r(&seed) % 8 == 0) offer(tarvo_nd_enqueue_rib_restart());
  if (rand_r(&seed) % 8 == 0) offer(tarvo_pe_discovery_resend(2, "A") == TARVO_ND_OK);
}

static std::atomic<int> listed;  // views that showed the data of a VRF

static void read_all(unsigned &) {
  static const probes kAsk = {{0x0a000000, 0x0a000001, 0x0a000002}, {0, 1, 2, 3}, {"A"}};
  listed += view_of_module(kAsk).find("data A{") != std::string::npos;
}

static void set_interval(unsigned &seed) {
  tarvo_nd_set_rib_refresh_interval(rand_r(&seed) % 3 * 20);
  tarvo_nd_get_refresh_interval_remaining();
}

static void expire_timers(unsigned &) {
  w.now += 7000000000;
  w.expire();
  std::this_thread::yield();
}

TEST(Threads, EveryoneAtOnce) {
  constexpr int kFlips = 200, kViews = 100;
  w.threaded = true;
  w.routes = {"10.0.0.0/8"};
  w.start();
  chunk_set_limit(w.workq_pool, 150);  // so that requests are refused, too
  offer(tarvo_nd_enqueue_table_update("Z", 9, 1));

  std::atomic<bool> over = false;
  std::vector<std::thread> threads;
  for (auto action : {produce_reports, produce_reports, produce_reports, change_tables, read_all,
                      read_all, set_interval, expire_timers}) {
    threads.emplace_back([&over, action, seed = static_cast<unsigned>(threads.size())]() mutable {
      while (!over) action(seed);
    });
  }
  unsigned seed = 1;
  int flips = 0;
  for (; flips < kFlips || listed < kViews || w.purged == 0; ++flips) flip(seed);
  over = true;
  for (std::thread &thread : threads) thread.join();

  come(99, nullptr);
  replays.acquire();
  tally();
  EXPECT_EQ(w.handled + w.purged + refused, offered + expired);
  EXPECT_EQ(activated, flips + 1);
  EXPECT_GT(refused, 0);
  EXPECT_GT(expired, 0);
  EXPECT_EQ(named, 1);
  EXPECT_EQ(amiss, 0);
  EXPECT_NE(tarvo_nd_is_active(), 0);
  EXPECT_GE(tarvo_nd_get_refresh_interval_remaining(), 0);
  pthread_cancel(w.worker);
  void *result = nullptr;
  pthread_join(w.worker, &result);
  EXPECT_EQ(result, PTHREAD_CANCELED);
  EXPECT_EQ(std::ranges::count(w.take(), "unname"), 1);
  for (guarded_mutex_t *lock : {&tarvo_nd_mutex, &tarvo_nd_workq_mutex})
    EXPECT_EQ(pthread_mutex_trylock(&lock->mutex), 0) << "a cancelled worker leaves its locks";
  printf("%d flips, %d views of VRFs, %d offered, %d handled, %d purged, %d refused, %d expiries\n",
         flips, listed.load(), offered + expired, w.handled.load(), w.purged.load(), refused,
         expired);
}
