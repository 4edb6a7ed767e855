// BMP station (RFC 7854): the sessions that routers opened, and recorded streams.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace agent {

class rib;
class rib_thread;

/// Which of a router's views of its routes the agent learns from.
enum class bmp_view { loc_rib, post_policy, pre_policy };

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
  std::string last_error;
};

class bmp_station {
 public:
  bmp_station(rib &routes, rib_thread &loop, bmp_view view);

  /// Listens on "ADDRESS:PORT". Returns an empty string, or what failed.
  std::string listen(const std::string &address_port);

  /// Reads a recorded byte stream to its end. Returns an empty string, or what failed. What it
  /// brought stays. From any thread but the RIB thread.
  std::string replay(const std::string &path);

  /// From any thread but the RIB thread.
  std::vector<session_info> sessions();
};

}  // namespace agent
