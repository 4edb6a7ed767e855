// A plain model of discovery: standard containers, nothing of the module's but the texts in which
// the tests record what was done. Addresses in host byte order.
#pragma once

#include <algorithm>
#include <cstdint>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "tests/module/database_view.h"
#include "tests/module/world.h"

struct request {
  enum kind { client_reg, client_unreg, table, resend, report, refresh, clear, restart };
  static constexpr kind kOnlyWhileActive = report;  ///< and those after it
  kind what = report;
  uint32_t id = 0;    // table or client
  uint32_t host = 0;  // next hop
  bool add = false;
  std::string name = {};
};

constexpr int64_t kSecond = 1000000000;

inline std::string text_of(uint32_t n) { return std::to_string(n); }

class model {
 public:
  database held;
  std::deque<request> queue;
  std::vector<std::string> did;

  // The surroundings, with what the world's RIB says.
  std::string starved;            // the call that finds no memory, if it is one
  int64_t now = 0, deadline = 0;  // nanoseconds

  /// Whether this is what there is no memory for.
  bool lacks(const char *call) {
    if (starved != call) return false;
    const texts &told = consequence_of(call)->told;
    did.insert(did.end(), told.begin(), told.end());
    return true;
  }

  // ---- Timers ----

  uint32_t clear_phase() const { return interval_ > 28 ? 29 : interval_ / 2; }
  bool timer_runs() const { return timer_ != 0; }

  /// For `held`.
  int64_t seconds_left() const {
    const int64_t left = deadline > now ? (deadline - now) / kSecond : 0;
    return static_cast<int32_t>(static_cast<uint32_t>(left) + (timer_ == 7 ? clear_phase() : 0));
  }

  void start(int which) {
    timer_ = which;
    const uint32_t seconds = which == 7 ? interval_ - clear_phase() : clear_phase();
    deadline = now + seconds * kSecond;
    did.push_back((which == 7 ? "start refresh " : "start clear ") + text_of(seconds));
  }

  void stop_running() {
    if (timer_ != 0) did.push_back(timer_ == 7 ? "stop refresh" : "stop clear");
    timer_ = 0;
  }

  void set_interval(uint32_t seconds) {
    interval_ = std::max(seconds, 1u);
    if (!held.active) return;
    stop_running();
    start(7);
  }

  /// The timer handler.
  void expire() {
    while (timer_ != 0 && deadline <= now) {
      const int expired = timer_;
      const char *const name = expired == 7 ? "Refresh" : "Clear";
      did.push_back(std::string("trace 13/1 DISC: ") + name + " interval expired");
      stop_running();
      offer({expired == 7 ? request::refresh : request::clear});
      start(expired == 7 ? 8 : 7);
    }
  }

  // ---- Routes and notifications ----

  void tell(uint32_t id, const std::string &event, const std::string &hop = "") {
    did.push_back("tell " + text_of(id) + " " + event + (hop.empty() ? "" : " " + hop));
    did.push_back("trace 13/1 DISC: Notify client " + text_of(id) + " of " + event +
                  (hop.empty() ? "" : " (" + hop + ")"));
  }

  void tell_group(const std::string &name, bool add, uint32_t host) {
    const auto group = held.clients.find(name);
    if (group == held.clients.end()) return;
    for (const uint32_t id : group->second)
      tell(id, add ? "ADD" : "REMOVE", dotted(host) + " " + held.hops[host].route);
  }

  void tell_table(uint32_t table, bool add, uint32_t host) {
    const auto vrf = held.vrfs.find(table);
    if (vrf != held.vrfs.end() && !vrf->second.empty()) tell_group(vrf->second, add, host);
  }

  void tell_all(bool add, uint32_t host) {
    tell_group("", add, host);
    for (const auto &[table, count] : held.hops[host].tables) tell_table(table, add, host);
  }

  // ---- Reports ----

  void drop_table(uint32_t host, uint32_t table) {
    if (!held.hops[host].route.empty()) tell_table(table, false, host);
    held.hops[host].tables.erase(table);
  }

  void drop_if_bare(uint32_t host) {
    if (!held.hops[host].tables.empty()) return;
    if (!held.hops[host].route.empty()) tell_group("", false, host);
    held.hops.erase(host);
    limit_logged_ = false;
  }

  void add_report(const request &r) {
    if (!held.hops.contains(r.host) && held.hops.size() == 500) {
      if (!limit_logged_)
        did.push_back("log 6 DISC_LIMIT Discovered PE targets has exceeded the maximum number");
      limit_logged_ = true;
      return;
    }
    if (!held.hops.contains(r.host) && lacks("chunk_malloc PE Discovery NHop Chunk")) return;
    next_hop &hop = held.hops[r.host];
    if (hop.marked || hop.route.empty()) {
      did.push_back("rib route " + dotted(r.host));
      const std::string route = w.route_to(r.host);
      if (hop.marked && route.empty()) {
        tell_all(false, r.host);
        hop.route.clear();
      } else if (route != hop.route) {
        hop.route = route;
        tell_all(true, r.host);
      }
    }
    hop.marked = false;
    const bool is_new = !hop.tables.contains(r.id);
    if (is_new && lacks("chunk_malloc PE Discovery Table ID Chunk")) return;
    ++hop.tables[r.id];
    if (is_new && !hop.route.empty()) tell_table(r.id, true, r.host);
  }

  void delete_report(const request &r) {
    if (!held.hops.contains(r.host)) return;
    auto &tables = held.hops[r.host].tables;
    if (tables.contains(r.id) && tables[r.id] > 1) {
      --tables[r.id];
      return;
    }
    if (tables.contains(r.id)) drop_table(r.host, r.id);
    drop_if_bare(r.host);
  }

