// RIB, redistribution, fence and RIB thread against a model, with the module played by a worker
// thread of the test: one queue, requests handled in order with a lock held, as the real one does.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <deque>
#include <future>
#include <map>
#include <random>
#include <set>

#include "agent/agent_services.h"
#include "agent/fence.h"
#include "agent/global_table.h"
#include "agent/redistribution.h"
#include "agent/rib.h"
#include "agent/rib_thread.h"
#include "tarvo/discovery.h"

using namespace agent;

namespace {

using nexthop_counts = std::map<uint32_t, int64_t>;
using route_counts = std::map<uint32_t, nexthop_counts>;  // by table

enum asking { kOff, kOn, kReset };

class fake_module {
 public:
  fake_module() : worker_([this] { run(); }) {}
  ~fake_module() {
    enqueue([this] { stop_ = true; });
    worker_.join();
  }
  void enqueue(std::function<void()> handle, uint32_t table = 0) {
    std::lock_guard held(queue_lock_);
    queue_.emplace_back(std::move(handle), table);
    most_queued = std::max(most_queued, queue_.size());
    queued_.notify_all();
  }

  // What the worker asks of the RIB; returns the answer when the worker has it. The worker may
  // stand still until so much is queued, and a while longer.
  int ask(uint32_t table, asking what, size_t until_queued = 0) {
    std::promise<int> answer;
    enqueue([&] {
      if (what == kOn) silence(table, false);
      counts_.erase(table);
      const int result = what == kReset ? tarvo_rib_ipv4_redist_reset(table)
                                        : tarvo_rib_ipv4_redist(table, what == kOn);
      if (what == kOff) silence(table, true);
      std::unique_lock queue_held(queue_lock_);
      queued_.wait(queue_held, [&] { return queue_.size() >= until_queued; });
      queue_held.unlock();
      for (int i = 0; until_queued != 0 && i < 1000; ++i) std::this_thread::yield();
      answer.set_value(result);
    });
    return answer.get_future().get();
  }

  int report(uint32_t table, uint32_t nexthop, int add) {
    log.emplace_back(nexthop, add);
    {
      std::lock_guard held(queue_lock_);
      late += silent_.contains(table);
    }
    enqueue([=, this] { count(table, nexthop, add); }, table);
    return 1;
  }
  uint32_t answer(tarvo_nd_notify_fn notify, uint32_t id, uint32_t event) {
    if (no_memory) return TARVO_ND_ERR_NOMEM;
    if (notify != nullptr) notify_ = notify;
    enqueue([=, this] { notify_(id, event, ""); });
    return TARVO_ND_OK;
  }
  route_counts counts() {
    std::lock_guard held(nd_);
    return counts_;
  }

  std::vector<std::pair<uint32_t, int>> log;  // reports, by the thread that hands them over
  size_t most_queued = 0;
  int late = 0;        // reports of a table that had been switched off
  int underflows = 0;  // deletes of what had not been added
  bool no_memory = false;

 private:
  void run() {
    while (!stop_) {
      std::unique_lock queue_held(queue_lock_);
      queued_.wait(queue_held, [this] { return !queue_.empty(); });
      const auto handle = std::move(queue_.front().first);
      queue_.pop_front();
      queue_held.unlock();
      std::lock_guard held(nd_);
      handle();
    }
  }
  void silence(uint32_t table, bool on) {
    std::lock_guard held(queue_lock_);
    if (!on) return void(silent_.erase(table));
    silent_.insert(table);
    std::erase_if(queue_, [=](const auto &request) { return request.second == table; });
  }
  void count(uint32_t table, uint32_t nexthop, int add) {
    const int64_t now = counts_[table][nexthop] += add ? 1 : -1;
    underflows += now < 0;
    if (now == 0) counts_[table].erase(nexthop);
  }

