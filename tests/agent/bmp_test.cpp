// The BMP station: what routers send and what hostile ones might, as bytes in and routes out.
//
// Messages are strings of bytes. The RIB behind the station is the real one; its fence stays
// closed, so the module is never called.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <memory>

#include "agent/bmp_session.h"
#include "agent/bmp_station.h"
#include "agent/fence.h"
#include "agent/global_table.h"
#include "agent/redistribution.h"
#include "agent/rib.h"
#include "agent/rib_thread.h"
#include "agent/text.h"
#include "tarvo/discovery.h"

uint32_t tarvo_pe_discovery_register(uint32_t, const char *, tarvo_nd_notify_fn) { return 1; }
uint32_t tarvo_pe_discovery_unregister(uint32_t) { return 1; }
uint32_t tarvo_pe_discovery_resend(uint32_t, const char *) { return 1; }

namespace agent {
namespace {

using bytes = std::string;
using kind = bmp_session::source_kind;

bytes be(uint64_t value, int size) {
  bytes text;
  while (size-- > 0) text += static_cast<char>(value >> 8 * size);
  return text;
}
bytes zeros(size_t size) { return bytes(size, '\0'); }

// ---- BGP ----

constexpr uint64_t kTargetA = 0x0002fde800000001, kTargetB = 0x01020aff01010007,
                   kTargetC = 0x0202fa56ea020009;
// Communities that only look like targets: of another sub-type, not transitive, of another form.
constexpr uint64_t kNoTargets[] = {0x0003fde800000001, 0x4002fde800000001, 0x0302fde800000001};
constexpr uint32_t kHop1 = 0x0aff0101, kHop2 = 0x0aff0202, kHop3 = 0x0aff0303;

bytes attr(int flags, int type, const bytes &value) {
  const bool wide = value.size() > 255;
  return be(flags | (wide ? 0x10 : 0), 1) + be(type, 1) + be(value.size(), wide ? 2 : 1) + value;
}
bytes bgp(int type, const bytes &body) {
  return bytes(16, '\xff') + be(19 + body.size(), 2) + be(type, 1) + body;
}
bytes update(const bytes &attributes, const bytes &routes = "", const bytes &withdrawn = "") {
  return bgp(2,
             be(withdrawn.size(), 2) + withdrawn + be(attributes.size(), 2) + attributes + routes);
}
bytes ip(int length, uint32_t prefix) {
  return be(length, 1) + be(prefix, 4).substr(0, static_cast<size_t>(length + 7) / 8);
}
// A VPN route; `labels` is the stack, `path_id` its bytes if any.
bytes vpn(int length, uint32_t prefix, const bytes &labels = be(0x3e8001, 3),
          const bytes &path_id = "") {
  return path_id + be(8 * labels.size() + 64 + static_cast<size_t>(length), 1) + labels +
         be(0x0000fde800000064, 8) + ip(length, prefix).substr(1);
}
const bytes kPlain = vpn(24, 0x0a010100);
const bytes kOrigin = attr(0x40, 1, be(0, 1)), kPath = attr(0x40, 2, be(0x02010000fde8, 6));
bytes targets(std::initializer_list<uint64_t> values) {
  bytes list;
  for (const uint64_t value : values) list += be(value, 8);
  return attr(0xc0, 16, list);
}
bytes reach(const bytes &nexthop, const bytes &routes, int safi = 128, int afi = 1) {
  return attr(0x80, 14,
              be(afi, 2) + be(safi, 1) + be(nexthop.size(), 1) + nexthop + zeros(1) + routes);
}
bytes unreach(const bytes &routes, int safi = 128) {
  return attr(0x80, 15, be(1, 2) + be(safi, 1) + routes);
}
bytes hop(uint32_t address) { return zeros(8) + be(address, 4); }
bytes announce(const bytes &routes, uint32_t nexthop = kHop1, uint64_t target = kTargetA) {
  return update(kOrigin + kPath + reach(hop(nexthop), routes) + targets({target}));
}

// ---- BMP ----

struct peer_fields {
  int type = 3, flags = 0;
  uint64_t distinguisher = 0;
  uint32_t address = 0, as = 65000, bgp_id = 1;
};
bytes bmp(int type, const bytes &body) {
  return be(3, 1) + be(6 + body.size(), 4) + be(type, 1) + body;
}
bytes from(const peer_fields &p, int type, const bytes &body) {
  return bmp(type, be(p.type, 1) + be(p.flags, 1) + be(p.distinguisher, 8) + zeros(12) +
                       be(p.address, 4) + be(p.as, 4) + be(p.bgp_id, 4) + zeros(8) + body);
}
constexpr peer_fields kLoc{}, kLocFiltered{.flags = 0x80, .as = 0, .bgp_id = 0};
constexpr peer_fields kPre{.type = 0, .address = 0x0a000001};
constexpr peer_fields kPost{.type = 0, .flags = 0x40, .address = 0x0a000001};
constexpr peer_fields kOut{.type = 0, .flags = 0x10, .address = 0x0a000001};
constexpr peer_fields kOther{.type = 0, .address = 0x0a000002};
constexpr peer_fields kVrf{.distinguisher = 0x0000fde800000064};

bytes monitor(const bytes &message, const peer_fields &p = kLoc) { return from(p, 0, message); }
bytes down(const peer_fields &p = kLoc) { return from(p, 2, be(1, 1)); }
// ADD-PATH of VPNv4 in the OPENs sent and received, in the list's short or extended form.
bytes up(int sent, int received, const peer_fields &p = kLoc, bool extended = false) {
  const auto open = [&](int direction) {
    const bytes capability = be(0x4504000180, 5) + be(direction, 1);
    const bytes list = extended ? be(2, 1) + be(capability.size(), 2) + capability
                                : be(2, 1) + be(capability.size(), 1) + capability;
    return bgp(
        1, zeros(9) + (extended ? be(0xffff, 2) + be(list.size(), 2) : be(list.size(), 1)) + list);
  };
  return from(p, 3, zeros(20) + open(sent) + open(received));
}
const bytes kInitiation = bmp(4, be(2, 2) + be(3, 2) + "pe1"), kTermination = bmp(5, "");

std::span<const uint8_t> span_of(const bytes &text) {
  return {reinterpret_cast<const uint8_t *>(text.data()), text.size()};
}

struct rib_world {
  global_table global;
  fence pace;
  redistribution reports{pace};
  rib routes{global, reports};

