// Sockets are read when poll() says so, 64 KiB a turn, so that no router keeps the RIB thread from
// the others. Recordings are read on the caller's thread, which may block on a pipe, and handed
// over chunk by chunk, so that dumps and other jobs have their turn in between.
#include "agent/bmp_station.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>

#include "agent/bmp_session.h"
#include "agent/diagnostics.h"
#include "agent/rib_thread.h"

namespace agent {
namespace {

constexpr size_t kChunk = 64 * 1024;
constexpr size_t kEndedKept = 64;

// How long a connection's other views may bring routes before the chosen one is called empty: a
// router sends its views one after the other.
constexpr time_t kViewPatience = 10;

std::string error_text(const char *call) { return std::string(call) + ": " + strerror(errno); }

// One write, so that the lines of different threads don't mix.
void tell(const std::string &text) { diagnose("tarvo-agent: " + text); }

std::string endpoint_text(const sockaddr_in &address) {
  char text[INET_ADDRSTRLEN];
  inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
  return std::string(text) + ":" + std::to_string(ntohs(address.sin_port));
}

// Reads "ADDRESS:PORT", ":PORT" or "PORT"; says what is wrong with it, or nothing.
std::string parse_endpoint(const std::string &text, sockaddr_in &endpoint) {
  const size_t colon = text.rfind(':');
  const std::string address = colon == std::string::npos ? "" : text.substr(0, colon);
  const std::string port = colon == std::string::npos ? text : text.substr(colon + 1);

  uint16_t number = 0;
  const char *const end = port.data() + port.size();
  const auto [stop, error] = std::from_chars(port.data(), end, number);
  if (error != std::errc() || stop != end) return "'" + port + "' is no port from 0 to 65535";

  endpoint = {};
  endpoint.sin_family = AF_INET;
  endpoint.sin_port = htons(number);
  if (address.empty())
    endpoint.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  else if (inet_pton(AF_INET, address.c_str(), &endpoint.sin_addr) != 1)
    return "'" + address + "' is no IPv4 address";
  return "";
}

// A listening socket, or -1 with errno.
int open_listener(const sockaddr_in &endpoint) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  const auto *const address = reinterpret_cast<const sockaddr *>(&endpoint);
  if (bind(fd, address, sizeof endpoint) == 0 && listen(fd, SOMAXCONN) == 0) return fd;
  const int error = errno;
  close(fd);
  errno = error;
  return -1;
}

// BMP routers only send. Without probes, one that vanished would hold its place for ever.
void keep_alive(int fd) {
  const int on = 1, idle = 60, interval = 10, probes = 3;
  setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
  setsockopt(fd, IPPROTO_TCP, TCP_KEEPIDLE, &idle, sizeof idle);
  setsockopt(fd, IPPROTO_TCP, TCP_KEEPINTVL, &interval, sizeof interval);
  setsockopt(fd, IPPROTO_TCP, TCP_KEEPCNT, &probes, sizeof probes);
}

int open_spare() { return open("/dev/null", O_RDONLY | O_CLOEXEC); }

}  // namespace

struct bmp_station::connection {
  connection(int socket, rib &routes, bmp_view view, const std::string &router)
      : fd(socket), session(routes, view, bmp_session::source_kind::connection, router, tell) {}
  ~connection() {
    ::close(fd);
    if (view_timer >= 0) ::close(view_timer);
  }
  connection(const connection &) = delete;
  connection &operator=(const connection &) = delete;

  const int fd;
  int view_timer = -1;
  bmp_session session;
};

bmp_station::bmp_station(rib &routes, rib_thread &loop, bmp_view view)
    : routes_(routes), loop_(loop), view_(view), chunk_(kChunk), spare_fd_(open_spare()) {}

bmp_station::~bmp_station() {
  loop_.call([this] {
    for (const int fd : listeners_) {
      loop_.remove_fd(fd);
      ::close(fd);
    }
    for (const auto &open : connections_) forget(*open);
    connections_.clear();
  });
  if (spare_fd_ >= 0) ::close(spare_fd_);
}

std::string bmp_station::listen(const std::string &address_port) {
  sockaddr_in endpoint;
  const std::string wrong = parse_endpoint(address_port, endpoint);
  if (!wrong.empty()) return "listen on " + address_port + ": " + wrong;
  const int fd = open_listener(endpoint);
  if (fd < 0) return error_text(("listen on " + address_port).c_str());

  socklen_t size = sizeof endpoint;
  getsockname(fd, reinterpret_cast<sockaddr *>(&endpoint), &size);
  tell("listening on " + endpoint_text(endpoint));
  loop_.call([this, fd] {
    listeners_.push_back(fd);
    loop_.add_fd(fd, POLLIN, [this, fd](short) { accept_ready(fd); });
  });
  return "";
}

