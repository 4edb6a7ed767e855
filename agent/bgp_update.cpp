// Reads an UPDATE in one pass: withdrawn routes, path attributes, NLRI. A fault doesn't stop the
// pass as long as the lengths still tell where things are, because what the message announced
// before and after it must be withdrawn (RFC 7606). The result is the caller's and is reused; a
// message of 65,535 bytes bounds it.
#include "agent/bgp_update.h"

#include <arpa/inet.h>

#include <bitset>

namespace agent {
namespace {

enum attribute_type : uint8_t {
  kOrigin = 1,
  kAsPath = 2,
  kNextHop = 3,
  kMultiExitDisc = 4,
  kLocalPref = 5,
  kAtomicAggregate = 6,
  kAggregator = 7,
  kCommunities = 8,
  kOriginatorId = 9,
  kClusterList = 10,
  kMpReach = 14,
  kMpUnreach = 15,
  kExtendedCommunities = 16,
  kIpv6ExtendedCommunities = 25,
  kLargeCommunities = 32,
};

constexpr uint8_t kOptional = 0x80;
constexpr uint8_t kTransitive = 0x40;
constexpr uint8_t kExtendedLength = 0x10;

// An attribute's flags and lengths, and what breaking the lengths costs. Types without a row are
// skipped by their length.
struct attribute_rule {
  uint8_t type;
  uint8_t flags;
  uint16_t shortest, longest, unit;
  fault_action action;
};

constexpr uint16_t kAny = 0xffff;
constexpr attribute_rule kRules[] = {
    {kOrigin, kTransitive, 1, 1, 1, fault_action::withdraw},
    {kAsPath, kTransitive, 0, kAny, 1, fault_action::withdraw},
    {kNextHop, kTransitive, 4, 4, 1, fault_action::withdraw},
    {kMultiExitDisc, kOptional, 4, 4, 1, fault_action::withdraw},
    {kLocalPref, kTransitive, 4, 4, 1, fault_action::withdraw},
    {kAtomicAggregate, kTransitive, 0, 0, 1, fault_action::discard},
    {kAggregator, kOptional | kTransitive, 6, 8, 2, fault_action::discard},
    {kCommunities, kOptional | kTransitive, 4, kAny, 4, fault_action::withdraw},
    {kOriginatorId, kOptional, 4, 4, 1, fault_action::withdraw},
    {kClusterList, kOptional, 4, kAny, 4, fault_action::withdraw},
    {kMpReach, kOptional, 5, kAny, 1, fault_action::withdraw},
    {kMpUnreach, kOptional, 3, kAny, 1, fault_action::withdraw},
    {kExtendedCommunities, kOptional | kTransitive, 8, kAny, 8, fault_action::withdraw},
    {kIpv6ExtendedCommunities, kOptional | kTransitive, 20, kAny, 20, fault_action::withdraw},
    {kLargeCommunities, kOptional | kTransitive, 12, kAny, 12, fault_action::withdraw},
};

const attribute_rule *rule_of(uint8_t type) {
  for (const attribute_rule &rule : kRules)
    if (rule.type == type) return &rule;
  return nullptr;
}

enum class family { other, unicast, vpn };

family take_family(byte_cursor &in) {
  const uint16_t afi = in.u16();
  const uint8_t safi = in.u8();
  if (afi != 1) return family::other;
  return safi == 1 ? family::unicast : safi == 128 ? family::vpn : family::other;
}

bool as_path_holds(byte_cursor in, size_t as_size) {
  while (in.left() > 0) {
    const uint8_t segment = in.u8();
    const size_t count = in.u8();
    if (segment < 1 || segment > 4 || count == 0) return false;
    in.skip(count * as_size);
  }
  return in.ok();
}

// Why a route can't be read; kind is null when it can.
struct route_fault {
  const char *kind = nullptr;
  const char *what = nullptr;
};

constexpr route_fault kEndlessStack{"label-stack",
                                    "a label stack that doesn't end within its NLRI"};
constexpr uint64_t kLastDistinguisherType = 2;

// Skips the label stack and reads the distinguisher; `bits` is left with the prefix's own.
route_fault read_vpn_part(byte_cursor &in, unsigned &bits, nlri &route) {
  constexpr unsigned kLabelBits = 24, kDistinguisherBits = 64;
  if (bits < kLabelBits + kDistinguisherBits)
    return {"nlri-length", "no room for a label and a route distinguisher"};

  uint32_t label = in.u24();
  bits -= kLabelBits;
  // Withdrawals, and some announcements, carry one of two fixed values without a bottom of stack.
  const bool placeholder = label == 0x000000 || label == 0x800000;
  bool stacked = false;
  for (; !placeholder && (label & 1) == 0; stacked = true) {
    if (bits < kLabelBits + kDistinguisherBits) return kEndlessStack;
    label = in.u24();
    bits -= kLabelBits;
  }
  route.rd = in.u64();
  bits -= kDistinguisherBits;
  // An endless stack may seem to end inside the distinguisher; what follows is none then.
  return stacked && route.rd >> 48 > kLastDistinguisherType ? kEndlessStack : route_fault{};
}

// Reads one NLRI; sets `odd` when bits beyond the prefix aren't zero.
route_fault read_route(byte_cursor &section, bool vpn, bool path_ids, nlri &route, bool &odd) {
  if (path_ids) route.path_id = section.u32();
  unsigned bits = section.u8();
  byte_cursor in = section.take((bits + 7) / 8);
  if (!section.ok()) return {"nlri-overrun", "an NLRI that its section doesn't hold"};

  route.vpn = vpn;
  if (vpn) {
    const route_fault fault = read_vpn_part(in, bits, route);
    if (fault.kind != nullptr) return fault;
  }
  if (bits > 32) return {"nlri-length", "a prefix of more than 32 bits"};

  for (unsigned read = 0; read < bits; read += 8)
    route.prefix |= static_cast<uint32_t>(in.u8()) << (24 - read);
  const uint32_t mask = bits == 0 ? 0 : ~uint32_t{0} << (32 - bits);
  odd |= (route.prefix & ~mask) != 0;
  route.prefix &= mask;
  route.length = static_cast<uint8_t>(bits);
  return {};
}

// How a section of NLRI reads with, or without, path identifiers.
struct section_reading {
  route_fault fault;
  size_t offset = 0;  // of the fault
  bool odd = false;   // valid, but not what a router writes

