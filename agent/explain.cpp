#include "agent/explain.h"

#include <arpa/inet.h>

#include <algorithm>
#include <map>
#include <tuple>

#include "agent/agent_services.h"
#include "agent/layout.h"
#include "agent/redistribution.h"
#include "agent/text.h"
#include "tarvo/oper_data.h"

namespace agent {

// ---- What discovery knows ----

uint32_t explain_discovery(explanation &into) {
  const auto failed = [](uint32_t code) { return code != 0 && code != TARVO_ODS_ERR_NOT_FOUND; };
  uint32_t code = oper_vrfs(into.nexthop, into.counts);
  if (failed(code)) return code;
  into.known = code == 0;
  code = oper_covering_prefix(into.nexthop, into.prefix);
  if (code != 0) return code;

  json state;
  code = oper_state(state);
  if (code != 0) return failed(code) ? code : 0;
  const json remaining = state.value("RefreshRemaining", json());
  if (!remaining.is_number_unsigned()) return kOperUnreadable;
  into.active = true;
  into.sweep_in = remaining.get<uint32_t>();
  return 0;
}

// ---- The RIB ----

namespace {

/// The first routes in order: those that count for the VRF asked for, then by prefix, RD and path.
class first_routes {
 public:
  using rank = std::tuple<bool, uint32_t, uint8_t, uint64_t, uint32_t, source_id>;

  static rank rank_of(const rib::path_info &path, bool counts) {
    return {!counts, path.key.prefix, path.key.length, path.key.rd, path.key.path_id, path.source};
  }

  /// Whether it is among the first so far; then its place is given.
  explained_route *admit(const rank &of) {
    if (kept_.size() >= explanation::kMaxRoutes && of > std::prev(kept_.end())->first)
      return nullptr;
    explained_route *place = &kept_[of];
    if (kept_.size() > explanation::kMaxRoutes) kept_.erase(std::prev(kept_.end()));
    return place;
  }
  std::vector<explained_route> take() {
    std::vector<explained_route> routes;
    for (auto &[of, route] : kept_) routes.push_back(std::move(route));
    return routes;
  }

