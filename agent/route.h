// What a route is to the agent: small value types shared by the BMP reader and the RIB.
#pragma once

#include <cstdint>

namespace agent {

/// One BGP NLRI. The prefix's host bits are zero.
struct nlri {
  uint64_t rd = 0;       ///< route distinguisher, its 8 bytes read as one big-endian number
  uint32_t prefix = 0;   ///< host byte order
  uint32_t path_id = 0;  ///< RFC 7911; 0 without path identifiers
  uint8_t length = 0;    ///< 0 to 32
  bool vpn = false;      ///< false: IPv4 unicast of the global table, and `rd` is 0

  bool operator==(const nlri &) const = default;
};

/// A route target: the 8 bytes of its extended community read as one big-endian number.
using route_target = uint64_t;

/// One origin of routes: a peer in one view of one BMP session. Never reused while open.
using source_id = uint32_t;

/// An interned next hop with its set of route targets.
using attr_id = uint32_t;

}  // namespace agent
