#include "agent/diagnostics.h"

#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <string>

namespace agent {

static std::atomic<unsigned> dropped{0};

// A pipe that polls as writable takes up to PIPE_BUF bytes at once, so the write does not wait.
static bool write_now(std::string_view text) {
  pollfd ready{STDERR_FILENO, POLLOUT, 0};
  if (poll(&ready, 1, 0) != 1 || (ready.revents & POLLOUT) == 0) return false;
  return write(STDERR_FILENO, text.data(), text.size()) >= 0;
}

void diagnose(std::string_view line) {
  constexpr size_t kLongest = 4000;
  std::string text;
  const unsigned lost = dropped.exchange(0);
  if (lost != 0) text = "tarvo-agent: " + std::to_string(lost) + " lines lost\n";
  text += line.substr(0, kLongest);
  text += '\n';
  if (!write_now(text)) dropped += lost + 1;
}

}  // namespace agent
