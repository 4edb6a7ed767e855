// What the `show` commands and `help` print, from data collected before: tables of aligned columns
// for people, or one JSON object. Pure functions; nothing here asks another part of the agent.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "agent/bmp_station.h"
#include "agent/rib.h"
#include "tarvo/records.h"

namespace agent {

/// How to print.
enum class show_as { table, json };

/// A pool as the platform lists it, its name kept.
struct pool_info {
  std::string name;
  uint64_t element_size = 0;
  uint64_t in_use = 0;
  uint64_t chunks = 0;
  uint64_t bytes = 0;
  uint64_t limit = 0;
};

/// A next hop as the module's queries tell it.
struct known_nexthop {
  tarvo_nd_nhop_info_t info{};
  bool reachable = false;
};

// Each result is lines with their ends. `counts` are the RIB's, in order of table and next hop.

std::string show_vrfs(show_as as, std::span<const vrf_config> vrfs,
                      std::span<const route_count> counts);

/// With `only` set, `nexthops` are those of that VRF, and its routes alone are shown.
std::string show_nexthops(show_as as, const vrf_config *only,
                          std::span<const known_nexthop> nexthops, std::span<const vrf_config> vrfs,
                          std::span<const route_count> counts);

std::string show_sessions(show_as as, std::span<const session_info> sessions);
std::string show_pools(show_as as, std::span<const pool_info> pools);
std::string show_help(show_as as);

}  // namespace agent
