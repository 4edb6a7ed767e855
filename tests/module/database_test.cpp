// Next hops and queries: what is read better than found by the model check, or not found by it.
#include <gtest/gtest.h>

#include "db/nhop_table.h"
#include "db/vrf_redist.h"
#include "db/vrf_table.h"
#include "engine/guarded_mutex.h"
#include "engine/shared_words.h"
#include "query/nhop_query.h"
#include "tests/module/world.h"

using texts = std::vector<std::string>;

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

TEST(Queries, RefuseNull) {
  w.start();
  for (const bool active : {false, true}) {
    if (active) w.client(1);
    EXPECT_EQ(tarvo_nd_first_nhop_by_tableid(0, nullptr), TARVO_ND_ERR_INVALID_ARG);
    EXPECT_EQ(tarvo_nd_next_nhop_by_tableid(7, 0, nullptr), TARVO_ND_ERR_INVALID_ARG);
    EXPECT_EQ(tarvo_nd_first_tableid(0, nullptr), TARVO_ND_ERR_INVALID_ARG);
  }
  w.report(7, "10.0.0.1");
  tarvo_nd_nhop_table_t ref = {};
  EXPECT_EQ(tarvo_nd_first_tableid(addr("10.0.0.1"), &ref), TARVO_ND_OK) << "no name wanted";
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
