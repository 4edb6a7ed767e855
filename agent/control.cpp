#include "agent/control.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <new>
#include <optional>
#include <thread>
#include <utility>
#include <variant>

#include "agent/diagnostics.h"
#include "agent/json.h"
#include "agent/line_reader.h"

namespace agent {

namespace {

std::string error_text(const std::string &what) { return what + ": " + strerror(errno); }

/// Who connected, for the diagnostics.
std::string name_of(int fd) {
  ucred peer{};
  socklen_t size = sizeof peer;
  getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size);
  return "control client (process " + std::to_string(peer.pid) + ", user " +
         std::to_string(peer.uid) + ")";
}

/// The form of answers that a line asks for.
std::optional<show_as> form_asked_for(const std::string &line) {
  const auto parsed = parse_command(line);
  const auto *c = std::get_if<command>(&parsed);
  if (c == nullptr || (c->what != verb::answer_json && c->what != verb::answer_text))
    return std::nullopt;
  return c->what == verb::answer_json ? show_as::object : show_as::table;
}

/// Removes the socket that nobody listens on any more. What stands in the way else, or nothing.
std::string remove_stale(const std::string &path, const sockaddr_un &address) {
  struct stat found {};
  if (lstat(path.c_str(), &found) != 0) return error_text(path);
  if (!S_ISSOCK(found.st_mode)) return path + ": exists and is no socket";
  const descriptor probe(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (connect(probe.number, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0)
    return path + ": another process listens there";
  if (errno != ECONNREFUSED) return error_text(path);
  return unlink(path.c_str()) == 0 ? "" : error_text(path);
}

/// The file has its mode from the beginning, so that nobody slips in before. False with errno.
bool bind_with_mode(int fd, const sockaddr_un &address, mode_t mode) {
  const mode_t before = umask(0777 & ~mode);
  const bool bound = bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
  umask(before);
  return bound;
}

}  // namespace

struct control::client {
  explicit client(descriptor socket)
      : fd(std::move(socket)), name(name_of(fd.number)), in(fd.number) {}

  descriptor fd;
  const std::string name;
  line_reader in;
  std::string answer;  ///< from `sent` on not yet taken
  size_t sent = 0;
  show_as as = show_as::table;
  bool at_end = false;  ///< nothing more is read
  bool left = false;    ///< nothing more is answered

  bool owed() const { return sent < answer.size(); }
};

control::control(runner run) : run_(std::move(run)) {}

control::~control() { close(); }

void control::close() {
  struct stat found {};
  if (is_open() && lstat(path_.c_str(), &found) == 0 && found.st_dev == device_ &&
      found.st_ino == inode_)
    unlink(path_.c_str());
  listener_ = {};
  clients_.clear();
}

std::string control::open(const std::string &path, mode_t mode) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path)
    return "'" + path + "': a socket's path has 1 to " +
           std::to_string(sizeof address.sun_path - 1) + " characters";
  memcpy(address.sun_path, path.data(), path.size());

  descriptor fd(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (fd.number < 0) return error_text("socket");
  if (!bind_with_mode(fd.number, address, mode)) {
    if (errno != EADDRINUSE) return error_text(path);
    const std::string in_the_way = remove_stale(path, address);
    if (!in_the_way.empty()) return in_the_way;
    if (!bind_with_mode(fd.number, address, mode)) return error_text(path);
  }
  struct stat made {};
  if (lstat(path.c_str(), &made) != 0 || listen(fd.number, SOMAXCONN) != 0) return error_text(path);
  device_ = made.st_dev;
  inode_ = made.st_ino;
  path_ = path;
  listener_ = std::move(fd);
  return {};
}

void control::add_polled(std::vector<pollfd> &fds) const {
  fds.push_back({listener_.number, POLLIN, 0});
  for (const auto &c : clients_)
    fds.push_back({c->fd.number, short(c->owed() ? POLLOUT : POLLIN), 0});
}

void control::serve(std::span<const pollfd> polled) {
  for (size_t i = 1; i < polled.size(); ++i) {
    if (polled[i].revents == 0) continue;
    client &of = *clients_[i - 1];
    try {
      serve_client(of);
    } catch (const std::bad_alloc &) {
      drop(of, "out of memory");
    }
  }
  std::erase_if(clients_, [](const auto &c) { return c->fd.number < 0; });
  if (polled[0].revents == 0) return;
  try {
    accept_ready();
  } catch (const std::bad_alloc &) {
    diagnose("tarvo-agent: control: out of memory; a connection was closed");
  }
}

void control::accept_ready() {
  constexpr std::chrono::milliseconds kPause{100};
  descriptor fd(accept4(listener_.number, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
  if (fd.number < 0) {
    if (errno == EAGAIN || errno == EINTR || errno == ECONNABORTED) return;
    // The connection still waits, and poll() would say so at once.
    if (!std::exchange(told_accept_, true)) diagnose(error_text("tarvo-agent: control: accept"));
    std::this_thread::sleep_for(kPause);
    return;
  }
  told_accept_ = false;
  if (clients_.size() < kMaxClients) {
    clients_.push_back(std::make_unique<client>(std::move(fd)));
    return;
  }
  const std::string full = "error: " + std::to_string(kMaxClients) + " clients are connected\n\n";
  send(fd.number, full.data(), full.size(), MSG_NOSIGNAL);
}

void control::serve_client(client &of) {
  if (of.owed())
    send_some(of);
  else
    of.at_end = !of.in.read_some();
  while (of.fd.number >= 0 && !of.owed() && !of.left) {
    const auto line = of.in.next();
    if (!line) break;
    answer_line(of, *line, of.in.too_long());
    send_some(of);
  }
  if (!of.owed() && (of.at_end || of.left)) of.fd = {};
}

void control::answer_line(client &of, const std::string &line, bool too_long) {
  answer given;
  if (too_long)
    given.error = {line_reader::kMaxLine + 1, line_reader::too_long_text()};
  else if (const auto form = form_asked_for(line))
    of.as = *form;
  else
    given = run_(line, of.as);
  if (!given.error.text.empty()) given.lines += show_refusal(of.as, given.error);
  of.answer = std::move(given.lines) + '\n';
  of.sent = 0;
  of.left = given.leave;
}

void control::send_some(client &to) {
  if (to.fd.number < 0) return;
  const ssize_t sent = send(to.fd.number, to.answer.data() + to.sent, to.answer.size() - to.sent,
                            MSG_NOSIGNAL | MSG_DONTWAIT);
  if (sent < 0 && errno != EAGAIN && errno != EINTR) {
    to.fd = {};  // it left
    return;
  }
  to.sent += sent > 0 ? static_cast<size_t>(sent) : 0;
  const size_t owed = to.answer.size() - to.sent;
  if (owed > kMaxUnsent) drop(to, std::to_string(owed) + " bytes of an answer not taken");
  if (owed == 0) std::string().swap(to.answer), to.sent = 0;
}

void control::drop(client &of, const std::string &why) {
  of.fd = {};
  try {
    diagnose("tarvo-agent: " + of.name + ": " + why + "; closed");
  } catch (const std::bad_alloc &) {
    diagnose("tarvo-agent: control: out of memory; a connection was closed");
  }
}

}  // namespace agent
