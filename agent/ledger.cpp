#include "agent/ledger.h"

#include <arpa/inet.h>

#include <algorithm>

#include "agent/agent_services.h"
#include "agent/layout.h"
#include "agent/text.h"

namespace agent {

const vrf_config *ledger::find_vrf(const std::string &name) const {
  const auto found = std::ranges::find(vrfs_, name, &vrf_config::name);
  return found == vrfs_.end() ? nullptr : &*found;
}

std::optional<ledger::refusal> ledger::refuses_vrf(const command &c) const {
  constexpr size_t kName = 2, kTable = 4, kImport = 6;
  if (c.number == 0) return refusal{kTable, "table 0 stands for all tables"};
  const std::string table = "table " + std::to_string(c.number);
  if (c.number == kDefaultTableId) return refusal{kTable, table + " is the default table"};
  if (find_vrf(c.vrf) != nullptr) return refusal{kName, "VRF '" + c.vrf + "' exists already"};
  const auto holder = std::ranges::find(vrfs_, c.number, &vrf_config::table_id);
  if (holder != vrfs_.end())
    return refusal{kTable, table + " is in use by VRF '" + holder->name + "'"};
  std::set<route_target> seen;
  for (size_t i = 0; i < c.imports.size(); ++i) {
    if (!seen.insert(c.imports[i]).second)
      return refusal{kImport + i, "route target " + target_text(c.imports[i]) + " comes twice"};
  }
  return std::nullopt;
}

std::optional<ledger::refusal> ledger::refuses_resend(const command &c) const {
  const std::string &watched = watches_.at(c.number);
  if (c.vrf.empty() || c.vrf == watched) return std::nullopt;
  return refusal{2, "client " + std::to_string(c.number) + " watches " +
                        (watched.empty() ? "every VPN" : "'" + watched + "'") + ", not '" + c.vrf +
                        "'"};
}

std::optional<ledger::refusal> ledger::refuses_inactive() const {
  if (!watches_.empty()) return std::nullopt;
  return refusal{0, kInactive};
}

std::optional<ledger::refusal> ledger::refuses(const command &c) const {
  const bool watches = watches_.contains(c.number);
  const std::string client = "client " + std::to_string(c.number);
  const std::string route = "route " + prefix_text(htonl(c.prefix), c.length);
  switch (c.what) {
    case verb::vrf_add:
      return refuses_vrf(c);
    case verb::vrf_del:
    case verb::show_nexthops:
    case verb::explain:
      if (!c.vrf.empty() && find_vrf(c.vrf) == nullptr) return refusal{2, "no VRF '" + c.vrf + "'"};
      return c.what == verb::show_nexthops ? refuses_inactive() : std::nullopt;
    case verb::route_add:
      if (!routes_.contains({c.prefix, c.length})) return std::nullopt;
      return refusal{2, route + " was added already"};
    case verb::route_del:
      if (routes_.contains({c.prefix, c.length})) return std::nullopt;
      return refusal{2, route + " was not added here"};
    case verb::watch:
      if (!watches) return std::nullopt;
      return refusal{1, client + " watches already"};
    case verb::unwatch:
    case verb::resend:
      if (!watches) return refusal{1, client + " does not watch"};
      return c.what == verb::resend ? refuses_resend(c) : std::nullopt;
    case verb::show_nexthop:
    case verb::show_prefix:
    case verb::show_state:
      return refuses_inactive();
    case verb::answer_json:
    case verb::answer_text:  // there its connection sees to it
      return refusal{0, "only on a control socket; here it is --json"};
    default:
      return std::nullopt;
  }
}

void ledger::enter(const command &c) {
  switch (c.what) {
    case verb::vrf_add:
      vrfs_.push_back({c.vrf, c.number, c.imports});
      return;
    case verb::route_add:
      routes_.emplace(c.prefix, c.length);
      return;
    case verb::watch:
      watches_.emplace(c.number, c.vrf);
      return;
    case verb::vrf_del:
    case verb::route_del:
    case verb::unwatch:
      return take_out(c);
    case verb::interval:
      interval_ = c.number;
      return;
    case verb::trace_on:
    case verb::trace_off:
      traces_ = c.what == verb::trace_on;
      return;
    default:
      return;
  }
}

void ledger::take_out(const command &c) {
  switch (c.what) {
    case verb::vrf_add:
    case verb::vrf_del:
      std::erase_if(vrfs_, [&](const vrf_config &vrf) { return vrf.name == c.vrf; });
      return;
    case verb::route_add:
    case verb::route_del:
      routes_.erase({c.prefix, c.length});
      return;
    case verb::watch:
    case verb::unwatch:
      watches_.erase(c.number);
      return;
    default:
      return;
  }
}

std::vector<std::string> ledger::commands() const {
  std::vector<std::string> lines;
  for (const vrf_config &vrf : vrfs_)
    lines.push_back("vrf add " + vrf.name + " table " + std::to_string(vrf.table_id) + " import " +
                    joined(target_texts(vrf.imports)));
  for (const auto &[prefix, length] : routes_)
    lines.push_back("route add " + prefix_text(htonl(prefix), length));
  lines.push_back("interval " + std::to_string(interval_));
  if (traces_) lines.push_back("trace on");
  for (const auto &[id, vrf] : watches_)
    lines.push_back("watch " + std::to_string(id) + (vrf.empty() ? "" : ' ' + vrf));
  return lines;
}

}  // namespace agent
