// What every BGP message read out of a BMP stream shares: the header and the account of a fault.
#pragma once

#include <cstddef>
#include <cstdint>

#include "agent/byte_cursor.h"

namespace agent {

/// What a fault costs (RFC 7606), in order of severity.
enum class fault_action : uint8_t {
  none,
  discard,   ///< what is at fault is ignored, the rest of the message stands
  withdraw,  ///< every route that the message is known to carry is withdrawn
  skip,      ///< nothing of the message can be told for certain: it changes nothing
};

struct bgp_fault {
  fault_action action = fault_action::none;
  uint8_t attribute = 0;  ///< type of the path attribute at fault, or 0
  size_t offset = 0;      ///< in the BMP message
  const char *kind = "";  ///< stable token, under which it is counted
  const char *what = "";
};

/// By address family, for the two families that the agent learns.
struct add_path_families {
  bool unicast = false;
  bool vpn = false;
};

inline constexpr size_t kBgpHeaderSize = 19;
inline constexpr uint8_t kBgpOpen = 1;
inline constexpr uint8_t kBgpUpdate = 2;

/// Takes one BGP message of the given type off `in` and returns its body; sets `fault` when there
/// is no such message.
inline byte_cursor take_bgp_message(byte_cursor &in, uint8_t type, bgp_fault &fault) {
  const size_t start = in.offset();
  const auto refuse = [&](const char *kind, const char *what) {
    fault = {fault_action::skip, 0, start, kind, what};
    return byte_cursor();
  };

  const bool marked = in.u64() == ~uint64_t{0} && in.u64() == ~uint64_t{0};
  const size_t length = in.u16();
  const uint8_t found = in.u8();
  if (!in.ok()) return refuse("bgp-length", "too short for a BGP header");
  if (!marked) return refuse("bgp-marker", "a BGP marker that isn't all ones");
  if (length < kBgpHeaderSize || length - kBgpHeaderSize > in.left())
    return refuse("bgp-length", "a BGP length that the message doesn't hold");
  if (found != type) return refuse("bgp-type", "a BGP message of another type");
  return in.take(length - kBgpHeaderSize);
}

}  // namespace agent
