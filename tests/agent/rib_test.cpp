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

using route_counts = std::map<uint32_t, std::map<uint32_t, int64_t>>;  // table, next hop

class fake_module {
 public:
  fake_module() : worker_([this] { run(); }) {}
  ~fake_module() {
    enqueue([this] { stop_ = true; });
    worker_.join();
  }

  void enqueue(std::function<void()> handle, uint32_t table = 0) {
    std::lock_guard held(queue_lock_);
    queue_.push_back({std::move(handle), table});
    most_queued = std::max(most_queued, queue_.size());
    queued_.notify_all();
  }

  // What the worker asks of the RIB; each returns when the worker has done it.
  // The worker may stand still until so much is queued, and a while longer.
  int on(uint32_t table, size_t until_queued = 0) {
    return handled([=, this] {
      silent(table, false);
      counts_[table].clear();
      int result = tarvo_rib_ipv4_redist(table, 1);
      std::unique_lock queue_held(queue_lock_);
      queued_.wait(queue_held, [=, this] { return queue_.size() >= until_queued; });
      queue_held.unlock();
      for (int i = 0; until_queued != 0 && i < 1000; ++i) std::this_thread::yield();
      return result;
    });
  }
  int off(uint32_t table) {
    return handled([=, this] {
      int result = tarvo_rib_ipv4_redist(table, 0);
      silent(table, true);
      counts_.erase(table);
      return result;
    });
  }
  int reset(uint32_t table) {
    return handled([=, this] {
      counts_[table].clear();
      return tarvo_rib_ipv4_redist_reset(table);
    });
  }

  int report(uint32_t table, uint32_t nexthop, int add) {
    log.push_back({nexthop, add});
    {
      std::lock_guard held(queue_lock_);
      if (silent_.contains(table)) ++late;
    }
    enqueue([=, this] { count(table, nexthop, add); }, table);
    return 1;
  }

  uint32_t register_client(uint32_t id, tarvo_nd_notify_fn notify) {
    if (no_memory) return TARVO_ND_ERR_NOMEM;
    notify_ = notify;
    enqueue([=] { notify(id, TARVO_ND_EVENT_END, ""); });
    return TARVO_ND_OK;
  }
  uint32_t resend(uint32_t id) {
    if (no_memory) return TARVO_ND_ERR_NOMEM;
    enqueue([=, this] { notify_(id, TARVO_ND_EVENT_RESEND_END, ""); });
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
  struct request {
    std::function<void()> handle;
    uint32_t table;  // of a report
  };

  void run() {
    while (!stop_) {
      std::unique_lock queue_held(queue_lock_);
      queued_.wait(queue_held, [this] { return !queue_.empty(); });
      auto next = std::move(queue_.front());
      queue_.pop_front();
      queue_held.unlock();
      std::lock_guard held(nd_);
      next.handle();
    }
  }
  void silent(uint32_t table, bool on) {
    std::lock_guard held(queue_lock_);
    if (on) silent_.insert(table);
    if (!on) silent_.erase(table);
    std::erase_if(queue_, [=](const request &r) { return on && r.table == table; });
  }
  void count(uint32_t table, uint32_t nexthop, int add) {
    auto &nexthops = counts_[table];
    int64_t now = nexthops[nexthop] += add ? 1 : -1;
    if (now < 0) ++underflows;
    if (now == 0) nexthops.erase(nexthop);
  }
  int handled(const std::function<int()> &ask) {
    std::promise<int> result;
    enqueue([&] { result.set_value(ask()); });
    return result.get_future().get();
  }

  std::mutex nd_, queue_lock_;
  std::condition_variable queued_;
  std::deque<request> queue_;
  std::set<uint32_t> silent_;
  route_counts counts_;
  tarvo_nd_notify_fn notify_ = nullptr;
  bool stop_ = false;
  std::thread worker_;
};

fake_module *the_module;

const tarvo_nd_rib_fns_t kCallbacks = {[](uint32_t table, uint32_t nexthop, int add) {
                                         return the_module->report(table, nexthop, add);
                                       },
                                       nullptr};

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
    attr_id attributes = routes.acquire(nexthop, targets);
    bool taken = routes.announce(source, key, attributes);
    routes.release(attributes);
    return taken;
  }

  fake_module module;
  fence pace;
  redistribution reports{pace};
  global_table global;
  rib routes{global, reports};
};

nlri vpn_route(uint64_t rd, uint32_t prefix, uint32_t path_id = 0) {
  return {rd, prefix << 8, path_id, 24, true};
}

// The same, kept without any cleverness, and the random steps that change both.
class model {
 public:
  model(world &w, uint32_t seed) : w_(w), random_(seed) {
    for (source_id &s : sources_) s = w_.routes.open_source();
  }

