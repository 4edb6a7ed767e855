// What neither the model nor the faults see: the guarded discipline during a revival, refusals of
// what nobody sends, the names under which locks are taken.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <future>

#include "db/nhop_table.h"
#include "db/vrf_redist.h"
#include "db/vrf_table.h"
#include "engine/shared_words.h"
#include "engine/timers.h"
#include "engine/work_queue.h"
#include "engine/worker.h"
#include "query/nhop_query.h"
#include "tarvo/agent_services.h"
#include "tarvo/oper_data.h"
#include "tests/module/database_view.h"
#include "tests/module/world.h"

TEST(StartUp, RegistersTheTablesLastAndStartsNoTimer) {
  EXPECT_EQ(w.start(), TARVO_ND_OK);
  EXPECT_EQ(w.take(), (texts{"register ods", "register ital", "register rib", "register cfg"}));
  EXPECT_EQ(tarvo_nd_is_active(), 0);
  sigset_t blocked;
  pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
  for (int signal = SIGRTMIN; signal <= SIGRTMAX; ++signal)
    EXPECT_EQ(sigismember(&blocked, signal), signal == SIGRTMIN + 6 || signal == SIGRTMIN + 10);
}

// ------------------------------------ guarded discipline ------------------------------------

static void lock(guarded_mutex_t &m) TARVO_NO_THREAD_SAFETY_ANALYSIS {
  guarded_mutex_lock(&m, "caller", 100);
}
static void unlock(guarded_mutex_t &m) TARVO_NO_THREAD_SAFETY_ANALYSIS { guarded_mutex_unlock(&m); }

TEST(Guarded, EveryPathOfLockAndUnlock) {
  enum revival { kNone, kOfUnlock, kOfBoth, kOfAnother };
  static const std::string kNotLocked = "log 5 INTERNAL Cannot lock nd mutex, error:",
                           kNotUnlocked = "log 5 INTERNAL Cannot unlock nd mutex, error:",
                           kNotOwner = kNotUnlocked + "1:Operation not permitted",
                           kInvalid = "22:Invalid argument";
  const struct {
    const char *what;
    texts failing;
    int error;
    revival pending;
    texts expected;
  } kPaths[] = {
      {"free", {}, 0, kNone, {}},
      {"busy", {"trylock"}, 16, kNone, {"block nd caller"}},
      {"not takeable", {"trylock"}, 22, kNone, {"block nd caller"}},
      {"not lockable, so no revival matters",
       {"trylock", "lock"},
       22,
       kOfBoth,
       {"block nd caller", kNotLocked + kInvalid, kNotOwner}},
      {"unlock fails", {"unlock"}, 22, kNone, {kNotUnlocked + kInvalid}},
      {"not the reviver", {}, 0, kOfUnlock, {kNotOwner}},
      {"companion busy", {"timedlock"}, 16, kOfUnlock, {kNotOwner}},
      {"companion broken", {"timedlock"}, 22, kOfUnlock, {kNotUnlocked + kInvalid}},
      {"wait for the revival fails", {"wait"}, 22, kOfBoth, {kNotLocked + kInvalid, kNotOwner}},
      {"the reviver asks for leave too",
       {"trylock", "wait"},
       130,
       kOfUnlock,
       {kNotLocked + "130:Owner died"}},
      {"another is the reviver, and stays", {}, 0, kOfAnother, {kNotOwner}}};
  for (const auto &path : kPaths) {
    if (path.error == EOWNERDEAD) pthread_mutex_trylock(&tarvo_nd_mutex.mutex);  // as its owner
    w.fail_next("", 1, path.error);
    for (const std::string &operation : path.failing)
      w.fail[operation == "wait" ? "rmx_wait_on_revival_condvar" : "pthread_mutex_" + operation] =
          1;
    tarvo_nd_mutex.revival_pending = path.pending == kOfBoth;
    lock(tarvo_nd_mutex);
    tarvo_nd_mutex.revival_pending = path.pending != kNone;
    const auto hold_companion = [] { pthread_mutex_lock(&tarvo_nd_mutex.revival_mutex); };
    if (path.pending == kOfAnother) std::async(std::launch::async, hold_companion).wait();
    unlock(tarvo_nd_mutex);
    EXPECT_EQ(w.take(), path.expected) << path.what;
    w.fail.clear();
    tarvo_nd_mutex.revival_pending = 0;
    pthread_mutex_trylock(&tarvo_nd_mutex.mutex);  // some paths left it locked
    pthread_mutex_unlock(&tarvo_nd_mutex.mutex);
  }
}

