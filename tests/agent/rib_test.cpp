// RIB, redistribution, fence and RIB thread against a model of what they keep and report.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <ctime>
#include <fstream>
#include <future>
#include <map>
#include <random>
#include <set>

#include "agent/agent_services.h"
#include "agent/descriptor.h"
#include "agent/fence.h"
#include "agent/global_table.h"
#include "agent/progress.h"
#include "agent/redistribution.h"
#include "agent/rib.h"
#include "agent/rib_thread.h"
#include "agent/seeded_hash.h"
#include "tarvo/discovery.h"

namespace agent {
namespace {

using nexthop_counts = std::map<uint32_t, int64_t>;
using table_counts = std::map<uint32_t, nexthop_counts>;
using targets = std::vector<route_target>;

enum asking { kOff, kOn, kReset };

/// Counts what is reported of the tables that are on, and answers the fence on another thread.
class fake_module {
 public:
  int ask(uint32_t table, asking what) {
    if (what != kOff) change([&] { counts_[table].clear(); });
    const int result = what == kReset ? tarvo_rib_ipv4_redist_reset(table)
                                      : tarvo_rib_ipv4_redist(table, what == kOn);
    if (what == kOff || result != 0) change([&] { counts_.erase(table); });
    return result;
  }
  int report(uint32_t table, uint32_t nexthop, int add) {
    change([&] {
      log_.emplace_back(nexthop, add);
      wrong += !counts_.contains(table);
      const int64_t now = counts_[table][nexthop] += add != 0 ? 1 : -1;
      wrong += now < 0;
      if (now == 0) counts_[table].erase(nexthop);
    });
    return 1;
  }
  uint32_t answer(tarvo_nd_notify_fn notify, uint32_t id, uint32_t event) {
    if (no_memory) return TARVO_ND_ERR_NOMEM;
    if (notify != nullptr) notify_ = notify;
    answers_.push_back(std::async(std::launch::async, [=, this] {
      std::lock_guard held(standstill);
      notify_(id, event, "");
    }));
    return TARVO_ND_OK;
  }
  size_t fences() const { return answers_.size(); }
  table_counts counts() {
    std::lock_guard held(lock_);
    return counts_;
  }
  /// The reports since the last call.
  std::vector<std::pair<uint32_t, int>> log() {
    std::lock_guard held(lock_);
    return std::exchange(log_, {});
  }

  std::atomic<int> wrong = 0;  ///< deletes of what had not been added, and reports of tables off
  std::atomic<bool> no_memory = false;
  std::mutex standstill;  ///< held by a test: nothing is answered

 private:
  template <typename How>
  void change(How how) {
    std::lock_guard held(lock_);
    how();
  }
  std::mutex lock_;
  table_counts counts_;  // of the tables that are on
  std::vector<std::pair<uint32_t, int>> log_;
  tarvo_nd_notify_fn notify_ = nullptr;
  std::vector<std::future<void>> answers_;
};
fake_module *the_module;

int report(uint32_t table, uint32_t nexthop, int add) {
  return the_module->report(table, nexthop, add);
}
const tarvo_nd_rib_fns_t kCallbacks = {report, nullptr};

nlri vpn_route(uint64_t rd, uint32_t prefix, uint32_t path_id = 0, uint8_t length = 24) {
  return {rd, prefix << 8, path_id, length, true};
}

struct world {
  world() {
    the_module = &module;
    install_services(reports, global);
    tarvo_rib_cb_fn_set(&kCallbacks);
    EXPECT_TRUE(pace.open());
  }
  void quiet() {
    while (routes.work()) continue;
  }
  bool announce(source_id from, const nlri &key, uint32_t nexthop, const targets &set) {
    const attr_id attributes = routes.acquire(nexthop, set);
    const bool taken = routes.announce(from, key, attributes);
    routes.release(attributes);
    return taken;
  }
  /// Grows the table to so many routes of one next hop, with target 10.
  void grow_to(uint32_t count) {
    while (routes.paths() < count)
      announce(source, vpn_route(1, static_cast<uint32_t>(routes.paths())), 1, {10});
  }

