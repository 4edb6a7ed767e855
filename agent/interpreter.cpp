#include "agent/interpreter.h"

#include <arpa/inet.h>

#include <algorithm>

#include "agent/agent_services.h"
#include "agent/bmp_station.h"
#include "agent/clients.h"
#include "agent/global_table.h"
#include "agent/output.h"
#include "agent/rib_thread.h"
#include "agent/show.h"
#include "agent/text.h"
#include "platform/pool.h"
#include "tarvo/discovery.h"

namespace agent {

namespace {

constexpr const char *kNoMemory = "no memory for the request";

std::string typed_prefix(const command &c) { return prefix_text(htonl(c.prefix), c.length); }

/// The next hops that a table refers to (0: all of them), one query each.
std::vector<known_nexthop> nexthops_of(uint32_t table_id) {
  std::vector<known_nexthop> result;
  tarvo_nd_nhop_t hop{};
  uint32_t status = tarvo_nd_first_nhop_by_tableid(table_id, &hop);
  while (status == TARVO_ND_OK) {
    result.push_back({hop.info, (hop.flags & TARVO_ND_NHOP_REACHABLE) != 0});
    status = tarvo_nd_next_nhop_by_tableid(table_id, hop.info.nhop_addr, &hop);
  }
  return result;
}

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
    case verb::show_nexthops:
      return show_nexthops(c.vrf);
    case verb::show_vrfs:
    case verb::show_sessions:
    case verb::show_pools:
    case verb::help:
      show(c.what);
      return {};
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

std::string interpreter::show_nexthops(const std::string &name) {
  const auto as = agent_.out.json() ? show_as::json : show_as::table;
  if (name.empty()) {
    agent_.out.print(agent::show_nexthops(as, nullptr, nexthops_of(0), vrfs(), count_routes()));
    return {};
  }
  const auto vrf = find_vrf(name);
  if (!vrf) return "no VRF '" + name + "'";
  agent_.out.print(agent::show_nexthops(as, &*vrf, nexthops_of(vrf->table_id), {}, count_routes()));
  return {};
}

void interpreter::show(verb what) {
  const auto as = agent_.out.json() ? show_as::json : show_as::table;
  switch (what) {
    case verb::show_vrfs:
      return agent_.out.print(show_vrfs(as, vrfs(), count_routes()));
    case verb::show_sessions:
      return agent_.out.print(show_sessions(as, agent_.station.sessions()));
    case verb::show_pools:
      return agent_.out.print(show_pools(as, pools()));
    default:
      return agent_.out.print(show_help(as));
  }
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
