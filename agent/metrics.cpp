#include "agent/metrics.h"

#include <cstdint>
#include <initializer_list>
#include <map>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/bmp_station.h"
#include "agent/oper_data.h"
#include "agent/output.h"
#include "agent/pools.h"
#include "agent/rib.h"
#include "agent/rib_thread.h"
#include "tarvo/oper_data.h"

namespace agent {

namespace {

/// The page while it is written. A metric's values follow its description.
class page {
 public:
  page &metric(std::string_view name, std::string_view type, std::string_view help) {
    name_ = name;
    text_ += "# HELP " + name_ + ' ' + std::string(help) + "\n# TYPE " + name_ + ' ' +
             std::string(type) + '\n';
    return *this;
  }
  page &gauge(std::string_view name, std::string_view help) { return metric(name, "gauge", help); }
  page &counter(std::string_view name, std::string_view help) {
    return metric(name, "counter", help);
  }
  void value(uint64_t number) { text_ += name_ + ' ' + std::to_string(number) + '\n'; }
  void value(const char *label, const std::string &of, uint64_t number) {
    // A label is quoted as in JSON.
    text_ += name_ + '{' + label + '=' + one_line(of) + "} " + std::to_string(number) + '\n';
  }
  std::string take() { return std::move(text_); }

 private:
  std::string text_, name_;
};

struct vrf_figures {
  uint64_t pes = 0;
  uint64_t reachable = 0;
  uint64_t routes = 0;
};

void add_discovery(page &to, const std::vector<vrf_config> &vrfs) {
  std::vector<oper_nexthop> nexthops;
  uint32_t code = oper_nexthops(nexthops);
  if (code == 0) code = oper_prefixes(nexthops);
  // What can't be asked for is not shown: a figure that is missing is seen, a wrong one isn't.
  const bool readable = code == 0 || code == TARVO_ODS_ERR_NOT_FOUND;
  // Asked last: where discovery ended in the middle, what was found is not all.
  json state = json::object();
  const bool active = oper_state(state) == 0;

  std::map<std::string, vrf_figures> figures;
  for (const vrf_config &vrf : vrfs) figures[vrf.name];
  for (const oper_nexthop &hop : nexthops) {
    for (const vrf_routes &v : hop.vrfs) {
      vrf_figures &of = figures[v.vrf];
      ++of.pes;
      of.reachable += hop.prefix.empty() ? 0 : 1;
      of.routes += v.routes;
    }
  }
  const auto by_vrf = [&](uint64_t vrf_figures::*figure) {
    if (!active || !readable) return;
    for (const auto &[vrf, of] : figures) to.value("vrf", vrf, of.*figure);
  };
  to.gauge("tarvo_discovery_active", "Whether anybody watches, so that discovery runs.");
  to.value(active ? 1 : 0);
  to.gauge("tarvo_vrf_pes", "Remote PEs of a VRF, reachable or not.");
  by_vrf(&vrf_figures::pes);
  to.gauge("tarvo_vrf_reachable_pes", "Remote PEs of a VRF that a global route covers.");
  by_vrf(&vrf_figures::reachable);
  to.gauge("tarvo_vrf_routes", "Routes of a VRF, as discovery counts them.");
  by_vrf(&vrf_figures::routes);
  to.gauge("tarvo_next_sweep_seconds", "Time until what was not reported again is removed.");
  const json remaining = state.value("RefreshRemaining", json());
  if (active && remaining.is_number_unsigned()) to.value(remaining.get<uint64_t>());
}

void add_sessions(page &to, const session_totals &sessions) {
  to.gauge("tarvo_bmp_sessions", "BMP sessions that are up.").value(sessions.up);
  to.gauge("tarvo_bmp_peers", "BGP peers of these sessions.").value(sessions.peers);
  to.counter("tarvo_bmp_sessions_opened_total", "BMP sessions and recordings since the start.")
      .value(sessions.opened);
  to.counter("tarvo_bmp_messages_total", "BMP messages read.").value(sessions.messages);
  to.counter("tarvo_bmp_routes_read_total", "Routes announced or withdrawn in them.")
      .value(sessions.routes_read);
  to.counter("tarvo_bmp_malformed_total", "Malformed messages by kind, once there are any.");
  for (const auto &[kind, count] : sessions.malformed) to.value("kind", kind, count);
  to.counter("tarvo_bmp_skipped_total", "Messages or routes left out on purpose, by reason.");
  const skipped_counts &skipped = sessions.skipped;
  to.value("reason", "other_views", skipped.other_views);
  to.value("reason", "ipv6_nexthop", skipped.ipv6_nexthop);
  to.value("reason", "vrf_unicast", skipped.vrf_unicast);
  to.value("reason", "over_limit", skipped.over_limit);
  to.value("reason", "rib_full", skipped.rib_full);
}

void add_pools(page &to, const std::vector<pool_info> &pools) {
  // Pools of one name, as of two platforms' users, are one figure.
  std::map<std::string, pool_info> by_name;
  for (const pool_info &pool : pools) {
    by_name[pool.name].in_use += pool.in_use;
    by_name[pool.name].bytes += pool.bytes;
  }
  to.gauge("tarvo_pool_elements", "Elements of a memory pool in use.");
  for (const auto &[name, pool] : by_name) to.value("pool", name, pool.in_use);
  to.gauge("tarvo_pool_bytes", "Memory that a pool holds.");
  for (const auto &[name, pool] : by_name) to.value("pool", name, pool.bytes);
}

}  // namespace

std::string metrics_page(const metrics_sources &from) {
  std::vector<vrf_config> vrfs;
  size_t paths = 0, bytes = 0;
  from.loop.call([&] {
    vrfs = from.routes.vrfs();
    paths = from.routes.paths();
    bytes = from.routes.memory();
  });
  page text;
  add_discovery(text, vrfs);
  add_sessions(text, from.station.totals());
  text.gauge("tarvo_rib_paths", "Paths in the RIB.").value(paths);
  text.gauge("tarvo_rib_bytes", "Memory that the RIB holds.").value(bytes);
  text.gauge("tarvo_requests_queued", "Requests that the module has yet to handle.")
      .value(requests_queued());
  text.counter("tarvo_notifications_total", "Notifications of the module to the agent's clients.")
      .value(from.out.events());
  text.counter("tarvo_notifications_lost_total",
               "Those that nobody read from standard output, or that memory ran out for.")
      .value(from.out.events_lost());
  add_pools(text, list_pools());
  return text.take();
}

}  // namespace agent