  std::mutex nd_, queue_lock_;
  std::condition_variable queued_;
  std::deque<std::pair<std::function<void()>, uint32_t>> queue_;  // with the table of a report
  std::set<uint32_t> silent_;
  route_counts counts_;
  tarvo_nd_notify_fn notify_ = nullptr;
  bool stop_ = false;
  std::thread worker_;
};

fake_module *the_module;

int report(uint32_t table, uint32_t nexthop, int add) {
  return the_module->report(table, nexthop, add);
}
const tarvo_nd_rib_fns_t kCallbacks = {report, nullptr};

nlri vpn_route(uint64_t rd, uint32_t prefix, uint32_t path_id = 0) {
  return {rd, prefix << 8, path_id, 24, true};
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
    pace.wait();
  }
  bool announce(source_id source, const nlri &key, uint32_t nexthop,
                const std::vector<route_target> &targets) {
    const attr_id attributes = routes.acquire(nexthop, targets);
    const bool taken = routes.announce(source, key, attributes);
    routes.release(attributes);
    return taken;
  }
  /// Grows the table to so many routes, which VRFs that import 10 take.
  void grow_to(uint32_t count, uint32_t nexthops = 1) {
    if (next_ == 0) source_ = routes.open_source();
    for (; next_ < count; ++next_)
      announce(source_, vpn_route(1, next_), 1 + next_ % nexthops, {10});
  }

  fake_module module;
  fence pace;
  redistribution reports{pace};
  global_table global;
  rib routes{global, reports};
  uint32_t next_ = 0;
  source_id source_ = 0;
};

// The same, kept without any cleverness, and the random steps that change both.
class model {
 public:
  model(world &w, uint32_t seed) : w_(w), random_(seed) {
    for (source_id &s : sources_) s = w_.routes.open_source();
  }
  void step() {
    const unsigned what = below(5000);
    if (what < 4000) return announce();
    if (what < 4500) return withdraw();
    if (what < 4950) return void(w_.routes.work());
    if (what < 4951) return reopen(below(kSources));
    if (what < 4960) return toggle_vrf(1 + below(kTables));
    toggle_redistribution(1 + below(kTables));
  }
  void check() {
    w_.quiet();
    route_counts expected, shown, reported = w_.module.counts();
    for (auto &[table, imports] : vrfs_) count(imports, expected[table]), shown[table];
    for (const route_count &c : w_.routes.count_routes()) shown[c.table_id][c.nexthop] = c.routes;
    ASSERT_EQ(shown, expected);
    for (auto &[table, nexthops] : expected)
      ASSERT_EQ(reported[table], on_.contains(table) ? nexthops : nexthop_counts{});
    ASSERT_EQ(w_.module.late, 0);
    ASSERT_EQ(w_.module.underflows, 0);
    for (int i = 0; i < 50; ++i) check_lookup(random_());
  }
  void empty() {
    for (unsigned i = 0; i < kSources; ++i) reopen(i);
    check();
    ASSERT_EQ(w_.routes.paths(), 0u);
  }

 private:
  static constexpr unsigned kSources = 4, kTables = 4, kTargets = 6;
  using route_key = std::tuple<bool, uint64_t, uint32_t, uint8_t>;
  struct attributes {
    uint32_t nexthop;
    std::vector<route_target> targets;
  };

  unsigned below(unsigned limit) { return unsigned(random_() % limit); }
  std::vector<route_target> some_targets() {
    std::vector<route_target> targets(below(4));
    for (route_target &t : targets) t = below(kTargets);
    return targets;
  }
  // Half of the steps meet on a few prefixes, the others make the table grow.
  nlri some_nlri() {
    const nlri key = vpn_route(1 + below(2), below(2) ? below(8) : below(12000), below(3));
    if (below(5) != 0) return key;
    const uint8_t length = uint8_t(below(33));
    const uint32_t prefix = length == 0 ? 0 : uint32_t(random_()) & ~0u << (32 - length);
    return {0, prefix, below(2), length, false};
  }
  static route_key key_of(const nlri &k) { return {k.vpn, k.rd, k.prefix, k.length}; }

  void announce() {
    const unsigned s = below(kSources);
    const nlri key = some_nlri();
    const attributes a{below(5), some_targets()};  // next hop 0 is the router itself
    ASSERT_TRUE(w_.announce(sources_[s], key, a.nexthop, a.targets));
    paths_[key_of(key)][{s, key.path_id}] = a;
  }
  void withdraw() {
    const unsigned s = below(kSources);
    const nlri key = some_nlri();
    w_.routes.withdraw(sources_[s], key);
    if (paths_.contains(key_of(key))) paths_[key_of(key)].erase({s, key.path_id});
  }
  void reopen(unsigned s) {
    w_.routes.close_source(sources_[s]);
    sources_[s] = w_.routes.open_source();
    for (auto &[key, paths] : paths_)
      std::erase_if(paths, [s](auto &path) { return path.first.first == s; });
  }
  void toggle_vrf(uint32_t table) {
    if (!vrfs_.contains(table)) {
      vrfs_[table] = some_targets();
      return w_.routes.add_vrf({"vrf", table, vrfs_[table]});
    }
    if (on_.erase(table) != 0) w_.module.ask(table, kOff);
    w_.routes.remove_vrf(table);
    vrfs_.erase(table);
    EXPECT_NE(w_.module.ask(table, kOn), 0) << "unknown table";
  }
  void toggle_redistribution(uint32_t table) {
    if (!vrfs_.contains(table)) return;
    // What is queued under the old count would be counted in the new one.
    w_.pace.wait();
    const unsigned what = below(3);
    if (what == 0 && on_.erase(table) != 0) return void(w_.module.ask(table, kOff));
    if (what == 1 && on_.contains(table)) return void(w_.module.ask(table, kReset));
    w_.module.ask(table, kOn);
    on_.insert(table);
  }

