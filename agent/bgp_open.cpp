// Optional parameters of an OPEN, in their one-byte and extended lengths. Nothing is kept here.
#include "agent/bgp_open.h"

namespace agent {
namespace {

constexpr uint8_t kParameterCapabilities = 2;
constexpr uint8_t kParameterExtended = 255;
constexpr uint8_t kCapabilityAddPath = 69;

// Directions of the ADD-PATH capability (RFC 7911).
constexpr uint8_t kAddPathReceive = 1;
constexpr uint8_t kAddPathSend = 2;

struct bgp_open {
  uint8_t add_path_unicast = 0;  // the two bits above; 0: not advertised
  uint8_t add_path_vpn = 0;
};

void read_add_path(byte_cursor in, bgp_open &open) {
  while (in.left() >= 4) {
    const uint16_t afi = in.u16();
    const uint8_t safi = in.u8();
    const uint8_t direction = in.u8();
    if (afi != 1 || direction > (kAddPathReceive | kAddPathSend)) continue;
    // Of repeated families the first counts.
    if (safi == 1 && open.add_path_unicast == 0) open.add_path_unicast = direction;
    if (safi == 128 && open.add_path_vpn == 0) open.add_path_vpn = direction;
  }
}

void read_capabilities(byte_cursor in, bgp_open &open, bgp_fault &fault) {
  while (in.left() > 0) {
    const size_t offset = in.offset();
    const uint8_t code = in.u8();
    const byte_cursor value = in.take(in.u8());
    if (!in.ok()) {
      fault = {fault_action::discard, 0, offset, "open-capability",
               "a capability that its parameter doesn't hold"};
      return;
    }
    if (code == kCapabilityAddPath) read_add_path(value, open);
  }
}

// The list of optional parameters; `extended` says whether their lengths take two bytes.
byte_cursor take_parameters(byte_cursor &in, bool &extended) {
  const uint8_t short_length = in.u8();
  byte_cursor ahead = in;
  extended = short_length != 0 && ahead.u8() == kParameterExtended;
  if (!extended) return in.take(short_length);
  in.skip(1);
  return in.take(in.u16());
}

// Reads the body of an OPEN. After a fault it holds what was read before it.
bgp_open read_open(byte_cursor body, bgp_fault &fault) {
  bgp_open open;
  body.skip(9);  // version, AS, hold time, identifier
  bool extended = false;
  byte_cursor in = take_parameters(body, extended);
  while (in.left() > 0) {
    const uint8_t type = in.u8();
    const byte_cursor value = in.take(extended ? in.u16() : in.u8());
    if (in.ok() && type == kParameterCapabilities) read_capabilities(value, open, fault);
  }
  if (!in.ok())
    fault = {fault_action::discard, 0, body.offset(), "open-length",
             "optional parameters that the OPEN doesn't hold"};
  return open;
}

}  // namespace

add_path_families read_opens(byte_cursor in, bool either, bgp_fault &fault) {
  bgp_open opens[2];  // sent, received
  for (bgp_open &open : opens) {
    const byte_cursor body = take_bgp_message(in, kBgpOpen, fault);
    if (fault.action == fault_action::skip) break;
    open = read_open(body, fault);
  }
  const auto negotiated = [&](uint8_t bgp_open::*family) {
    const uint8_t sent = opens[0].*family, received = opens[1].*family;
    if (either) return (sent | received) != 0;
    return (sent & kAddPathReceive) != 0 && (received & kAddPathSend) != 0;
  };
  return {negotiated(&bgp_open::add_path_unicast), negotiated(&bgp_open::add_path_vpn)};
}

}  // namespace agent
