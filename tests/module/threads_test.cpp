// The real worker thread with producers, readers, the setter, the timer handler and clients that
// come and go, all at once. Run under ThreadSanitizer and AddressSanitizer in CI.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <utility>

#include "engine/shared_words.h"
#include "engine/timers.h"
#include "platform/pool.h"
#include "platform/queue.h"
#include "query/nhop_query.h"
#include "tarvo/agent_services.h"
#include "tarvo/oper_data.h"
#include "tests/module/world.h"

// What happened so far. Every request is offered once and then handled, purged or refused.
static std::atomic<int> offered, handled, purged;  // but for the timers' requests, told by traces
static int expired, refused, activated, amiss;

static bool offer(bool queued) {
  ++offered;
  if (!queued) std::this_thread::yield();
  return queued;
}

static int registered;
static std::atomic<int> replays;

static void count_replay(uint32_t, uint32_t event, const void *) {
  const char *name = tarvo_nd_tableid2vrf_name(2);  // the lock is held
  EXPECT_STREQ(name == nullptr ? "A" : name, "A");
  if (event != TARVO_ND_EVENT_END) return;
  ++replays;
  replays.notify_all();
}

static void come(uint32_t id, const char *vrf) {
  while (!offer(tarvo_pe_discovery_register(id, vrf, count_replay) == TARVO_ND_OK)) continue;
  ++registered;
}

// Requests are handled in order: all that was queued before is done, too.
static void wait_for_replays() {
  for (int seen = replays; seen < registered; seen = replays) replays.wait(seen);
}

// What was done, without the waits for a lock, which depend on how the threads happen to run.
static std::vector<std::string> taken() {
  std::vector<std::string> lines = w.take();
  std::erase_if(lines, [](const std::string &line) {
    return line.starts_with("block ") || line == "unblock";
  });
  return lines;
}

TEST(Threads, WorkerWakesAndIsCancelledCleanly) {
  w.threaded = true;
  w.start();
  come(99, " fence");
  wait_for_replays();
  w.routes = {"10.0.0.0/8"};
  EXPECT_EQ(std::ranges::count(w.take(), "name mpls_vpn"), 1);
  tarvo_pe_discovery_register(1, nullptr, tell);
  tarvo_nd_enqueue_nhop_update(7, addr("10.0.0.1"), 1);
  come(98, " fence");
  wait_for_replays();
  EXPECT_EQ(taken(), (std::vector<std::string>{"tell 1 END", "tell 1 ADD 10.0.0.1 10.0.0.0/8"}));
  pthread_cancel(w.worker);
  void *result = nullptr;
  pthread_join(w.worker, &result);
  EXPECT_EQ(result, PTHREAD_CANCELED);
  EXPECT_EQ(taken(), std::vector<std::string>{"unname"});
}

extern "C" void *__real_queue_dequeue(queue_t *q);
extern "C" void *__wrap_queue_dequeue(queue_t *q) {
  void *element = __real_queue_dequeue(q);
  if (element != nullptr) ++handled;
  return element;
}

// Of the module's queues, only the work queue is purged.
extern "C" void __real_queue_remqueue(queue_t *q, void *element, void *previous);
extern "C" void __wrap_queue_remqueue(queue_t *q, void *element, void *previous) {
  ++purged;
  __real_queue_remqueue(q, element, previous);
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
    activated += line == "rib on 9 while inactive";
  }
  std::lock_guard hold(w.guard);
  for (const std::string &trace : std::exchange(w.traces, {}))
    expired += trace.ends_with("interval expired");
}