  void step() {
    unsigned what = below(5000);
    if (what < 4000) return announce();
    if (what < 4500) return withdraw();
    if (what < 4950) return void(w_.routes.work());
    if (what < 4951) return reopen(below(kSources));
    if (what < 4960) return toggle_vrf(1 + below(kTables));
    return toggle_redistribution(1 + below(kTables));
  }

  void check() {
    w_.quiet();
    route_counts expected;
    for (auto &[table, imports] : vrfs_) count(table, imports, expected[table]);
    route_counts shown, reported = w_.module.counts();
    for (auto &[table, imports] : vrfs_) shown[table];
    for (const route_count &c : w_.routes.count_routes()) shown[c.table_id][c.nexthop] = c.routes;
    ASSERT_EQ(shown, expected);
    for (auto &[table, nexthops] : expected)
      ASSERT_EQ(reported[table], on_.contains(table) ? nexthops : decltype(nexthops){});
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
  std::vector<route_target> some_targets(unsigned most) {
    std::vector<route_target> targets(below(most));
    for (route_target &t : targets) t = below(kTargets);
    return targets;
  }
  // Half of the steps meet on a few prefixes, the others make the table grow.
  nlri some_nlri() {
    uint32_t prefix = below(2) ? below(8) : below(12000);
    nlri key = vpn_route(1 + below(2), prefix, below(3));
    if (below(5) != 0) return key;
    uint8_t length = uint8_t(below(33));
    return {0, length == 0 ? 0 : uint32_t(random_()) & ~0u << (32 - length), below(2), length,
            false};
  }
  static route_key key_of(const nlri &k) { return {k.vpn, k.rd, k.prefix, k.length}; }

  void announce() {
    unsigned s = below(kSources);
    nlri key = some_nlri();
    attributes a{below(5), some_targets(4)};  // next hop 0 is the router itself
    ASSERT_TRUE(w_.announce(sources_[s], key, a.nexthop, a.targets));
    paths_[key_of(key)][{s, key.path_id}] = a;
  }
  void withdraw() {
    unsigned s = below(kSources);
    nlri key = some_nlri();
    w_.routes.withdraw(sources_[s], key);
    drop(key_of(key), [&](auto &path) { return path.first == std::pair(s, key.path_id); });
  }
  void reopen(unsigned s) {
    w_.routes.close_source(sources_[s]);
    sources_[s] = w_.routes.open_source();
    std::vector<route_key> keys;
    for (auto &[key, paths] : paths_) keys.push_back(key);
    for (auto &key : keys) drop(key, [&](auto &path) { return path.first.first == s; });
  }
  template <typename Which>
  void drop(const route_key &key, Which which) {
    auto found = paths_.find(key);
    if (found == paths_.end()) return;
    std::erase_if(found->second, which);
    if (found->second.empty()) paths_.erase(found);
  }

  void toggle_vrf(uint32_t table) {
    if (vrfs_.contains(table)) {
      if (on_.erase(table) != 0) w_.module.off(table);
      w_.routes.remove_vrf(table);
      vrfs_.erase(table);
      EXPECT_NE(w_.module.on(table), 0) << "unknown table";
      return;
    }
    vrfs_[table] = some_targets(4);
    w_.routes.add_vrf({"vrf", table, vrfs_[table]});
  }
  void toggle_redistribution(uint32_t table) {
    if (!vrfs_.contains(table)) return;
    // What is queued under the old count would be counted in the new one.
    w_.pace.wait();
    unsigned what = below(3);
    if (what == 0 && on_.erase(table)) {
      EXPECT_EQ(w_.module.off(table), 0);
    } else if (what == 1 && on_.contains(table)) {
      EXPECT_EQ(w_.module.reset(table), 0);
    } else {
      EXPECT_EQ(w_.module.on(table), 0);
      on_.insert(table);
    }
  }

  void count(uint32_t, const std::vector<route_target> &imports,
             std::map<uint32_t, int64_t> &nexthops) const {
    for (auto &[key, paths] : paths_) {
      if (!std::get<bool>(key)) continue;
      std::set<uint32_t> of_route;
      for (auto &[from, a] : paths)
        for (route_target t : a.targets)
          if (a.nexthop != 0 && std::ranges::find(imports, t) != imports.end())
            of_route.insert(a.nexthop);
      for (uint32_t nexthop : of_route) ++nexthops[nexthop];
    }
  }
  void check_lookup(uint32_t address) const {
    int longest = -1;
    for (auto &[key, paths] : paths_) {
      auto [vpn, rd, prefix, length] = key;
      bool covers = length == 0 || (address ^ prefix) >> (32 - length) == 0;
      if (!vpn && covers) longest = std::max(longest, int(length));
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
  ASSERT_EQ(w.module.on(1), 0);
  w.quiet();
  source_id s = w.routes.open_source(), t = w.routes.open_source();
  using reports = std::vector<std::pair<uint32_t, int>>;
  const struct {
    const char *what;
    source_id from;
    uint32_t nexthop;
    std::vector<route_target> targets;
    reports expected;
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
  source_id s = w.routes.open_source();
  uint32_t next = 0;
  auto grow_to = [&](uint32_t routes) {
    for (; next < routes; ++next) w.announce(s, vpn_route(1, next), 7, {10});
  };
  for (uint32_t table : {1, 2, 3}) w.routes.add_vrf({"vrf", table, {10}});
  grow_to(8000);
  for (uint32_t table : {1, 2, 3}) {
    ASSERT_EQ(w.module.on(table), 0);
    w.routes.work();
    if (table == 2) grow_to(9000);
  }
  grow_to(40000);
  w.quiet();
  EXPECT_EQ(w.module.counts(),
            (route_counts{{1, {{7, 40000}}}, {2, {{7, 40000}}}, {3, {{7, 40000}}}}));
}

TEST(AttrStore, LastReleaseFrees) {
  attr_store store;
  std::vector<size_t> memory;
  for (route_target t = 0; t < 100; ++t) {
    attr_id first = store.acquire(1, std::vector{t, t + 1});
    EXPECT_EQ(store.acquire(1, std::vector{t + 1, t, t}), first) << "the same set";
    store.release(first);
    store.release(first);
    memory.push_back(store.memory());
  }
  EXPECT_EQ(memory.front(), memory.back());
}

TEST(RibLimits, PathsOfOneNlriAreBounded) {
  world w;
  source_id s = w.routes.open_source();
  for (uint32_t id = 0; id < rib::kMaxPathsPerNlri; ++id)
    ASSERT_TRUE(w.announce(s, vpn_route(1, 1, id), 7, {}));
  EXPECT_FALSE(w.announce(s, vpn_route(1, 1, rib::kMaxPathsPerNlri), 7, {}));
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
TEST(RibThread, PacesAndSettles) {
  constexpr uint32_t kRoutes = 50000;
  world w;
  rib_thread loop(w.routes, w.reports, w.pace);
  loop.call([&] {
    source_id s = w.routes.open_source();
    w.routes.add_vrf({"a", 1, {10}});
    for (uint32_t i = 0; i < kRoutes; ++i) w.announce(s, vpn_route(1, i), 1 + i % 3, {10});
  });
  for (int round = 0; round < 3; ++round) {
    ASSERT_EQ(w.module.on(1, fence::kReportsPerFence * fence::kMaxOutstanding), 0);
    loop.settle();
    route_counts expected{{1, {{1, 16667}, {2, 16667}, {3, 16666}}}};
    EXPECT_EQ(w.module.counts(), expected);
    ASSERT_EQ(w.module.off(1), 0);
  }
  EXPECT_LE(w.module.most_queued,
            (fence::kReportsPerFence + redistribution::kBurst) * fence::kMaxOutstanding);
  EXPECT_EQ(w.module.late, 0);
}

TEST(RibThread, ServesDescriptorsAndCallsDuringDumps) {
  world w;
  rib_thread loop(w.routes, w.reports, w.pace);
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  std::promise<char> got;
  loop.call([&] {
    source_id s = w.routes.open_source();
    w.routes.add_vrf({"a", 1, {10}});
    for (uint32_t i = 0; i < 20000; ++i) w.announce(s, vpn_route(1, i), 1, {10});
    loop.add_fd(ends[0], POLLIN, [&](short) {
      char c = 0;
      if (read(ends[0], &c, 1) == 1) got.set_value(c);
      loop.remove_fd(ends[0]);
    });
  });
  std::thread caller([&] {
    for (uint32_t i = 0; i < 200; ++i) loop.call([&] { w.routes.withdraw(0, vpn_route(1, i)); });
  });
  for (int i = 0; i < 20; ++i) {
    ASSERT_EQ(w.module.on(1), 0);
    ASSERT_EQ(w.module.off(1), 0);
  }
  ASSERT_EQ(write(ends[1], "x", 1), 1);
  EXPECT_EQ(got.get_future().get(), 'x');
  ASSERT_EQ(w.module.on(1), 0);
  caller.join();
  loop.settle();
  EXPECT_EQ(w.module.counts(), (route_counts{{1, {{1, 19800}}}}));
  EXPECT_EQ(w.module.late, 0);
  close(ends[0]);
  close(ends[1]);
}

}  // namespace

// The module's side of the fence.
uint32_t tarvo_pe_discovery_register(uint32_t id, const char *, tarvo_nd_notify_fn notify) {
  return the_module->register_client(id, notify);
}
uint32_t tarvo_pe_discovery_unregister(uint32_t) { return TARVO_ND_OK; }
uint32_t tarvo_pe_discovery_resend(uint32_t id, const char *) { return the_module->resend(id); }