TEST(GuardedDeath, CompanionFailuresAreAsserted) {
  const struct {
    bool reviver;
    const char *operation, *told;
  } kCalls[] = {
      {false, "pthread_mutex_unlock", "os/pthread: 341 retcode == EOK -- assertion failed\n"},
      {true, "pthread_cond_signal", "os/pthread: 350 retcode == EOK -- assertion failed\n"},
      {true, "pthread_mutex_unlock", "os/pthread: 355 retcode == EOK -- assertion failed\n"}};
  for (const auto &call : kCalls) {
    const auto fail = [&] {
      tarvo_nd_mutex.revival_pending = 1;
      if (call.reviver) pthread_mutex_lock(&tarvo_nd_mutex.revival_mutex);
      w.fail[call.operation] = 1;
      unlock(tarvo_nd_mutex);
    };
    EXPECT_EXIT(fail(), testing::KilledBySignal(SIGABRT), call.told);
  }
}

TEST(Locks, AreTakenUnderTheNameOfTheCall) {
  tarvo_nd_nhop_t out = {};
  tarvo_nd_nhop_table_t ref = {};
  constexpr size_t kAlways = 4;  // from there on discovery is asked for before the lock is
  const std::vector<std::pair<std::function<void()>, std::set<std::string>>> kSites = {
      {[] { tarvo_nd_enqueue_rib_restart(); }, {"workQ tarvo_nd_work_enqueue"}},
      {[] { tarvo_nd_work_round(); },
       {"workQ tarvo_nd_process_work_req", "nd tarvo_nd_process_work_req"}},
      {[] { w.now += 271000000000, w.expire(); },
       {"nd tarvo_nd_timer_handler", "workQ tarvo_nd_work_enqueue"}},
      {[] { tarvo_nd_enqueue_table_update("A", 7, 0), w.run(); },
       {"workQ tarvo_nd_work_enqueue", "workQ tarvo_nd_process_work_req",
        "nd tarvo_nd_process_work_req", "workQ tarvo_nd_del_nhop_update_from_work_req"}},
      {[] { tarvo_nd_set_rib_refresh_interval(300); }, {"nd tarvo_nd_set_rib_refresh_interval"}},
      {[] { tarvo_nd_get_refresh_interval_remaining(); },
       {"nd tarvo_nd_get_refresh_interval_remaining"}},
      {[&] { tarvo_nd_first_nhop_by_tableid(0, &out); }, {"nd tarvo_nd_first_nhop"}},
      {[&] { tarvo_nd_next_nhop_by_tableid(0, 0, &out); }, {"nd tarvo_nd_next_nhop"}},
      {[&] { tarvo_nd_lookup_nhop_by_tableid(0, 0, &out); }, {"nd tarvo_nd_lookup_nhop"}},
      {[&] { tarvo_nd_first_nhop_by_tableid(1, &out); }, {"nd tarvo_nd_first_nhop_by_tableid"}},
      {[&] { tarvo_nd_next_nhop_by_tableid(1, 0, &out); }, {"nd tarvo_nd_next_nhop_by_tableid"}},
      {[&] { tarvo_nd_lookup_nhop_by_tableid(1, 0, &out); },
       {"nd tarvo_nd_lookup_nhop_by_tableid"}},
      {[&] { tarvo_nd_first_tableid(0, &ref); }, {"nd tarvo_nd_first_tableid"}},
      {[&] { tarvo_nd_next_tableid(0, 1, &ref); }, {"nd tarvo_nd_next_tableid"}},
      {[&] { tarvo_nd_lookup_tableid(0, "", &ref); }, {"nd tarvo_nd_lookup_tableid"}}};
  w.start();
  tarvo_nd_enqueue_table_update("A", 7, 1);
  w.run();
  w.for_good = true;
  for (const bool active : {false, true}) {
    w.fail_next("");
    if (active) w.client(1);
    w.fail_next("pthread_mutex_trylock", 1, 16);  // as if busy, so that the lock is announced
    for (size_t i = active ? 0 : kAlways; i < kSites.size(); ++i) {
      w.take();
      kSites[i].first();
      std::set<std::string> names;
      for (const std::string &line : w.take())
        if (line.starts_with("block ")) names.insert(line.substr(6));
      EXPECT_EQ(names, active ? kSites[i].second : std::set<std::string>{}) << i;
    }
  }
}

