// The station's surroundings: the real RIB with four tables, a session or a station on it, and the
// router's end of a connection. The RIB's fence stays closed: the module is never called.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <list>
#include <vector>

#include "agent/bmp_session.h"
#include "agent/bmp_station.h"
#include "agent/descriptor.h"
#include "agent/fence.h"
#include "agent/global_table.h"
#include "agent/redistribution.h"
#include "agent/rib.h"
#include "agent/rib_thread.h"
#include "agent/text.h"
#include "tests/agent/bmp_bytes.h"

namespace agent {

using kind = bmp_session::source_kind;

inline size_t count(const std::string &text, const std::string &part) {
  size_t n = 0;
  for (size_t at = 0; (at = text.find(part, at)) != bytes::npos; ++at) ++n;
  return n;
}

/// Asks again and again, for half a minute at most.
inline bool comes(const auto &asked) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!asked())
    if (std::chrono::steady_clock::now() > deadline) return false;
  return true;
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
    routes.add_vrf({"X", 'X', {kNo, kNo + 3}});
  }
  /// " A1*2": table A has two routes to 10.255.1.1. Then the global route to 10.9.1.1, if any.
  std::string learned() {
    std::string text;
    for (const route_count &c : routes.count_routes()) {
      const uint32_t address = ntohl(c.nexthop), n = address & 0xff;
      text += std::string(" ") + static_cast<char>(c.table_id) +
              (address == 0x0aff0000 + 0x101 * n ? std::to_string(n) : address_text(c.nexthop)) +
              "*" + std::to_string(c.routes);
    }
    if (const auto route = global.lookup(0x0a090101))
      text += ' ' + prefix_text(htonl(route->prefix), route->length);
    return text;
  }
};

struct setup {
  bmp_view view = bmp_view::loc_rib;
  kind of = kind::connection;
};
constexpr setup kPreView{bmp_view::pre_policy}, kRecording{.of = kind::recording};

struct world : rib_world {
  std::vector<std::string> said;
  bmp_session session;

  explicit world(const setup &how = {})
      : session(routes, how.view, how.of, "r", [this](auto &line) { said.push_back(line); }) {}
  bool feed(const bytes &stream) { return session.feed(span_of(stream)); }
  /// What was learned, " fault*1" and " said*1" for one diagnostic.
  std::string state() {
    std::string text = learned();
    for (const auto &[fault, count] : session.info().malformed)
      text += ' ' + fault + '*' + std::to_string(count);
    return text + (said.empty() ? "" : " said*" + std::to_string(said.size()));
  }
};

struct station_world : rib_world {
  rib_thread loop{routes, reports, pace};
  bmp_station station;

  explicit station_world(std::chrono::milliseconds idle = bmp_station::kIdle,
                         progress::clock table_clock = std::chrono::steady_clock::now)
      : station(routes, loop, bmp_view::loc_rib, idle, std::move(table_clock)) {}

  std::string shown() {
    std::string text;
    loop.call([&] { text = learned(); });
    return text;
  }
  /// Each question is a turn of the RIB thread, so the answer comes without a pause.
  bool comes_to(const std::string &expected) {
    return comes([&] { return shown() == expected; });
  }
  uint16_t listening_port() {
    testing::internal::CaptureStderr();
    EXPECT_EQ(station.listen("0"), "");
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(said.starts_with("tarvo-agent: listening on 127.0.0.1:")) << said;
    return static_cast<uint16_t>(std::stoi(said.substr(said.rfind(':') + 1)));
  }
};

// A router's end of a connection.
class router {
 public:
  explicit router(uint16_t port) {
    const sockaddr_in to{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    connected_ = connect(fd_.number, reinterpret_cast<const sockaddr *>(&to), sizeof to) == 0;
  }
  void send(const bytes &stream) { EXPECT_TRUE(try_send(stream)); }
  bool try_send(const bytes &stream) {
    return ::send(fd_.number, stream.data(), stream.size(), MSG_NOSIGNAL) == ssize_t(stream.size());
  }
  /// Waits until the station closes.
  bool closed(int milliseconds = 30000) {
    pollfd one{fd_.number, POLLIN, 0};
    char byte;
    return connected_ && poll(&one, 1, milliseconds) == 1 && read(one.fd, &byte, 1) <= 0;
  }

 private:
  const descriptor fd_{socket(AF_INET, SOCK_STREAM, 0)};
  bool connected_ = false;
};

inline size_t open_descriptors(const std::string &process = "self") {
  const std::filesystem::directory_iterator all("/proc/" + process + "/fd");
  return static_cast<size_t>(std::distance(begin(all), end(all)));
}

}  // namespace agent
