// BGP OPEN (RFC 4271, 5492, 9072): the capabilities that decide how a peer's UPDATEs are read.
#pragma once

#include <cstdint>

#include "agent/bgp_message.h"

namespace agent {

/// Directions of the ADD-PATH capability (RFC 7911).
inline constexpr uint8_t kAddPathReceive = 1;
inline constexpr uint8_t kAddPathSend = 2;

struct bgp_open {
  uint8_t add_path_unicast = 0;  ///< the two bits above; 0: not advertised
  uint8_t add_path_vpn = 0;
};

/// Reads the body of an OPEN. After a fault it holds what was read before it.
bgp_open read_open(byte_cursor body, bgp_fault &fault);

}  // namespace agent
