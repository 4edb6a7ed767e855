// Messages are read where they arrive; only one that is split between two chunks is copied, to be
// completed. Every message is bounded by its own length, so whatever is wrong inside one stays
// inside; only a broken length or version leaves nothing to go by, and ends the session.
#include "agent/bmp_session.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "agent/bgp_open.h"
#include "agent/rib.h"
#include "agent/seeded_hash.h"
#include "agent/text.h"

namespace agent {
namespace {

constexpr uint8_t kBmpVersion = 3;
constexpr size_t kBmpHeaderSize = 6;

enum message_type : uint8_t {
  kRouteMonitoring = 0,
  kStatisticsReport = 1,
  kPeerDown = 2,
  kPeerUp = 3,
  kInitiation = 4,
  kTermination = 5,
  kRouteMirroring = 6,
};

enum peer_type : uint8_t { kGlobalInstance = 0, kLocalInstance = 2, kLocRibInstance = 3 };

// Of the peer types but the Loc-RIB's, where 0x80 means that the view is filtered.
constexpr uint8_t kFlagPostPolicy = 0x40;
constexpr uint8_t kFlagAdjRibOut = 0x10;

constexpr const char *kViewNames[] = {"loc-rib", "post-policy", "pre-policy", "adj-rib-out"};

// The longest End-of-RIB: no withdrawn routes, one MP_UNREACH_NLRI with an extended length.
constexpr size_t kLongestEndOfRib = kBgpHeaderSize + 4 + 7;

// What a router says of itself is shown, but no more of it than this.
constexpr size_t kMaxSystemName = 255;

// An IPv4 address stands in the last four bytes, with zeros before it.
std::string peer_address_text(const std::array<uint8_t, 16> &bytes) {
  const bool ipv4 =
      std::all_of(bytes.begin(), bytes.begin() + 12, [](uint8_t b) { return b == 0; });
  char text[INET6_ADDRSTRLEN];
  return inet_ntop(ipv4 ? AF_INET : AF_INET6, bytes.data() + (ipv4 ? 12 : 0), text, sizeof text);
}

// A reference to attributes, given back also when the RIB throws.
struct held_attributes {
  held_attributes(rib &of, uint32_t nexthop, std::span<const route_target> targets)
      : routes(of), id(of.acquire(nexthop, targets)) {}
  ~held_attributes() {
    if (id != attr_store::kNone) routes.release(id);
  }
  held_attributes(const held_attributes &) = delete;
  held_attributes &operator=(const held_attributes &) = delete;

