// BMP streams by hand: what routers send and what hostile ones might, piece by piece.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>

namespace agent {

using bytes = std::string;

inline bytes be(uint64_t value, int size) {
  bytes text;
  while (size-- > 0) text += static_cast<char>(value >> 8 * size);
  return text;
}
inline bytes zeros(size_t size) { return bytes(size, '\0'); }

// ---- BGP ----

constexpr uint64_t kTargetA = 0x2fde800000001, kTargetB = 0x1020aff01010007,
                   kTargetC = 0x202fa56ea020009;
// Communities that only look like targets: of another sub-type, not transitive, of another form.
constexpr uint64_t kNo[] = {0x3fde800000001, 0x4002fde800000001, 0x302fde800000001};
constexpr uint32_t kHop1 = 0x0aff0101, kHop2 = 0x0aff0202, kHop3 = 0x0aff0303;

inline bytes attr(int flags, int type, const bytes &value) {
  const bool wide = value.size() > 255;
  return be(flags | (wide ? 0x10 : 0), 1) + be(type, 1) + be(value.size(), wide ? 2 : 1) + value;
}
inline bytes bgp(int type, const bytes &body) {
  return bytes(16, '\xff') + be(19 + body.size(), 2) + be(type, 1) + body;
}
inline bytes update(const bytes &attributes, const bytes &routes = "",
                    const bytes &withdrawn = "") {
  const bytes lists = be(withdrawn.size(), 2) + withdrawn + be(attributes.size(), 2) + attributes;
  return bgp(2, lists + routes);
}
inline bytes ip(int length, uint32_t prefix) {
  return be(length, 1) + be(prefix, 4).substr(0, static_cast<size_t>(length + 7) / 8);
}
inline const bytes kOpenLabel = be(0x3e8000, 3), kLabel8 = be(0x800000, 3);
inline bytes vpn(int length, uint32_t prefix, const bytes &labels = be(0x3e8001, 3)) {
  return be(8 * labels.size() + 64 + static_cast<size_t>(length), 1) + labels +
         be(0x0000fde800000064, 8) + ip(length, prefix).substr(1);
}
inline bytes many_routes(uint32_t number) {
  bytes many;
  for (uint32_t i = 0; i < number; ++i) many += vpn(32, 0x0b000000 + i);
  return many;
}
inline const bytes kPlain = vpn(24, 0x0a010100), kTwo = kPlain + vpn(32, 0x0a010201);
inline const bytes kId7 = be(7, 4) + kPlain, kId8 = be(8, 4) + kPlain;
inline const bytes kOrigin = attr(0x40, 1, be(0, 1)), kPath = attr(0x40, 2, be(0x02010000fde8, 6));
inline bytes targets(std::initializer_list<uint64_t> values) {
  bytes list;
  for (const uint64_t value : values) list += be(value, 8);
  return attr(0xc0, 16, list);
}
inline bytes reach(const bytes &nexthop, const bytes &routes, int safi = 128, int afi = 1) {
  return attr(0x80, 14,
              be(afi, 2) + be(safi, 1) + be(nexthop.size(), 1) + nexthop + zeros(1) + routes);
}
inline bytes unreach(const bytes &routes, int safi = 128) {
  return attr(0x80, 15, be(1, 2) + be(safi, 1) + routes);
}
inline bytes hop(uint32_t address) { return zeros(8) + be(address, 4); }
inline const bytes kBase = kOrigin + kPath, kReach1 = reach(hop(kHop1), kPlain),
                   kReach2 = reach(hop(kHop2), kPlain), kA = targets({kTargetA}),
                   kRest = kReach2 + kA, kNextHop = attr(0x40, 3, be(kHop1, 4)),
                   kNoHost = attr(0x40, 3, be(0xffffffff, 4));
inline bytes announce(const bytes &routes, uint32_t nexthop = kHop1, uint64_t target = kTargetA) {
  return update(kBase + reach(hop(nexthop), routes) + targets({target}));
}

// ---- BMP ----

inline bytes bmp(int type, const bytes &body) {
  return be(3, 1) + be(6 + body.size(), 4) + be(type, 1) + body;
}
// What a peer's header says of it but for the time.
inline bytes peer(int type, int flags, uint64_t distinguisher, uint32_t address,
                  uint32_t as = 65000) {
  return be(type, 1) + be(flags, 1) + be(distinguisher, 8) + zeros(12) + be(address, 4) +
         be(as, 4) + be(as, 4);
}
inline bytes from(const bytes &peer, int type, const bytes &body) {
  return bmp(type, peer + zeros(8) + body);
}
inline const bytes kLoc = peer(3, 0, 0, 0), kLocFiltered = peer(3, 0x80, 0, 0, 0),
                   kVrf = peer(3, 0, 0x0000fde800000064, 0), kPre = peer(0, 0, 0, 0x0a000001),
                   kPost = peer(0, 0x40, 0, 0x0a000001), kOut = peer(0, 0x10, 0, 0x0a000001),
                   kOutPost = peer(0, 0x50, 0, 0x0a000001), kOther = peer(0, 0, 0, 0x0a000002),
                   kThird = peer(0, 0, 0, 0x0a000003), kOfRd = peer(1, 0, 77, 0x0a000001),
                   kLocal = peer(2, 0, 0, 0x0a000001);

inline bytes monitor(const bytes &message, const bytes &p = kLoc) { return from(p, 0, message); }
inline bytes tell(const bytes &routes, const bytes &p = kLoc, uint32_t nexthop = kHop1,
                  uint64_t target = kTargetA) {
  return monitor(announce(routes, nexthop, target), p);
}
inline bytes learn(const bytes &attributes, const bytes &routes = "", const bytes &p = kLoc) {
  return monitor(update(kBase + attributes, routes), p);
}
inline bytes take(const bytes &routes, const bytes &p = kLoc, int safi = 128) {
  return monitor(update(unreach(routes, safi)), p);
}
inline bytes down(const bytes &p = kLoc) { return from(p, 2, be(1, 1)); }
// ADD-PATH of VPNv4, or another SAFI, in the OPENs sent and received, in the list's short or
// extended form.
inline bytes up(int sent, int received, const bytes &p = kLoc, bool extended = false,
                int safi = 128) {
  const int size = extended ? 2 : 1;
  const auto open = [&](int direction) {
    const bytes capability = be(0x45040001, 4) + be(safi, 1) + be(direction, 1);
    const bytes list = be(2, 1) + be(capability.size(), size) + capability;
    return bgp(1, zeros(9) + (extended ? be(0xffff, 2) : "") + be(list.size(), size) + list);
  };
  return from(p, 3, zeros(20) + open(sent) + open(received));
}
inline const bytes kInitiation = bmp(4, be(2, 2) + be(3, 2) + "pe1"), kTermination = bmp(5, "");
inline const bytes kGood = tell(kPlain), kToB = tell(kPlain, kLoc, kHop2, kTargetB),
                   kToC = tell(kPlain, kLoc, kHop3, kTargetC);

inline const bytes kNine1 = ip(24, 0x0a090100), kNine2 = ip(23, 0x0a090200),
                   kNine = ip(16, 0x0a090000);

// One of everything, for the pre-policy view; valid, and with what recordings may lack: AS_PATH
// segments, a stack of labels, IPv4 unicast, a list of capabilities in the extended form, an
// attribute with an extended length, a Peer Down.
inline const bytes kStream =
    kInitiation + up(1, 2, kPre) + up(1, 0, kOther, true) +
    tell(kId7 + be(8, 4) + vpn(32, 0x0a010201), kPre) +
    learn(reach(hop(kHop2), be(9, 4) + vpn(20, 0x0a013000, kOpenLabel + be(0x3e8001, 3))) +
              targets({kTargetB, kTargetC}),
          "", kPre) +
    monitor(update(kOrigin + be(0x5002001002020000, 8) + be(0xfde80000fdea0101, 8) + be(0xfde9, 4) +
                   reach(hop(kHop3), kTwo) + targets({kTargetC})),
            kOther) +
    learn(kNextHop, kNine, kOther) + learn(kNextHop, kNine1, kOther) +
    learn(reach(be(kHop3, 4), kNine2, 1), "", kOther) + monitor(update("", "", kNine1), kOther) +
    take(kNine2, kOther, 1) + take(be(8, 4) + vpn(32, 0x0a010201, kLabel8), kPre) +
    tell(vpn(32, 1), kThird) + down(kThird);
// And a route that lacks the path identifier that the OPENs promise.
inline const bytes kDoubtful = kStream + tell(kPlain, kPre, kHop3, kTargetB);
const char kStreamState[] = " A1*1 B2*1 C2*1 C3*2 10.9.0.0/16";

inline std::span<const uint8_t> span_of(const bytes &text) {
  return {reinterpret_cast<const uint8_t *>(text.data()), text.size()};
}

}  // namespace agent