 private:
  std::map<rank, explained_route> kept_;
};

void describe(const rib::path_info &path, const std::vector<vrf_config> &vrfs,
              explained_route &into) {
  into.key = path.key;
  into.source = path.source;
  into.targets.assign(path.targets.begin(), path.targets.end());
  for (const auto &[index, counts] : path.imports) {
    std::vector<route_target> &by = into.imported.emplace_back();
    for (const route_target target : vrfs[index].imports)
      if (std::ranges::binary_search(path.targets, target)) by.push_back(target);
    into.vrfs.push_back(vrfs[index].name);
  }
}

/// The VRFs that have the PE in discovery or in the RIB, and the one asked for.
void list_vrfs(const std::vector<vrf_config> &vrfs, const std::vector<uint64_t> &routes,
               explanation &into) {
  for (size_t i = 0; i < vrfs.size(); ++i) {
    explained_vrf row{vrfs[i].name, std::nullopt, routes[i]};
    const auto count = std::ranges::find(into.counts, row.vrf, &vrf_routes::vrf);
    if (count != into.counts.end()) row.count = count->routes;
    const bool wanted = into.vrf.empty() ? row.count || row.routes > 0 : row.vrf == into.vrf;
    if (!wanted) continue;
    if (into.vrfs.size() < explanation::kMaxVrfs)
      into.vrfs.push_back(std::move(row));
    else
      ++into.more_vrfs;
  }
}

}  // namespace

void explain_rib(const rib &routes, const redistribution &reports, const bmp_station &station,
                 explanation &into) {
  const std::vector<vrf_config> &vrfs = routes.vrfs();
  std::vector<uint64_t> counts(vrfs.size());
  first_routes first;
  uint64_t total = 0;
  routes.visit_nexthop(into.nexthop, [&](const rib::path_info &path) {
    bool wanted = false;
    for (const auto &[index, is_counted] : path.imports) {
      counts[index] += is_counted;
      wanted |= into.vrf.empty() || vrfs[index].name == into.vrf;
    }
    ++total;
    explained_route *place = first.admit(first_routes::rank_of(path, wanted));
    if (place != nullptr) describe(path, vrfs, *place);
  });
  into.routes = first.take();
  into.more_routes = total - into.routes.size();

  std::map<source_id, route_origin> origins;
  for (const explained_route &route : into.routes) origins[route.source];
  station.name_sources(origins);
  for (explained_route &route : into.routes) route.origin = origins[route.source];
  list_vrfs(vrfs, counts, into);
  into.reported = reports.seconds_since_report(into.nexthop);
}

// ---- What is told ----

namespace {

/// What the next sweep will do for a VRF: a word for programs and a sentence for people.
struct verdict {
  const char *word;
  std::string text;
};

std::string number_of(uint64_t count, const char *what) {
  return grouped(count) + ' ' + what + (count == 1 ? "" : "s");
}

verdict next_sweep(const explanation &of, const explained_vrf &vrf) {
  if (!of.active) return {"none", "there is none: discovery is inactive"};
  const std::string in = " in " + std::to_string(of.sweep_in) + " s";
  const std::string by = vrf.routes == 0 ? "no route reports it"
                                         : number_of(vrf.routes, "route") +
                                               (vrf.routes == 1 ? " reports it" : " report it");
  if (!vrf.count) {
    if (vrf.routes == 0)
      return {"none", "has nothing to do: no route of the VRF has this next hop"};
    return {"reported_again", "comes" + in +
                                  "; discovery doesn't know it (its limit, or memory), "
                                  "the refresh before the sweep tries again: " +
                                  by};
  }
  if (*vrf.count == 0)
    return {"removes_unless_reported", "removes it" + in + " unless reported: " + by};
  if (vrf.routes > 0) return {"keeps", "keeps it" + in + ": " + by};
  // A withdrawal was lost. What was counted since the last marking stays until the sweep after the
  // next marking; between marking and sweep lies the clear phase.
  const uint32_t clear = of.interval <= 28 ? of.interval / 2 : 29;
  if (of.sweep_in < clear)
    return {"keeps_once", "keeps it" + in + ", the one after it doesn't: " + by};
  return {"removes", "removes it" + in + ": " + by};
}

std::string global_text(const explanation &of) {
  return of.global ? prefix_text(htonl(of.global->prefix), of.global->length) : std::string();
}

std::string reach_text(const explanation &of) {
  const std::string global = global_text(of);
  const std::string seen = ", which its next report brings up";
  if (!of.active || !of.known) {
    return (of.active ? std::string("discovery doesn't know it") : std::string(kInactive)) +
           (global.empty() ? "; no global route covers it" : "; global route " + global);
  }
  if (of.prefix.empty()) {
    return global.empty() ? "not reachable: no global route covers it"
                          : "not reachable yet: there is the global route " + global + seen;
  }
  if (of.prefix == global) return "reachable through the global route " + global;
  return "reachable through the global route " + of.prefix + "; now there is " +
         (global.empty() ? "none" : global) + seen;
}

std::string imported_text(const explained_route &route) {
  std::vector<std::string> words;
  for (size_t i = 0; i < route.vrfs.size(); ++i) {
    std::string by;
    for (const route_target target : route.imported[i])
      by += (by.empty() ? "" : ",") + target_text(target);
    words.push_back(route.vrfs[i] + '(' + by + ')');
  }
  return joined(words);
}

std::string explanation_table(const explanation &of) {
  std::string text = address_text(of.nexthop) + ": " + reach_text(of);
  if (of.reported) text += "; last reported " + std::to_string(*of.reported) + " s ago";
  text += '\n';
  table vrfs({"VRF", ">COUNT", ">ROUTES", "THE NEXT SWEEP"});
  for (const explained_vrf &v : of.vrfs) {
    vrfs.add({v.vrf, v.count ? std::to_string(*v.count) : "-", std::to_string(v.routes),
              next_sweep(of, v).text});
  }
  if (!of.vrfs.empty()) text += vrfs.lines();
  if (of.more_vrfs > 0) text += "and " + number_of(of.more_vrfs, "more VRF") + '\n';

  table routes({"RD", "PREFIX", "TARGETS", "IMPORTED BY", "SESSION", "PEER", "VIEW"});
  for (const explained_route &r : of.routes) {
    routes.add(
        {distinguisher_text(r.key.rd), prefix_text(htonl(r.key.prefix), r.key.length),
         joined(target_texts(r.targets)), imported_text(r),
         printable(r.origin.router + (r.origin.system.empty() ? "" : " (" + r.origin.system + ')')),
         r.origin.peer, r.origin.view});
  }
  text += of.routes.empty() ? "no route has this next hop\n" : routes.lines();
  if (of.more_routes > 0) text += "and " + number_of(of.more_routes, "more route") + '\n';
  return text;
}

template <typename T>
json or_null(const std::optional<T> &value) {
  return value ? json(*value) : json(nullptr);
}

json text_or_null(const std::string &text) { return text.empty() ? json(nullptr) : json(text); }

json route_json(const explained_route &r) {
  json imports = json::array();
  for (size_t i = 0; i < r.vrfs.size(); ++i)
    imports.push_back({{"vrf", r.vrfs[i]}, {"targets", strings(target_texts(r.imported[i]))}});
  return {{"rd", distinguisher_text(r.key.rd)},
          {"prefix", prefix_text(htonl(r.key.prefix), r.key.length)},
          {"path_id", r.key.path_id},
          {"targets", strings(target_texts(r.targets))},
          {"imports", std::move(imports)},
          {"router", r.origin.router},
          {"system", r.origin.system},
          {"peer", r.origin.peer},
          {"view", r.origin.view}};
}

}  // namespace

std::string show_explanation(show_as as, const explanation &found) {
  if (as == show_as::table) return explanation_table(found);
  json vrfs = json::array(), routes = json::array();
  for (const explained_vrf &v : found.vrfs) {
    const verdict sweep = next_sweep(found, v);
    vrfs.push_back({{"vrf", v.vrf},
                    {"count", or_null(v.count)},
                    {"routes", v.routes},
                    {"next_sweep", sweep.word},
                    {"text", sweep.text}});
  }
  for (const explained_route &r : found.routes) routes.push_back(route_json(r));
  return show_line("explain",
                   {{"nexthop", address_text(found.nexthop)},
                    {"vrf", text_or_null(found.vrf)},
                    {"active", found.active},
                    {"known", found.known},
                    {"reachable", !found.prefix.empty()},
                    {"prefix", text_or_null(found.prefix)},
                    {"global_route", text_or_null(global_text(found))},
                    {"sweep_in_seconds", found.active ? json(found.sweep_in) : json(nullptr)},
                    {"reported_seconds_ago", or_null(found.reported)},
                    {"text", reach_text(found)},
                    {"vrfs", std::move(vrfs)},
                    {"more_vrfs", found.more_vrfs},
                    {"routes", std::move(routes)},
                    {"more_routes", found.more_routes}});
}

}  // namespace agent
