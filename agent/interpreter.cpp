#include "agent/interpreter.h"

#include <arpa/inet.h>

#include <map>
#include <new>
#include <optional>
#include <utility>

#include "agent/agent_services.h"
#include "agent/bmp_station.h"
#include "agent/clients.h"
#include "agent/explain.h"
#include "agent/global_table.h"
#include "agent/oper_data.h"
#include "agent/redistribution.h"
#include "agent/rib_thread.h"
#include "agent/show.h"
#include "agent/text.h"
#include "tarvo/oper_data.h"

namespace agent {

namespace {

// ---- Operational data ----

/// An empty string, or what went wrong. Not found is no failure: its meaning is the caller's.
std::string failure(uint32_t code) {
  if (code == 0 || code == TARVO_ODS_ERR_NOT_FOUND) return {};
  if (code == kOperUnreadable) return "operational data: an answer that can't be read";
  return "operational data: code " + code_text(code);
}

/// The next hops and their VRFs, with their prefixes if wanted; null while discovery is inactive.
std::string ask_nexthops(bool prefixes, std::optional<std::vector<oper_nexthop>> &known) {
  std::vector<oper_nexthop> nexthops;
  uint32_t code = oper_nexthops(nexthops);
  if (code == 0 && prefixes) code = oper_prefixes(nexthops);
  if (code != 0 && code != TARVO_ODS_ERR_NOT_FOUND) return failure(code);
  // Asked last: where discovery ended in the middle, what was found is not all.
  json state;
  code = oper_state(state);
  if (code == 0) known = std::move(nexthops);
  return failure(code);
}

/// The VRFs of a next hop; a next hop without one is not known.
std::string ask_vrfs(uint32_t nexthop, std::vector<vrf_routes> &vrfs) {
  uint32_t code = oper_vrfs(nexthop, vrfs);
  if (code != TARVO_ODS_ERR_NOT_FOUND) return failure(code);
  json state;
  code = oper_state(state);
  if (code == TARVO_ODS_ERR_NOT_FOUND) return kInactive;
  return code == 0 ? "no next hop " + address_text(nexthop) : failure(code);
}

/// Keeps the next hops that a VRF refers to, with its routes alone.
void keep_vrf(std::vector<oper_nexthop> &nexthops, const std::string &name) {
  for (oper_nexthop &hop : nexthops) {
    std::erase_if(hop.vrfs, [&](const vrf_routes &v) { return v.vrf != name; });
  }
  std::erase_if(nexthops, [](const oper_nexthop &hop) { return hop.vrfs.empty(); });
}

using vrf_totals = std::map<std::string, vrf_total>;

void add_to(vrf_totals &totals, const std::string &vrf, uint64_t routes) {
  vrf_total &total = totals[vrf];
  total.routes += routes;
  ++total.nexthops;
}

vrf_totals totals_of(const std::vector<oper_nexthop> &nexthops) {
  vrf_totals totals;
  for (const oper_nexthop &hop : nexthops) {
    for (const vrf_routes &v : hop.vrfs) add_to(totals, v.vrf, v.routes);
  }
  return totals;
}

vrf_totals totals_of(const std::vector<vrf_config> &vrfs, const std::vector<route_count> &counts) {
  std::map<uint32_t, std::string> names;
  for (const vrf_config &vrf : vrfs) names[vrf.table_id] = vrf.name;
  vrf_totals totals;
  for (const route_count &count : counts) add_to(totals, names[count.table_id], count.routes);
  return totals;
}

}  // namespace

interpreter::interpreter(const parts &agent) : agent_(agent) {}

command_error interpreter::run(const command &c, show_as as, std::string &answer) {
  if (const auto refused = made_.refuses(c)) return {c.columns[refused->word], refused->text};
  // What is added is entered before: afterwards there may be no memory for it.
  const bool adds = c.what == verb::vrf_add || c.what == verb::route_add || c.what == verb::watch;
  if (adds) made_.enter(c);
  std::string failed;
  try {
    failed = effect(c, as, answer);
  } catch (const std::bad_alloc &) {
    failed = kNoMemory;  // short enough to need none
  }
  if (failed.empty()) {
    if (!adds) made_.enter(c);
    return {};
  }
  if (adds) made_.take_out(c);
  answer.clear();
  const bool of_address = c.what == verb::show_nexthop || c.what == verb::show_prefix;
  return {of_address ? c.columns.back() : c.columns.front(), std::move(failed)};
}

std::string interpreter::effect(const command &c, show_as as, std::string &answer) {
  switch (c.what) {
    case verb::none:
    case verb::answer_json:
    case verb::answer_text:
    case verb::quit:
      return {};
    case verb::vrf_add:
      return vrf_add(c);
    case verb::vrf_del:
      return vrf_del(c.vrf);
    case verb::route_add:
      agent_.global.add(c.prefix, c.length);
      return {};
    case verb::route_del:
      agent_.global.remove(c.prefix, c.length);
      return {};
    case verb::watch:
      return watch(c, as, answer);
    case verb::unwatch:
      return agent_.watchers.unwatch(c.number);
    case verb::resend:
      return agent_.watchers.resend(c.number);
    case verb::interval:
      registered_tables().cfg->set_rib_refresh_interval(c.number);
      return {};
    case verb::rib_restart:
      return rib_restart();
    case verb::explain:
      return explain(c, as, answer);
    case verb::show_vrfs:
      return show_vrfs(as, answer);
    case verb::show_nexthops:
      return show_nexthops(c.vrf, as, answer);
    case verb::show_nexthop:
      return show_nexthop(c.nexthop, as, answer);
    case verb::show_prefix:
      return show_prefix(c.nexthop, as, answer);
    case verb::show_state:
      return show_state(as, answer);
    case verb::show_sessions:
      answer += show_sessions(as, agent_.station.sessions());
      return {};
    case verb::show_pools:
      answer += show_pools(as, list_pools());
      return {};
    case verb::show_config:
      answer += show_config(as, made_.commands());
      return {};
    case verb::help:
      answer += show_help(as);
      return {};
    case verb::trace_on:
    case verb::trace_off:
      set_trace(c.what == verb::trace_on);
      return {};
  }
  return {};
}

std::vector<std::string> interpreter::vrf_names() const {
  std::vector<std::string> names;
  for (const vrf_config &vrf : made_.vrfs()) names.push_back(vrf.name);
  return names;
}

std::string interpreter::vrf_add(const command &c) {
  agent_.loop.call([&] { agent_.routes.add_vrf({c.vrf, c.number, c.imports}); });
  if (registered_tables().ital->table_update(c.vrf.c_str(), c.number, 1) == 0) {
    agent_.loop.call([&] { agent_.routes.remove_vrf(c.number); });
    return kNoMemory;
  }
  agent_.loop.settle();
  return {};
}

std::string interpreter::vrf_del(const std::string &name) {
  const uint32_t table = made_.find_vrf(name)->table_id;
  // The module lets go of the table first: until then it may ask the RIB for it.
  if (registered_tables().ital->table_update(name.c_str(), table, 0) == 0) return kNoMemory;
  agent_.loop.settle();
  agent_.loop.call([&] { agent_.routes.remove_vrf(table); });
  return {};
}

std::string interpreter::watch(const command &c, show_as as, std::string &answer) {
  if (!c.vrf.empty() && made_.find_vrf(c.vrf) == nullptr)
    answer += show_note(as, "no VRF '" + c.vrf + "' yet");
  return agent_.watchers.watch(c.number, c.vrf);
}

std::string interpreter::rib_restart() {
  if (registered_tables().rib->rib_restart() == 0) return kNoMemory;
  agent_.loop.settle();
  return {};
}

std::string interpreter::show_vrfs(show_as as, std::string &answer) {
  std::optional<std::vector<oper_nexthop>> known;
  const std::string refused = ask_nexthops(false, known);
  if (!refused.empty()) return refused;

  // While the module knows nothing, the RIB still does.
  const vrf_totals totals = known ? totals_of(*known) : totals_of(made_.vrfs(), count_routes());
  answer += agent::show_vrfs(as, made_.vrfs(), totals);
  return {};
}

std::string interpreter::show_nexthops(const std::string &vrf, show_as as, std::string &answer) {
  std::optional<std::vector<oper_nexthop>> known;
  const std::string refused = ask_nexthops(true, known);
  if (!refused.empty()) return refused;

  if (!known) return kInactive;
  if (!vrf.empty()) keep_vrf(*known, vrf);
  answer += agent::show_nexthops(as, vrf, *known);
  return {};
}

std::string interpreter::show_nexthop(uint32_t nexthop, show_as as, std::string &answer) {
  std::vector<vrf_routes> vrfs_of;
  const std::string refused = ask_vrfs(nexthop, vrfs_of);
  if (refused.empty()) answer += agent::show_nexthop(as, nexthop, vrfs_of);
  return refused;
}

std::string interpreter::show_prefix(uint32_t nexthop, show_as as, std::string &answer) {
  json record;
  std::string prefix;
  const uint32_t code = oper_prefix(nexthop, record, prefix);
  if (code == TARVO_ODS_ERR_NOT_FOUND) {
    std::vector<vrf_routes> vrfs_of;
    const std::string refused = ask_vrfs(nexthop, vrfs_of);
    return refused.empty() ? "no route covers next hop " + address_text(nexthop) : refused;
  }
  if (code != 0) return failure(code);
  answer += agent::show_prefix(as, nexthop, record, prefix);
  return {};
}

std::string interpreter::show_state(show_as as, std::string &answer) {
  json record;
  const uint32_t code = oper_state(record);
  if (code == TARVO_ODS_ERR_NOT_FOUND) return kInactive;
  if (code != 0) return failure(code);
  answer += agent::show_state(as, record);
  return {};
}

std::string interpreter::explain(const command &c, show_as as, std::string &answer) {
  explanation found;
  found.nexthop = c.nexthop;
  found.vrf = c.vrf;
  found.interval = made_.interval();
  const uint32_t code = explain_discovery(found);
  if (code != 0) return failure(code);
  agent_.loop.call([&] { explain_rib(agent_.routes, agent_.reports, agent_.station, found); });
  found.global = agent_.global.lookup(ntohl(c.nexthop));
  answer += show_explanation(as, found);
  return {};
}

std::vector<route_count> interpreter::count_routes() {
  std::vector<route_count> counts;
  agent_.loop.call([&] { counts = agent_.routes.count_routes(); });
  return counts;
}

}  // namespace agent
