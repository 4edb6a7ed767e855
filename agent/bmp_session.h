// One BMP session (RFC 7854, 9069): a byte stream of one router, read into the RIB.
//
// It keeps the session's peers, each with the RIB source of the one view that is learned, what
// `show sessions` tells, and the beginning of a message that hasn't arrived whole. Everything is
// the RIB thread's own. Bounds: one message of 1 MiB, 4,096 peers that can bring the chosen view
// and as many others, 1,000 faults told and why it ends, and the RIB's own on routes. A session
// that finds no memory ends.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "agent/bgp_update.h"
#include "agent/bmp_station.h"

namespace agent {

class bmp_session {
 public:
  /// A recording keeps what it brought when it ends, and may hold several sessions: each
  /// Initiation begins one. On a connection an Initiation may just tell news of the same session.
  enum class source_kind { connection, recording };
  using diagnostic = std::function<void(const std::string &line)>;

  static constexpr size_t kMaxMessage = size_t{1} << 20;
  static constexpr size_t kMaxPeers = 4096;
  static constexpr uint32_t kMaxReports = 1000;

  /// `router` names the session in diagnostics.
  bmp_session(rib &routes, bmp_view view, source_kind kind, std::string router, diagnostic say);
  bmp_session(const bmp_session &) = delete;
  bmp_session &operator=(const bmp_session &) = delete;

  /// Reads the next bytes. False once the session has ended and reads no more.
  bool feed(std::span<const uint8_t> bytes);

  /// The stream is over, with an error of reading it or without: a connection's routes are
  /// withdrawn, a recording's stay.
  void finish(const std::string &error);

  /// Other views brought routes and the chosen one hasn't yet, and nobody was told.
  bool view_in_doubt() const;
  /// Tells so, once, if it is still the case.
  void report_empty_view();

  /// Nothing is due from the router: it has sent a message, and not begun another.
  bool may_be_silent() const { return partial_.empty() && messages_ != 0; }
  bool between_messages() const { return partial_.empty(); }
  uint64_t messages() const { return messages_; }

  session_info info() const;
  uint64_t routes_read() const { return routes_read_; }
  /// Fills in the origins of this session's sources among the keys of `wanted`.
  void name_sources(std::map<source_id, route_origin> &wanted) const;
  /// Why the stream couldn't be read to its end; empty when it could.
  const std::string &stream_error() const { return stream_error_; }

 private:
  // Never the AS or the BGP identifier: both change in Peer Down and Loc-RIB headers.
  struct peer_key {
    uint64_t distinguisher = 0;
    std::array<uint8_t, 16> address{};
    uint8_t type = 0;
    bool operator==(const peer_key &) const = default;
  };
  struct peer_hash {
    size_t operator()(const peer_key &key) const;
  };
  struct peer {
    add_path_families add_path;
    std::optional<source_id> source;  // opened by the first route
  };
  using peer_map = std::unordered_map<peer_key, peer, peer_hash>;
  struct peer_header {
    peer_key key;
    uint8_t flags = 0;
  };
  // The learnable views in the order of bmp_view, and one that never is.
  enum view_index : size_t { kLocRib, kPostPolicy, kPrePolicy, kAdjRibOut, kViews };

  void read(std::span<const uint8_t> bytes);
  std::span<const uint8_t> complete_partial(std::span<const uint8_t> bytes);
  void top_up(std::span<const uint8_t> &bytes, size_t size);
  size_t message_size(std::span<const uint8_t> bytes);
  void read_message(std::span<const uint8_t> message);
  bool read_peer_header(byte_cursor &in, peer_header &header);
  void read_peer_message(uint8_t type, byte_cursor in);
  void read_initiation(byte_cursor in);
  void read_peer_up(const peer_header &header, byte_cursor in);
  void read_peer_down(const peer_header &header);
  void read_routes(const peer_header &header, byte_cursor in);
  void learn(const peer_header &header, peer &from);
  void announce(peer &from, const bgp_reach &reach, std::span<const route_target> targets);

  static view_index view_of(const peer_header &header);
  peer_map &peers_of_type(uint8_t type);
  peer *find_or_add_peer(const peer_key &key);
  void withdraw_all();
  void terminate();
  void end();
  void fail_stream(const char *kind, const std::string &text);
  template <typename Tell>
  static void tell_if_memory_serves(Tell tell);
  void report_fault(const peer_header &header, const bgp_fault &fault, const char *message);
  void report(const char *kind, const std::string &text);
  bool told_enough() const { return reports_ > kMaxReports; }
  void tell(const std::string &text);
  void tell_reading(const peer_key &key);
  void count_fault(const char *kind, const std::string &text);
  void say(const std::string &text);
  static std::string name_of(const peer_key &key);

  rib &routes_;
  const size_t chosen_;  // a view_index
  const source_kind kind_;
  const std::string router_;
  const diagnostic say_;

  const std::shared_ptr<size_t> paths_ = std::make_shared<size_t>(0);  // in the RIB
  peer_map peers_;                // that can bring the chosen view
  peer_map other_peers_;          // only counted
  std::vector<uint8_t> partial_;  // a message whose rest hasn't come yet
  bgp_update update_;             // scratch, reused from message to message
  uint64_t message_at_ = 0;       // position in the stream of the message being read
  bool running_ = true;
  bool terminated_ = false;  // by the router; in a recording another session may follow

  std::array<bool, kViews> view_seen_{};
  bool told_empty_view_ = false;
  bool told_peer_limit_ = false;
  std::unordered_set<peer_key, peer_hash> told_reading_;
  uint32_t reports_ = 0;

  std::string system_name_;
  std::string last_error_;
  std::string stream_error_;
  uint64_t messages_ = 0;
  uint64_t routes_read_ = 0;
  std::map<std::string_view, uint64_t> malformed_;  // by kind, a string constant
  skipped_counts skipped_;
};

}  // namespace agent