  rib_world() {
    routes.add_vrf({"A", 'A', {kTargetA}});
    routes.add_vrf({"B", 'B', {kTargetB}});
    routes.add_vrf({"C", 'C', {kTargetC}});
    routes.add_vrf({"X", 'X', {kNoTargets, kNoTargets + 3}});
  }
  /// "A:10.255.1.1*2 ...", and the global route to 10.9.1.1 if there is one.
  std::string learned() {
    routes.settle();
    std::string text;
    for (const route_count &c : routes.count_routes())
      text += std::string(text.empty() ? "" : " ") + static_cast<char>(c.table_id) + ":" +
              address_text(c.nexthop) + "*" + std::to_string(c.routes);
    if (const auto route = global.lookup(0x0a090101))
      text +=
          std::string(text.empty() ? "" : " ") + prefix_text(htonl(route->prefix), route->length);
    return text;
  }
};

struct world : rib_world {
  std::vector<std::string> said;
  bmp_session session;

  explicit world(bmp_view view = bmp_view::loc_rib, kind from = kind::connection)
      : session(routes, view, from, "r",
                [this](const std::string &line) { said.push_back(line); }) {}
  bool feed(const bytes &stream) { return session.feed(span_of(stream)); }
  std::string malformed() const {
    std::string text;
    for (const auto &[what, count] : session.info().malformed)
      text += std::string(text.empty() ? "" : " ") + what + "*" + std::to_string(count);
    return text;
  }
};

const bytes kGood = monitor(announce(kPlain));
const bytes kTwo = kPlain + vpn(32, 0x0a010201);

TEST(BmpSession, LearnsWhatRoutersSend) {
  const bytes label0 = zeros(3), label8 = be(0x800000, 3), open_label = be(0x3e8000, 3);
  const bytes with_id = vpn(24, 0x0a010100, be(0x3e8001, 3), be(7, 4));
  const bytes other_id = vpn(24, 0x0a010100, be(0x3e8001, 3), be(8, 4));
  const bytes next_hop = attr(0x40, 3, be(kHop3, 4));
  const bytes one = "A:10.255.1.1*1", two = "A:10.255.1.1*2";
  bytes many;
  for (uint32_t i = 0; i < 1000; ++i) many += vpn(32, 0x0a020000 + i);
  const struct {
    const char *what;
    bytes stream, learned;
    bmp_view view = bmp_view::loc_rib;
    kind from = kind::connection;
    size_t lines = 0;
  } rows[] = {
      {"targets of three forms, other communities between",
       monitor(update(
           targets({kTargetB, kNoTargets[0], kTargetA, kNoTargets[1], kTargetC, kNoTargets[2]}) +
           reach(hop(kHop1), kPlain) + kPath + kOrigin)),
       "A:10.255.1.1*1 B:10.255.1.1*1 C:10.255.1.1*1"},
      {"NEXT_HOP says nothing of VPN routes",
       monitor(update(kOrigin + kPath + attr(0x40, 3, be(0xffffffff, 4)) + targets({kTargetA}) +
                      reach(hop(kHop1), kPlain))),
       one},
      {"other attributes, unknown and long ones",
       monitor(update(attr(0xc0, 99, zeros(300)) + attr(0x80, 4, zeros(4)) + kOrigin + kPath +
                      attr(0xc0, 17, zeros(1)) + reach(hop(kHop1), kPlain) + targets({kTargetA}))),
       one},
      {"AS numbers of two bytes",
       monitor(update(kOrigin + attr(0x40, 2, be(0x0201fde8, 4)) + reach(hop(kHop1), kPlain) +
                      targets({kTargetA}))),
       one},
      {"of a repeated attribute the first counts",
       monitor(update(kOrigin + kPath + kOrigin + reach(hop(kHop1), kPlain) + targets({kTargetA}) +
                      targets({kTargetB}))),
       one},
      {"an extended message", monitor(announce(many)), "A:10.255.1.1*1000"},
      {"a stack of two labels", monitor(announce(vpn(24, 0x0a010100, open_label + be(1, 3)))), one},
      {"placeholders for labels",
       monitor(announce(vpn(24, 0x0a010100, label0) + vpn(32, 0x0a010201, label8))), two},
      {"the default route of a VPN", monitor(announce(vpn(0, 0))), one},
      {"bits beyond the prefix", monitor(announce(vpn(23, 0x0a010100) + vpn(23, 0x0a010000))), one},
      {"a withdrawal with another label",
       monitor(announce(kTwo)) + monitor(update(unreach(vpn(24, 0x0a010100, label8)))), one},
      {"a route in both lists is announced",
       kGood + monitor(update(kOrigin + kPath + reach(hop(kHop2), kPlain) + unreach(kPlain) +
                              targets({kTargetA}))),
       "A:10.255.2.2*1"},
      {"another next hop, other targets", kGood + monitor(announce(kPlain, kHop2, kTargetB)),
       "B:10.255.2.2*1"},
      {"an IPv6 next hop replaces the route that was",
       kGood + monitor(update(kOrigin + kPath + reach(zeros(24), kPlain) + targets({kTargetA}))),
       ""},
      {"End-of-RIB, in both forms", kGood + monitor(update("")) + monitor(update(unreach(""))),
       one},
      {"unicast in both forms",
       monitor(update(kOrigin + kPath + attr(0x40, 3, be(kHop1, 4)), ip(16, 0x0a090000))) +
           monitor(update(kOrigin + kPath + reach(be(kHop1, 4), ip(24, 0x0a090100), 1))) +
           monitor(update(unreach(ip(24, 0x0a090100), 1))),
       "10.9.0.0/16"},
      {"unicast withdrawn in the classic form",
       monitor(update(kOrigin + kPath + reach(be(kHop1, 4), ip(16, 0x0a090000), 1))) +
           monitor(update("", "", ip(16, 0x0a090000))),
       ""},
      {"unicast of a VRF isn't the global table's, its VPN routes count",
       monitor(update(kOrigin + kPath + reach(be(kHop1, 4), ip(16, 0x0a090000), 1)), kVrf) +
           monitor(announce(kPlain), kVrf),
       one},
      {"other families",
       monitor(update(kOrigin + kPath + reach(zeros(16), "\x40" + zeros(8), 1, 2) +
                      reach(hop(kHop1), kPlain, 132))),
       "", bmp_view::loc_rib, kind::connection, 1},
      {"path identifiers as negotiated",
       up(2, 2) + monitor(announce(with_id + other_id)) + monitor(update(unreach(other_id))), one},
      {"negotiated in an extended list of parameters",
       up(1, 2, kPre, true) + monitor(announce(with_id + other_id), kPre) +
           monitor(update(unreach(other_id)), kPre),
       one, bmp_view::pre_policy},
      {"negotiated the other way only, and not used",
       up(2, 1, kPre) + monitor(announce(kTwo), kPre), two, bmp_view::pre_policy},
      {"negotiated, and not used",
       up(3, 3) + monitor(announce(kPlain)) + monitor(announce(vpn(32, 0x0a010201))), two,
       bmp_view::loc_rib, kind::connection, 1},
      {"not negotiated, and used", kGood + monitor(announce(with_id)) + monitor(announce(other_id)),
       one, bmp_view::loc_rib, kind::connection, 1},
      {"used, and plausible without but for bits beyond the prefix",
       monitor(update(kOrigin + kPath + attr(0x40, 3, be(kHop1, 4)),
                      be(0x100a0904, 4) + ip(24, 0x0a090100))),
       "10.9.1.0/24", bmp_view::loc_rib, kind::connection, 1},
      {"a route in three views counts once",
       monitor(announce(kPlain), kPre) + monitor(announce(kPlain), kPost) +
           monitor(announce(kPlain, kHop2), kOut) + kGood,
       one},
      {"Adj-RIB-Out is no pre-policy view",
       monitor(announce(kPlain), kPre) + monitor(announce(kPlain, kHop2), kOut), one,
       bmp_view::pre_policy},
      {"Peer Down with another AS, identifier and F flag", up(0, 0) + kGood + down(kLocFiltered),
       ""},
      {"Peer Down of another type", up(0, 0, kPre) + kGood + down(kPre) + down(kPre), one},
      {"Peer Down of another distinguisher, never up", kGood + down(kVrf), one},
      {"a repeated Peer Up withdraws nothing", up(0, 0) + kGood + up(0, 0), one},
      {"routes again after Peer Down", kGood + down() + kGood, one},
      {"mirrored, statistics, of unknown type",
       from(kLoc, 6, be(0, 2) + be(60, 2) + announce(kPlain)) + from(kLoc, 1, be(0, 4)) +
           bmp(77, zeros(3)) + kGood,
       one},
      {"an unknown peer type", monitor(announce(kPlain), {.type = 9}), ""},
      {"an Initiation on a connection tells news", kInitiation + kGood + kInitiation, one},
      {"an Initiation in a recording begins a session",
       kInitiation + monitor(announce(kTwo)) + kInitiation + kGood, one, bmp_view::loc_rib,
       kind::recording},
      {"Termination", kInitiation + kGood + kTermination + kGood, ""},
      {"Termination in a recording, and another session",
       kGood + kTermination + monitor(announce(kTwo)) + kInitiation + kGood, one, bmp_view::loc_rib,
       kind::recording},
  };
  for (const auto &row : rows) {
    world w(row.view, row.from);
    w.feed(row.stream);
    EXPECT_EQ(w.learned(), row.learned) << row.what;
    EXPECT_EQ(w.said.size(), row.lines) << row.what << ": " << (w.said.empty() ? "" : w.said[0]);
    w.session.finish("");
    EXPECT_EQ(w.learned(), row.from == kind::recording ? row.learned : "") << row.what;
  }
}

// Each row comes after an announcement of the same route with another next hop, so that a fault
// shows as the old route kept, the route withdrawn, or the new one learned.
TEST(BmpSession, TreatsFaultsAsTheirKindAsks) {
  const char *const kKept = "A:10.255.1.1*1", *const kGone = "", *const kNew = "A:10.255.2.2*1";
  const bytes mp = reach(hop(kHop2), kPlain), rest = mp + targets({kTargetA});
  const bytes all = kOrigin + kPath + rest;
  const auto nlri_of = [](const bytes &routes) { return announce(routes, kHop2); };
  const auto with = [&](const bytes &attribute) { return update(all + attribute); };
  bytes marker = announce(kPlain, kHop2), length = marker;
  marker[3] = 0;
  length[17] = static_cast<char>(length[17] + 1);
  const struct {
    const char *kind;
    bytes message;
    const char *learned;
  } rows[] = {
      {"bgp-marker", marker, kKept},
      {"bgp-length", length, kKept},
      {"bgp-length", announce(kPlain, kHop2) + "x", kKept},
      {"bgp-length", "short", kKept},
      {"bgp-type", bgp(4, ""), kKept},
      {"withdrawn-length", bgp(2, be(9, 2) + be(0, 2)), kKept},
      {"withdrawn-length", bgp(2, ""), kKept},
      {"attributes-length", bgp(2, be(0, 2) + be(all.size() + 1, 2) + all), kKept},
      {"attribute-overrun", update(all + be(0xc01005, 3) + zeros(4)), kGone},
      {"attribute-overrun", update(all + be(0xc0, 1)), kGone},
      {"attribute-flags", update(attr(0x80, 1, zeros(1)) + kPath + rest), kGone},
      {"attribute-length", update(attr(0x40, 1, zeros(2)) + kPath + rest), kGone},
      {"origin", update(attr(0x40, 1, be(3, 1)) + kPath + rest), kGone},
      {"as-path", update(kOrigin + attr(0x40, 2, be(0x0202, 2) + zeros(2)) + rest), kGone},
      {"as-path", update(kOrigin + attr(0x40, 2, be(0x0701, 2) + zeros(4)) + rest), kGone},
      {"as-path", update(kOrigin + attr(0x40, 2, be(0x0200, 2)) + rest), kGone},
      {"attribute-missing", update(kPath + rest), kGone},
      {"attribute-missing", update(kOrigin + rest), kGone},
      {"attribute-missing", update(all, ip(16, 0x0a090000)), kGone},
      {"attribute-length", with(attr(0x40, 3, zeros(3))), kGone},
      {"attribute-length", with(attr(0x80, 4, zeros(3))), kGone},
      {"attribute-length", with(attr(0x40, 5, zeros(5))), kGone},
      {"attribute-length", with(attr(0x40, 6, zeros(1))), kNew},
      {"attribute-length", with(attr(0xc0, 7, zeros(7))), kNew},
      {"attribute-length", with(attr(0xc0, 8, zeros(6))), kGone},
      {"attribute-length", with(attr(0xc0, 8, "")), kGone},
      {"attribute-length", with(attr(0x80, 9, zeros(5))), kGone},
      {"attribute-length", with(attr(0x80, 10, zeros(5))), kGone},
      {"attribute-length", update(kOrigin + kPath + mp + attr(0xc0, 16, zeros(9))), kGone},
      {"attribute-length", with(attr(0xc0, 25, zeros(8))), kGone},
      {"attribute-length", with(attr(0xc0, 32, zeros(8))), kGone},
      {"attribute-length", update(kOrigin + kPath + attr(0x80, 14, zeros(4))), kKept},
      {"attribute-length", update(attr(0x80, 15, zeros(2))), kKept},
      {"attribute-repeated", with(reach(hop(kHop3), kPlain)), kGone},
      {"attribute-repeated", update(unreach(vpn(32, 1)) + unreach(vpn(32, 2))), kKept},
      {"next-hop-length", update(kOrigin + kPath + reach(be(kHop2, 4), kPlain)), kKept},
      {"next-hop-length", update(kOrigin + kPath + attr(0x80, 14, be(0x000180ff, 4) + kPlain)),
       kKept},
      {"next-hop", update(kOrigin + kPath + reach(be(1, 8) + be(kHop2, 4), kPlain)), kGone},
      {"next-hop", announce(kPlain, 0xe0000001), kGone},
      {"next-hop", update(all + attr(0x40, 3, be(0xffffffff, 4)), ip(16, 0x0a090000)), kGone},
      {"nlri-length", nlri_of(be(87, 1) + zeros(11)), kKept},
      {"nlri-length", nlri_of(kPlain + be(24 + 64 + 33, 1) + be(1, 3) + zeros(13)), kKept},
      {"nlri-length", update(all, be(33, 1) + zeros(5)), kGone},
      {"nlri-overrun", nlri_of(kPlain.substr(0, kPlain.size() - 1)), kKept},
      {"nlri-overrun", update(all, be(24, 1) + zeros(2)), kGone},
      {"nlri-overrun", update(all, "", be(24, 1) + zeros(2)), kGone},
      {"nlri-overrun", update(unreach(kPlain + be(112, 1))), kKept},
      {"label-stack", nlri_of(vpn(24, 0x0a010100, be(0x3e8000, 3))), kKept},
      {"label-stack", nlri_of(kPlain + vpn(32, 0x0a010101, be(0x3e8000, 3) + be(0x3e8000, 3))),
       kKept},
      {"label-stack",
       nlri_of(be(112, 1) + be(0x3e8000, 3) + be(0x0000fc0000000064, 8) + be(0x0b0101, 3)), kKept},
      {"label-stack", update(unreach(vpn(24, 0x0a010100, be(0x3e8000, 3)))), kKept},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.kind + std::string(" row ") + std::to_string(&row - rows));
    world w;
    EXPECT_TRUE(w.feed(kGood + monitor(row.message)));
    EXPECT_EQ(w.learned(), row.learned);
    EXPECT_EQ(w.malformed(), row.kind + std::string("*1"));
    ASSERT_EQ(w.said.size(), 1u);
    EXPECT_TRUE(w.said[0].starts_with("r: peer loc-rib: malformed UPDATE at byte ")) << w.said[0];
    EXPECT_EQ(w.session.info().last_error, w.said[0].substr(3));
    // The session goes on.
    EXPECT_TRUE(w.feed(monitor(announce(kPlain, kHop3))));
    EXPECT_EQ(w.learned(), "A:10.255.3.3*1");
  }
}

TEST(BmpSession, TellsThePlaceOfAFault) {
  world w(bmp_view::pre_policy);
  w.feed(kInitiation + monitor(update(kOrigin + kPath + attr(0x80, 4, "")), kPre));
  const size_t offset = 48 + 19 + 4 + kOrigin.size() + kPath.size();
  ASSERT_EQ(w.said.size(), 1u);
  EXPECT_EQ(
      w.said[0],
      "r: peer 10.0.0.1: malformed UPDATE at byte " + std::to_string(offset) +
          " of the message at " + std::to_string(kInitiation.size()) +
          ": attribute-length: a length that its type doesn't have (attribute 4); what cannot be "
          "read is skipped, the rest withdrawn");
  EXPECT_EQ(w.session.info().system_name, "pe1");
}

TEST(BmpSession, BrokenFramingEndsIt) {
  const struct {
    const char *kind;
    bytes message;
  } rows[] = {
      {"bmp-version", be(4, 1) + be(6, 4) + be(4, 1)},
      {"bmp-length", be(3, 1) + be(5, 4) + be(4, 1)},
      {"bmp-length", be(3, 1) + be((1 << 20) + 1, 4) + be(4, 1)},
  };
  for (const auto &row : rows) {
    for (const kind from : {kind::connection, kind::recording}) {
      world w(bmp_view::loc_rib, from);
      EXPECT_FALSE(w.feed(kGood + row.message + monitor(announce(kTwo))));
      EXPECT_EQ(w.learned(), from == kind::recording ? "A:10.255.1.1*1" : "") << row.kind;
      EXPECT_EQ(w.malformed(), row.kind + std::string("*1"));
      EXPECT_FALSE(w.session.stream_error().empty());
      EXPECT_FALSE(w.session.info().up);
      EXPECT_FALSE(w.feed(kGood));
    }
  }
  world w;
  EXPECT_TRUE(w.feed(bmp(6, zeros((1 << 20) - 6)) + kGood)) << "the longest message";
  EXPECT_TRUE(w.feed(bmp(2, zeros(41)) + bmp(4, be(2, 2) + be(9, 2)) + from(kPre, 3, zeros(30))));
  EXPECT_EQ(w.malformed(), "bgp-length*1 initiation*1 peer-header*1");
  EXPECT_EQ(w.learned(), "A:10.255.1.1*1");
}

TEST(BmpSession, SaysOnceThatTheChosenViewIsEmpty) {
  world w(bmp_view::loc_rib, kind::recording);
  w.feed(monitor(update("", "", ""), kOut) + monitor(announce(kPlain), kPre));
  EXPECT_TRUE(w.session.view_in_doubt());
  w.feed(monitor(announce(kPlain), kPost));
  w.session.finish("");
  EXPECT_EQ(w.said, std::vector<std::string>{"r: no routes in the chosen view, loc-rib; there are "
                                             "some in: post-policy, pre-policy"});
  EXPECT_FALSE(w.session.view_in_doubt());

  world fine(bmp_view::pre_policy);
  fine.feed(monitor(announce(kPlain), kPre) + monitor(announce(kPlain), kPost));
  EXPECT_FALSE(fine.session.view_in_doubt());
}

TEST(BmpSession, IsBounded) {
  world w;
  for (uint32_t i = 0; i < bmp_session::kMaxPeers + 10; ++i)
    w.feed(up(0, 0, {.type = 0, .address = i}));
  EXPECT_EQ(w.session.info().peers, bmp_session::kMaxPeers);
  EXPECT_EQ(w.session.info().skipped.over_limit, 10u);
  EXPECT_EQ(w.said.size(), 1u);

  world noisy;
  for (uint32_t i = 0; i < bmp_session::kMaxReports + 10; ++i) noisy.feed(monitor(bgp(2, "")));
  EXPECT_EQ(noisy.said.size(), bmp_session::kMaxReports + 1);
  EXPECT_EQ(noisy.malformed(), "withdrawn-length*1010");
}

// ---- Every way to cut, split and corrupt one stream ----

const bytes kStream =
    kInitiation + up(1, 2, kPre) +
    monitor(announce(vpn(24, 0x0a010100, be(0x3e8001, 3), be(7, 4)) +
                         vpn(32, 0x0a010201, be(0x3e8001, 3), be(8, 4)),
                     kHop1, kTargetA),
            kPre) +
    monitor(update(kOrigin + kPath + attr(0x40, 3, be(kHop1, 4)) + attr(0x80, 4, zeros(4)) +
                   reach(hop(kHop2), kTwo) + targets({kTargetB, kTargetC})),
            kPre) +
    monitor(update(unreach(kPlain)), kPre) +
    monitor(update(kOrigin + kPath + attr(0x40, 3, be(kHop3, 4)), ip(16, 0x0a090000)), kPre) +
    monitor(announce(kPlain, kHop3, kTargetC), kOther) + down(kOther) + down(kLoc) +
    monitor(announce(kPlain, kHop3, kTargetB), kPre);

std::string outcome(world &w) {
  const session_info info = w.session.info();
  return w.learned() + "; " + w.malformed() + "; " + std::to_string(info.messages) + " " +
         std::to_string(info.routes_read) + " " + info.system_name;
}

TEST(BmpSession, AnySplitGivesTheSame) {
  world whole(bmp_view::pre_policy);
  EXPECT_TRUE(whole.feed(kStream));
  const std::string expected = outcome(whole);
  EXPECT_TRUE(expected.starts_with(
      "A:10.255.1.1*2 B:10.255.2.2*1 B:10.255.3.3*1 C:10.255.2.2*1 10.9.0.0/16; ; 10 "))
      << expected;

  for (size_t at = 0; at <= kStream.size(); ++at) {
    world w(bmp_view::pre_policy);
    EXPECT_TRUE(w.feed(kStream.substr(0, at)));
    EXPECT_TRUE(w.feed(kStream.substr(at)));
    ASSERT_EQ(outcome(w), expected) << "split at " << at;
  }
  for (const size_t size : {1, 5, 7, 64}) {
    world w(bmp_view::pre_policy);
    for (size_t at = 0; at < kStream.size(); at += size) w.feed(kStream.substr(at, size));
    EXPECT_EQ(outcome(w), expected) << "in chunks of " << size;
  }
}

// What the stream can ever show: a table and the place of a next hop. Whatever is broken, nothing
// else may appear, except that a next hop reads as the bytes that stand in its place.
struct showing {
  char table;
  size_t hop_at;
};
std::vector<showing> showings() {
  std::vector<showing> all;
  const std::pair<uint32_t, const char *> pairs[] = {{kHop1, "A"}, {kHop2, "BC"}, {kHop3, "BC"}};
  for (const auto &[address, tables] : pairs)
    for (size_t at = 0; (at = kStream.find(hop(address), at)) != bytes::npos; ++at)
      for (const char *table = tables; *table != 0; ++table) all.push_back({*table, at + 8});
  return all;
}

// Feeds a broken copy of the stream, and gives what it shows that it mustn't. Nothing stays.
std::string wrongly_shown(rib_world &w, const bytes &broken, const std::vector<showing> &possible) {
  bmp_session session(w.routes, bmp_view::pre_policy, kind::connection, "r", [](const auto &) {});
  session.feed(span_of(broken));
  const auto shown = w.routes.count_routes();
  session.finish("");
  w.routes.settle();
  if (w.routes.paths() != 0) return "routes of the session before";
  for (const route_count &c : shown) {
    const auto right = [&](const showing &s) {
      const bytes address = be(ntohl(c.nexthop), 4);
      return s.table == static_cast<char>(c.table_id) &&
             (kStream.substr(s.hop_at, 4) == address || broken.substr(s.hop_at, 4) == address);
    };
    if (std::ranges::none_of(possible, right)) return address_text(c.nexthop);
  }
  return "";
}

TEST(BmpSession, NoCorruptedByteShowsAWrongPe) {
  rib_world w;
  const auto possible = showings();
  for (size_t at = 0; at < kStream.size(); ++at)
    for (int flip = 1; flip < 256; flip += SWEEP_STEP) {
      bytes broken = kStream;
      broken[at] = static_cast<char>(broken[at] ^ flip);
      ASSERT_EQ(wrongly_shown(w, broken, possible), "") << "byte " << at << " flipped by " << flip;
    }
}

// Truncated streams, and streams with a message cut short: its own length, and then also the BGP
// length, made to fit, so that every field in turn is the one that is missing.
TEST(BmpSession, NoTruncationShowsAWrongPe) {
  rib_world w;
  const auto possible = showings();
  for (size_t size = 0; size < kStream.size(); ++size)
    ASSERT_EQ(wrongly_shown(w, kStream.substr(0, size), possible), "") << size << " bytes";

  const bytes whole = monitor(announce(kTwo, kHop2, kTargetB), kPre);
  for (size_t size = 6; size < whole.size(); ++size)
    for (const bool fit_bgp : {false, true}) {
      bytes cut = whole.substr(0, size);
      cut.replace(1, 4, be(size, 4));
      if (fit_bgp && size >= 48 + 19) cut.replace(48 + 16, 2, be(size - 48, 2));
      world after(bmp_view::pre_policy);
      EXPECT_TRUE(after.feed(monitor(announce(kPlain, kHop1), kPre) + cut));
      EXPECT_EQ(after.learned(), "A:10.255.1.1*1") << size;
      EXPECT_EQ(after.said.size(), 1u) << size;
    }
}

// ---- The station ----

struct station_world : rib_world {
  rib_thread loop{routes, reports, pace};
  bmp_station station{routes, loop, bmp_view::loc_rib};

