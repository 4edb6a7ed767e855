// What the `show` commands and `help` print, from data collected before: tables of aligned columns
// for people, or one JSON object. Pure functions; nothing here asks another part of the agent.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "agent/bmp_station.h"
#include "agent/command.h"
#include "agent/json.h"
#include "agent/oper_data.h"
#include "agent/pools.h"
#include "agent/rib.h"

namespace agent {

/// How to print.
enum class show_as { table, object };

/// Routes of a VRF, and the next hops that they have.
struct vrf_total {
  uint64_t routes = 0;
  size_t nexthops = 0;
};

// Each result is lines with their ends. A record is its fields by name.

std::string show_vrfs(show_as as, std::span<const vrf_config> vrfs,
                      const std::map<std::string, vrf_total> &totals);

/// With `only` set, `nexthops` are those of that VRF, with its routes alone.
std::string show_nexthops(show_as as, const std::string &only,
                          std::span<const oper_nexthop> nexthops);

/// `nexthop` is in network byte order.
std::string show_nexthop(show_as as, uint32_t nexthop, std::span<const vrf_routes> vrfs);
/// `prefix` is what the record says, as text.
std::string show_prefix(show_as as, uint32_t nexthop, const json &record,
                        const std::string &prefix);
std::string show_state(show_as as, const json &record);

std::string show_sessions(show_as as, std::span<const session_info> sessions);
std::string show_pools(show_as as, std::span<const pool_info> pools);
std::string show_config(show_as as, std::span<const std::string> commands);
std::string show_help(show_as as);

/// What a command that was run has to say besides.
std::string show_note(show_as as, const std::string &note);
/// What a refused command is answered with.
std::string show_refusal(show_as as, const command_error &refused);

}  // namespace agent