  fake_module module;
  fence pace;
  redistribution reports{pace};
  global_table global;
  rib routes{global, reports};
  const source_id source = routes.open_source();
};

/// The same without any cleverness, and the random steps that change both.
class model {
 public:
  model(world &w, uint32_t seed) : w_(w), random_(seed) {
    for (source_id &s : sources_) s = w_.routes.open_source();
  }
  void step() {
    const unsigned what = below(5000);
    if (what < 4500) return change_path(what < 4000);
    if (what < 4950) return void(w_.routes.work());
    if (what < 4951) return reopen(below(kSources));
    if (what < 4960) return toggle_vrf(1 + below(kTables));
    toggle_redistribution(1 + below(kTables));
  }
  void check() {
    w_.quiet();
    table_counts expected, shown, reported = w_.module.counts();
    for (const auto &[table, imports] : vrfs_) count(imports, expected[table]), shown[table];
    const auto counted = w_.routes.count_routes();
    ASSERT_TRUE(std::ranges::is_sorted(
        counted, {}, [](auto &c) { return std::pair(c.table_id, ntohl(c.nexthop)); }));
    for (const route_count &c : counted) shown[c.table_id][c.nexthop] = c.routes;
    ASSERT_EQ(shown, expected);
    for (const auto &[table, nexthops] : reported) ASSERT_EQ(nexthops, expected[table]);
    ASSERT_EQ(w_.module.wrong, 0);
    ASSERT_EQ(w_.routes.paths(), paths_.size());
    for (int i = 0; i < 50; ++i) check_lookup(static_cast<uint32_t>(random_()));
  }
  void empty() {
    for (unsigned i = 0; i < kSources; ++i) reopen(i);
    check();
  }

 private:
  static constexpr unsigned kSources = 4, kTables = 4, kTargets = 6;
  /// VPN, RD, prefix, length, then what tells the paths of an NLRI apart: source and path ID.
  using path_key = std::tuple<bool, uint64_t, uint32_t, uint8_t, unsigned, uint32_t>;

  unsigned below(unsigned limit) { return static_cast<unsigned>(random_() % limit); }
  targets some_targets() {
    targets set(below(4));
    for (route_target &t : set) t = below(kTargets);
    return set;
  }
  // Half of the steps meet on a few prefixes, the others make the table grow.
  nlri some_nlri() {
    if (below(5) != 0)
      return vpn_route(1 + below(2), below(2) ? below(8) : below(12000), below(3),
                       static_cast<uint8_t>(24 + below(2)));
    const auto length = static_cast<uint8_t>(below(33));
    const uint64_t mask = ~uint64_t{0} << (32 - length);
    return {0, static_cast<uint32_t>(random_() & mask), below(2), length, false};
  }
  void change_path(bool announced) {
    const unsigned s = below(kSources);
    const nlri k = some_nlri();
    const path_key key{k.vpn, k.rd, k.prefix, k.length, s, k.path_id};
    if (!announced) {
      paths_.erase(key);
      return w_.routes.withdraw(sources_[s], k);
    }
    // Next hop 0 is the router itself; in reverse, the others' bytes are in the other order.
    paths_[key] = {below(5) * 255, some_targets()};
    ASSERT_TRUE(w_.announce(sources_[s], k, paths_[key].first, paths_[key].second));
  }
  void reopen(unsigned s) {
    w_.routes.close_source(sources_[s]);
    sources_[s] = w_.routes.open_source();
    std::erase_if(paths_, [s](auto &path) { return std::get<4>(path.first) == s; });
  }
  void toggle_vrf(uint32_t table) {
    if (!vrfs_.contains(table)) {
      vrfs_[table] = some_targets();
      return w_.routes.add_vrf({"vrf", table, vrfs_[table]});
    }
    w_.routes.remove_vrf(table);
    EXPECT_NE(w_.module.ask(table, kOff), 0) << "unknown table";
    vrfs_.erase(table);
  }
  void toggle_redistribution(uint32_t table) {
    const auto what = static_cast<asking>(below(3));
    const bool on = w_.module.counts().contains(table);
    EXPECT_EQ(w_.module.ask(table, what) == 0, what == kReset ? on : vrfs_.contains(table));
  }