// Discovery begins and ends: clients come, and when all are told what there is, all leave.
static void flip(unsigned &seed) {
  const uint32_t clients = 1 + rand_r(&seed) % 3;
  for (uint32_t id = 1; id <= clients; ++id) come(id, id == 2 ? "A" : nullptr);
  wait_for_replays();
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

static void query_all(unsigned &seed) {
  const uint32_t table = rand_r(&seed) % 4;
  tarvo_nd_nhop_t hop = {};
  for (uint32_t found = tarvo_nd_first_nhop_by_tableid(table, &hop); found == TARVO_ND_OK;
       found = tarvo_nd_next_nhop_by_tableid(table, hop.info.nhop_addr, &hop)) {
    const uint32_t address = hop.info.nhop_addr;
    tarvo_nd_nhop_table_t ref = {};
    tarvo_nd_vrf_name_copy_t name = {};
    for (uint32_t result = tarvo_nd_first_tableid(address, &ref, &name); result == TARVO_ND_OK;
         result = tarvo_nd_next_tableid(address, ref.table_id, &ref, &name))
      EXPECT_STREQ(name.name, name.known ? "A" : "");
    static_cast<void>(tarvo_nd_lookup_tableid(address, "A", &ref));
    static_cast<void>(tarvo_nd_lookup_nhop_by_tableid(table, address, &hop));
    EXPECT_EQ(hop.info.nhop_addr, address);
  }
}

static void get(uint32_t item, const uint32_t *nhop) {
  ods_path_t path = {0, item, 0, {nhop, "A"}};
  ods_item_t answer = {};
  if (tarvoMplsDiscoveryODSFns.get(nullptr, &answer, &path) == 0) free(answer.buffer);
}

static std::atomic<int> listed;  // data lists that brought something

static void list_all(unsigned &) {
  const tarvo_nd_ods_fns_t &ods = tarvoMplsDiscoveryODSFns;
  uint32_t nhop = 0;
  get(TARVO_DISC_ITEM_STATE, &nhop);
  ods_path_t all = {0, TARVO_DISC_ITEM_NHOP, 0, {&nhop, nullptr}};
  ods_path_t one = {0, TARVO_DISC_ITEM_VRF, 0, {&nhop, nullptr}};
  ods_list_result_t keys = {};
  if (ods.list(nullptr, &keys, &all, &all) != 0) return;
  for (uint32_t i = 0; i < keys.count; ++i) {
    nhop = static_cast<uint32_t>(strtoul(ods_list_entry(keys.list, i)->key, nullptr, 16));
    get(TARVO_DISC_ITEM_PREFIX, &nhop);
    get(TARVO_DISC_ITEM_VRF, &nhop);
    ods_list_result_t names = {}, vrfs = {};
    if (ods.list(nullptr, &names, &one, &one) == 0) ods_list_free(names.list);
    if (ods.datalist(nullptr, &vrfs, &one, &one) != 0) continue;
    ++listed;
    while (vrfs.count-- > 0) EXPECT_STREQ(ods_list_entry(vrfs.list, vrfs.count)->key, "A");
    ods_datalist_free(vrfs.list);
  }
  ods_list_free(keys.list);
}

static void set_interval(unsigned &seed) {
  tarvo_nd_set_rib_refresh_interval(rand_r(&seed) % 3 * 20);
  tarvo_nd_get_refresh_interval_remaining();
}

static void expire_timers(unsigned &) {
  w.advance(7);
  w.expire();
  std::this_thread::yield();
}

TEST(Threads, EveryoneAtOnce) {
  constexpr int kFlips = 200, kLists = 200;
  w.threaded = true;
  w.routes = {"10.0.0.0/8"};
  w.start();
  chunk_set_limit(w.workq_pool, 150);  // so that requests are refused, too
  offer(tarvo_nd_enqueue_table_update("Z", 9, 1));

  std::atomic<bool> over = false;
  std::vector<std::thread> threads;
  for (auto action : {produce_reports, produce_reports, produce_reports, change_tables, query_all,
                      query_all, list_all, list_all, set_interval, expire_timers}) {
    threads.emplace_back([&over, action, seed = static_cast<unsigned>(threads.size())]() mutable {
      while (!over) action(seed);
    });
  }
  unsigned seed = 1;
  int flips = 0;
  for (; flips < kFlips || listed < kLists; ++flips) flip(seed);
  over = true;
  for (std::thread &thread : threads) thread.join();

  come(99, nullptr);
  wait_for_replays();
  tally();
  EXPECT_EQ(handled + purged + refused, offered + expired);
  EXPECT_EQ(activated, flips + 1);
  EXPECT_GT(purged, 0);
  EXPECT_GT(refused, 0);
  EXPECT_GT(expired, 0);
  EXPECT_EQ(amiss, 0);
  EXPECT_NE(tarvo_nd_is_active(), 0);
  EXPECT_GE(tarvo_nd_get_refresh_interval_remaining(), 0);
  printf("%d flips, %d data lists, %d offered, %d handled, %d purged, %d refused, %d expiries\n",
         flips, listed.load(), offered + expired, handled.load(), purged.load(), refused, expired);
}