  std::string shown() {
    std::string text;
    loop.call([&] { text = learned(); });
    return text;
  }
  /// Each question is a turn of the RIB thread, so the answer comes without a pause.
  bool comes_to(const std::string &expected) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (shown() != expected)
      if (std::chrono::steady_clock::now() > deadline) return false;
    return true;
  }
};

// A router's end of a connection.
class router {
 public:
  explicit router(uint16_t port) : fd_(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const timeval patience{30, 0};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    EXPECT_EQ(connect(fd_, reinterpret_cast<sockaddr *>(&to), sizeof to), 0);
  }
  ~router() { close(fd_); }
  void send(const bytes &stream) {
    EXPECT_EQ(::send(fd_, stream.data(), stream.size(), MSG_NOSIGNAL), ssize_t(stream.size()));
  }
  /// Waits until the station closes.
  bool closed() {
    char byte;
    return read(fd_, &byte, 1) <= 0 && errno != EAGAIN;
  }

 private:
  const int fd_;
};

uint16_t listening_port(bmp_station &station) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(station.listen("0"), "");
  const std::string said = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(said.starts_with("tarvo-agent: listening on 127.0.0.1:")) << said;
  return static_cast<uint16_t>(std::stoi(said.substr(said.rfind(':') + 1)));
}

