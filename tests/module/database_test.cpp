// Next hops, VRFs, clients and queries: the cases that a random walk meets too rarely.
#include <gtest/gtest.h>

#include "db/nhop_table.h"
#include "db/vrf_redist.h"
#include "db/vrf_table.h"
#include "engine/guarded_mutex.h"
#include "engine/shared_words.h"
#include "query/nhop_query.h"
#include "tests/module/world.h"

using texts = std::vector<std::string>;

static const std::string kLong(300, 'v');

TEST(Nhop, OrderOfNotificationsOnTheWayUpAndDown) {
  w.start();
  w.routes = {"10.0.0.0/8"};
  w.table(9, "B");
  w.table(7, "A");
  w.client(1);
  w.client(2, "A");
  w.client(3, "B");
  w.client(1, "A");
  w.take();
  w.report(9, "10.0.0.1");
  w.report(7, "10.0.0.1");
  w.report(7, "10.0.0.1");
  EXPECT_EQ(w.take(), (texts{"tell 1 ADD 10.0.0.1 10.0.0.0/8", "tell 3 ADD 10.0.0.1 10.0.0.0/8",
                             "tell 2 ADD 10.0.0.1 10.0.0.0/8", "tell 1 ADD 10.0.0.1 10.0.0.0/8"}));
  EXPECT_EQ(w.traces.back(), "13/1 DISC: Notify client 1 of ADD (10.0.0.1 10.0.0.0/8)");
  tarvo_pe_discovery_resend(2, "A");
  w.run();
  EXPECT_EQ(w.traces.back(), "13/1 DISC: Notify client 2 of RESEND_END");
  w.take();

  w.pass(271);  // marked; a changed route sends ADD only, a vanished one REMOVE with the old prefix
  w.routes = {"10.0.0.0/16"};
  w.take();
  w.report(9, "10.0.0.1");
  EXPECT_EQ(w.take(),
            (texts{"tell 1 ADD 10.0.0.1 10.0.0.0/16", "tell 2 ADD 10.0.0.1 10.0.0.0/16",
                   "tell 1 ADD 10.0.0.1 10.0.0.0/16", "tell 3 ADD 10.0.0.1 10.0.0.0/16"}));
  w.report(7, "10.0.0.1");
  w.pass(300);
  w.routes.clear();
  w.take();
  w.report(7, "10.0.0.1");
  EXPECT_EQ(w.take(),
            (texts{"tell 1 REMOVE 10.0.0.1 10.0.0.0/16", "tell 2 REMOVE 10.0.0.1 10.0.0.0/16",
                   "tell 1 REMOVE 10.0.0.1 10.0.0.0/16", "tell 3 REMOVE 10.0.0.1 10.0.0.0/16"}));
  w.routes = {"10.0.0.1/32"};
  w.report(9, "10.0.0.1");  // unreachable: resolved by every report
  w.take();
  w.report(9, "10.0.0.1", false);
  w.report(7, "10.0.0.1", false);
  EXPECT_EQ(w.take(),
            (texts{"tell 3 REMOVE 10.0.0.1 10.0.0.1/32", "tell 2 REMOVE 10.0.0.1 10.0.0.1/32",
                   "tell 1 REMOVE 10.0.0.1 10.0.0.1/32", "tell 1 REMOVE 10.0.0.1 10.0.0.1/32"}));
}

TEST(Nhop, LimitIsLoggedOnceUntilAnEntryIsFreed) {
  const texts logged = {"log 6 DISC_LIMIT Discovered PE targets has exceeded the maximum number"};
  w.start();
  w.client(1);
  w.take();
  for (int i = 0; i < 500; ++i)
    w.report(7, ("10.1." + std::to_string(i / 250) + "." + std::to_string(i % 250)).c_str());
  EXPECT_EQ(w.take(), texts{});
  w.report(7, "10.2.0.1");
  w.report(7, "10.2.0.2");
  w.report(8, "10.1.0.0");  // present: never refused
  EXPECT_EQ(w.take(), logged);
  w.report(7, "10.1.0.1", false);
  w.report(7, "10.2.0.1");
  w.report(7, "10.2.0.2");
  EXPECT_EQ(w.take(), logged);
}

