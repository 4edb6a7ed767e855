// Sockets are read when poll() says so, 64 KiB a turn, so that no router keeps the RIB thread from
// the others. Recordings are read on the caller's thread, which may wait for a pipe, and handed
// over chunk by chunk, so that dumps and other jobs have their turn in between.
#include "agent/bmp_station.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <new>
#include <optional>
#include <utility>

#include "agent/bmp_session.h"
#include "agent/diagnostics.h"
#include "agent/endpoint.h"
#include "agent/rib_thread.h"

namespace agent {
namespace {

constexpr size_t kChunk = 64 * 1024;
constexpr size_t kEndedKept = 64;

// How long a connection's other views may bring routes before the chosen one is called empty: a
// router sends its views one after the other.
constexpr std::chrono::seconds kViewPatience{10};

// How often the connections are looked after, at the least.
constexpr std::chrono::milliseconds kTick{1000};

// A router sends its table in one go: it is whole when so many ticks have gone by, and fewer routes
// than this came between any two of them. One tick may fall short, or come before what has waited.
constexpr int kQuietTicks = 3;
constexpr uint64_t kTrickle = 100;

using steady = std::chrono::steady_clock;

std::string error_text(const char *call, int error = errno) {
  return std::string(call) + ": " + strerror(error);
}

// One write, so that the lines of different threads don't mix.
void tell(const std::string &text) { diagnose("tarvo-agent: " + text); }

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

descriptor open_spare() { return descriptor(open("/dev/null", O_RDONLY | O_CLOEXEC)); }

// What a new connection brings, told while it comes. By lines, since several come at once.
class first_table {
 public:
  first_table(const std::string &router, progress::clock now)
      : label_("tarvo-agent: " + router), line_(false, std::move(now), show_status) {}

  void read(uint64_t routes) {
    if (state_ == awaited && routes != 0) {
      line_.begin(std::move(label_), "routes read");
      state_ = coming;
    }
    if (state_ == coming) line_.update(routes);
  }
  void tick(uint64_t routes) {
    quiet_ = state_ == coming && routes - ticked_ < kTrickle ? quiet_ + 1 : 0;
    if (quiet_ == kQuietTicks) end(routes);
    ticked_ = routes;
  }
  void end(uint64_t routes) {
    if (state_ == coming) line_.end(routes);
    state_ = whole;
  }

 private:
  std::string label_;
  progress line_;
  enum { awaited, coming, whole } state_ = awaited;
  uint64_t ticked_ = 0;  // routes at the last tick
  int quiet_ = 0;        // ticks
};

}  // namespace

struct bmp_station::connection {
  connection(descriptor socket, rib &routes, bmp_view view, const std::string &router,
             const progress::clock &now)
      : fd(std::move(socket)),
        session(routes, view, bmp_session::source_kind::connection, router, tell),
        table(router, now) {}