// -------------------------------- what nobody sends or asks --------------------------------

TEST(Refusals, AreToldByCodeOrMessage) {
  w.start();
  w.take();
  EXPECT_EQ(tarvo_nd_work_enqueue(nullptr), 0);
  for (const uint32_t type : {0u, 11u}) {
    tarvo_nd_work_req_t request = {};
    request.type = type;
    tarvo_nd_work_enqueue(&request);
  }
  w.fail_next("pthread_mutex_trylock nd");
  w.run();
  EXPECT_EQ(w.take(), (texts{"log 5 INTERNAL During enqueuing NHop:0:invalid request",
                             "block nd tarvo_nd_process_work_req",  // unknown, but under the lock
                             "log 5 INTERNAL PE discovery invalid request type:0:Unknown",
                             "log 5 INTERNAL PE discovery invalid request type:11:Unknown"}));
  EXPECT_EQ(tarvo_pe_discovery_register(1, "A", nullptr), 0x44a30400);
  EXPECT_EQ(TARVO_ND_ERR_NOT_FOUND, 0x44a30600);
  for (const bool active : {false, true}) {
    if (active) w.client(1);
    EXPECT_EQ(tarvo_nd_first_nhop_by_tableid(0, nullptr), TARVO_ND_ERR_INVALID_ARG);
    EXPECT_EQ(tarvo_nd_next_nhop_by_tableid(7, 0, nullptr), TARVO_ND_ERR_INVALID_ARG);
    EXPECT_EQ(tarvo_nd_first_tableid(0, nullptr), TARVO_ND_ERR_INVALID_ARG);
  }
  tarvo_nd_enqueue_nhop_update(7, 9, 1);
  w.run();
  tarvo_nd_nhop_table_t ref = {};
  EXPECT_EQ(tarvo_nd_first_tableid(9, &ref), TARVO_ND_OK) << "no name wanted";
}

TEST(Refusals, NullIsNothing) {
  wavl_tree_t tables = {};
  tarvo_nd_nhop_t nhop = {};
  tarvo_nd_nhop_table_t ref = {};
  {
    guarded_lock hold(tarvo_nd_mutex, "test");
    tarvo_nd_nhop_notify_all(&nhop, true);  // while inactive
  }
  EXPECT_EQ(w.take(), texts{});

  w.start();
  tarvo_nd_enqueue_table_update(nullptr, 9, 1);
  w.client(1);
  tarvo_nd_enqueue_nhop_update(9, htonl(host("10.0.0.1")), 1);
  w.run();
  w.take();
  guarded_lock hold(tarvo_nd_mutex, "test");
  EXPECT_EQ(tarvo_nd_nhop_tree_next(nullptr), nullptr);
  EXPECT_EQ(tarvo_nd_nhop_table_next(nullptr, nullptr), nullptr);
  EXPECT_EQ(tarvo_nd_nhop_table_next(&tables, nullptr), nullptr);
  EXPECT_EQ(tarvo_nd_vrf_name2tableid(nullptr), 0u);
  EXPECT_EQ(tarvo_nd_vrf_redist(nullptr, nullptr), 0);
  // The whole word says that a table is on; an unknown action is none.
  tarvo_nd_vrf_t vrf = {};
  vrf.flags = 2;
  for (int action : {static_cast<int>(TARVO_ND_REDIST_START), 5})
    EXPECT_EQ(tarvo_nd_vrf_redist(&vrf, &action), 1);
  tarvo_nd_nhop_table_delete(nullptr, &nhop);
  tarvo_nd_nhop_table_delete(&ref, nullptr);
  tarvo_nd_nhop_resolve(nullptr);
  tarvo_nd_nhop_delete(nullptr);
  tarvo_nd_nhop_free(nullptr);
  EXPECT_EQ(w.take(), texts{});
}

