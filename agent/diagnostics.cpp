#include "agent/diagnostics.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>
#include <thread>
#include <utility>

namespace agent {

static std::atomic<unsigned> dropped{0};

// A pipe that polls as writable takes up to PIPE_BUF bytes at once, so the write does not wait.
static bool write_now(std::string_view text) {
  pollfd ready{STDERR_FILENO, POLLOUT, 0};
  const int polled = poll(&ready, 1, 0);
  // If poll() itself fails, a line that may wait is better than none.
  if (polled == 0 || (polled > 0 && (ready.revents & POLLOUT) == 0)) return false;
  return write(STDERR_FILENO, text.data(), text.size()) >= 0;
}

void diagnose(std::string_view line, std::string_view head) noexcept {
  constexpr size_t kLongest = 4000;
  const unsigned lost = dropped.exchange(0);
  try {
    std::string text;
    if (lost != 0) text = "tarvo-agent: " + std::to_string(lost) + " lines lost\n";
    text += head;
    text += line.substr(0, kLongest);
    text += '\n';
    if (write_now(text)) return;
  } catch (const std::bad_alloc &) {
  }
  dropped += lost + 1;
}

void show_status(std::string_view text) noexcept { write_now(text); }

int poll_or_tell(std::span<pollfd> fds, int timeout_ms, bool &told) {
  constexpr std::chrono::milliseconds kPause{100};
  const int ready = poll(fds.data(), fds.size(), timeout_ms);
  if (ready >= 0) told = false;
  if (ready >= 0 || errno == EINTR) return ready > 0 ? ready : 0;
  if (!std::exchange(told, true)) {
    char line[128];  // on the stack: it must not throw
    snprintf(line, sizeof line, "tarvo-agent: poll: %s; trying again", strerror(errno));
    diagnose(line);
  }
  std::this_thread::sleep_for(kPause);
  return 0;
}

}  // namespace agent