  void count(const targets &imports, nexthop_counts &nexthops) const {
    std::set<std::tuple<uint64_t, uint32_t, uint8_t, uint32_t>> routes;
    for (const auto &[key, attributes] : paths_) {
      const auto &[vpn, rd, prefix, length, source, id] = key;
      const auto &[nexthop, set] = attributes;
      if (vpn && nexthop != 0 && std::ranges::find_first_of(set, imports) != set.end())
        routes.insert({rd, prefix, length, nexthop});
    }
    for (const auto &route : routes) ++nexthops[std::get<3>(route)];
  }
  void check_lookup(uint32_t address) const {
    int longest = -1;
    for (const auto &[key, attributes] : paths_) {
      const auto &[vpn, rd, prefix, length, source, id] = key;
      const bool covers = !vpn && uint64_t{address ^ prefix} >> (32 - length) == 0;
      if (covers) longest = std::max<int>(longest, length);
    }
    tarvo_nd_nhop_info_t info{htonl(address), 0, 0};
    ASSERT_EQ(tarvo_rib_ipv4_get_prefix_route(&info) == 0, longest >= 0);
    ASSERT_EQ(info.prefix_len, std::max(longest, 0));
  }

  world &w_;
  std::mt19937 random_;
  source_id sources_[kSources];
  std::map<path_key, std::pair<uint32_t, targets>> paths_;  // next hop and targets
  std::map<uint32_t, targets> vrfs_;
};

TEST(Rib, MatchesModelThroughRandomSteps) {
  for (uint32_t seed = 1; seed < 5 && !HasFatalFailure(); ++seed) {
    world w;
    model m(w, seed);
    for (int round = 0; round < 40 && !HasFatalFailure(); round += ROUND_STEP) {
      for (int i = 0; i < 3000; ++i) m.step();
      m.check();
    }
    m.empty();
  }
}

// ---- What a model of the counts can't see ----

TEST(RibReports, AddsBeforeDeletesAndOnlyDifferences) {
  world w;
  w.routes.add_vrf({"a", 1, {10, 11}});
  ASSERT_EQ(w.module.ask(1, kOn), 0);
  const source_id s = w.source, t = w.routes.open_source();
  const struct {
    const char *what;
    source_id from;
    uint32_t nexthop;
    targets set;
    std::vector<std::pair<uint32_t, int>> expected;
  } steps[] = {
      {"two imported targets count once", s, 7, {10, 11}, {{7, 1}}},
      {"same route from another source", t, 7, {11}, {}},
      {"the other still carries it", s, 8, {10}, {{8, 1}}},
      {"moved: add first", t, 9, {10}, {{9, 1}, {7, 0}}},
      {"another imported target, same route", t, 9, {11}, {}},
      {"a target that nobody imports", t, 9, {12}, {{9, 0}}},
  };
  for (const auto &step : steps) {
    w.quiet();
    w.module.log();
    w.announce(step.from, vpn_route(1, 1), step.nexthop, step.set);
    w.quiet();
    EXPECT_EQ(w.module.log(), step.expected) << step.what;
  }
}

// Two tables join a pass at different places, and the buckets double before either is through.
TEST(RibReports, DumpKeepsItsPlaceWhileTheTableGrows) {
  world w;
  table_counts all;
  w.grow_to(8000);
  for (const uint32_t table : {1, 2, 3}) {
    w.routes.add_vrf({"vrf", table, {10}});
    ASSERT_EQ(w.module.ask(table, kOn), 0);
    w.routes.work();
    if (table == 2) w.grow_to(9000);
    all[table] = {{1, 40000}};
  }
  w.grow_to(40000);
  w.quiet();
  EXPECT_EQ(w.module.counts(), all);
}

TEST(RibLimits, PathsOfOneNlri) {
  world w;
  for (uint32_t id = 0; id <= rib::kMaxPathsPerNlri; ++id)
    EXPECT_EQ(w.announce(w.source, vpn_route(1, 1, id), 7, {}), id < rib::kMaxPathsPerNlri);
  EXPECT_TRUE(w.announce(w.source, vpn_route(1, 1, 0), 8, {})) << "a known path may change";
}

// A session that has all but three of all paths there may be, as its account says.
TEST(RibLimits, ASessionHoldsNoMoreThanIsLeftForAll) {
  world w;
  const auto account = std::make_shared<size_t>(rib::kMaxPaths - 3);
  const source_id s = w.routes.open_source(account), t = w.routes.open_source(account);
  w.grow_to(1);
  EXPECT_TRUE(w.announce(s, vpn_route(2, 1), 7, {}));
  EXPECT_FALSE(w.announce(t, vpn_route(2, 2), 7, {})) << "as many as are left";
  EXPECT_TRUE(w.announce(s, vpn_route(2, 1), 8, {})) << "a known path may change";
  w.routes.withdraw(s, vpn_route(2, 1));
  EXPECT_TRUE(w.announce(t, vpn_route(2, 2), 7, {}));
  w.grow_to(3);
  EXPECT_EQ(w.routes.paths(), 3u) << "another session is not concerned";
  w.routes.close_source(t);
  EXPECT_EQ(*account, rib::kMaxPaths - 3);
}

/// CPU time, of this process.
template <typename Work>
std::clock_t cost(Work work) {
  const std::clock_t before = std::clock();
  work();
  return std::clock() - before;
}

// Far from a pass over the table each, or a walk of the bucket for each VRF.
TEST(RibLimits, WorkIsOfWhatWasBrought) {
  world w;
  const auto fill = cost([&] { w.grow_to(100000); });
  const auto flaps = cost([&] {
    for (int i = 0; i < 1000; ++i) {
      const source_id flapping = w.routes.open_source();
      w.announce(flapping, vpn_route(2, 1), 7, {10});
      w.routes.close_source(flapping);
    }
  });
  EXPECT_EQ(w.routes.paths(), 100000u);
  EXPECT_LT(flaps, fill);

  for (uint32_t table = 1; table <= 100; ++table) {
    w.routes.add_vrf({"vrf", table, {11}});
    ASSERT_EQ(w.module.ask(table, kOn), 0);
  }
  w.quiet();
  const auto moves = [&](uint32_t apart) {
    for (uint32_t nexthop : {1000, 3000})
      for (uint32_t i = 0; i < 1000; ++i)
        w.announce(w.source, vpn_route(3, i * apart, 1 + i), nexthop + i, {11});
  };
  const auto of_many = cost([&] { moves(1); }), of_one = cost([&] { moves(0); });
  EXPECT_LT(of_one, 3 * of_many);
}

TEST(AttrStore, LastReleaseFrees) {
  attr_store store;
  size_t memory = 0;
  for (route_target t = 0; t < 100; ++t) {
    const attr_id first = store.acquire(1, targets{t, t + 1});
    EXPECT_EQ(store.acquire(1, targets{t + 1, t, t}), first) << "the same set";
    store.release(first);
    store.release(first);
    if (t == 0) memory = store.memory();
  }
  EXPECT_EQ(store.memory(), memory);
}

TEST(Fence, WithoutMemoryNothingHangs) {
  world w;
  w.module.no_memory = true;
  w.pace.wait();
  EXPECT_TRUE(w.pace.pass([] {}));
  w.pace.close();
  EXPECT_FALSE(w.pace.pass([] { ADD_FAILURE() << "handed over behind a closed fence"; }));
  EXPECT_FALSE(w.pace.open());
  w.pace.wait();
}

TEST(Fence, StandsBeforeAndBehindABurst) {
  world w;
  size_t before = w.module.fences(), within = 0;
  w.pace.pass([&] { within = w.module.fences(); });
  EXPECT_EQ(within, before + 1);
  EXPECT_EQ(w.module.fences(), before + 2);
}

// While the module stands still, the RIB queues one burst and no more.
TEST(RibThread, PacesDumps) {
  world w;
  w.routes.add_vrf({"a", 1, {10}});
  w.grow_to(50000);
  rib_thread loop(w.routes, w.reports, w.pace);
  for (int round = 0; round < 3; ++round) {
    size_t queued = 0;
    {
      std::lock_guard still(w.module.standstill);
      ASSERT_EQ(w.module.ask(1, kOn), 0);
      while (queued < redistribution::kBurst) queued += w.module.log().size();
      for (int i = 0; i < 1000; ++i) std::this_thread::yield();
      queued += w.module.log().size();
    }
    EXPECT_EQ(queued, redistribution::kBurst);
    loop.settle();
    EXPECT_EQ(w.module.log().size() + queued, 50000u);
    ASSERT_EQ(w.module.ask(1, kOff), 0);
  }
}

// Calls of other threads go through meanwhile, and a table switched off is silent at once.
TEST(RibThread, ServesCallsWhileTablesComeAndGo) {
  world w;
  w.routes.add_vrf({"a", 1, {10}});
  w.grow_to(50000);
  rib_thread loop(w.routes, w.reports, w.pace);
  std::thread caller([&] {
    for (uint32_t i = 0; i < 300; ++i)
      loop.call([&] { w.routes.withdraw(w.source, vpn_route(1, i)); });
  });
  for (int i = 0; i < 20; ++i) ASSERT_EQ(w.module.ask(1, kOn) + w.module.ask(1, kOff), 0);
  ASSERT_EQ(w.module.ask(1, kOn), 0);
  caller.join();
  loop.settle();
  EXPECT_EQ(w.module.counts(), (table_counts{{1, {{1, 49700}}}}));
  EXPECT_EQ(w.module.wrong, 0);
}

// The thread has found nothing to do and stands at the lock, under which the progress is begun,
// when a request comes.
TEST(RibThread, SettlesWhatCameAsItWasAboutToRest) {
  world w;
  w.routes.add_vrf({"a", 1, {10}});
  w.grow_to(50000);
  rib_thread loop(w.routes, w.reports, w.pace);
  std::atomic<pid_t> thread = 0;
  std::atomic<bool> locked = false;
  const auto thread_waits = [&] {
    std::string number, name, state;
    std::ifstream("/proc/self/task/" + std::to_string(thread) + "/stat") >> number >> name >> state;
    return state == "S";
  };
  progress dumps(
      false,
      [&] {
        if (!locked.exchange(true)) {
          while (!thread_waits()) std::this_thread::yield();
          EXPECT_EQ(w.module.ask(1, kOn), 0);
        }
        return progress::time_point();
      },
      [](auto) {});
  loop.tell_progress_to(dumps);
  const descriptor event(eventfd(1, EFD_CLOEXEC));
  loop.call([&] {
    loop.add_fd(event.number, POLLIN, [&](short) {
      loop.remove_fd(event.number);
      thread = gettid();
      while (!locked) std::this_thread::yield();
    });
  });
  while (thread == 0) std::this_thread::yield();
  loop.settle();
  EXPECT_EQ(w.module.counts(), (table_counts{{1, {{1, 50000}}}}));
}

// Keys that differ where a router can make them differ, in runs and one bit at a time, fill buckets
// as random ones would, whether a table takes the hash's top bits or its remainder.
TEST(SeededHash, SpreadsWhatARouterChooses) {
  constexpr uint32_t kBuckets = 1 << 14;
  for (int shift = 0; shift <= 50; ++shift) {
    std::vector<int> top(kBuckets), rest(kBuckets);
    for (uint64_t i = 0; i < kBuckets; ++i) {
      const uint32_t hash = seeded_hash()(i << shift, shift % 2 == 0 ? 0 : i << 40);
      ++top[hash / (~uint32_t{0} / kBuckets + 1)], ++rest[hash % kBuckets];
    }
    EXPECT_LE(std::ranges::max(top), 20) << shift;
    EXPECT_LE(std::ranges::max(rest), 20) << shift;
  }
}

}  // namespace
}  // namespace agent

// The module's side of the fence.
uint32_t tarvo_pe_discovery_register(uint32_t id, const char *, tarvo_nd_notify_fn notify) {
  return agent::the_module->answer(notify, id, TARVO_ND_EVENT_END);
}
uint32_t tarvo_pe_discovery_unregister(uint32_t) { return TARVO_ND_OK; }
uint32_t tarvo_pe_discovery_resend(uint32_t id, const char *) {
  return agent::the_module->answer(nullptr, id, TARVO_ND_EVENT_RESEND_END);
}
