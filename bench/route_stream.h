// Synthetic stream of one router's VPNv4 routes, the same bytes for the same shape: a BMP session
// of its Loc-RIB, or a BGP session with the same UPDATEs.
#pragma once

#include <cstdint>
#include <vector>

namespace bench {

enum class protocol { bmp, bgp };

struct stream_shape {
  protocol speaks = protocol::bmp;
  uint32_t routes = 1000000;  ///< up to 16 million: each has a /24 of its own
  uint32_t vrfs = 100;        ///< VRF v imports and exports target 65000:v, v from 1
  uint32_t pes = 400;         ///< next hops 10.255.0.1 and up
  uint32_t per_update = 10;   ///< routes in one UPDATE, which share next hop and target; to 250
  uint32_t withdrawals = 0;   ///< so many of the routes, drawn at random, go again
  uint32_t seed = 1;
};

/// Next hop of the n-th PE, from 0; host byte order.
constexpr uint32_t pe_address(uint32_t n) { return 0x0aff0001 + n; }
/// Route target 65000:v as in its extended community.
constexpr uint64_t vrf_target(uint32_t v) { return 0x0002fde800000000 | v; }

/// Whatever the other side sends is to be read and may be ignored: the BGP session has no hold
/// time, and goes on to its UPDATEs at once.
std::vector<uint8_t> make_stream(const stream_shape &shape);

}  // namespace bench