  bool valid() const { return fault.kind == nullptr; }
  bool clean() const { return valid() && !odd; }
};

// Appends the section's routes: all of them, or none.
section_reading read_section(byte_cursor in, bool vpn, bool path_ids, std::vector<nlri> &routes) {
  const size_t before = routes.size();
  section_reading reading;
  while (in.left() > 0) {
    nlri route;
    reading.offset = in.offset();
    reading.fault = read_route(in, vpn, path_ids, route, reading.odd);
    if (!reading.valid()) {
      routes.resize(before);
      return reading;
    }
    // Twice in a row: the zeros of a path identifier read as so many default routes.
    reading.odd |= routes.size() > before && routes.back() == route;
    routes.push_back(route);
  }
  return reading;
}

// The state of one pass.
class update_reader {
 public:
  update_reader(add_path_families &expected, bgp_update &update)
      : expected_(expected), update_(update) {}

  void read(byte_cursor body);

 private:
  void read_attribute(byte_cursor &list);
  void read_value(const attribute_rule &rule, byte_cursor value);
  void read_origin(byte_cursor value);
  void read_as_path(byte_cursor value);
  void read_mp_reach(byte_cursor value);
  void read_mp_unreach(byte_cursor value);
  void read_targets(byte_cursor value);
  uint32_t take_next_hop(byte_cursor in);
  void read_routes(byte_cursor section, family routes_of, std::vector<nlri> &routes);
  void require_mandatory(size_t offset);
  void withdraw_announced(bgp_reach &reach);
  void fail(fault_action action, size_t offset, const char *kind, const char *what);