// Every failure of an allocation or tree call, with its message and what survives.
TEST(Failures, EachLeavesWhatWasLearned) {
  const struct {
    const char *operation;
    int nth;
    std::function<void()> action;
    texts expected;
  } kRows[] = {
      {"chunk_create",
       1,
       [] { w.client(1); },
       {"log 4 ERR_MEM During mallocing NHop Chunk", "tell 1 END"}},
      {"chunk_create",
       2,
       [] { w.client(1); },
       {"log 4 ERR_MEM During mallocing Table ID Chunk", "tell 1 END"}},
      {"wavl_init",
       1,
       [] { w.client(1); },
       {"log 4 ERR_MEM During mallocing NHop tree", "tell 1 END"}},
      {"calloc_named",
       1,
       [] { w.client(1, "A"); },
       {"log 4 ERR_MEM During mallocing client entry"}},
      {"calloc_named",
       2,
       [] { w.client(1, "A"); },
       {"log 4 ERR_MEM During mallocing client information"}},
      {"avl_insert", 1, [] { w.client(1, "A"); }, {}},
      // From here on client 9 of A keeps discovery active and 10.0.0.9 known under table 7.
      {"calloc_named",
       2,
       [] { w.client(1, "A"); },
       {"log 4 ERR_MEM During mallocing client information"}},
      {"calloc_named",
       1,
       [] { w.table(8, "C"); },
       {"log 4 ERR_MEM During mallocing vrf information"}},
      {"avl_insert", 1, [] { w.table(8, "C"); }, {}},
      {"chunk_malloc",
       2,
       [] { w.report(8, "10.0.0.1"); },
       {"log 4 ERR_MEM During mallocing Nhop Chunk"}},
      {"wavl_init", 1, [] { w.report(8, "10.0.0.1"); }, {}},
      {"wavl_insert_thread", 1, [] { w.report(8, "10.0.0.1"); }, {}},
      {"chunk_malloc",
       2,
       [] { w.report(8, "10.0.0.9"); },
       {"log 4 ERR_MEM During mallocing Nhop TableId Chunk"}},
      {"wavl_insert_thread", 1, [] { w.report(8, "10.0.0.9"); }, {}},
  };
  w.start();
  w.routes = {"10.0.0.0/8"};
  w.table(7, "A");
  int row_number = 0;
  for (const auto &row : kRows) {
    if (row_number == 6) {
      w.client(9, "A");
      w.report(7, "10.0.0.9");
    }
    w.take();
    const auto before = pools();
    w.fail_next(row.operation, row.nth);
    row.action();
    w.fail.clear();
    EXPECT_EQ(w.take(), row.expected) << "row " << row_number;
    EXPECT_EQ(nhop_count(), row_number < 6 ? 0 : 1);
    EXPECT_EQ(pools(), before) << "row " << row_number;
    if (row_number < 6) {
      EXPECT_EQ(tarvo_nd_is_active(), 0);
      tarvo_pe_discovery_resend(1, row_number < 3 ? nullptr : "A");
      w.run();  // a failed activation keeps the client; a failed registration keeps nothing
      EXPECT_EQ(w.take(), row_number < 3 ? texts{"tell 1 RESEND_END"} : texts{});
      tarvo_pe_discovery_unregister(1);
      w.run();
    } else {
      tarvo_nd_nhop_t out = {};
      EXPECT_EQ(tarvo_nd_next_nhop_by_tableid(0, 0, &out), TARVO_ND_OK);
      EXPECT_EQ(dotted(out.info.nhop_addr), "10.0.0.9");
      EXPECT_EQ(tarvo_nd_next_nhop_by_tableid(0, out.info.nhop_addr, &out), TARVO_ND_ERR_NOT_FOUND);
    }
    ++row_number;
  }
}

TEST(Nhop, AnEntryWithoutReferencesIsSkippedByTheSweepAndGoesWithAnyDelete) {
  w.start();
  w.routes = {"10.0.0.0/8"};
  w.client(1);
  w.fail_next("chunk_malloc", 3);  // the request, the entry, its reference
  w.report(7, "10.0.0.1");
  w.fail.clear();
  w.take();
  w.pass(300);
  EXPECT_EQ(w.take(), (texts{"stop refresh", "start clear 29", "stop clear", "start refresh 271"}));
  w.report(5, "10.0.0.1", false);
  EXPECT_EQ(w.take(), texts{"tell 1 REMOVE 10.0.0.1 10.0.0.0/8"});
}