  void count(const std::vector<route_target> &imports, nexthop_counts &nexthops) const {
    for (auto &[key, paths] : paths_) {
      std::set<uint32_t> of_route;
      for (auto &[from, a] : paths)
        if (std::get<bool>(key) && a.nexthop != 0 &&
            std::ranges::find_first_of(a.targets, imports) != a.targets.end())
          of_route.insert(a.nexthop);
      for (uint32_t nexthop : of_route) ++nexthops[nexthop];
    }
  }
  void check_lookup(uint32_t address) const {
    int longest = -1;
    for (auto &[key, paths] : paths_) {
      auto [vpn, rd, prefix, length] = key;
      const bool covers = length == 0 || (address ^ prefix) >> (32 - length) == 0;
      if (!vpn && covers && !paths.empty()) longest = std::max(longest, int(length));
    }
    tarvo_nd_nhop_info_t info{htonl(address), 0, 0};
    ASSERT_EQ(tarvo_rib_ipv4_get_prefix_route(&info) == 0, longest >= 0);
    ASSERT_EQ(info.prefix_len, std::max(longest, 0));
  }

  world &w_;
  std::mt19937 random_;
  source_id sources_[kSources];
  std::map<route_key, std::map<std::pair<unsigned, uint32_t>, attributes>> paths_;
  std::map<uint32_t, std::vector<route_target>> vrfs_;
  std::set<uint32_t> on_;
};

class Rib : public testing::TestWithParam<uint32_t> {};

TEST_P(Rib, MatchesModelThroughRandomSteps) {
  world w;
  model m(w, GetParam());
  for (int round = 0; round < 40 && !HasFatalFailure(); ++round) {
    for (int i = 0; i < 3000; ++i) m.step();
    m.check();
  }
  m.empty();
}
INSTANTIATE_TEST_SUITE_P(Seeds, Rib, testing::Range(1u, 5u));

TEST(RibReports, AddsBeforeDeletesAndOnlyDifferences) {
  world w;
  w.routes.add_vrf({"a", 1, {10, 11}});
  ASSERT_EQ(w.module.ask(1, kOn), 0);
  w.quiet();
  const source_id s = w.routes.open_source(), t = w.routes.open_source();
  const struct {
    const char *what;
    source_id from;
    uint32_t nexthop;
    std::vector<route_target> targets;
    std::vector<std::pair<uint32_t, int>> expected;
  } steps[] = {
      {"two imported targets count once", s, 7, {10, 11}, {{7, 1}}},
      {"same route from another source", t, 7, {11}, {}},
      {"the other still carries it", s, 8, {10}, {{8, 1}}},
      {"moved: add first", t, 9, {10}, {{9, 1}, {7, 0}}},
      {"another imported target, same route", t, 9, {11}, {}},
      {"a target that nobody imports", t, 9, {12}, {{9, 0}}},
      {"the router itself", s, 0, {10}, {{8, 0}}},
  };
  for (auto &step : steps) {
    w.module.log.clear();
    w.announce(step.from, vpn_route(1, 1), step.nexthop, step.targets);
    w.quiet();
    EXPECT_EQ(w.module.log, step.expected) << step.what;
  }
}