  void mark() {
    for (auto &[host, hop] : held.hops) {
      hop.marked = !hop.route.empty();
      for (auto &[table, count] : hop.tables) count = 0;
    }
  }

  void sweep() {
    const auto before = held.hops;
    for (const auto &[host, hop] : before) {
      if (hop.tables.empty()) continue;  // no memory for its reference
      for (const auto &[table, count] : hop.tables)
        if (count == 0) drop_table(host, table);
      drop_if_bare(host);
    }
  }

  // ---- Tables ----

  void reported(uint32_t table, bool add) {
    for (const uint32_t host : w.rib[table]) offer({request::report, table, host, add});
  }

  void switch_on(uint32_t table) {
    did.push_back("rib on " + text_of(table) + (held.active ? "" : " while inactive"));
    if (w.refused.contains(table)) return;
    redistributed_.insert(table);
    reported(table, true);
  }

  void switch_off(uint32_t table) {
    if (!redistributed_.contains(table)) return;
    did.push_back("rib off " + text_of(table) + (held.active ? "" : " while inactive"));
    if (w.refused.contains(table)) return;
    redistributed_.erase(table);
    if (w.withdraws) reported(table, false);
  }

  void redistribute(bool reset, bool restart) {
    if (restart) redistributed_.clear();
    for (const auto &[table, name] : held.vrfs) {
      if (!redistributed_.contains(table)) {
        switch_on(table);
      } else if (reset) {
        did.push_back("rib reset " + text_of(table));
        reported(table, true);
      }
    }
  }

  void add_table(const request &r) {
    if (held.vrfs.contains(r.id) || lacks("calloc_named TARVO DISC VRF Info")) return;
    held.vrfs[r.id] = r.name;
    if (held.active) switch_on(r.id);
  }

  void delete_table(uint32_t table) {
    if (!held.vrfs.contains(table)) return;
    if (held.active) {
      switch_off(table);
      const auto before = held.hops;
      for (const auto &[host, hop] : before) {
        if (!hop.tables.contains(table)) continue;
        drop_table(host, table);
        drop_if_bare(host);
      }
      std::erase_if(queue,
                    [=](const request &q) { return q.what == request::report && q.id == table; });
    }
    held.vrfs.erase(table);
    redistributed_.erase(table);
  }

  // ---- Clients ----

  void replay(uint32_t id, const std::string &name) {
    if (!held.active) return;
    for (const auto &[host, route] : held.reachable(name))
      tell(id, "ADD", dotted(host) + " " + route);
  }

  /// A registered client, or none of them.
  uint32_t some_client(uint32_t none) const {
    return held.clients.empty() ? none : held.clients.rbegin()->second.front();
  }
  size_t clients() const {
    size_t count = 0;
    for (const auto &[name, group] : held.clients) count += group.size();
    return count;
  }

  void activate() {
    if (lacks("chunk_create PE Discovery NHop Chunk") ||
        lacks("chunk_create PE Discovery Table ID Chunk") || lacks("wavl_init next hops"))
      return;
    redistribute(false, false);
    start(7);
    held.active = true;
  }

  void add_client(const request &r) {
    if (lacks("calloc_named TARVO DISC Client Entry")) return;
    if (!r.name.empty() && lacks("calloc_named TARVO DISC Client Info")) return;
    held.clients[r.name].push_back(r.id);
    if (held.active) {
      replay(r.id, r.name);
    } else {
      activate();
    }
    tell(r.id, "END");
  }

  void remove_client(uint32_t id) {
    for (auto &[name, group] : held.clients) {
      const auto found = std::ranges::find(group, id);
      if (found == group.end()) continue;
      group.erase(found);
      if (group.empty()) held.clients.erase(name);
      break;
    }
    if (held.active && held.clients.empty()) deactivate();
  }

  void deactivate() {
    held.active = false;
    for (const auto &[table, name] : held.vrfs) switch_off(table);
    did.insert(did.end(), {"stop refresh", "stop clear"});
    timer_ = 0;
    if (!held.hops.empty()) limit_logged_ = false;
    held.hops.clear();
  }

  // ---- Requests ----

  /// Queues what the entry calls queue of it. False when it is refused.
  bool offer(request r) {
    if (r.what == request::table && r.id == 0xe0000000) return true;
    if (lacks("chunk_malloc PE Discovery workQ Chunk")) return false;
    r.name = r.name.substr(0, 244);
    queue.push_back(std::move(r));
    return true;
  }

  /// Handles the request at the head.
  void step() {
    const request r = std::move(queue.front());
    queue.pop_front();
    if (!held.active && r.what >= request::kOnlyWhileActive) return;
    switch (r.what) {
      case request::client_reg:
        return add_client(r);
      case request::client_unreg:
        return remove_client(r.id);
      case request::table:
        return r.add ? add_table(r) : delete_table(r.id);
      case request::resend: {
        const auto group = held.clients.find(r.name);
        if (group == held.clients.end() || std::ranges::count(group->second, r.id) == 0) return;
        replay(r.id, r.name);
        return tell(r.id, "RESEND_END");
      }
      case request::report:
        return r.add ? add_report(r) : delete_report(r);
      case request::refresh:
        mark();
        return redistribute(true, false);
      case request::clear:
        return sweep();
      case request::restart:
        stop_running();
        mark();
        redistribute(false, true);
        return start(8);
    }
  }

 private:
  uint32_t interval_ = 300;
  int timer_ = 0;  // 7 refresh, 8 clear, 0 none
  bool limit_logged_ = false;
  std::set<uint32_t> redistributed_;
};
