// Start-up, the guarded discipline, the work queue, the worker and the timers.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <semaphore>
#include <thread>

#include "engine/log.h"
#include "engine/shared_words.h"
#include "engine/timers.h"
#include "engine/work_queue.h"
#include "engine/worker.h"
#include "tarvo/agent_services.h"
#include "tarvo/messages.h"
#include "tests/module/world.h"

using texts = std::vector<std::string>;

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

static void lock(guarded_mutex_t *m) TARVO_NO_THREAD_SAFETY_ANALYSIS {
  guarded_mutex_lock(m, "caller", 7);
}
static void unlock(guarded_mutex_t *m) TARVO_NO_THREAD_SAFETY_ANALYSIS { guarded_mutex_unlock(m); }

TEST(Guarded, EveryPathOfLockAndUnlock) {
  const struct {
    const char *what, *failing;
    int error;
    bool pending, companion_held;
    texts expected;
  } kPaths[] = {
      {"free", "", 0, false, false, {}},
      {"busy", "pthread_mutex_trylock", 16, false, false, {"block nd caller", "unblock"}},
      {"not takeable", "pthread_mutex_trylock", 22, false, false, {"block nd caller", "unblock"}},
      {"unlock fails",
       "pthread_mutex_unlock",
       22,
       false,
       false,
       {"log 5 INTERNAL Cannot unlock nd mutex, error:22:Invalid argument"}},
      {"not the reviver",
       "",
       0,
       true,
       false,
       {"log 5 INTERNAL Cannot unlock nd mutex, error:1:Operation not permitted"}},
      {"another is the reviver",
       "",
       0,
       true,
       true,
       {"log 5 INTERNAL Cannot unlock nd mutex, error:1:Operation not permitted"}},
      {"companion busy",
       "pthread_mutex_timedlock",
       16,
       true,
       false,
       {"log 5 INTERNAL Cannot unlock nd mutex, error:1:Operation not permitted"}},
      {"companion broken",
       "pthread_mutex_timedlock",
       22,
       true,
       false,
       {"log 5 INTERNAL Cannot unlock nd mutex, error:22:Invalid argument"}},
      {"wait for the revival fails",
       "rmx_wait_on_revival_condvar",
       22,
       true,
       false,
       {"log 5 INTERNAL Cannot lock nd mutex, error:22:Invalid argument",
        "log 5 INTERNAL Cannot unlock nd mutex, error:1:Operation not permitted"}},
  };
  w.pass_revival_wait = true;
  for (const auto &path : kPaths) {
    std::binary_semaphore held(0), finished(0);
    std::thread other([&] {
      if (path.companion_held) pthread_mutex_lock(&tarvo_nd_mutex.revival_mutex);
      held.release();
      finished.acquire();
      if (path.companion_held) pthread_mutex_unlock(&tarvo_nd_mutex.revival_mutex);
    });
    held.acquire();
    w.fail_next(path.failing, 1, path.error);
    tarvo_nd_mutex.revival_pending = path.pending;
    lock(&tarvo_nd_mutex);
    unlock(&tarvo_nd_mutex);
    EXPECT_EQ(w.take(), path.expected) << path.what;
    w.fail.clear();
    tarvo_nd_mutex.revival_pending = 0;
    pthread_mutex_trylock(&tarvo_nd_mutex.mutex);  // some paths left it locked
    pthread_mutex_unlock(&tarvo_nd_mutex.mutex);
    finished.release();
    other.join();
  }
}

TEST(Guarded, AFailedBlockingLockLogsAndGoesOn) {
  w.fail = {{"pthread_mutex_trylock", 1}, {"pthread_mutex_lock", 1}};
  w.error = 22;
  tarvo_nd_workq_mutex.revival_pending = 1;  // not looked at after the failure
  lock(&tarvo_nd_workq_mutex);
  EXPECT_EQ(w.take(), (texts{"block workQ caller", "unblock",
                             "log 5 INTERNAL Cannot lock workQ mutex, error:22:Invalid argument"}));
  tarvo_nd_workq_mutex.revival_pending = 0;
  w.fail = {{"pthread_mutex_unlock", 1}};
  w.error = 1;
  unlock(&tarvo_nd_workq_mutex);
  EXPECT_EQ(w.take(),
            texts{"log 5 INTERNAL Cannot unlock workQ mutex, error:1:Operation not permitted"});
}

