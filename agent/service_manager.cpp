#include "agent/service_manager.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "agent/descriptor.h"
#include "platform/thread_diag.h"

namespace agent {

void notify_service(std::string_view state, std::chrono::microseconds patience) noexcept {
  const char *path = getenv("NOTIFY_SOCKET");
  if (path == nullptr || (*path != '/' && *path != '@')) return;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const size_t length = strlen(path);
  if (length >= sizeof address.sun_path) return;
  memcpy(address.sun_path, path, length);
  if (*path == '@') address.sun_path[0] = '\0';  // a name outside the file system

  const descriptor fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
  const timeval limit{patience.count() / 1000000, patience.count() % 1000000};
  setsockopt(fd.number, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  while (sendto(fd.number, state.data(), state.size(), MSG_NOSIGNAL,
                reinterpret_cast<const sockaddr *>(&address), size) < 0 &&
         errno == EINTR) {
  }
}

std::chrono::microseconds watchdog_limit() {
  const char *limit = getenv("WATCHDOG_USEC"), *process = getenv("WATCHDOG_PID");
  if (limit == nullptr) return {};
  if (process != nullptr && strtol(process, nullptr, 10) != getpid()) return {};
  return std::chrono::microseconds(strtoll(limit, nullptr, 10));
}

watchdog::watchdog(std::chrono::microseconds limit, std::function<bool()> alive)
    : period_(std::max(limit / 3, std::chrono::microseconds(1))),
      alive_(std::move(alive)),
      thread_([this] { run(); }) {}

watchdog::~watchdog() {
  {
    scoped_lock held(lock_);
    stop_ = true;
  }
  stopped_.notify_all();
  thread_.join();
}

void watchdog::run() {
  set_thread_name("watchdog", pthread_self());
  for (;;) {
    if (alive_()) notify_service("WATCHDOG=1", std::min(period_, kManagerPatience));
    scoped_lock held(lock_);
    const auto next = std::chrono::steady_clock::now() + period_;
    while (!stop_ && stopped_.wait_until(lock_, next) != std::cv_status::timeout) {
    }
    if (stop_) break;
  }
  remove_thread_name(nullptr);
}

}  // namespace agent
