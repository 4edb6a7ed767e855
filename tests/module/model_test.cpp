// A plain model of discovery beside the module, driven by the same random requests. After every
// step both have done the same things in the same order, and hold the same database.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <optional>
#include <random>

#include "engine/shared_words.h"
#include "engine/timers.h"
#include "query/nhop_query.h"
#include "tarvo/discovery.h"
#include "tests/module/world.h"

namespace {

struct request {
  enum kind {
    report,
    client_reg,
    client_unreg,
    table,
    refresh,
    clear,
    restart,
    resend
  } what = report;
  uint32_t id = 0;  // table or client
  int host = 0;     // next hop 10.0.0.host
  bool add = false;
  std::string name;
};

struct next_hop {
  std::string route;  // empty: unreachable
  bool marked = false;
  std::map<uint32_t, uint32_t> tables;
};

class model {
 public:
  std::deque<request> queue;
  std::vector<std::string> did;
  std::set<std::string> routes;
  std::set<uint32_t> refused;
  bool active = false;
  std::map<int, next_hop> hops;
  std::map<uint32_t, std::pair<std::string, bool>> vrfs;
  std::map<std::string, std::vector<uint32_t>> clients;  // "" first: the all-VPN clients
  uint32_t interval = 300;
  int timer = 0;  // 7 refresh, 8 clear, 0 none
  int64_t now = 0, deadline = 0;

  void run() {
    while (!queue.empty()) {
      const request r = queue.front();
      queue.pop_front();
      handle(r);
    }
  }

  void set_interval(uint32_t seconds) {
    interval = std::max(seconds, 1u);
    if (!active) return;
    stop_running();
    start(7);
  }

  void pass(int64_t seconds) {
    const int64_t end = now + seconds;
    while (timer != 0 && deadline <= end) {
      now = deadline;
      expire();
      while (timer != 0 && deadline <= now) expire();
      run();
    }
    now = end;
  }

 private:
  uint32_t clear_phase() const { return interval <= 28 ? interval / 2 : 29; }

  void start(int which) {
    timer = which;
    const uint32_t seconds = which == 7 ? interval - clear_phase() : clear_phase();
    deadline = now + seconds;
    did.push_back((which == 7 ? "start refresh " : "start clear ") + std::to_string(seconds));
  }

  void stop_running() {
    if (timer != 0) did.push_back(timer == 7 ? "stop refresh" : "stop clear");
    timer = 0;
  }

  void expire() {
    const int expired = timer;
    stop_running();
    request r;
    r.what = expired == 7 ? request::refresh : request::clear;
    queue.push_back(r);
    start(expired == 7 ? 8 : 7);
  }

  std::string lookup(int host) const {
    std::string best;
    for (const std::string &route : routes) {  // 10.0.0.0/8, 10.0.0.0/24, or a host route
      const bool covers = route.ends_with("/8") || route.ends_with("/24") ||
                          route == "10.0.0." + std::to_string(host) + "/32";
      if (covers && (best.empty() || length(route) > length(best))) best = route;
    }
    return best;
  }
  static int length(const std::string &route) {
    return std::stoi(route.substr(route.find('/') + 1));
  }

  void tell(uint32_t id, const char *event, int host, const std::string &route) {
    did.push_back("tell " + std::to_string(id) + " " + event + " 10.0.0." + std::to_string(host) +
                  " " + route);
  }

  void tell_group(const std::string &name, bool add, int host) {
    if (!active || !clients.contains(name)) return;
    for (uint32_t id : clients[name]) tell(id, add ? "ADD" : "REMOVE", host, hops[host].route);
  }
  void tell_table(uint32_t table, bool add, int host) {
    if (!vrfs.contains(table)) return;
    const std::string &name = vrfs[table].first;
    if (!name.empty()) tell_group(name, add, host);
  }
  void tell_all(bool add, int host) {
    tell_group("", add, host);
    for (const auto &[table, count] : hops[host].tables) tell_table(table, add, host);
  }