TEST(GuardedDeath, CompanionFailuresAreAsserted) {
  const struct {
    bool reviver;
    const char *operation;
    const char *told;
  } kCalls[] = {
      {false, "pthread_mutex_unlock", "os/pthread: 341 retcode == EOK -- assertion failed\n"},
      {true, "pthread_cond_signal", "os/pthread: 350 retcode == EOK -- assertion failed\n"},
      {true, "pthread_mutex_unlock", "os/pthread: 355 retcode == EOK -- assertion failed\n"}};
  for (const auto &call : kCalls) {
    const auto fail = [&] {
      tarvo_nd_mutex.revival_pending = 1;
      if (call.reviver) pthread_mutex_lock(&tarvo_nd_mutex.revival_mutex);
      w.fail[call.operation] = 1;
      unlock(&tarvo_nd_mutex);
    };
    EXPECT_EXIT(fail(), testing::KilledBySignal(SIGABRT), call.told);
  }
}

TEST(Guarded, ADeadOwnersLockIsRevivedOnceAndWaitedFor) {
  pthread_mutexattr_t robust;
  pthread_mutexattr_init(&robust);
  pthread_mutexattr_settype(&robust, PTHREAD_MUTEX_ERRORCHECK);
  pthread_mutexattr_setrobust(&robust, PTHREAD_MUTEX_ROBUST);
  pthread_mutex_init(&tarvo_nd_mutex.mutex, &robust);
  std::thread([] { lock(&tarvo_nd_mutex); }).join();

  // Both ways to meet the dead owner: at the trylock, and after having had to block.
  for (const bool blocking : {false, true}) {
    if (blocking) {
      std::thread([] { lock(&tarvo_nd_mutex); }).join();
      w.fail_next("pthread_mutex_trylock");
    }
    lock(&tarvo_nd_mutex);
    w.fail.clear();
    EXPECT_EQ(w.take(), blocking ? (texts{"block nd caller", "unblock"}) : texts{});
    EXPECT_NE(tarvo_nd_mutex.revival_pending, 0);

    std::atomic<bool> done = false;
    bool waited = false;
    std::thread other([&] {
      lock(&tarvo_nd_mutex);
      waited = done;
      unlock(&tarvo_nd_mutex);
    });
    // Reviving released the lock proper, so the other holds it while it waits.
    while (pthread_mutex_trylock(&tarvo_nd_mutex.mutex) == 0)
      pthread_mutex_unlock(&tarvo_nd_mutex.mutex), std::this_thread::yield();
    done = true;
    unlock(&tarvo_nd_mutex);
    other.join();
    EXPECT_TRUE(waited);
    EXPECT_EQ(tarvo_nd_mutex.revival_pending, 0);
    // Whether the other had to block is the scheduler's affair.
    EXPECT_EQ(std::ranges::count_if(w.take(), [](auto &t) { return t.starts_with("wrong"); }), 0);
  }
}

// -------------------------------------- queue and worker --------------------------------------

TEST(Queue, RefusalsAndFailures) {
  w.start();
  w.take();
  EXPECT_EQ(tarvo_nd_work_enqueue(nullptr), 0);
  EXPECT_EQ(w.take(), texts{"log 5 INTERNAL During enqueuing NHop:0:invalid request"});

  EXPECT_EQ(tarvo_pe_discovery_register(1, "A", nullptr), TARVO_ND_ERR_INVALID_ARG);
  EXPECT_EQ(tarvo_nd_enqueue_table_update("A", 0xe0000000, 1), 1);
  EXPECT_EQ(tarvo_nd_enqueue_table_update("A", 0xe0000000, 0), 1);
  w.fail = {{"chunk_malloc", 1}};
  w.for_good = true;
  EXPECT_EQ(tarvo_pe_discovery_register(1, nullptr, tell), TARVO_ND_ERR_NOMEM);
  EXPECT_EQ(tarvo_pe_discovery_unregister(1), TARVO_ND_ERR_NOMEM);
  EXPECT_EQ(tarvo_pe_discovery_resend(1, "A"), TARVO_ND_ERR_NOMEM);
  EXPECT_EQ(tarvo_nd_enqueue_rib_restart(), 0);
  EXPECT_EQ(w.take(), texts(4, "log 4 ERR_MEM During mallocing route update information"));
}