  rib &routes;
  const attr_id id;
};

}  // namespace

bmp_session::bmp_session(rib &routes, bmp_view view, source_kind kind, std::string router,
                         diagnostic say)
    : routes_(routes),
      chosen_(static_cast<size_t>(view)),
      kind_(kind),
      router_(std::move(router)),
      say_(std::move(say)) {}

size_t bmp_session::peer_hash::operator()(const peer_key &key) const {
  uint64_t address[2];
  memcpy(address, key.address.data(), sizeof address);
  constexpr seeded_hash hash;
  return hash(key.distinguisher, uint64_t{hash(address[0], address[1])} << 8 | key.type);
}

// Framing.

bool bmp_session::feed(std::span<const uint8_t> bytes) {
  try {
    read(bytes);
  } catch (const std::bad_alloc &) {
    end();
    stream_error_ = "out of memory";
    tell_if_memory_serves([this] {
      fail_stream("memory",
                  "out of memory at byte " + std::to_string(message_at_) + " of the stream");
    });
  }
  return running_;
}

void bmp_session::read(std::span<const uint8_t> bytes) {
  if (!partial_.empty()) bytes = complete_partial(bytes);
  while (running_) {
    const size_t size = message_size(bytes);
    if (size == 0 || size > bytes.size()) break;
    read_message(bytes.first(size));
    bytes = bytes.subspan(size);
  }
  if (running_) partial_.insert(partial_.end(), bytes.begin(), bytes.end());
}

// Reads the message that began in an earlier chunk, if it ends in this one; gives what follows.
std::span<const uint8_t> bmp_session::complete_partial(std::span<const uint8_t> bytes) {
  top_up(bytes, kBmpHeaderSize);
  const size_t size = message_size(partial_);
  if (size == 0) return bytes;
  top_up(bytes, size);
  if (partial_.size() < size) return bytes;
  read_message(partial_);
  partial_.clear();
  return bytes;
}

void bmp_session::top_up(std::span<const uint8_t> &bytes, size_t size) {
  if (partial_.size() >= size) return;
  const size_t more = std::min(size - partial_.size(), bytes.size());
  partial_.insert(partial_.end(), bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(more));
  bytes = bytes.subspan(more);
}

// The size of the message that starts here. 0: its header hasn't come whole, or the session has
// just ended on it.
size_t bmp_session::message_size(std::span<const uint8_t> bytes) {
  byte_cursor in(bytes);
  const uint8_t version = in.u8();
  const size_t size = in.u32();
  in.skip(1);
  if (!in.ok()) return 0;

  const std::string where = " at byte " + std::to_string(message_at_) + " of the stream";
  if (version != kBmpVersion)
    fail_stream("bmp-version", "BMP version " + std::to_string(version) + where);
  else if (size < kBmpHeaderSize || size > kMaxMessage)
    fail_stream("bmp-length", "BMP message of " + std::to_string(size) + " bytes" + where);
  else
    return size;
  end();
  return 0;
}

// The session's course.

void bmp_session::finish(const std::string &error) {
  if (!running_) return;
  tell_if_memory_serves([&] {
    if (!error.empty())
      fail_stream("read", error);
    else if (!partial_.empty())
      fail_stream("bmp-truncated", "the stream ends within the message at byte " +
                                       std::to_string(message_at_) + ", after " +
                                       std::to_string(partial_.size()) + " bytes of it");
  });
  end();
}

template <typename Tell>
void bmp_session::tell_if_memory_serves(Tell tell) {
  try {
    tell();
  } catch (const std::bad_alloc &) {
  }
}

// Whoever replays a recording is told of it as the replay's result.
void bmp_session::fail_stream(const char *kind, const std::string &text) {
  stream_error_ = text;
  count_fault(kind, text);
  if (kind_ == source_kind::connection) say(text);
}

void bmp_session::end() {
  running_ = false;
  if (kind_ == source_kind::connection) withdraw_all();
  partial_ = {};
  tell_if_memory_serves([this] { report_empty_view(); });
}

void bmp_session::terminate() {
  if (kind_ == source_kind::connection) return end();
  terminated_ = true;
  report_empty_view();
  withdraw_all();
}

void bmp_session::withdraw_all() {
  for (const auto &[key, gone] : peers_)
    if (gone.source) routes_.close_source(*gone.source);
  peers_.clear();
  other_peers_.clear();
}

void bmp_session::read_message(std::span<const uint8_t> message) {
  ++messages_;
  byte_cursor in(message);
  in.skip(kBmpHeaderSize - 1);
  const uint8_t type = in.u8();
  if (type == kInitiation)
    read_initiation(in);
  else if (type == kTermination)
    terminate();
  else if (!terminated_)
    read_peer_message(type, in);
  message_at_ += message.size();
}

void bmp_session::read_initiation(byte_cursor in) {
  constexpr uint16_t kSystemName = 2;
  if (kind_ == source_kind::recording) {
    report_empty_view();
    withdraw_all();
    terminated_ = told_empty_view_ = told_peer_limit_ = false;
    view_seen_ = {};
    told_reading_.clear();
    system_name_.clear();
  }
  while (in.left() > 0) {
    const uint16_t type = in.u16();
    const byte_cursor value = in.take(in.u16());
    if (in.ok() && type == kSystemName) {
      const auto name = value.rest();
      const auto *const text = reinterpret_cast<const char *>(name.data());
      system_name_ = printable({text, std::min(name.size(), kMaxSystemName)});
    }
  }
  if (!in.ok())
    report("initiation", "Initiation at byte " + std::to_string(message_at_) +
                             " of the stream: an entry that the message doesn't hold");
}

// Peers.

bool bmp_session::read_peer_header(byte_cursor &in, peer_header &header) {
  header.key.type = in.u8();
  header.flags = in.u8();
  header.key.distinguisher = in.u64();
  const byte_cursor address = in.take(header.key.address.size());
  in.skip(16);  // AS, BGP identifier, timestamp
  if (!in.ok()) return false;
  std::ranges::copy(address.rest(), header.key.address.begin());
  return true;
}

// Statistics, mirrored messages and types yet unknown are read over.
void bmp_session::read_peer_message(uint8_t type, byte_cursor in) {
  if (type != kRouteMonitoring && type != kPeerDown && type != kPeerUp) return;
  peer_header header;
  if (!read_peer_header(in, header))
    return report("peer-header", "message of type " + std::to_string(type) + " at byte " +
                                     std::to_string(message_at_) +
                                     " of the stream: too short for a peer header");
  if (header.key.type > kLocRibInstance) return;

  if (type == kRouteMonitoring) return read_routes(header, in);
  if (type == kPeerUp) return read_peer_up(header, in);
  read_peer_down(header);
}

// Each map has a limit of its own: a PE may have more customers than there is room for, and brings
// its Loc-RIB all the same.
bmp_session::peer_map &bmp_session::peers_of_type(uint8_t type) {
  return (type == kLocRibInstance) == (chosen_ == kLocRib) ? peers_ : other_peers_;
}

bmp_session::peer *bmp_session::find_or_add_peer(const peer_key &key) {
  peer_map &known = peers_of_type(key.type);
  const auto found = known.find(key);
  if (found != known.end()) return &found->second;
  if (known.size() < kMaxPeers) return &known[key];

  ++skipped_.over_limit;
  if (&known == &peers_ && !std::exchange(told_peer_limit_, true))
    say("more than " + std::to_string(kMaxPeers) +
        " peers: the messages of further ones are read over");
  return nullptr;
}

// A repeated Peer Up only renews what was negotiated: the routes stay until a Peer Down.
void bmp_session::read_peer_up(const peer_header &header, byte_cursor in) {
  peer *const from = find_or_add_peer(header.key);
  if (from == nullptr) return;

  in.skip(20);  // local address and ports
  bgp_fault fault;
  // A Loc-RIB has no other end: the router made up both OPENs to say how it encodes routes.
  from->add_path = read_opens(in, header.key.type == kLocRibInstance, fault);
  if (fault.action != fault_action::none) report_fault(header, fault, "Peer Up");
}

// Each peer type has views of its own, so the peer's one source is of the type that went down.
void bmp_session::read_peer_down(const peer_header &header) {
  peer_map &known = peers_of_type(header.key.type);
  const auto gone = known.find(header.key);
  if (gone == known.end()) return;
  if (gone->second.source) routes_.close_source(*gone->second.source);
  known.erase(gone);
}

// Routes.

bmp_session::view_index bmp_session::view_of(const peer_header &header) {
  if (header.key.type == kLocRibInstance) return kLocRib;
  if ((header.flags & kFlagAdjRibOut) != 0) return kAdjRibOut;
  return (header.flags & kFlagPostPolicy) != 0 ? kPostPolicy : kPrePolicy;
}

void bmp_session::read_routes(const peer_header &header, byte_cursor in) {
  const view_index view = view_of(header);
  view_seen_[view] |= in.left() > kLongestEndOfRib;
  if (view != chosen_) {
    ++skipped_.other_views;
    return;
  }

  peer *const from = find_or_add_peer(header.key);
  if (from == nullptr) return;
  bgp_fault fault;
  const byte_cursor body = take_bgp_message(in, kBgpUpdate, fault);
  if (fault.action == fault_action::none && in.left() > 0)
    fault = {fault_action::skip, 0, in.offset(), "bgp-length", "bytes after the UPDATE"};
  if (fault.action != fault_action::none) return report_fault(header, fault, "UPDATE");

  read_update(body, from->add_path, update_);
  learn(header, *from);
}

// Applies what was read. Withdrawals go first: a route in both lists is announced.
void bmp_session::learn(const peer_header &header, peer &from) {
  if (update_.fault.action != fault_action::none) report_fault(header, update_.fault, "UPDATE");
  if (update_.other_reading) tell_reading(header.key);
  skipped_.ipv6_nexthop += update_.not_ipv4;
  routes_read_ += update_.withdrawn.size() + update_.classic.routes.size() +
                  update_.multiprotocol.routes.size();
  if (from.source)
    for (const nlri &route : update_.withdrawn) routes_.withdraw(*from.source, route);

  for (const bgp_reach *reach : {&update_.classic, &update_.multiprotocol}) {
    if (reach->routes.empty()) continue;
    const bool vpn = reach->routes.front().vpn;
    // Unicast routes of a router's VRF aren't those of the global table.
    const bool global = header.key.distinguisher == 0 &&
                        (header.key.type == kGlobalInstance || header.key.type == kLocRibInstance);
    if (vpn)
      announce(from, *reach, update_.targets);
    else if (global)
      announce(from, *reach, {});
    else
      skipped_.vrf_unicast += reach->routes.size();
  }
}

void bmp_session::announce(peer &from, const bgp_reach &reach,
                           std::span<const route_target> targets) {
  if (!from.source) from.source = routes_.open_source(paths_);
  uint64_t refused = 0;
  routes_.expect(reach.routes);
  if (const held_attributes held(routes_, reach.nexthop, targets); held.id != attr_store::kNone) {
    for (const nlri &route : reach.routes)
      refused += !routes_.announce(*from.source, route, held.id);
  } else {
    refused = reach.routes.size();
    // What the peer announced before no longer holds.
    for (const nlri &route : reach.routes) routes_.withdraw(*from.source, route);
  }
  if (refused > 0 && skipped_.rib_full == 0) say("the RIB is full: further routes are left out");
  skipped_.rib_full += refused;
}

// What there is to tell.

bool bmp_session::view_in_doubt() const {
  const bool any = std::ranges::find(view_seen_, true) != view_seen_.end();
  return any && !view_seen_[chosen_] && !told_empty_view_;
}

void bmp_session::report_empty_view() {
  if (!view_in_doubt()) return;
  told_empty_view_ = true;
  std::string seen;
  for (size_t view = 0; view < kViews; ++view)
    if (view_seen_[view]) seen += std::string(seen.empty() ? "" : ", ") + kViewNames[view];
  say(std::string("no routes in the chosen view, ") + kViewNames[chosen_] +
      "; there are some in: " + seen);
}

std::string bmp_session::name_of(const peer_key &key) {
  std::string name =
      key.type == kLocRibInstance ? "peer loc-rib" : "peer " + peer_address_text(key.address);
  if (key.distinguisher != 0) name += " of " + distinguisher_text(key.distinguisher);
  return name;
}

void bmp_session::name_sources(std::map<source_id, route_origin> &wanted) const {
  constexpr size_t kPeerWord = 5;  // "peer "
  for (const auto &[key, from] : peers_) {
    if (!from.source) continue;
    const auto found = wanted.find(*from.source);
    if (found == wanted.end()) continue;
    found->second = {router_, system_name_, name_of(key).substr(kPeerWord), kViewNames[chosen_]};
  }
}

void bmp_session::report_fault(const peer_header &header, const bgp_fault &fault,
                               const char *message) {
  std::string text = name_of(header.key) + ": malformed " + message + " at byte " +
                     std::to_string(fault.offset) + " of the message at " +
                     std::to_string(message_at_) + ": " + fault.kind + ": " + fault.what;
  if (fault.attribute != 0) text += " (attribute " + std::to_string(fault.attribute) + ")";
  if (fault.action == fault_action::discard)
    text += "; the rest of it counts";
  else
    text += "; what cannot be read is skipped";
  if (fault.action == fault_action::withdraw) text += ", the rest withdrawn";
  report(fault.kind, text);
}

void bmp_session::count_fault(const char *kind, const std::string &text) {
  ++malformed_[kind];
  last_error_ = text;
}

void bmp_session::report(const char *kind, const std::string &text) {
  count_fault(kind, text);
  tell(text);
}

// Unless a hostile router has made it tell too much.
void bmp_session::tell(const std::string &text) {
  if (told_enough()) return;
  if (++reports_ <= kMaxReports)
    say(text);
  else
    say("further faults are only counted");
}

// Once a peer, also if that goes and comes.
void bmp_session::tell_reading(const peer_key &key) {
  if (told_enough() || !told_reading_.insert(key).second) return;
  tell(name_of(key) + ": path identifiers are used against what the OPENs say; read as they come");
}

void bmp_session::say(const std::string &text) { say_(router_ + ": " + text); }

session_info bmp_session::info() const {
  session_info told;
  told.router = router_;
  told.system_name = system_name_;
  told.up = running_ && !terminated_;
  for (size_t view = 0; view < kViews; ++view)
    if (view_seen_[view]) told.views.emplace_back(kViewNames[view]);
  told.peers = static_cast<uint32_t>(peers_.size() + other_peers_.size());
  told.messages = messages_;
  told.routes_read = routes_read_;
  for (const auto &[kind, count] : malformed_) told.malformed.emplace(kind, count);
  told.skipped = skipped_;
  told.last_error = last_error_;
  return told;
}

}  // namespace agent