  void drop_table(int host, uint32_t table) {
    if (!hops[host].route.empty()) tell_table(table, false, host);
    hops[host].tables.erase(table);
  }
  void drop_if_bare(int host) {
    if (!hops[host].tables.empty()) return;
    if (!hops[host].route.empty()) tell_group("", false, host);
    hops.erase(host);
  }

  void handle_report(const request &r) {
    if (!r.add) {
      if (!hops.contains(r.host)) return;
      auto &tables = hops[r.host].tables;
      if (tables.contains(r.id) && tables[r.id] > 1) {
        --tables[r.id];
        return;
      }
      if (tables.contains(r.id)) drop_table(r.host, r.id);
      drop_if_bare(r.host);
      return;
    }
    next_hop &hop = hops[r.host];
    const std::string route = lookup(r.host);
    if (hop.marked && route.empty()) {
      tell_all(false, r.host);
      hop.route.clear();
    } else if ((hop.marked || hop.route.empty()) && route != hop.route) {
      hop.route = route;
      tell_all(true, r.host);
    }
    hop.marked = false;
    if (hop.tables[r.id]++ == 0 && !counted_.contains({r.host, r.id}) && !hop.route.empty())
      tell_table(r.id, true, r.host);
  }

  void mark() {
    for (auto &[host, hop] : hops) {
      hop.marked = !hop.route.empty();
      for (auto &[table, count] : hop.tables) count = 0;
    }
  }

  void switch_on(uint32_t table, bool &on) {
    did.push_back("rib on " + std::to_string(table) + (active ? "" : " while inactive"));
    if (!refused.contains(table)) on = true;
  }
  void redistribute(int action) {
    for (auto &[table, vrf] : vrfs) redistribute(action, table, vrf.second);
  }
  void redistribute(int action, uint32_t table, bool &on) {
    if (action == 4) on = false;
    if (action == 2) {
      if (!on) return;
      did.push_back("rib off " + std::to_string(table) + (active ? "" : " while inactive"));
      if (!refused.contains(table)) on = false;
    } else if (!on) {
      switch_on(table, on);
    } else if (action == 3) {
      did.push_back("rib reset " + std::to_string(table));
    }
  }

  void handle_table(const request &r) {
    if (r.add) {
      if (vrfs.contains(r.id)) return;
      vrfs[r.id] = {r.name, false};
      if (active) redistribute(1, r.id, vrfs[r.id].second);
      return;
    }
    if (!vrfs.contains(r.id)) return;
    if (active) {
      redistribute(2, r.id, vrfs[r.id].second);
      for (int host : hosts()) {
        if (!hops[host].tables.contains(r.id)) continue;
        drop_table(host, r.id);
        drop_if_bare(host);
      }
      std::erase_if(queue,
                    [&](const request &q) { return q.what == request::report && q.id == r.id; });
    }
    vrfs.erase(r.id);
  }

  std::vector<int> hosts() const {
    std::vector<int> all;
    for (const auto &[host, hop] : hops) all.push_back(host);
    return all;
  }

  void sweep() {
    for (int host : hosts()) {
      if (hops[host].tables.empty()) continue;
      const auto tables = hops[host].tables;
      for (const auto &[table, count] : tables)
        if (count == 0) drop_table(host, table);
      drop_if_bare(host);
    }
  }

  void replay(uint32_t id, const std::string &name) {
    uint32_t wanted = 0;
    for (const auto &[table, vrf] : vrfs)
      if (wanted == 0 && !name.empty() && vrf.first == name) wanted = table;
    if (!active || (!name.empty() && wanted == 0)) return;
    for (const auto &[host, hop] : hops)
      if (!hop.route.empty() && (wanted == 0 || hop.tables.contains(wanted)))
        tell(id, "ADD", host, hop.route);
  }

  void handle_register(const request &r) {
    clients[r.name].push_back(r.id);
    if (active) {
      replay(r.id, r.name);
    } else {
      redistribute(1);
      start(7);
      active = true;
    }
    did.push_back("tell " + std::to_string(r.id) + " END");
  }

