#include "agent/show.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "agent/layout.h"
#include "agent/text.h"

namespace agent {

namespace {

// ---- Operational data ----

json vrfs_json(std::span<const vrf_routes> vrfs) {
  json list = json::array();
  for (const vrf_routes &v : vrfs) list.push_back({{"vrf", v.vrf}, {"routes", v.routes}});
  return list;
}

/// One row for each VRF; the next hop itself in the first of them.
void add_nexthop(table &rows, const oper_nexthop &hop) {
  std::string nexthop = address_text(hop.address);
  std::string prefix = hop.prefix.empty() ? "(unreachable)" : hop.prefix;
  for (const vrf_routes &v : hop.vrfs) {
    rows.add(
        {std::exchange(nexthop, ""), std::exchange(prefix, ""), v.vrf, std::to_string(v.routes)});
  }
}

std::string record_table(const json &record) {
  table rows({"FIELD", "VALUE"});
  for (const auto &[field, value] : record.items()) {
    rows.add({field, value.is_string() ? value.get<std::string>() : value.dump()});
  }
  return rows.lines();
}

json skipped_json(const skipped_counts &s) {
  return {{"other_views", s.other_views},
          {"ipv6_nexthop", s.ipv6_nexthop},
          {"vrf_unicast", s.vrf_unicast},
          {"over_limit", s.over_limit},
          {"rib_full", s.rib_full}};
}

/// The counts that are not 0: "a=1 b=2".
std::string counts_text(const json &counts) {
  std::string text;
  for (const auto &[kind, count] : counts.items()) {
    if (count != 0) text += (text.empty() ? "" : " ") + kind + '=' + count.dump();
  }
  return text.empty() ? "-" : text;
}

}  // namespace

std::string show_vrfs(show_as as, std::span<const vrf_config> vrfs,
                      const std::map<std::string, vrf_total> &totals) {
  json list = json::array();
  table rows({"VRF", ">TABLE", "IMPORT", ">ROUTES", ">NEXT HOPS"});
  for (const vrf_config &vrf : vrfs) {
    const auto found = totals.find(vrf.name);
    const vrf_total total = found == totals.end() ? vrf_total{} : found->second;
    const std::vector<std::string> imports = target_texts(vrf.imports);
    list.push_back({{"vrf", vrf.name},
                    {"table", vrf.table_id},
                    {"import", strings(imports)},
                    {"routes", total.routes},
                    {"nexthops", total.nexthops}});
    rows.add({vrf.name, std::to_string(vrf.table_id), joined(imports), std::to_string(total.routes),
              std::to_string(total.nexthops)});
  }
  return as == show_as::object ? show_line("vrfs", {{"vrfs", std::move(list)}}) : rows.lines();
}

std::string show_nexthops(show_as as, const std::string &only,
                          std::span<const oper_nexthop> nexthops) {
  json list = json::array();
  table rows({"NEXT HOP", "COVERING PREFIX", "VRF", ">ROUTES"});
  for (const oper_nexthop &hop : nexthops) {
    const bool reachable = !hop.prefix.empty();
    list.push_back({{"nexthop", address_text(hop.address)},
                    {"reachable", reachable},
                    {"prefix", reachable ? json(hop.prefix) : json(nullptr)},
                    {"vrfs", vrfs_json(hop.vrfs)}});
    add_nexthop(rows, hop);
  }
  if (as == show_as::table) return rows.lines();
  return show_line("nexthops", {{"vrf", only.empty() ? json(nullptr) : json(only)},
                                {"nexthops", std::move(list)}});
}

std::string show_nexthop(show_as as, uint32_t nexthop, std::span<const vrf_routes> vrfs) {
  if (as == show_as::object) {
    return show_line("nexthop", {{"nexthop", address_text(nexthop)}, {"vrfs", vrfs_json(vrfs)}});
  }
  table rows({"VRF", ">ROUTES"});
  for (const vrf_routes &v : vrfs) rows.add({v.vrf, std::to_string(v.routes)});
  return rows.lines();
}

std::string show_prefix(show_as as, uint32_t nexthop, const json &record,
                        const std::string &prefix) {
  if (as == show_as::table) return prefix + '\n';
  return show_line("prefix", {{"nexthop", address_text(nexthop)}, {"record", record}});
}

std::string show_state(show_as as, const json &record) {
  return as == show_as::object ? show_line("state", {{"record", record}}) : record_table(record);
}

std::string show_sessions(show_as as, std::span<const session_info> sessions) {
  json list = json::array();
  table rows({"ROUTER", "SYSTEM", "STATE", ">PEERS", "VIEWS", ">MESSAGES", ">ROUTES READ",
              "SKIPPED", "MALFORMED", "LAST ERROR"});
  for (const session_info &s : sessions) {
    json malformed = json::object();
    for (const auto &[kind, count] : s.malformed) malformed[kind] = count;
    const json skipped = skipped_json(s.skipped);
    list.push_back({{"router", s.router},
                    {"system", s.system_name},
                    {"up", s.up},
                    {"peers", s.peers},
                    {"views", strings(s.views)},
                    {"messages", s.messages},
                    {"routes_read", s.routes_read},
                    {"skipped", skipped},
                    {"malformed", malformed},
                    {"last_error", s.last_error.empty() ? json(nullptr) : json(s.last_error)}});
    rows.add({printable(s.router), printable(s.system_name), s.up ? "up" : "ended",
              std::to_string(s.peers), joined(s.views), std::to_string(s.messages),
              std::to_string(s.routes_read), counts_text(skipped), counts_text(malformed),
              s.last_error.empty() ? "-" : printable(s.last_error)});
  }
  return as == show_as::object ? show_line("sessions", {{"sessions", std::move(list)}})
                               : rows.lines();
}

std::string show_pools(show_as as, std::span<const pool_info> pools) {
  json list = json::array();
  table rows({"POOL", ">ELEMENT SIZE", ">IN USE", ">CHUNKS", ">BYTES", ">LIMIT"});
  for (const pool_info &p : pools) {
    list.push_back({{"pool", p.name},
                    {"element_size", p.element_size},
                    {"in_use", p.in_use},
                    {"chunks", p.chunks},
                    {"bytes", p.bytes},
                    {"limit", p.limit == 0 ? json(nullptr) : json(p.limit)}});
    rows.add({p.name, std::to_string(p.element_size), std::to_string(p.in_use),
              std::to_string(p.chunks), std::to_string(p.bytes),
              p.limit == 0 ? "-" : std::to_string(p.limit)});
  }
  return as == show_as::object ? show_line("pools", {{"pools", std::move(list)}}) : rows.lines();
}

std::string show_config(show_as as, std::span<const std::string> commands) {
  if (as == show_as::object) return show_line("config", {{"commands", commands}});
  std::string lines;
  for (const std::string &command : commands) lines += command + '\n';
  return lines;
}

std::string show_note(show_as as, const std::string &note) {
  return as == show_as::object ? one_line({{"schema", kSchema}, {"note", note}}) + '\n'
                               : note + '\n';
}

std::string show_refusal(show_as as, const command_error &refused) {
  const std::string column = std::to_string(refused.column);
  if (as == show_as::table)
    return "error: " + (refused.column == 0 ? "" : "column " + column + ": ") + refused.text + '\n';
  return one_line({{"schema", kSchema},
                   {"error", refused.text},
                   {"column", refused.column == 0 ? json(nullptr) : json(refused.column)}}) +
         '\n';
}

std::string show_help(show_as as) {
  json list = json::array();
  table rows({"COMMAND", "EFFECT"});
  for (const command_form &form : command_forms()) {
    list.push_back({{"syntax", form.syntax}, {"help", form.help}});
    rows.add({std::string(form.syntax), std::string(form.help)});
  }
  return as == show_as::object ? show_line("help", {{"help", std::move(list)}}) : rows.lines();
}

}  // namespace agent
