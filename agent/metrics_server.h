// `/metrics` over HTTP: read only, GET and HEAD alone.
//
// libmicrohttpd serves from one thread of its own. Bounds: 16 connections, 10 seconds of
// silence, 32 KiB of memory a connection beside the page.
#pragma once

#include <functional>
#include <string>

struct MHD_Daemon;

namespace agent {

class metrics_server {
 public:
  static constexpr unsigned kMaxConnections = 16;
  static constexpr unsigned kTimeoutSeconds = 10;

  /// `page` is called on the server's thread; it may throw std::bad_alloc.
  explicit metrics_server(std::function<std::string()> page);
  ~metrics_server();
  metrics_server(const metrics_server &) = delete;
  metrics_server &operator=(const metrics_server &) = delete;

  /// Listens on "ADDRESS:PORT", or on 127.0.0.1 for "PORT". An empty string, or what failed. Port 0
  /// takes a free one; the diagnostics tell which.
  std::string listen(const std::string &address_port);
  /// Returns when no request is being served.
  void close();
  bool is_open() const { return daemon_ != nullptr; }

  std::string page() const { return page_(); }

 private:
  const std::function<std::string()> page_;
  MHD_Daemon *daemon_ = nullptr;
};

}  // namespace agent