TEST(Nhop, NullIsNothing) {
  guarded_lock hold(tarvo_nd_mutex, "test");
  EXPECT_EQ(tarvo_nd_nhop_tree_next(nullptr), nullptr);
  EXPECT_EQ(tarvo_nd_nhop_table_next(nullptr, nullptr), nullptr);
  wavl_tree_t tables = {};
  EXPECT_EQ(tarvo_nd_nhop_table_next(&tables, nullptr), nullptr);
  EXPECT_EQ(tarvo_nd_vrf_name2tableid(nullptr), 0u);
  EXPECT_EQ(tarvo_nd_vrf_redist(nullptr, nullptr), 0);
  tarvo_nd_nhop_t nhop = {};
  tarvo_nd_nhop_table_t ref = {};
  tarvo_nd_nhop_table_delete(nullptr, &nhop);
  tarvo_nd_nhop_table_delete(&ref, nullptr);
  tarvo_nd_nhop_resolve(nullptr);
  tarvo_nd_nhop_delete(nullptr);
  tarvo_nd_nhop_free(nullptr);
  tarvo_nd_nhop_notify_all(&nhop, true);  // while inactive
  EXPECT_EQ(w.take(), texts{});
}

TEST(Clients, NamesAreCutAlikeAndTheFirstActivationRetries) {
  w.start();
  w.routes = {"10.0.0.0/8"};
  w.table(7, kLong.c_str());
  w.table(5, nullptr);  // the empty name
  w.fail = {{"wavl_init", 1}};
  w.client(1, kLong.c_str());
  w.fail.clear();
  EXPECT_EQ(tarvo_nd_is_active(), 0);
  w.client(2, (kLong + "x").c_str());
  EXPECT_NE(tarvo_nd_is_active(), 0);
  w.report(7, "10.0.0.1");
  w.take();
  tarvo_pe_discovery_resend(2, kLong.substr(0, 244).c_str());
  tarvo_pe_discovery_resend(2, kLong.substr(0, 243).c_str());  // another name
  tarvo_pe_discovery_resend(2, nullptr);                       // not registered for all VPNs
  w.run();
  EXPECT_EQ(w.take(), (texts{"tell 2 ADD 10.0.0.1 10.0.0.0/8", "tell 2 RESEND_END"}));
  EXPECT_STREQ(tarvo_nd_tableid2vrf_name(5), "");
  EXPECT_EQ(std::string(tarvo_nd_tableid2vrf_name(7)), kLong.substr(0, 244));
  EXPECT_EQ(tarvo_nd_tableid2vrf_name(6), nullptr);
}