// A request is zero but for its type and what the type uses, so a reader of any body is safe.
TEST(Queue, RequestsAreZeroWhereUnused) {
  w.start();
  tarvo_pe_discovery_unregister(9);
  tarvo_pe_discovery_resend(9, "");
  tarvo_nd_enqueue_rib_restart();
  tarvo_nd_enqueue_nhop_update(7, 9, 0);
  for (const uint32_t type : {4u, 10u, 9u, 2u}) {
    tarvo_nd_work_req_t expected, found;
    memset(&expected, 0, sizeof expected);
    expected.type = type;
    if (type != 9) expected.nhop.table_id = type == 2 ? 7 : 9;
    if (type == 2) expected.nhop.nhop_addr = 9;
    ASSERT_TRUE(tarvo_nd_work_dequeue(&found, "test"));
    found.link = nullptr;
    EXPECT_EQ(memcmp(&found, &expected, sizeof found), 0) << type;
  }
}

TEST(Worker, TakesItsLocksUnderItsNameAndSoDoTheRest) {
  const std::vector<std::pair<std::function<void()>, texts>> kSites = {
      {[] { tarvo_nd_enqueue_rib_restart(); }, {"block workQ tarvo_nd_work_enqueue"}},
      {[] { tarvo_nd_work_round(); },
       {"block workQ tarvo_nd_process_work_req", "block nd tarvo_nd_process_work_req"}},
      {[] { tarvo_nd_set_rib_refresh_interval(300); },
       {"block nd tarvo_nd_set_rib_refresh_interval"}},
      {[] { tarvo_nd_get_refresh_interval_remaining(); },
       {"block nd tarvo_nd_get_refresh_interval_remaining"}},
      {[] { w.advance(271), w.expire(); },
       {"block nd tarvo_nd_timer_handler", "block workQ tarvo_nd_work_enqueue"}},
      {[] { tarvo_nd_enqueue_table_update("A", 7, 0), w.run(); },
       {"block workQ tarvo_nd_del_nhop_update_from_work_req"}},
  };
  w.start();
  w.table(7, "A");
  w.client(1);
  for (const auto &[call, expected] : kSites) {
    w.take();
    w.fail_next("pthread_mutex_trylock", 1, 16);
    w.for_good = true;
    call();
    texts blocks = w.take();
    std::erase_if(blocks,
                  [](auto &t) { return !t.starts_with("block") && !t.starts_with("wrong"); });
    for (const std::string &block : expected)
      EXPECT_EQ(std::ranges::count(blocks, block) > 0, true) << block;
    EXPECT_EQ(std::ranges::count_if(blocks, [](auto &t) { return t.starts_with("wrong"); }), 0);
  }
}

TEST(Worker, UnknownTypesAreLoggedAndInactiveRequestsDropped) {
  w.start();
  w.take();
  for (uint32_t type : {0u, 11u, 1u, 2u, 7u, 8u, 9u}) {
    tarvo_nd_work_req_t request = {};
    request.type = type;
    tarvo_nd_work_enqueue(&request);
  }
  w.run();
  EXPECT_EQ(w.take(), (texts{"log 5 INTERNAL PE discovery invalid request type:0:Unknown",
                             "log 5 INTERNAL PE discovery invalid request type:11:Unknown"}));
  EXPECT_EQ(w.waits, (texts{"wait 6", "waited"}));
}