  void handle_unregister(uint32_t id) {
    for (auto &[name, group] : clients) {  // "" sorts first
      const auto found = std::find(group.begin(), group.end(), id);
      if (found == group.end()) continue;
      group.erase(found);
      if (group.empty()) clients.erase(name);
      break;
    }
    if (!active || !clients.empty()) return;
    active = false;
    redistribute(2);
    did.insert(did.end(), {"stop refresh", "stop clear"});
    timer = 0;
    hops.clear();
  }

  void handle(const request &r) {
    remember_counts();
    switch (r.what) {
      case request::report:
        if (active) handle_report(r);
        return;
      case request::client_reg:
        return handle_register(r);
      case request::client_unreg:
        return handle_unregister(r.id);
      case request::table:
        return handle_table(r);
      case request::refresh:
        if (active) mark(), redistribute(3);
        return;
      case request::clear:
        if (active) sweep();
        return;
      case request::restart:
        if (active) stop_running(), mark(), redistribute(4), start(8);
        return;
      case request::resend:
        if (!clients.contains(r.name) || std::ranges::count(clients[r.name], r.id) == 0) return;
        replay(r.id, r.name);
        did.push_back("tell " + std::to_string(r.id) + " RESEND_END");
    }
  }

  // Which references existed before the request: one of count 0 is no new one.
  std::set<std::pair<int, uint32_t>> counted_;
  void remember_counts() {
    counted_.clear();
    for (const auto &[host, hop] : hops)
      for (const auto &[table, count] : hop.tables) counted_.insert({host, table});
  }
};

class Random {
 public:
  explicit Random(unsigned seed) : engine_(seed) {}
  unsigned below(unsigned n) { return static_cast<unsigned>(engine_() % n); }
  bool one_in(unsigned n) { return below(n) == 0; }
  template <typename T>
  const T &of(const std::vector<T> &values) {
    return values[below(static_cast<unsigned>(values.size()))];
  }