// Two tables join a pass at different places, and the buckets double before either is through.
TEST(RibReports, DumpKeepsItsPlaceWhileTheTableGrows) {
  world w;
  for (uint32_t table : {1, 2, 3}) w.routes.add_vrf({"vrf", table, {10}});
  w.grow_to(8000);
  for (uint32_t table : {1, 2, 3}) {
    ASSERT_EQ(w.module.ask(table, kOn), 0);
    w.routes.work();
    if (table == 2) w.grow_to(9000);
  }
  w.grow_to(40000);
  w.quiet();
  const nexthop_counts all = {{1, 40000}};
  EXPECT_EQ(w.module.counts(), (route_counts{{1, all}, {2, all}, {3, all}}));
}

TEST(AttrStore, LastReleaseFrees) {
  attr_store store;
  std::vector<size_t> memory;
  for (route_target t = 0; t < 100; ++t) {
    const attr_id first = store.acquire(1, std::vector{t, t + 1});
    EXPECT_EQ(store.acquire(1, std::vector{t + 1, t, t}), first) << "the same set";
    store.release(first);
    store.release(first);
    memory.push_back(store.memory());
  }
  EXPECT_EQ(memory.front(), memory.back());
}

TEST(RibLimits, PathsOfOneNlriAreBounded) {
  world w;
  const source_id s = w.routes.open_source();
  for (uint32_t id = 0; id <= rib::kMaxPathsPerNlri; ++id)
    EXPECT_EQ(w.announce(s, vpn_route(1, 1, id), 7, {}), id < rib::kMaxPathsPerNlri);
  EXPECT_TRUE(w.announce(s, vpn_route(1, 1, 0), 8, {})) << "a known path may change";
}

TEST(Fence, WithoutMemoryNothingHangs) {
  world w;
  w.module.no_memory = true;
  w.pace.wait();
  w.pace.passed(fence::kReportsPerFence);
  EXPECT_TRUE(w.pace.admit());
  w.module.no_memory = false;
  w.pace.close();
  EXPECT_FALSE(w.pace.admit());
  w.module.no_memory = true;
  EXPECT_FALSE(w.pace.open());
  w.pace.wait();
}

// The worker stands still until the RIB has queued what it may, and the queue never grows longer.
TEST(RibThread, PacesDumpsSettlesAndServesDescriptorsAndCalls) {
  constexpr size_t kMostQueued = fence::kReportsPerFence * fence::kMaxOutstanding;
  world w;
  w.routes.add_vrf({"a", 1, {10}});
  w.grow_to(50000, 3);
  rib_thread loop(w.routes, w.reports, w.pace);
  for (int round = 0; round < 3; ++round) {
    ASSERT_EQ(w.module.ask(1, kOn, kMostQueued), 0);
    loop.settle();
    EXPECT_EQ(w.module.counts(), (route_counts{{1, {{1, 16667}, {2, 16667}, {3, 16666}}}}));
    ASSERT_EQ(w.module.ask(1, kOff), 0);
  }
  EXPECT_LE(w.module.most_queued, kMostQueued + redistribution::kBurst * fence::kMaxOutstanding);

  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  std::promise<char> got;
  loop.call([&] {
    loop.add_fd(ends[0], POLLIN, [&](short) {
      char c = 0;
      if (read(ends[0], &c, 1) == 1) got.set_value(c);
      loop.remove_fd(ends[0]);
    });
  });
  std::thread caller([&] {
    for (uint32_t i = 0; i < 300; ++i) loop.call([&] { w.routes.withdraw(0, vpn_route(1, i)); });
  });
  for (int i = 0; i < 20; ++i) ASSERT_EQ(w.module.ask(1, kOn) + w.module.ask(1, kOff), 0);
  ASSERT_EQ(write(ends[1], "x", 1), 1);
  EXPECT_EQ(got.get_future().get(), 'x');
  ASSERT_EQ(w.module.ask(1, kOn), 0);
  caller.join();
  loop.settle();
  EXPECT_EQ(w.module.counts(), (route_counts{{1, {{1, 16567}, {2, 16567}, {3, 16566}}}}));
  EXPECT_EQ(w.module.late, 0);
  close(ends[0]);
  close(ends[1]);
}

}  // namespace

// The module's side of the fence.
uint32_t tarvo_pe_discovery_register(uint32_t id, const char *, tarvo_nd_notify_fn notify) {
  return the_module->answer(notify, id, TARVO_ND_EVENT_END);
}
uint32_t tarvo_pe_discovery_unregister(uint32_t) { return TARVO_ND_OK; }
uint32_t tarvo_pe_discovery_resend(uint32_t id, const char *) {
  return the_module->answer(nullptr, id, TARVO_ND_EVENT_RESEND_END);
}
