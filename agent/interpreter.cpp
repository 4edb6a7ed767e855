#include "agent/interpreter.h"

#include <arpa/inet.h>

#include <map>

#include "agent/agent_services.h"
#include "agent/bmp_station.h"
#include "agent/clients.h"
#include "agent/global_table.h"
#include "agent/oper_data.h"
#include "agent/output.h"
#include "agent/rib_thread.h"
#include "agent/show.h"
#include "agent/text.h"
#include "platform/pool.h"
#include "tarvo/oper_data.h"

namespace agent {

namespace {

constexpr const char *kNoMemory = "no memory for the request";

std::string typed_prefix(const command &c) { return prefix_text(htonl(c.prefix), c.length); }

// ---- Operational data ----

constexpr const char *kInactive = "discovery is inactive: no client watches";

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

// ---- Pools ----

std::vector<pool_info> pools() {
  std::vector<pool_info> result;
  chunk_walk_pools(
      [](const chunk_info_t *info, void *arg) {
        static_cast<std::vector<pool_info> *>(arg)->push_back(
            {info->name, info->element_size, info->in_use, info->chunks, info->bytes, info->limit});
        return 1;
      },
      &result);
  return result;
}

}  // namespace

interpreter::interpreter(const parts &agent) : agent_(agent) {}

std::string interpreter::run(const command &c) {
  switch (c.what) {
    case verb::none:
      return {};
    case verb::vrf_add:
      return vrf_add(c);
    case verb::vrf_del:
      return vrf_del(c.vrf);
    case verb::route_add:
      return route_add(c);
    case verb::route_del:
      return route_del(c);
    case verb::watch:
      return agent_.watchers.watch(c.number, c.vrf);
    case verb::unwatch:
      return agent_.watchers.unwatch(c.number);
    case verb::resend:
      return agent_.watchers.resend(c.number, c.vrf);
    case verb::interval:
      registered_tables().cfg->set_rib_refresh_interval(c.number);
      return {};
    case verb::rib_restart:
      return rib_restart();
    case verb::show_vrfs:
      return show_vrfs();
    case verb::show_nexthops:
      return show_nexthops(c.vrf);
    case verb::show_nexthop:
      return show_nexthop(c.nexthop);
    case verb::show_prefix:
      return show_prefix(c.nexthop);
    case verb::show_state:
      return show_state();
    case verb::show_sessions:
      return print(show_sessions(form(), agent_.station.sessions()));
    case verb::show_pools:
      return print(show_pools(form(), pools()));
    case verb::help:
      return print(show_help(form()));
    case verb::trace_on:
    case verb::trace_off:
      set_trace(c.what == verb::trace_on);
      return {};
    case verb::quit:
      quit_ = true;
      return {};
  }
  return {};
}

std::vector<std::string> interpreter::vrf_names() {
  std::vector<std::string> names;
  for (const vrf_config &vrf : vrfs()) names.push_back(vrf.name);
  return names;
}

std::string interpreter::vrf_add(const command &c) {
  if (c.number == 0) return "table 0 stands for all tables";
  if (c.number == kDefaultTableId) {
    return "table " + std::to_string(c.number) + " is the default table";
  }
  for (const vrf_config &vrf : vrfs()) {
    if (vrf.name == c.vrf) return "VRF '" + c.vrf + "' exists already";
    if (vrf.table_id == c.number) {
      return "table " + std::to_string(c.number) + " is in use by VRF '" + vrf.name + "'";
    }
  }
  agent_.loop.call([&] { agent_.routes.add_vrf({c.vrf, c.number, c.imports}); });
  if (registered_tables().ital->table_update(c.vrf.c_str(), c.number, 1) == 0) {
    agent_.loop.call([&] { agent_.routes.remove_vrf(c.number); });
    return kNoMemory;
  }
  agent_.loop.settle();
  return {};
}

std::string interpreter::vrf_del(const std::string &name) {
  const auto vrf = find_vrf(name);
  if (!vrf) return "no VRF '" + name + "'";
  // The module lets go of the table first: until then it may ask the RIB for it.
  if (registered_tables().ital->table_update(name.c_str(), vrf->table_id, 0) == 0) return kNoMemory;
  agent_.loop.settle();
  agent_.loop.call([&] { agent_.routes.remove_vrf(vrf->table_id); });
  return {};
}

std::string interpreter::route_add(const command &c) {
  if (!typed_routes_.emplace(c.prefix, c.length).second) {
    return "route " + typed_prefix(c) + " was added already";
  }
  agent_.global.add(c.prefix, c.length);
  return {};
}

std::string interpreter::route_del(const command &c) {
  if (typed_routes_.erase({c.prefix, c.length}) == 0) {
    return "route " + typed_prefix(c) + " was not added here";
  }
  agent_.global.remove(c.prefix, c.length);
  return {};
}

std::string interpreter::rib_restart() {
  if (registered_tables().rib->rib_restart() == 0) return kNoMemory;
  agent_.loop.settle();
  return {};
}

std::string interpreter::show_vrfs() {
  std::optional<std::vector<oper_nexthop>> known;
  const std::string refused = ask_nexthops(false, known);
  if (!refused.empty()) return refused;

  const std::vector<vrf_config> configured = vrfs();
  // While the module knows nothing, the RIB still does.
  const vrf_totals totals = known ? totals_of(*known) : totals_of(configured, count_routes());
  return print(agent::show_vrfs(form(), configured, totals));
}

std::string interpreter::show_nexthops(const std::string &vrf) {
  if (!vrf.empty() && !find_vrf(vrf)) return "no VRF '" + vrf + "'";
  std::optional<std::vector<oper_nexthop>> known;
  const std::string refused = ask_nexthops(true, known);
  if (!refused.empty()) return refused;

  if (!known && form() == show_as::table) return print(std::string(kInactive) + '\n');
  std::vector<oper_nexthop> nexthops = std::move(known).value_or(std::vector<oper_nexthop>{});
  if (!vrf.empty()) keep_vrf(nexthops, vrf);
  return print(agent::show_nexthops(form(), vrf, nexthops));
}

std::string interpreter::show_nexthop(uint32_t nexthop) {
  std::vector<vrf_routes> vrfs_of;
  const std::string refused = ask_vrfs(nexthop, vrfs_of);
  if (!refused.empty()) return refused;
  return print(agent::show_nexthop(form(), nexthop, vrfs_of));
}

std::string interpreter::show_prefix(uint32_t nexthop) {
  json record;
  const uint32_t code = oper_prefix(nexthop, record);
  if (code == TARVO_ODS_ERR_NOT_FOUND) {
    std::vector<vrf_routes> vrfs_of;
    const std::string refused = ask_vrfs(nexthop, vrfs_of);
    return refused.empty() ? "no route covers next hop " + address_text(nexthop) : refused;
  }
  if (code != 0) return failure(code);
  return print(agent::show_prefix(form(), nexthop, record));
}

std::string interpreter::show_state() {
  json record;
  const uint32_t code = oper_state(record);
  if (code == TARVO_ODS_ERR_NOT_FOUND) return kInactive;
  if (code != 0) return failure(code);
  return print(agent::show_state(form(), record));
}

show_as interpreter::form() const { return agent_.out.json() ? show_as::object : show_as::table; }

std::string interpreter::print(std::string lines) {
  agent_.out.print(std::move(lines));
  return {};
}

std::vector<vrf_config> interpreter::vrfs() {
  std::vector<vrf_config> copy;
  agent_.loop.call([&] { copy = agent_.routes.vrfs(); });
  return copy;
}

std::optional<vrf_config> interpreter::find_vrf(const std::string &name) {
  for (vrf_config &vrf : vrfs()) {
    if (vrf.name == name) return std::move(vrf);
  }
  return std::nullopt;
}

std::vector<route_count> interpreter::count_routes() {
  std::vector<route_count> counts;
  agent_.loop.call([&] { counts = agent_.routes.count_routes(); });
  return counts;
}

}  // namespace agent