TEST(Queries, RefuseCopyAndWalk) {
  w.start();
  w.routes = {"10.0.0.0/8"};
  tarvo_nd_nhop_t out;
  tarvo_nd_nhop_table_t ref;
  memset(&out, 0x5a, sizeof out);
  memset(&ref, 0x5a, sizeof ref);
  const tarvo_nd_nhop_t untouched = out;
  for (const bool active : {false, true}) {
    if (active) w.client(1);
    EXPECT_EQ(tarvo_nd_first_nhop_by_tableid(0, nullptr), TARVO_ND_ERR_INVALID_ARG);
    EXPECT_EQ(tarvo_nd_next_nhop_by_tableid(7, 0, nullptr), TARVO_ND_ERR_INVALID_ARG);
    EXPECT_EQ(tarvo_nd_first_tableid(0, nullptr), TARVO_ND_ERR_INVALID_ARG);
    EXPECT_EQ(tarvo_nd_first_nhop(&out), TARVO_ND_ERR_NOT_FOUND);
    EXPECT_EQ(tarvo_nd_lookup_nhop_by_tableid(7, addr("10.0.0.1"), &out), TARVO_ND_ERR_NOT_FOUND);
    EXPECT_EQ(tarvo_nd_first_tableid(addr("10.0.0.1"), &ref), TARVO_ND_ERR_NOT_FOUND);
  }
  EXPECT_EQ(memcmp(&out, &untouched, sizeof out), 0);

  w.table(3, "three");
  for (const char *address : {"10.0.0.10", "10.0.0.2", "9.255.255.255"}) w.report(3, address);
  w.report(7, "10.0.0.10");
  const struct {
    const char *what;
    uint32_t table;
    const char *after, *found;
  } kWalks[] = {
      {"numeric order, not text order", 0, nullptr, "9.255.255.255"},
      {"from an address not present", 0, "10.0.0.3", "10.0.0.10"},
      {"skips hops outside the table", 7, "9.255.255.255", "10.0.0.10"},
      {"first of a table", 7, nullptr, "10.0.0.10"},
      {"end of the walk", 0, "10.0.0.10", nullptr},
  };
  for (const auto &walk : kWalks) {
    const uint32_t result = walk.after == nullptr
                                ? tarvo_nd_first_nhop_by_tableid(walk.table, &out)
                                : tarvo_nd_next_nhop_by_tableid(walk.table, addr(walk.after), &out);
    ASSERT_EQ(result, walk.found == nullptr ? TARVO_ND_ERR_NOT_FOUND : TARVO_ND_OK) << walk.what;
    EXPECT_TRUE(walk.found == nullptr || dotted(out.info.nhop_addr) == walk.found) << walk.what;
  }
  EXPECT_EQ(tarvo_nd_first_nhop_by_tableid(0, &out), TARVO_ND_OK);
  EXPECT_EQ(out.flags, 0u);
  EXPECT_EQ(out.info.prefix, 0u);
  EXPECT_EQ(tarvo_nd_lookup_nhop_by_tableid(7, addr("10.0.0.2"), &out), TARVO_ND_ERR_NOT_FOUND);
  EXPECT_EQ(tarvo_nd_lookup_nhop_by_tableid(3, addr("10.0.0.2"), &out), TARVO_ND_OK);
  EXPECT_EQ(out.flags, TARVO_ND_NHOP_REACHABLE);
  EXPECT_EQ(dotted(out.info.prefix), "10.0.0.0");
  EXPECT_EQ(memcmp(&out.tables, &untouched.tables, sizeof out.tables), 0);
  EXPECT_EQ(memcmp(&out.node, &untouched.node, sizeof out.node), 0);

  tarvo_nd_vrf_name_copy_t name = {};
  EXPECT_EQ(tarvo_nd_first_tableid(addr("10.0.0.10"), &ref), TARVO_ND_OK) << "no name wanted";
  EXPECT_EQ(tarvo_nd_first_tableid(addr("10.0.0.10"), &ref, &name), TARVO_ND_OK);
  EXPECT_EQ(ref.table_id, 3u);
  EXPECT_STREQ(name.name, "three");
  for (const uint32_t after : {3, 5}) {
    EXPECT_EQ(tarvo_nd_next_tableid(addr("10.0.0.10"), after, &ref, &name), TARVO_ND_OK);
    EXPECT_EQ(ref.table_id, 7u);
    EXPECT_EQ(ref.ref_count, 1u);
    EXPECT_FALSE(name.known);
  }
  EXPECT_EQ(tarvo_nd_next_tableid(addr("10.0.0.10"), 7, &ref), TARVO_ND_ERR_NOT_FOUND);
}

TEST(Queries, TakeTheLockOnceUnderTheirName) {
  w.start();
  w.client(1);
  tarvo_nd_nhop_t out = {};
  tarvo_nd_nhop_table_t ref = {};
  const struct {
    std::function<void()> call;
    const char *name;
  } kQueries[] = {
      {[&] { tarvo_nd_first_nhop_by_tableid(0, &out); }, "tarvo_nd_first_nhop"},
      {[&] { tarvo_nd_next_nhop_by_tableid(0, 0, &out); }, "tarvo_nd_next_nhop"},
      {[&] { tarvo_nd_lookup_nhop_by_tableid(0, 0, &out); }, "tarvo_nd_lookup_nhop"},
      {[&] { tarvo_nd_first_nhop_by_tableid(1, &out); }, "tarvo_nd_first_nhop_by_tableid"},
      {[&] { tarvo_nd_next_nhop_by_tableid(1, 0, &out); }, "tarvo_nd_next_nhop_by_tableid"},
      {[&] { tarvo_nd_lookup_nhop_by_tableid(1, 0, &out); }, "tarvo_nd_lookup_nhop_by_tableid"},
      {[&] { tarvo_nd_first_tableid(0, &ref); }, "tarvo_nd_first_tableid"},
      {[&] { tarvo_nd_next_tableid(0, 1, &ref); }, "tarvo_nd_next_tableid"},
      {[&] { tarvo_nd_lookup_tableid(0, "", &ref); }, "tarvo_nd_lookup_tableid"},
  };
  w.take();
  for (const auto &row : kQueries) {
    w.fail_next("pthread_mutex_trylock", 1, 16);  // as if busy, so that the lock is announced
    w.for_good = true;
    row.call();
    EXPECT_EQ(w.take(), (texts{std::string("block nd ") + row.name, "unblock"}));
  }
}
