// The agent's operational-data store: asks the module what discovery knows, through the callback
// table that the module registered, and decodes the records it answers with.
//
// Nothing is kept between calls. Any thread but the module's worker, after tarvo_nd_init. An answer
// of several requests is no snapshot: the worker may change the database between two of them. What
// the module hands out is freed here.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "agent/json.h"

namespace agent {

/// The result for an answer that can't be read: no record, one without its fields, or a key that is
/// no next hop. Neither the module nor the store nor the encoder has this code.
constexpr uint32_t kOperUnreadable = 0xffffffff;

/// Routes of one VRF with one next hop.
struct vrf_routes {
  std::string vrf;
  uint64_t routes = 0;
};

/// What is known of a next hop.
struct oper_nexthop {
  uint32_t address = 0;          ///< network byte order
  std::string prefix;            ///< the route that covers it, `10.255.2.0/24`; empty: unreachable
  std::vector<vrf_routes> vrfs;  ///< by table ID
};

// Results: 0 with the answer written; TARVO_ODS_ERR_NOT_FOUND while discovery is inactive and where
// there is nothing; kOperUnreadable; or a code of the module, the store or the encoder. A next hop
// is in network byte order. A record is its fields by name, addresses dotted.

[[nodiscard]] uint32_t oper_state(json &record);

/// The route that covers a next hop, also as text. Not found without one.
[[nodiscard]] uint32_t oper_prefix(uint32_t nexthop, json &record, std::string &text);

/// Its text alone; empty without one.
[[nodiscard]] uint32_t oper_covering_prefix(uint32_t nexthop, std::string &text);

/// The VRFs that refer to a next hop, by table ID. Not found without one.
[[nodiscard]] uint32_t oper_vrfs(uint32_t nexthop, std::vector<vrf_routes> &routes);

/// All next hops by address, page by page, with their VRFs and without their prefixes. One that
/// goes meanwhile is left out.
[[nodiscard]] uint32_t oper_nexthops(std::vector<oper_nexthop> &nexthops);

/// Adds their prefixes.
[[nodiscard]] uint32_t oper_prefixes(std::vector<oper_nexthop> &nexthops);

}  // namespace agent