void bmp_station::accept_ready(int listening_fd) {
  sockaddr_in peer{};
  socklen_t size = sizeof peer;
  const int fd = accept4(listening_fd, reinterpret_cast<sockaddr *>(&peer), &size,
                         SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (fd < 0) {
    if (errno == EMFILE || errno == ENFILE) shed_connection(listening_fd);
    return;  // all else is the connection's own end, before it was accepted
  }
  const std::string router = endpoint_text(peer);
  if (connections_.size() >= kMaxConnections) {
    ::close(fd);
    return tell_full(router + ": " + std::to_string(kMaxConnections) + " sessions are open");
  }

  keep_alive(fd);
  connections_.push_back(std::make_unique<connection>(fd, routes_, view_, router));
  connection &from = *connections_.back();
  loop_.add_fd(fd, POLLIN, [this, &from](short) { connection_ready(from); });
}

// Without a descriptor to accept it on, a waiting connection would wake the loop for ever.
void bmp_station::shed_connection(int listening_fd) {
  const std::string why = error_text("accept");
  ::close(spare_fd_);
  const int fd = accept4(listening_fd, nullptr, nullptr, SOCK_CLOEXEC);
  if (fd >= 0) ::close(fd);
  spare_fd_ = open_spare();
  tell_full(why);
}

// Once until a session ends.
void bmp_station::tell_full(const std::string &why) {
  if (!told_full_) tell(why + "; further connections are closed");
  told_full_ = true;
}

void bmp_station::connection_ready(connection &from) {
  const ssize_t size = read(from.fd, chunk_.data(), chunk_.size());
  if (size < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (size < 0) return end(from, error_text("read"));
  if (size == 0) return end(from, "");
  if (!from.session.feed({chunk_.data(), static_cast<size_t>(size)})) return end(from, "");
  if (from.session.view_in_doubt() && from.view_timer < 0) start_view_timer(from);
}

void bmp_station::start_view_timer(connection &from) {
  from.view_timer = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
  if (from.view_timer < 0) return;  // tried again at the next message
  const itimerspec once{.it_interval = {}, .it_value = {kViewPatience, 0}};
  timerfd_settime(from.view_timer, 0, &once, nullptr);
  loop_.add_fd(from.view_timer, POLLIN, [this, &from](short) {
    stop_view_timer(from);
    from.session.report_empty_view();
  });
}

void bmp_station::stop_view_timer(connection &from) {
  if (from.view_timer < 0) return;
  loop_.remove_fd(from.view_timer);
  ::close(from.view_timer);
  from.view_timer = -1;
}

void bmp_station::forget(connection &from) {
  stop_view_timer(from);
  loop_.remove_fd(from.fd);
}

void bmp_station::end(connection &from, const std::string &error) {
  from.session.finish(error);
  forget(from);
  ended_.push_back(from.session.info());
  if (ended_.size() > kEndedKept) ended_.pop_front();
  told_full_ = false;
  std::erase_if(connections_, [&](const auto &open) { return open.get() == &from; });
}

std::string bmp_station::replay(const std::string &path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return error_text(path.c_str());

  bmp_session *session = nullptr;
  loop_.call([&] {
    recordings_.push_back(std::make_unique<bmp_session>(
        routes_, view_, bmp_session::source_kind::recording, path, tell));
    session = recordings_.back().get();
  });

  std::vector<uint8_t> chunk(kChunk);
  std::string error;
  for (bool more = true; more;) {
    const ssize_t size = read(fd, chunk.data(), chunk.size());
    if (size < 0 && errno == EINTR) continue;
    if (size < 0) error = error_text("read");
    more = size > 0;
    if (!more) break;
    loop_.call([&] { more = session->feed({chunk.data(), static_cast<size_t>(size)}); });
  }
  ::close(fd);
  loop_.call([&] {
    session->finish(error);
    error = session->stream_error();
  });
  return error.empty() ? "" : path + ": " + error;
}

std::vector<session_info> bmp_station::sessions() {
  std::vector<session_info> all;
  loop_.call([&] {
    for (const auto &recording : recordings_) all.push_back(recording->info());
    all.insert(all.end(), ended_.begin(), ended_.end());
    for (const auto &open : connections_) all.push_back(open->session.info());
  });
  return all;
}

}  // namespace agent
