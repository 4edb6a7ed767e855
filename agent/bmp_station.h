// BMP station (RFC 7854): the sessions that routers opened, and recorded streams.
//
// It keeps the listening sockets, the connections with their sessions, the recordings replayed,
// and what is to tell of the connections that ended last. All of it is the RIB thread's own; the
// public calls hand their work over to that thread. Bounds: 64 connections at a time, further ones
// are closed; the accounts of 64 ended ones. A router owes its first message, and the rest of one
// that it has begun: if it doesn't come for the idle time, the connection is closed. Else it may be
// silent, as one without peers is; whether it still is there, TCP's own probes find out. That it
// came and that it ended is told, a line each, as often as it does, and how its first table comes,
// if that takes long.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "agent/descriptor.h"
#include "agent/progress.h"
#include "agent/route.h"

namespace agent {

class bmp_session;
class rib;
class rib_thread;

/// Which of a router's views of its routes the agent learns from.
enum class bmp_view { loc_rib, post_policy, pre_policy };

/// What a session read over on purpose.
struct skipped_counts {
  uint64_t other_views = 0;   ///< messages of views that weren't chosen
  uint64_t ipv6_nexthop = 0;  ///< VPN routes without an IPv4 next hop
  uint64_t vrf_unicast = 0;   ///< IPv4 unicast routes that aren't the global table's
  uint64_t over_limit = 0;    ///< messages of peers over the session's limit
  uint64_t rib_full = 0;      ///< routes that the RIB refused
};

/// What `show sessions` tells of one session.
struct session_info {
  std::string router;       ///< address and port, or the recording's file name
  std::string system_name;  ///< as the Initiation said, or empty
  bool up = false;
  std::vector<std::string> views;  ///< views that brought routes: "loc-rib", "post-policy", ...
  uint32_t peers = 0;              ///< peers known
  uint64_t messages = 0;
  uint64_t routes_read = 0;
  std::map<std::string, uint64_t> malformed;  ///< count by kind
  skipped_counts skipped;
  std::string last_error;
};

/// What all sessions brought since the start, those that ended included.
struct session_totals {
  uint32_t up = 0;
  uint32_t peers = 0;
  uint64_t opened = 0;
  uint64_t messages = 0;
  uint64_t routes_read = 0;
  std::map<std::string, uint64_t> malformed;
  skipped_counts skipped;

  void add(const session_info &session);
};

/// Where a route comes from.
struct route_origin {
  std::string router;  ///< as in session_info
  std::string system;
  std::string peer;
  std::string view;
};

class bmp_station {
 public:
  using milliseconds = std::chrono::milliseconds;
  static constexpr size_t kMaxConnections = 64;
  static constexpr std::chrono::seconds kIdle{300};

  /// `idle` of 0: for ever. `table_clock` is that of the first tables' progress.
  bmp_station(rib &routes, rib_thread &loop, bmp_view view, milliseconds idle = kIdle,
              progress::clock table_clock = std::chrono::steady_clock::now);
  /// Closes the sockets; the routes stay. From any thread but the RIB thread.
  ~bmp_station();
  bmp_station(const bmp_station &) = delete;
  bmp_station &operator=(const bmp_station &) = delete;

  /// Listens on "ADDRESS:PORT", or on 127.0.0.1 for ":PORT" or "PORT". Returns an empty string, or
  /// what failed. Port 0 takes a free one; the diagnostics tell which.
  std::string listen(const std::string &address_port);

  /// Returns once a descriptor can be read; false: it is not to be read any more.
  using awaiter = std::function<bool(int fd)>;

  /// Reads a recorded byte stream to its end. Returns an empty string, or what failed. What it
  /// brought stays. From any thread but the RIB thread. `reading` is told how far it is; `await`
  /// is called before each part is read, of 64 KiB at most.
  std::string replay(const std::string &path, progress *reading = nullptr,
                     const awaiter &await = nullptr);

  /// From any thread but the RIB thread.
  std::vector<session_info> sessions();

  /// From any thread but the RIB thread.
  session_totals totals();

  /// Fills in the origins of the sources that are keys of `wanted`. RIB thread.
  void name_sources(std::map<source_id, route_origin> &wanted) const;

 private:
  struct connection;

  std::string start_ticking();
  void tick();
  void check(connection &open);
  void watch_listener(int fd);
  void accept_ready(int listening_fd);
  void accepted(descriptor fd, const std::string &router);
  void shed_connection(int listening_fd);
  void rest_listener(int listening_fd, int error);
  void tell_full(const std::string &why);
  void connection_ready(connection &from);
  void end(connection &from, const std::string &error);

  rib &routes_;
  rib_thread &loop_;
  const bmp_view view_;
  const milliseconds idle_;
  const progress::clock table_clock_;
  descriptor ticks_;  // a timer, from the first listen() on
  std::vector<descriptor> listeners_;
  std::vector<int> resting_;  // listeners that failed, until the next tick
  std::vector<std::unique_ptr<connection>> connections_;
  std::vector<std::unique_ptr<bmp_session>> recordings_;
  std::deque<session_info> ended_;
  session_totals ended_totals_;
  std::vector<uint8_t> chunk_;  // what is read from a connection in one turn
  bool told_full_ = false;
  bool told_resting_ = false;
  descriptor spare_;  // given up to accept and close a connection when descriptors run out
};

}  // namespace agent