TEST(Messages, CatalogueIsAsTabled) {
  const struct {
    const oxa_msg_rec_t *record;
    const char *mnemonic;
    unsigned severity, flags;
    const oxa_msg_limit_t *limit;
    unsigned per;
    const char *format;
  } kRows[] = {
      {&oxa_msg_rec_tarvo_agent, "AGENT", 7, 0, nullptr, 0, "%s:id(gid:%d,nid:%d,pid:%d):%s"},
      {&oxa_msg_rec_tarvo_disc_limit, "DISC_LIMIT", 6, 0, &oxa_msg_limit_tarvo_disc_limit, 300,
       "%s"},
      {&oxa_msg_rec_tarvo_err_mem, "ERR_MEM", 4, 0, nullptr, 0, "%s"},
      {&oxa_msg_rec_tarvo_err_mplslm, "ERR_MPLSLM", 4, 1, &oxa_msg_limit_tarvo_err_mplslm, 1,
       "MPLSLM(%d) %s: %s"},
      {&oxa_msg_rec_tarvo_err_oper, "ERR_OPER", 4, 1, &oxa_msg_limit_tarvo_err_oper, 1,
       "OP:%d.%s.%s"},
      {&oxa_msg_rec_tarvo_err_quill, "ERR_QUILL", 7, 0, nullptr, 0, "%s:%s"},
      {&oxa_msg_rec_tarvo_internal, "INTERNAL", 5, 0, nullptr, 0, "%s:%d:%s"},
      {&oxa_msg_rec_tarvo_issu_info, "ISSU_INFO", 6, 0, &oxa_msg_limit_tarvo_issu_info, 300,
       "%s (%d)"},
      {&oxa_msg_rec_tarvo_lpd_result_chg, "LPD_RESULT_CHG", 5, 0, nullptr, 0,
       "Op:%u Tree trace for target address %s %s (retcode: %s)"},
      {&oxa_msg_rec_tarvo_lsp_group_chg, "LSP_GROUP_CHG", 5, 0, nullptr, 0,
       "Op:%u for target address %s from %s to %s"},
      {&oxa_msg_rec_tarvo_threshold_clear, "THRESHOLD_CLEAR", 5, 0, nullptr, 0,
       "Monitor element has reset the threshold reaction. Op:%u, TargetAddr:%s, MonElem:%s(%s)"},
      {&oxa_msg_rec_tarvo_threshold_set, "THRESHOLD_SET", 5, 0, nullptr, 0,
       "Monitor element has exceeded the threshold condition. Op:%u, TargetAddr:%s, "
       "MonElem:%s(%s)"},
  };
  uint32_t id = 0x09460000;
  for (const auto &row : kRows) {
    const oxa_msg_rec_t &r = *row.record;
    EXPECT_STREQ(r.mnemonic, row.mnemonic);
    EXPECT_EQ(r.message_id, id++) << row.mnemonic;
    EXPECT_EQ(r.severity, row.severity) << row.mnemonic;
    EXPECT_EQ(r.flags, row.flags) << row.mnemonic;
    EXPECT_EQ(r.limit, row.limit) << row.mnemonic;
    EXPECT_EQ(r.limit == nullptr ? 0 : r.limit->limit, row.per) << row.mnemonic;
    EXPECT_STREQ(r.format, row.format) << row.mnemonic;
    EXPECT_STREQ(r.facility, "TARVO");
    EXPECT_STREQ(r.group, "KORV");
    EXPECT_EQ(r.reserved0 + r.reserved1 + r.reserved2 + r.reserved3, 0u) << row.mnemonic;
  }
}

// ------------------------------------------- timers -------------------------------------------

TEST(Timers, CycleKeepsItsLengthAndLeavesSurviveAFailedEnqueue) {
  w.start();
  w.table(7, "A");
  w.client(1);
  w.take();
  w.pass(100.3);
  EXPECT_EQ(tarvo_nd_get_refresh_interval_remaining(), 199);  // 170.7 s and the clear phase
  w.fail_next("chunk_malloc", 2);                             // the clear request is lost
  w.pass(499.7);
  EXPECT_EQ(w.take(), (texts{"stop refresh", "start clear 29", "rib reset 7", "stop clear",
                             "log 4 ERR_MEM During mallocing route update information",
                             "start refresh 271", "stop refresh", "start clear 29", "rib reset 7",
                             "stop clear", "start refresh 271"}));
  EXPECT_EQ(w.now, 600'000'000'000);
  EXPECT_EQ(w.traces,
            (texts{"13/1 DISC: Notify client 1 of END", "13/1 DISC: Refresh interval expired",
                   "13/1 DISC: Clear interval expired", "13/1 DISC: Refresh interval expired",
                   "13/1 DISC: Clear interval expired"}));
  w.pass(280.5);
  EXPECT_EQ(tarvo_nd_get_refresh_interval_remaining(), 19);  // 19.5 s of the clear phase
}

TEST(Timers, AStrayOneIsStoppedAndNotFoundAgain) {
  w.start();
  w.take();
  add_stray_timer();
  w.expire();
  EXPECT_EQ(w.take(), texts{"stop other"});
}