TEST(BmpStation, KeepsConnectionsApart) {
  station_world w;
  const uint16_t port = listening_port(w.station);
  router steady(port);
  steady.send(kInitiation + kGood);
  {
    router lost(port), broken(port), leaving(port);
    lost.send(kInitiation + monitor(announce(kPlain, kHop2, kTargetB)));
    EXPECT_TRUE(w.comes_to("A:10.255.1.1*1 B:10.255.2.2*1"));
    broken.send(monitor(announce(kPlain, kHop3, kTargetC)) + "no BMP");
    leaving.send(monitor(announce(kPlain, kHop3, kTargetC)) + kTermination);
    EXPECT_TRUE(broken.closed());
    EXPECT_TRUE(leaving.closed());
    EXPECT_TRUE(w.comes_to("A:10.255.1.1*1 B:10.255.2.2*1"));
  }
  EXPECT_TRUE(w.comes_to("A:10.255.1.1*1"));

  size_t up = 0, malformed = 0;
  const auto sessions = w.station.sessions();
  for (const session_info &s : sessions) up += s.up, malformed += s.malformed.count("bmp-version");
  EXPECT_EQ(sessions.size(), 4u);
  EXPECT_EQ(up, 1u);
  EXPECT_EQ(malformed, 1u);
}

TEST(BmpStation, RefusesTheSixtyFifthConnection) {
  station_world w;
  const uint16_t port = listening_port(w.station);
  std::vector<std::unique_ptr<router>> routers;
  for (size_t i = 0; i < bmp_station::kMaxConnections; ++i)
    routers.push_back(std::make_unique<router>(port));
  router refused(port);
  EXPECT_TRUE(refused.closed());
  routers[0]->send(kGood + kTermination);
  EXPECT_TRUE(routers[0]->closed());
  router next(port);
  next.send(kGood);
  EXPECT_TRUE(w.comes_to("A:10.255.1.1*1"));
}