TEST(Provider, ServesEachItemByItsCallbacksOnly) {
  static const std::string kNoItem = "0x40828400";
  const tarvo_nd_ods_fns_t &ods = tarvoMplsDiscoveryODSFns;
  EXPECT_TRUE(ods.unused[0] == nullptr && ods.unused[1] == nullptr);
  const uint32_t hop = host("10.0.0.1"), none = 0, nhop = htonl(hop);
  constexpr uint32_t kState = TARVO_DISC_ITEM_STATE, kNhops = TARVO_DISC_ITEM_NHOP,
                     kPrefix = TARVO_DISC_ITEM_PREFIX, kVrfs = TARVO_DISC_ITEM_VRF;
  w.start();
  tarvo_nd_enqueue_table_update("A", 1, 1);
  for (const bool active : {false, true}) {
    if (active) w.client(1), tarvo_nd_enqueue_nhop_update(1, nhop, 1), w.run();
    for (const uint32_t item : {0u, kState, kNhops, kPrefix, kVrfs, kVrfs + 1, 1u}) {
      const bool gets = item == kState || item == kPrefix || item == kVrfs;
      const bool lists = item == kNhops || item == kVrfs;
      EXPECT_EQ(ods_get(item, hop, "A") == kNoItem, !gets) << hex(item);
      EXPECT_EQ(ods_list(item, hop) == kNoItem, !lists) << hex(item);
      EXPECT_EQ(ods_list(item, hop, true) == kNoItem, item != kVrfs) << hex(item);
    }
  }
  // Without a place for the answer it is built all the same, but nothing found comes first.
  for (const bool found : {true, false}) {
    ods_path_t nhops = {0, kNhops, 0, {found ? &none : &nhop, nullptr}};
    ods_path_t vrfs = {0, kVrfs, 0, {found ? &nhop : &none, nullptr}};
    const char *const code = found ? "0x40818800" : "0x40828600";
    EXPECT_EQ(hex(ods.list(nullptr, nullptr, &nhops, &nhops)), code);
    EXPECT_EQ(hex(ods.list(nullptr, nullptr, &vrfs, &vrfs)), code);
    EXPECT_EQ(hex(ods.datalist(nullptr, nullptr, &vrfs, &vrfs)), code);
    EXPECT_FALSE(in_use().contains("list") || in_use().contains("data list"));
  }
}

TEST(Timers, AStrayOneIsStoppedAndNotFoundAgain) {
  w.start();
  w.take();
  add_stray_timer();
  w.expire();
  EXPECT_EQ(w.take(), texts{"stop other"});
}

TEST(Limit, IsToldBeforeAnyNextHopWasFreed) {
  w.start();
  w.client(1, "");
  for (uint32_t host = 1; host <= TARVO_ND_MAX_NHOPS + 2; ++host)
    tarvo_nd_enqueue_nhop_update(1, htonl(host), 1);
  w.run();
  const auto told = [](const std::string &line) { return line.starts_with("log 6 DISC_LIMIT"); };
  EXPECT_EQ(std::ranges::count_if(w.take(), told), 1);
}

TEST(TableDelete, DropsWhatIsReportedWhileItsReferencesGo) {
  w.start();
  w.routes = {"10.0.0.0/8"};
  tarvo_nd_enqueue_table_update("A", 7, 1);
  EXPECT_FALSE(tarvo_nd_is_active());
  w.run();
  EXPECT_STREQ(tarvo_nd_tableid2vrf_name(7), "A") << "known while inactive";
  tarvo_pe_discovery_register(1, "A", [](uint32_t, uint32_t event, const void *data) {
    if (event == TARVO_ND_EVENT_REMOVE)
      tarvo_nd_enqueue_nhop_update(7, static_cast<const tarvo_nd_nhop_info_t *>(data)->nhop_addr,
                                   1);
  });
  tarvo_nd_enqueue_nhop_update(7, htonl(host("10.0.0.1")), 1);
  tarvo_nd_enqueue_table_update("A", 7, 0);
  w.run();
  EXPECT_EQ(nhop_count(), 0);
}
