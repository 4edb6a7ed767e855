// BGP UPDATE (RFC 4271, 4760, 4364, 8277, 7911): what one message announces and withdraws.
#pragma once

#include <cstdint>
#include <vector>

#include "agent/bgp_message.h"
#include "agent/route.h"

namespace agent {

/// Routes that share a next hop.
struct bgp_reach {
  uint32_t nexthop = 0;  ///< network byte order
  std::vector<nlri> routes;
};

/// One UPDATE as read. Apply `withdrawn` first: a route in both is announced. Keep it from message
/// to message, and reading doesn't allocate.
struct bgp_update {
  std::vector<nlri> withdrawn;
  bgp_reach classic;        ///< IPv4 unicast of the NLRI field
  bgp_reach multiprotocol;  ///< MP_REACH_NLRI: IPv4 unicast or VPNv4
  std::vector<route_target> targets;
  uint64_t not_ipv4 = 0;       ///< VPN routes with an IPv6 next hop; they are among `withdrawn`
  bool other_reading = false;  ///< path identifiers were, or weren't, there against expectation
  bgp_fault fault;             ///< the first of the gravest; what it costs is done already
};

/// Reads the body of an UPDATE. A section of NLRI counts whole or not at all, and announcements
/// only in a message that RFC 7606 lets stand: all others end up among the withdrawn. `expected` is
/// where path identifiers stand: as negotiated, and then as the peer turns out to write them.
void read_update(byte_cursor body, add_path_families &expected, bgp_update &update);

}  // namespace agent