TEST(BmpStation, ClosesConnectionsWhenDescriptorsRunOut) {
  station_world w;
  const uint16_t port = listening_port(w.station);
  // The lowest free descriptor goes to the router's end, and the limit leaves none for the station.
  const int lowest = dup(STDIN_FILENO);
  close(lowest);
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit tight{static_cast<rlim_t>(lowest) + 1, limit.rlim_max};
  setrlimit(RLIMIT_NOFILE, &tight);
  router refused(port);
  EXPECT_TRUE(refused.closed());
  setrlimit(RLIMIT_NOFILE, &limit);
  router next(port);
  next.send(kGood);
  EXPECT_TRUE(w.comes_to("A:10.255.1.1*1"));
}

TEST(BmpStation, ReplaysRecordings) {
  station_world w;
  const std::string path = testing::TempDir() + "bmp_test." + std::to_string(getpid());
  const auto replay = [&](const bytes &stream) {
    std::ofstream(path, std::ios::binary) << stream;
    return w.station.replay(path);
  };
  bytes many = kInitiation;
  for (uint32_t i = 0; i < 5000; ++i) many += monitor(announce(vpn(32, 0x0a020000 + i)));
  EXPECT_EQ(replay(many), "");
  EXPECT_EQ(w.shown(), "A:10.255.1.1*5000");

  testing::internal::CaptureStderr();
  EXPECT_NE(replay(monitor(announce(kPlain, kHop2)) + "\3").find("ends within the message"),
            std::string::npos);
  EXPECT_NE(replay(monitor(announce(kPlain, kHop3)) + "no BMP").find("BMP version 110"),
            std::string::npos);
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(w.shown(), "A:10.255.1.1*5000 A:10.255.2.2*1 A:10.255.3.3*1");
  unlink(path.c_str());
  EXPECT_NE(w.station.replay(path).find("No such file"), std::string::npos);
  EXPECT_EQ(w.station.sessions().size(), 3u);
}

TEST(BmpStation, SaysWhatIsWrongWithAnEndpoint) {
  station_world w;
  const uint16_t taken = listening_port(w.station);
  const std::pair<std::string, const char *> rows[] = {
      {"65536", "no port"},         {"", "no port"},
      {"127.0.0.1:", "no port"},    {"127.0.0.1:17x", "no port"},
      {"here:17", "no IPv4"},       {"::1:17", "no IPv4"},
      {"192.0.2.1:0", "requested"}, {":" + std::to_string(taken), "in use"},
  };
  for (const auto &[text, expected] : rows)
    EXPECT_NE(w.station.listen(text).find(expected), std::string::npos) << text;
}

}  // namespace
}  // namespace agent
