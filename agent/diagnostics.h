// Diagnostics: lines on standard error from threads that must not wait for its reader.
#pragma once

#include <poll.h>

#include <span>
#include <string_view>

namespace agent {

/// Writes one line after its head, whole, unless standard error takes none now: then the line is
/// dropped and counted, and the next one that goes out is preceded by how many were. A line is cut
/// at 4,000 characters. Any thread; never throws.
void diagnose(std::string_view line, std::string_view head = {}) noexcept;

/// Writes text as it is, unless standard error takes none now. Any thread; never throws.
void show_status(std::string_view text) noexcept;

/// poll(), which gives 0 when it is interrupted or fails. A failure is told once until poll() works
/// again, and slowed down: whoever polls in a loop goes on. One thread for each `told`.
int poll_or_tell(std::span<pollfd> fds, int timeout_ms, bool &told);

}  // namespace agent