  const descriptor fd;
  bmp_session session;
  first_table table;
  uint64_t messages = 0;                         // of the session, when it was last read
  steady::time_point heard = steady::now();      // when a message last began or was complete
  std::optional<steady::time_point> view_doubt;  // since when the chosen view seems empty
};

bmp_station::bmp_station(rib &routes, rib_thread &loop, bmp_view view, milliseconds idle,
                         progress::clock table_clock)
    : routes_(routes),
      loop_(loop),
      view_(view),
      idle_(idle),
      table_clock_(std::move(table_clock)),
      chunk_(kChunk),
      spare_(open_spare()) {
  connections_.reserve(kMaxConnections);
}

bmp_station::~bmp_station() {
  loop_.call([this] {
    for (const descriptor &fd : listeners_) loop_.remove_fd(fd.number);
    for (const auto &open : connections_) loop_.remove_fd(open->fd.number);
    loop_.remove_fd(ticks_.number);
    listeners_.clear();
    connections_.clear();
    ticks_ = {};
  });
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
  std::string error;
  loop_.call([&] {
    listeners_.emplace_back(fd);
    resting_.reserve(listeners_.size());
    watch_listener(fd);
    error = start_ticking();
  });
  return error;
}

void bmp_station::watch_listener(int fd) {
  loop_.add_fd(fd, POLLIN, [this, fd](short) { accept_ready(fd); });
}

// ---- Once in a while ----

std::string bmp_station::start_ticking() {
  if (ticks_.number >= 0) return "";
  ticks_ = descriptor(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
  if (ticks_.number < 0) return error_text("timerfd_create");
  const milliseconds every =
      idle_.count() == 0 ? kTick : std::clamp(idle_ / 4, milliseconds(1), kTick);
  const timespec period{every.count() / 1000, every.count() % 1000 * 1000000};
  const itimerspec timer{.it_interval = period, .it_value = period};
  timerfd_settime(ticks_.number, 0, &timer, nullptr);
  loop_.add_fd(ticks_.number, POLLIN, [this](short) { tick(); });
  return "";
}

void bmp_station::tick() {
  uint64_t expirations;
  [[maybe_unused]] const ssize_t size = read(ticks_.number, &expirations, sizeof expirations);
  for (; !resting_.empty(); resting_.pop_back()) watch_listener(resting_.back());
  // From the end, since ending one takes it out.
  for (size_t i = connections_.size(); i-- > 0;) {
    try {
      check(*connections_[i]);
    } catch (const std::bad_alloc &) {  // at the next tick
    }
  }
}

void bmp_station::check(connection &open) {
  open.table.tick(open.session.routes_read());
  const auto now = steady::now();
  if (idle_.count() != 0 && !open.session.may_be_silent() && now - open.heard >= idle_) {
    const auto seconds = std::chrono::duration<double>(idle_).count();
    return end(open,
               "no complete message for " + std::to_string(std::lround(seconds)) + " seconds");
  }
  if (!open.session.view_in_doubt())
    open.view_doubt.reset();
  else if (!open.view_doubt)
    open.view_doubt = now;
  else if (now - *open.view_doubt >= kViewPatience)
    open.session.report_empty_view();
}

// ---- Connections ----

void bmp_station::accept_ready(int listening_fd) {
  sockaddr_in peer{};
  socklen_t size = sizeof peer;
  descriptor fd(accept4(listening_fd, reinterpret_cast<sockaddr *>(&peer), &size,
                        SOCK_NONBLOCK | SOCK_CLOEXEC));
  if (fd.number >= 0) {
    told_resting_ = false;
    try {
      return accepted(std::move(fd), endpoint_text(peer));
    } catch (const std::bad_alloc &) {
      return diagnose("tarvo-agent: out of memory; a connection was closed");
    }
  }
  if (errno == EMFILE || errno == ENFILE) return shed_connection(listening_fd);
  // The connection's own end, before it was accepted.
  if (errno == EAGAIN || errno == EINTR || errno == ECONNABORTED) return;
  rest_listener(listening_fd, errno);
}

void bmp_station::accepted(descriptor fd, const std::string &router) {
  if (connections_.size() >= kMaxConnections)
    return tell_full(router + ": " + std::to_string(kMaxConnections) + " sessions are open");

  keep_alive(fd.number);
  const std::string connected = router + ": connected";
  auto fresh = std::make_unique<connection>(std::move(fd), routes_, view_, router, table_clock_);
  connection &from = *fresh;
  loop_.add_fd(from.fd.number, POLLIN, [this, &from](short) { connection_ready(from); });
  connections_.push_back(std::move(fresh));  // there is room
  tell(connected);
}

// Without a descriptor to accept it on, a waiting connection would wake the loop for ever.
void bmp_station::shed_connection(int listening_fd) {
  const int error = errno;
  spare_ = {};
  const bool shed = descriptor(accept4(listening_fd, nullptr, nullptr, SOCK_CLOEXEC)).number >= 0;
  spare_ = open_spare();
  if (!shed) return rest_listener(listening_fd, error);
  tell_full(error_text("accept", error));
}

// So would a failure that stays. Told once until a connection is accepted.
void bmp_station::rest_listener(int listening_fd, int error) {
  resting_.push_back(listening_fd);  // there is room
  loop_.remove_fd(listening_fd);
  if (std::exchange(told_resting_, true)) return;
  tell(error_text("accept", error) + "; trying again every second");
}

// Once until a session ends.
void bmp_station::tell_full(const std::string &why) {
  if (!std::exchange(told_full_, true)) tell(why + "; further connections are closed");
}

void bmp_station::connection_ready(connection &from) {
  const ssize_t size = read(from.fd.number, chunk_.data(), chunk_.size());
  if (size < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (size < 0) return end(from, error_text("read"));
  if (size == 0) return end(from, "");

  const bool begins = from.session.between_messages();
  if (!from.session.feed({chunk_.data(), static_cast<size_t>(size)})) return end(from, "");
  from.table.read(from.session.routes_read());
  if (begins || from.session.messages() != from.messages) from.heard = steady::now();
  from.messages = from.session.messages();
}

void bmp_station::end(connection &from, const std::string &error) {
  from.table.end(from.session.routes_read());
  from.session.finish(error);
  loop_.remove_fd(from.fd.number);
  try {
    ended_.push_back(from.session.info());
    const session_info &last = ended_.back();
    ended_totals_.add(last);
    tell(last.router + ": ended, " + std::to_string(last.messages) + " messages");
    if (ended_.size() > kEndedKept) ended_.pop_front();
  } catch (const std::bad_alloc &) {  // the account of it is all that is lost
  }
  told_full_ = false;
  std::erase_if(connections_, [&](const auto &open) { return open.get() == &from; });
}

std::string bmp_station::replay(const std::string &path, progress *reading, const awaiter &await) {
  // Opening a pipe must not wait for its writer either.
  const descriptor fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | (await ? O_NONBLOCK : 0)));
  if (fd.number < 0) return error_text(path.c_str());

  bmp_session *session = nullptr;
  loop_.call([&] {
    recordings_.push_back(std::make_unique<bmp_session>(
        routes_, view_, bmp_session::source_kind::recording, path, tell));
    session = recordings_.back().get();
  });

  std::vector<uint8_t> chunk(kChunk);
  std::string error;
  uint64_t routes = 0;
  ssize_t size = 0;
  bool more = true;
  // Made once, since it takes memory: a recording once begun is read to its end.
  const std::function<void()> feed = [&] {
    more = session->feed({chunk.data(), static_cast<size_t>(size)});
    routes = session->routes_read();
  };
  if (reading != nullptr) reading->begin(path, "routes read");
  while (more) {
    if (await && !await(fd.number)) {
      error = "not read to its end";
      break;
    }
    size = read(fd.number, chunk.data(), chunk.size());
    if (size < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (size < 0) error = error_text("read");
    more = size > 0;
    if (!more) break;
    loop_.call(feed);
    if (reading != nullptr) reading->update(routes);
  }
  if (reading != nullptr) reading->end(routes);
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

void session_totals::add(const session_info &session) {
  up += session.up ? 1 : 0;
  peers += session.up ? session.peers : 0;
  ++opened;
  messages += session.messages;
  routes_read += session.routes_read;
  for (const auto &[kind, count] : session.malformed) malformed[kind] += count;
  skipped.other_views += session.skipped.other_views;
  skipped.ipv6_nexthop += session.skipped.ipv6_nexthop;
  skipped.vrf_unicast += session.skipped.vrf_unicast;
  skipped.over_limit += session.skipped.over_limit;
  skipped.rib_full += session.skipped.rib_full;
}

session_totals bmp_station::totals() {
  session_totals all;
  loop_.call([&] {
    all = ended_totals_;
    for (const auto &recording : recordings_) all.add(recording->info());
    for (const auto &open : connections_) all.add(open->session.info());
  });
  return all;
}

void bmp_station::name_sources(std::map<source_id, route_origin> &wanted) const {
  for (const auto &recording : recordings_) recording->name_sources(wanted);
  for (const auto &open : connections_) open->session.name_sources(wanted);
}

}  // namespace agent
