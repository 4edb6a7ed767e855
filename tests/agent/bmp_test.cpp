// The BMP station: what routers send and what hostile ones might, as bytes in and routes out.
#include <algorithm>
#include <atomic>
#include <fstream>
#include <list>
#include <set>

#include "tarvo/discovery.h"
#include "tests/agent/bmp_world.h"

uint32_t tarvo_pe_discovery_register(uint32_t, const char *, tarvo_nd_notify_fn) { return 1; }
uint32_t tarvo_pe_discovery_unregister(uint32_t) { return 1; }
uint32_t tarvo_pe_discovery_resend(uint32_t, const char *) { return 1; }

namespace agent {
namespace {

const bytes kId7Nine = be(7, 4) + kNine;
bytes unicast(const bytes &routes) { return reach(be(kHop1, 4), routes, 1); }
const bytes kVersion = be(4, 1) + be(6, 4) + be(4, 1), kShort = be(3, 1) + be(5, 4) + be(4, 1),
            kLarge = be(3, 1) + be((1 << 20) + 1, 4) + be(4, 1);

const struct {
  const char *what;
  bytes state, stream;
  setup how = {};
} kStreams[] = {
    {"three forms of targets, others between", " A1*1 B1*1 C1*1",
     learn(targets({kNo[0], kTargetB, kNo[1], kTargetA, kNo[2], kTargetC}) + kReach1)},
    {"other attributes, NEXT_HOP of no route, the first of repeated ones", " A1*1",
     learn(attr(192, 99, zeros(300)) + attr(128, 4, zeros(4)) + attr(192, 17, "x") + kNoHost +
           kReach1 + kOrigin + kA + targets({kTargetB}))},
    {"short AS numbers", " A1*1",
     monitor(update(kOrigin + attr(64, 2, be(0x0201fde8, 4)) + kReach1 + kA))},
    {"an extended message", " A1*1000", tell(many_routes(1000))},
    {"two labels, none, and the default route of a VPN", " A1*4",
     tell(vpn(24, 0x0a010100, kOpenLabel + be(1, 3)) + vpn(24, 0, zeros(3)) + vpn(32, 1, kLabel8) +
          vpn(0, 0))},
    {"bits beyond the prefix", " A1*1", tell(vpn(23, 0x0a010100) + vpn(23, 0x0a010000))},
    {"another label", " A1*1", tell(kTwo) + take(vpn(24, 0x0a010100, kLabel8))},
    {"a route in both lists is announced", " A2*1", kGood + learn(kRest + unreach(kPlain))},
    {"another next hop, other targets", " B2*1", kGood + kToB},
    {"an IPv6 next hop replaces", "",
     kGood + tell(vpn(32, 1)) + learn(reach(zeros(24), kPlain) + kA) +
         learn(reach(zeros(48), vpn(32, 1)) + kA)},
    {"but not in the global table", " 10.9.1.0/24",
     learn(reach(zeros(16), kNine, 1)) + learn(reach(zeros(32), kNine1, 1))},
    {"End-of-RIB, in both forms", " A1*1", kGood + monitor(update("")) + take("")},
    {"unicast, in both forms", " 10.9.0.0/16",
     learn(kNextHop, kNine) + learn(unicast(kNine1)) + monitor(update("", "", kNine1))},
    {"unicast of a VRF, and withdrawn in the other form", " A1*1",
     learn(unicast(kNine), "", kVrf) + tell(kPlain, kVrf) + learn(unicast(kNine1)) +
         take(kNine1, kLoc, 1)},
    {"other families", " attribute-repeated*1 said*1",
     learn(reach(zeros(16), "\x40" + zeros(8), 1, 2) + reach(hop(kHop1), kPlain, 132))},
    {"path identifiers as negotiated", " A1*1", up(2, 0) + tell(kId7 + kId8) + take(kId8)},
    {"extended", " A1*1", up(1, 2, kPre, true) + tell(kId7 + kId8, kPre) + take(kId8, kPre),
     kPreView},
    {"negotiated the other way, not used", " A1*2", up(2, 1, kPre) + tell(kTwo, kPre), kPreView},
    {"of unicast", " 10.9.0.0/16", up(3, 3, kLoc, false, 1) + learn(kNextHop, kId7Nine)},
    {"used without, in a pair that reads well with them", " 10.9.1.0/24 said*1",
     up(3, 3, kLoc, false, 1) + learn(kNextHop, kNine2) +
         learn(kNextHop, kNine1 + ip(24, 0x0a0a0100))},
    {"negotiated, and not used", " A1*2 said*1", up(3, 3) + kGood + tell(vpn(32, 1))},
    {"not negotiated, and used", " A1*1 said*1", kGood + tell(kId7) + tell(kId8)},
    {"used, and plausible without but for bits beyond the prefix", " 10.9.1.0/24 said*1",
     learn(kNextHop, be(0x100a0904, 4) + kNine1)},
    {"but for one route twice", " 10.9.1.0/24 said*1", learn(kNextHop, zeros(4) + kNine1)},
    {"told once a peer", " A1*1 said*1", up(0, 0) + tell(kId7) + down() + up(0, 0) + tell(kId8)},
    {"three views", " A1*1", tell(kPlain, kPre) + tell(kTwo, kPost) + tell(kTwo, kOut) + kGood},
    {"Adj-RIB-Out", " A1*1", tell(kPlain, kPre) + tell(kTwo, kOut), kPreView},
    {"of it post-policy",
     " A1*1",
     tell(kPlain, kPost) + tell(kTwo, kOutPost),
     {bmp_view::post_policy}},
    {"peers of a VRF, and local ones", " A1*1 A2*1",
     tell(kPlain, kOfRd) + tell(vpn(32, 1), kLocal, kHop2) + learn(kNextHop, kNine, kOfRd) +
         learn(kNextHop, kNine, kLocal),
     kPreView},
    {"Peer Down with another AS and flag, and routes again; others withdraw nothing", " A1*1",
     up(0, 0, kPre) + tell(kTwo) + down(kLocFiltered) + up(0, 0) + kGood + down(kPre) + down(kPre) +
         down(kVrf) + up(0, 0)},
    {"of other types", "",
     from(kLoc, 6, be(60, 4) + announce(kPlain)) + bmp(77, zeros(3)) +
         tell(kPlain, peer(9, 0, 0, 0))},
    {"an Initiation tells news", " A1*1", kInitiation + kGood + kInitiation},
    {"or begins a session", " A1*1", tell(kTwo) + kInitiation + kGood, kRecording},
    {"Termination", "", kInitiation + kGood + kTermination + kGood},
    {"and another session", " A1*1", kGood + kTermination + tell(kTwo) + kInitiation + kGood,
     kRecording},
    {"a version that nobody speaks", " bmp-version*1 said*1", kGood + kVersion + tell(kTwo)},
    {"in a recording", " A1*1 bmp-version*1", kGood + kVersion + tell(kTwo), kRecording},
    {"a message shorter than its header", " bmp-length*1 said*1", kGood + kShort + tell(kTwo)},
    {"one too long", " A1*1 bmp-length*1", kGood + kLarge + tell(kTwo), kRecording},
    {"the longest one", " A1*1", bmp(6, zeros((1 << 20) - 6)) + kGood},
    {"messages cut short", " A1*1 bgp-length*1 initiation*1 peer-header*1 said*3",
     bmp(2, zeros(41)) + bmp(4, be(2, 2) + be(9, 2)) + from(kPre, 3, zeros(30)) + kGood},
};

TEST(BmpSession, LearnsWhatRoutersSend) {
  for (const auto &row : kStreams) {
    world w(row.how);
    const bool goes_on = w.feed(row.stream);
    EXPECT_EQ(w.state(), row.state) << row.what;
    EXPECT_EQ(w.feed(""), goes_on) << row.what;
    EXPECT_EQ(w.session.stream_error().empty(), row.state.find("bmp-") == bytes::npos) << row.what;
    const bytes kept = row.how.of == kind::recording ? w.learned() : "";
    w.session.finish("");
    EXPECT_EQ(w.learned(), kept) << row.what;
    EXPECT_FALSE(w.session.info().up);
  }
}

// ---- Faults ----

// Each message comes after an announcement of the same route with another next hop, so that a
// fault shows as the old route kept, the route withdrawn, or the new one learned.
const bytes kKept = " A1*1", kGone = "", kNew = " A2*1";

void expect_fault(const bytes &what, const bytes &learned, const std::vector<bytes> &messages) {
  for (const bytes &message : messages) {
    SCOPED_TRACE(what + " message " + std::to_string(&message - messages.data()));
    world w;
    EXPECT_TRUE(w.feed(kGood + monitor(message)));
    EXPECT_EQ(w.state(), learned + ' ' + what + "*1 said*1");
    EXPECT_TRUE(w.said[0].starts_with("r: peer loc-rib: malformed UPDATE at byte ")) << w.said[0];
    EXPECT_EQ(w.session.info().last_error, w.said[0].substr(3));
    EXPECT_TRUE(w.feed(tell(kPlain, kLoc, kHop3))) << "the session goes on";
    EXPECT_EQ(w.learned(), " A3*1");
  }
}

TEST(BmpSession, TreatsFaultsAsTheirKindAsks) {
  const bytes all = kBase + kRest, good = update(all);
  const auto with = [&](int flags, int type, const bytes &value) {
    return update(all + attr(flags, type, value));
  };
  const auto path = [](uint64_t value, int size) {
    return update(kOrigin + attr(0x40, 2, be(value, size)) + kRest);
  };
  const auto mp = [](const bytes &routes) { return announce(routes, kHop2); };
  bytes marker = good, length = good;
  marker[3] = 0, ++length[17];

  expect_fault("bgp-marker", kKept, {marker});
  expect_fault("bgp-length", kKept, {length, good + "x", bytes("short")});
  expect_fault("bgp-type", kKept, {bgp(4, "")});
  expect_fault("withdrawn-length", kKept, {bgp(2, be(9, 2) + be(0, 2)), bgp(2, "")});
  expect_fault("attributes-length", kKept, {bgp(2, be(all.size() + 1, 4) + all)});
  expect_fault("attribute-overrun", kGone,
               {update(all + be(0xc01005, 3) + zeros(4)), update(all + "\xc0")});
  expect_fault("attribute-flags", kGone, {update(attr(0x80, 1, zeros(1)) + kPath + kRest)});
  expect_fault("origin", kGone, {update(attr(0x40, 1, be(3, 1)) + kPath + kRest)});
  expect_fault(
      "as-path", kGone,
      {path(0x02020000, 4), path(0x070100000000, 6), path(0x000100000000, 6), path(0x200, 2)});
  expect_fault("attribute-missing", kGone,
               {update(kPath + kRest), update(kOrigin + kRest), update(all, kNine)});
  expect_fault(
      "attribute-length", kGone,
      {update(attr(0x40, 1, zeros(2)) + kPath + kRest), with(0x40, 3, zeros(3)),
       with(0x80, 4, zeros(3)), with(0x40, 5, zeros(5)), with(0xc0, 8, zeros(6)), with(0xc0, 8, ""),
       with(0x80, 9, zeros(5)), with(0x80, 10, zeros(5)), with(0xc0, 25, zeros(24)),
       with(0xc0, 32, zeros(16)), update(kBase + kReach2 + attr(0xc0, 16, zeros(9)))});
  expect_fault("attribute-length", kNew, {with(0x40, 6, zeros(1)), with(0xc0, 7, zeros(7))});
  expect_fault("attribute-length", kKept,
               {update(kBase + attr(0x80, 14, zeros(4))), update(attr(0x80, 15, zeros(2)))});
  expect_fault("attribute-repeated", kGone,
               {update(all + reach(hop(kHop3), kPlain)),
                update(kBase + reach(hop(kHop3), vpn(32, 1)) + kRest),
                update(unreach(vpn(32, 1)) + unreach(kPlain))});
  expect_fault("attribute-repeated", kKept, {update(unreach(vpn(32, 1)) + unreach(vpn(32, 2)))});
  expect_fault(
      "next-hop-length", kKept,
      {update(kBase + reach(be(kHop2, 4), kPlain)), update(kBase + reach(zeros(16), kPlain)),
       update(kBase + reach(zeros(32), kPlain)), update(kBase + reach(zeros(24), kNine, 1)),
       update(kBase + reach(zeros(48), kNine, 1)),
       update(kBase + attr(0x80, 14, be(0x000180ff, 4) + kPlain))});
  expect_fault("next-hop", kGone,
               {update(kBase + reach(be(1, 8) + be(kHop2, 4), kPlain)),
                announce(kPlain, 0xe0000001), update(all + kNoHost, kNine)});
  expect_fault("nlri-length", kKept,
               {mp(be(87, 1) + zeros(11)), mp(kPlain + be(121, 1) + be(1, 3) + zeros(13))});
  expect_fault("nlri-length", kGone, {update(all, be(33, 1) + zeros(5))});
  expect_fault("nlri-overrun", kKept,
               {mp(kPlain.substr(0, kPlain.size() - 1)), update(unreach(kPlain + be(112, 1)))});
  expect_fault("nlri-overrun", kGone,
               {update(all, be(24, 1) + zeros(2)), update(all, "", be(24, 1) + zeros(2))});
  expect_fault(
      "label-stack", kKept,
      {mp(vpn(24, 0x0a010100, kOpenLabel)), mp(kPlain + vpn(32, 1, kOpenLabel + kOpenLabel)),
       mp(be(112, 1) + kOpenLabel + be(0xfc0000000064, 8) + be(0x0b0101, 3)),
       update(unreach(vpn(24, 0x0a010100, kOpenLabel)))});
}

TEST(BmpSession, TellsThePlaceOfAFault) {
  world w(kPreView);
  w.feed(kInitiation + learn(attr(0x80, 4, ""), "", kPre));
  const size_t at = 48 + 19 + 4 + kBase.size();
  EXPECT_EQ(w.said,
            std::vector{"r: peer 10.0.0.1: malformed UPDATE at byte " + std::to_string(at) +
                        " of the message at " + std::to_string(kInitiation.size()) +
                        ": attribute-length: a length that its type doesn't have (attribute "
                        "4); what cannot be read is skipped, the rest withdrawn"});
}

TEST(BmpSession, SaysOnceThatTheChosenViewIsEmpty) {
  world w(kRecording);
  // The longest End-of-RIB has an extended length.
  w.feed(monitor(update(be(0x900f0003000180, 7)), kOut) + tell(kPlain, kPre));
  EXPECT_TRUE(w.session.view_in_doubt());
  w.feed(tell(kPlain, kPost) + kInitiation + tell(kPlain, kPost));
  w.session.finish("");
  const bytes none = "r: no routes in the chosen view, loc-rib; there are some in: post-policy";
  EXPECT_EQ(w.said, (std::vector{none + ", pre-policy", none}));
  EXPECT_FALSE(w.session.view_in_doubt());

  world fine(kPreView);
  fine.feed(learn(reach(zeros(16), "\x40" + zeros(8), 1, 2), "", kPre) + tell(kPlain, kPost));
  EXPECT_FALSE(fine.session.view_in_doubt()) << "also by routes that aren't learned";
}

TEST(BmpSession, IsBounded) {
  // Of peers that bring the chosen view, and of others.
  for (const auto &[view, said] : {std::pair(bmp_view::pre_policy, 1u), {bmp_view::loc_rib, 0u}}) {
    world w({view});
    for (uint32_t i = 0; i < bmp_session::kMaxPeers + 10; ++i) w.feed(up(0, 0, peer(0, 0, 0, i)));
    w.feed(up(0, 0) + kGood);
    EXPECT_EQ(w.session.info().peers, bmp_session::kMaxPeers + 1);
    EXPECT_EQ(w.session.info().skipped.over_limit, 10u);
    EXPECT_EQ(w.said.size(), said);
    EXPECT_EQ(w.learned(), said == 0 ? " A1*1" : "");
  }

  world noisy;
  for (uint32_t i = 0; i < bmp_session::kMaxReports + 10; ++i) noisy.feed(monitor(bgp(2, "")));
  EXPECT_EQ(noisy.state(), " withdrawn-length*1010 said*1001");
  noisy.feed(zeros(6));
  EXPECT_EQ(noisy.said.back(), "r: " + noisy.session.stream_error()) << "why it ends is told";
}

// Target sets of 64 KiB each: memory doesn't grow without end, and a route whose new attributes
// find no room doesn't keep the old ones.
TEST(BmpSession, RefusesAttributesBeyondTheLimit) {
  world w;
  w.feed(kGood);
  const auto many = [](uint64_t set) {
    bytes list;
    for (uint64_t i = 0; i < 8000; ++i) list += be(0x2000000000000 | set << 16 | i, 8);
    return attr(0xc0, 16, list);
  };
  for (uint64_t set = 1; w.session.info().skipped.rib_full == 0 && set < 3000; ++set)
    w.feed(learn(reach(hop(kHop2), vpn(32, static_cast<uint32_t>(set))) + many(set)));
  EXPECT_EQ(w.routes.paths(), attr_store::kMaxTargets / 8000 + 1);
  EXPECT_EQ(w.state(), " A1*1 said*1");
  w.feed(learn(kReach2 + many(5000)));
  EXPECT_EQ(w.learned(), "");
  w.feed(take(vpn(32, 1)) + learn(kReach2 + many(5000)) + tell(vpn(32, 2)));
  EXPECT_EQ(w.routes.paths(), attr_store::kMaxTargets / 8000) << "what one gave back, another has";
  EXPECT_EQ(w.learned(), " A1*1");
}

// ---- Every byte of one stream, corrupted ----

// Whatever byte is broken, nothing may show but the stream's next hops, each in the tables that it
// shows in otherwise; a next hop reads as the bytes that stand in its place.
bool shows_only(const std::vector<route_count> &shown, const bytes &broken) {
  std::set<std::pair<uint32_t, bytes>> right;
  for (const auto &[address, tables] : {std::pair(kHop1, "A"), {kHop2, "BC"}, {kHop3, "BC"}})
    for (size_t at = 0; (at = kDoubtful.find(hop(address), at)) != bytes::npos; ++at)
      for (const char table : std::string_view(tables))
        for (const bytes &from : {kDoubtful, broken}) right.insert({table, from.substr(at + 8, 4)});
  return std::ranges::all_of(shown, [&](const route_count &c) {
    return right.contains({c.table_id, be(ntohl(c.nexthop), 4)});
  });
}

TEST(BmpSession, NoCorruptedByteShowsAWrongPe) {
  rib_world w;
  for (size_t at = 0; at < kDoubtful.size(); ++at)
    for (int flip = 1; flip < 256; flip += SWEEP_STEP) {
      bytes broken = kDoubtful;
      broken[at] = static_cast<char>(broken[at] ^ flip);
      bmp_session session(w.routes, bmp_view::pre_policy, kind::connection, "r", [](auto &) {});
      session.feed(span_of(broken));
      EXPECT_TRUE(shows_only(w.routes.count_routes(), broken)) << w.learned();
      session.finish("");
      ASSERT_EQ(w.routes.paths(), 0u) << "byte " << at << " flipped by " << flip;
    }
}

// ---- The station ----

TEST(BmpStation, KeepsConnectionsApart) {
  station_world w;
  const uint16_t port = w.listening_port();
  router steady(port);
  steady.send(kInitiation + kGood);
  {
    router lost(port), broken(port), leaving(port), garbled(port);
    lost.send(kInitiation + kToB);
    EXPECT_TRUE(w.comes_to(" A1*1 B2*1"));
    broken.send(kToC + "no BMP");
    garbled.send("no BMP");
    EXPECT_TRUE(garbled.closed());
    leaving.send(kToC + kTermination);
    EXPECT_TRUE(broken.closed());
    EXPECT_TRUE(leaving.closed());
    EXPECT_TRUE(w.comes_to(" A1*1 B2*1"));
  }
  EXPECT_TRUE(w.comes_to(" A1*1"));

  const std::vector<session_info> sessions = w.station.sessions();
  EXPECT_EQ(sessions.size(), 5u);
  EXPECT_EQ(std::ranges::count(sessions, true, &session_info::up), 1);
  const auto ended_by_fault = [](const session_info &s) { return !s.up && !s.malformed.empty(); };
  EXPECT_EQ(std::ranges::count_if(sessions, ended_by_fault), 2);
  const session_totals all = w.station.totals();
  EXPECT_EQ(std::tuple(all.up, all.opened, all.peers, all.messages, all.routes_read),
            std::tuple(1u, 5u, 1u, 7u, 4u));
  EXPECT_EQ(all.malformed, (std::map<std::string, uint64_t>{{"bmp-version", 2}}));
}

TEST(BmpStation, TellsHowAFirstTableComes) {
  std::atomic<int> asked = 0;
  station_world w(std::chrono::milliseconds(400),
                  [&] { return progress::time_point(progress::kLinePeriod * ++asked); });
  const uint16_t port = w.listening_port();
  testing::internal::CaptureStderr();
  router from(port);
  from.send(kInitiation + kGood);
  EXPECT_TRUE(comes([&] { return w.shown() == " A1*1" && asked >= 3; })) << "until it is whole";
  from.send(tell(kTwo));
  EXPECT_TRUE(w.comes_to(" A1*2"));
  const std::string told = testing::internal::GetCapturedStderr();
  EXPECT_EQ(count(told, ": 1 routes read, 0 a second\n"), 2u) << told;
  EXPECT_EQ(asked, 3) << "of the first table only";
}

// Round after round: as many as it has room for, and as many again that it refuses; and once one
// place was free, that it refuses is told again.
TEST(BmpStation, OutlastsThousandsOfConnections) {
  station_world w;
  const uint16_t port = w.listening_port();
  testing::internal::CaptureStderr();
  const size_t before = open_descriptors();
  for (int round = 0; round < 24; ++round) {
    std::list<router> routers;
    for (size_t i = 0; i < bmp_station::kMaxConnections; ++i) routers.emplace_back(port);
    for (size_t i = 0; i < bmp_station::kMaxConnections; ++i) ASSERT_TRUE(router(port).closed());
    routers.front().send(kTermination);
    EXPECT_TRUE(routers.front().closed());
    routers.pop_front();
    routers.emplace_back(port);
    EXPECT_TRUE(router(port).closed());
    for (router &each : routers) each.send(kGood);
    EXPECT_TRUE(w.comes_to(" A1*1"));
    routers.clear();
    EXPECT_TRUE(comes([&] { return w.station.totals().up == 0; }));
    EXPECT_TRUE(w.comes_to(""));
    EXPECT_EQ(open_descriptors(), before);
  }
  EXPECT_EQ(count(testing::internal::GetCapturedStderr(), "64 sessions are open"), 48u);
}

TEST(BmpStation, ReplaysRecordings) {
  station_world w;
  const std::string path = testing::TempDir() + "bmp_test." + std::to_string(getpid());
  const bytes many = tell(many_routes(1000));
  testing::internal::CaptureStderr();
  for (const auto &[stream, error] : {std::pair(many + many + many + kGood, ""),
                                      {tell(kPlain, kLoc, kHop2) + "\3", "ends within the message"},
                                      {tell(kPlain, kLoc, kHop3) + "no BMP", "BMP version 110"}}) {
    std::ofstream(path, std::ios::binary) << stream;
    const std::string said = w.station.replay(path);
    EXPECT_EQ(said.empty(), *error == 0) << said;
    EXPECT_NE(said.find(error), bytes::npos) << said;
  }
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(w.station.replay("/"), "/: read: Is a directory");
  EXPECT_EQ(w.shown(), " A1*1001 A2*1 A3*1");
  unlink(path.c_str());
}

TEST(BmpStation, SaysWhatIsWrongWithAnEndpoint) {
  station_world w;
  const uint16_t taken = w.listening_port();
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