 private:
  std::mt19937_64 engine_;
};

const std::vector<std::string> kNames = {"", "A", "B", std::string(250, 'v')};
const std::vector<std::string> kRoutes = {"10.0.0.0/8", "10.0.0.0/24", "10.0.0.3/32",
                                          "10.0.0.10/32"};

void offer(model &m, Random &pick) {
  request r;
  r.id = 1 + pick.below(4);
  r.add = !pick.one_in(3);
  r.name = pick.of(kNames);
  const char *name = r.name.empty() && pick.one_in(2) ? nullptr : r.name.c_str();
  const unsigned what = pick.below(20);
  if (what < 10) {
    r.what = request::report;
    r.host = 1 + pick.below(2) * 8 + pick.below(3);
    const std::string address = "10.0.0." + std::to_string(r.host);
    tarvo_nd_enqueue_nhop_update(r.id, addr(address.c_str()), r.add ? 5 : 0);
  } else if (what < 12) {
    r.what = request::client_reg;
    tarvo_pe_discovery_register(r.id, name, tell);
  } else if (what < 15) {
    r.what = request::client_unreg;
    tarvo_pe_discovery_unregister(r.id);
  } else if (what < 17) {
    r.what = request::table;
    tarvo_nd_enqueue_table_update(name, r.id, r.add);
  } else if (what < 19) {
    r.what = request::resend;
    tarvo_pe_discovery_resend(r.id, name);
  } else {
    r.what = request::restart;
    tarvo_nd_enqueue_rib_restart();
  }
  r.name = r.name.substr(0, 244);
  m.queue.push_back(r);
}

std::map<std::string, uint64_t> expected_pools(const model &m) {
  std::map<std::string, uint64_t> expected = {{"PE Discovery workQ Chunk", 0}};
  if (!m.active) return expected;
  expected["PE Discovery NHop Chunk"] = m.hops.size();
  uint64_t &references = expected["PE Discovery Table ID Chunk"];
  for (const auto &[host, hop] : m.hops) references += hop.tables.size();
  return expected;
}

void expect_same_database(model &m) {
  ASSERT_EQ(pools(), expected_pools(m));
  ASSERT_EQ(nhop_count(), static_cast<int>(m.hops.size()));
  ASSERT_EQ(tarvo_nd_is_active() != 0, m.active);
  const int64_t left = !m.active ? -1 : m.deadline - m.now;
  const bool refreshing = m.timer == 7;
  const uint32_t clear = tarvo_nd_phases_of(m.interval).clear;
  ASSERT_EQ(tarvo_nd_get_refresh_interval_remaining(), left + (refreshing ? clear : 0));
  tarvo_nd_nhop_t hop = {};
  uint32_t after = 0;
  for (auto &[host, expected] : m.hops) {
    ASSERT_EQ(tarvo_nd_next_nhop_by_tableid(0, after, &hop), TARVO_ND_OK);
    after = hop.info.nhop_addr;
    ASSERT_EQ(dotted(after), "10.0.0." + std::to_string(host));
    const bool reachable = !expected.route.empty();
    ASSERT_EQ(hop.flags, reachable + (expected.marked ? 2u : 0u));
    ASSERT_EQ(dotted(hop.info.prefix) + "/" + std::to_string(hop.info.prefix_len),
              reachable ? expected.route : "0.0.0.0/0");
    tarvo_nd_nhop_table_t ref = {};
    tarvo_nd_vrf_name_copy_t name = {};
    for (const auto &[table, count] : expected.tables) {
      ASSERT_EQ(tarvo_nd_next_tableid(after, ref.table_id, &ref, &name), TARVO_ND_OK);
      ASSERT_EQ(ref.table_id, table);
      ASSERT_EQ(ref.ref_count, count);
      ASSERT_EQ(name.known, m.vrfs.contains(table));
      ASSERT_EQ(std::string(name.name), name.known ? m.vrfs[table].first : "");
    }
    ASSERT_EQ(tarvo_nd_next_tableid(after, ref.table_id, &ref), TARVO_ND_ERR_NOT_FOUND);
  }
  ASSERT_EQ(tarvo_nd_next_nhop_by_tableid(0, after, &hop), TARVO_ND_ERR_NOT_FOUND);
}

void play(unsigned seed, int steps) {
  model m;
  Random pick(seed);
  w.start();
  w.take();
  for (int step = 0; step < steps && !testing::Test::HasFatalFailure(); ++step) {
    SCOPED_TRACE("seed " + std::to_string(seed) + " step " + std::to_string(step));
    if (pick.one_in(8)) {
      const std::string &route = pick.of(kRoutes);
      if (m.routes.erase(route) == 0) m.routes.insert(route);
      w.routes = m.routes;
    }
    if (pick.one_in(20)) {
      const uint32_t table = 1 + pick.below(4);
      if (m.refused.erase(table) == 0) m.refused.insert(table);
      w.refused = m.refused;
    }
    for (unsigned i = pick.below(4); i > 0; --i) offer(m, pick);
    w.run();
    m.run();
    if (pick.one_in(30)) {
      const uint32_t interval = pick.of(std::vector<uint32_t>{0, 1, 5, 29, 57, 300});
      tarvo_nd_set_rib_refresh_interval(interval);
      m.set_interval(interval);
    }
    if (pick.one_in(3)) {
      const unsigned seconds = pick.below(40);
      w.pass(seconds);
      m.pass(seconds);
    }
    ASSERT_EQ(w.take(), std::exchange(m.did, {}));
    w.traces.clear();
    w.waits.clear();
    expect_same_database(m);
  }
}

}  // namespace

TEST(Model, AgreesOnFixedSeeds) { play(1, 20000); }

TEST(Model, AgreesOnAFreshSeed) {
  const unsigned seed = std::random_device{}();
  printf("seed %u\n", seed);
  play(seed, 20000);
}