  add_path_families &expected_;
  bgp_update &update_;
  std::bitset<256> seen_;
  uint8_t attribute_ = 0;  // being read; 0 outside the attributes
  byte_cursor next_hop_;   // the NEXT_HOP attribute's value
};

void update_reader::fail(fault_action action, size_t offset, const char *kind, const char *what) {
  if (action > update_.fault.action) update_.fault = {action, attribute_, offset, kind, what};
}

void update_reader::read(byte_cursor body) {
  const size_t start = body.offset();
  byte_cursor withdrawn = body.take(body.u16());
  if (!body.ok())
    return fail(fault_action::withdraw, start, "withdrawn-length",
                "withdrawn routes that the UPDATE doesn't hold");
  read_routes(withdrawn, family::unicast, update_.withdrawn);

  const size_t attributes_at = body.offset();
  byte_cursor attributes = body.take(body.u16());
  if (!body.ok())
    return fail(fault_action::withdraw, attributes_at, "attributes-length",
                "path attributes that the UPDATE doesn't hold");
  while (attributes.left() > 0) read_attribute(attributes);
  attribute_ = 0;
  read_routes(body, family::unicast, update_.classic.routes);

  require_mandatory(attributes_at);
  // NEXT_HOP is that of the NLRI field; whatever it says is of no concern to MP_REACH_NLRI.
  if (!update_.classic.routes.empty()) update_.classic.nexthop = take_next_hop(next_hop_);
  if (update_.fault.action != fault_action::withdraw) return;
  withdraw_announced(update_.classic);
  withdraw_announced(update_.multiprotocol);
}

void update_reader::require_mandatory(size_t offset) {
  const bool classic = !update_.classic.routes.empty();
  if (!classic && update_.multiprotocol.routes.empty()) return;
  if (!seen_[kOrigin] || !seen_[kAsPath] || (classic && !seen_[kNextHop]))
    fail(fault_action::withdraw, offset, "attribute-missing",
         "routes without ORIGIN, AS_PATH or NEXT_HOP");
}

void update_reader::withdraw_announced(bgp_reach &reach) {
  update_.withdrawn.insert(update_.withdrawn.end(), reach.routes.begin(), reach.routes.end());
  reach.routes.clear();
}

void update_reader::read_attribute(byte_cursor &list) {
  const size_t offset = list.offset();
  const uint8_t flags = list.u8();
  attribute_ = list.u8();
  const byte_cursor value = list.take((flags & kExtendedLength) != 0 ? list.u16() : list.u8());
  if (!list.ok())
    return fail(fault_action::withdraw, offset, "attribute-overrun",
                "an attribute that the list of attributes doesn't hold");

  const attribute_rule *rule = rule_of(attribute_);
  if (rule == nullptr) return;
  if (seen_.test(attribute_)) {
    // Of a repeated attribute the first counts; but two sets of routes can't both be right, and
    // those of both are withdrawn.
    if (attribute_ != kMpReach && attribute_ != kMpUnreach) return;
    fail(fault_action::withdraw, offset, "attribute-repeated", "two sets of routes");
  }
  seen_.set(attribute_);
  if ((flags & (kOptional | kTransitive)) != rule->flags)
    fail(fault_action::withdraw, offset, "attribute-flags", "flags that its type doesn't have");
  const size_t length = value.left();
  if (length < rule->shortest || length > rule->longest || length % rule->unit != 0)
    return fail(rule->action, offset, "attribute-length", "a length that its type doesn't have");
  read_value(*rule, value);
}

void update_reader::read_value(const attribute_rule &rule, byte_cursor value) {
  switch (rule.type) {
    case kOrigin:
      return read_origin(value);
    case kAsPath:
      return read_as_path(value);
    case kNextHop:
      next_hop_ = value;
      return;
    case kMpReach:
      return read_mp_reach(value);
    case kMpUnreach:
      return read_mp_unreach(value);
    case kExtendedCommunities:
      return read_targets(value);
    default:
      return;  // the length was all there is to check
  }
}

void update_reader::read_origin(byte_cursor value) {
  const size_t offset = value.offset();
  if (value.u8() > 2)
    fail(fault_action::withdraw, offset, "origin", "an ORIGIN other than IGP, EGP, INCOMPLETE");
}

// Which size the AS numbers have is said in the peer's flags, but not reliably.
void update_reader::read_as_path(byte_cursor value) {
  if (!as_path_holds(value, 4) && !as_path_holds(value, 2))
    fail(fault_action::withdraw, value.offset(), "as-path",
         "a segment that is empty, of unknown type or longer than the path");
}

// A host's address, or 0.0.0.0.
uint32_t update_reader::take_next_hop(byte_cursor in) {
  const size_t offset = in.offset();
  const uint32_t address = in.u32();
  const bool multicast = address >> 28 == 0xe;
  if (multicast || address == INADDR_BROADCAST)
    fail(fault_action::withdraw, offset, "next-hop", "a next hop that is no host's address");
  return htonl(address);
}

void update_reader::read_mp_reach(byte_cursor value) {
  const size_t start = value.offset();
  const family routes_of = take_family(value);
  byte_cursor nexthop = value.take(value.u8());
  value.skip(1);  // reserved
  if (!value.ok())
    return fail(fault_action::withdraw, start, "next-hop-length",
                "a next hop that the attribute doesn't hold");
  if (routes_of == family::other) return;

  const bool vpn = routes_of == family::vpn;
  const size_t length = nexthop.left();
  const bool ipv4 = length == (vpn ? 12 : 4);
  const bool ipv6 = length == (vpn ? 24 : 16) || length == (vpn ? 48 : 32);
  // The routes start where the next hop ends: when that is in doubt, none is known.
  if (!ipv4 && !ipv6)
    return fail(fault_action::withdraw, start, "next-hop-length",
                "a next hop of a length that its family doesn't have");

  bgp_reach &reach = update_.multiprotocol;
  read_routes(value, routes_of, reach.routes);
  if (ipv6 && vpn) {
    update_.not_ipv4 += reach.routes.size();
    return withdraw_announced(reach);  // it replaces what the peer announced before
  }
  if (ipv6) return;  // of the global table the prefix is all that counts
  const size_t offset = nexthop.offset();
  if (vpn && nexthop.u64() != 0)
    fail(fault_action::withdraw, offset, "next-hop", "a next hop with a route distinguisher");
  reach.nexthop = take_next_hop(nexthop);
}

void update_reader::read_mp_unreach(byte_cursor value) {
  const family routes_of = take_family(value);
  if (routes_of != family::other) read_routes(value, routes_of, update_.withdrawn);
}

// Route targets of the three forms: 2-octet AS, IPv4 address, 4-octet AS.
void update_reader::read_targets(byte_cursor value) {
  constexpr uint64_t kTargetSubType = 0x02, kLastForm = 0x02;
  while (value.left() > 0) {
    const uint64_t community = value.u64();
    if (community >> 56 <= kLastForm && (community >> 48 & 0xff) == kTargetSubType)
      update_.targets.push_back(community);
  }
}

// Reads as expected, unless that gives implausible routes and the other way gives clean ones, which
// is expected from then on: many sections read well either way.
void update_reader::read_routes(byte_cursor section, family routes_of, std::vector<nlri> &routes) {
  const bool vpn = routes_of == family::vpn;
  bool &path_ids = vpn ? expected_.vpn : expected_.unicast;
  const size_t before = routes.size();
  const section_reading expected = read_section(section, vpn, path_ids, routes);
  if (expected.clean()) return;

  const size_t between = routes.size();
  if (read_section(section, vpn, !path_ids, routes).clean()) {
    path_ids = !path_ids;
    update_.other_reading = true;
    routes.erase(routes.begin() + static_cast<ptrdiff_t>(before),
                 routes.begin() + static_cast<ptrdiff_t>(between));
    return;
  }
  routes.resize(between);
  if (!expected.valid())
    fail(fault_action::withdraw, expected.offset, expected.fault.kind, expected.fault.what);
}

}  // namespace

void read_update(byte_cursor body, add_path_families &expected, bgp_update &update) {
  update.withdrawn.clear();
  update.classic.routes.clear();
  update.multiprotocol.routes.clear();
  update.targets.clear();
  update.not_ipv4 = 0;
  update.other_reading = false;
  update.fault = {};
  update_reader(expected, update).read(body);
}

}  // namespace agent
