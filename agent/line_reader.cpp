#include "agent/line_reader.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <new>

namespace agent {

// What isn't a whole line yet is no longer than the limit: reading never allocates.
line_reader::line_reader(int fd, size_t limit) : fd_(fd), limit_(limit) {
  pending_.reserve(limit + kRead + 2);
}

bool line_reader::read_some() {
  std::array<char, kRead> chunk;
  const ssize_t got = read(fd_, chunk.data(), chunk.size());
  if (got < 0 && (errno == EINTR || errno == EAGAIN)) return true;
  if (got > 0) {
    pending_.append(chunk.data(), static_cast<size_t>(got));
  } else {
    at_end_ = true;
    error_ = got < 0 ? errno : 0;
  }
  return !at_end_;
}

std::string line_reader::too_long_text() {
  return "the line has more than " + std::to_string(kMaxLine) + " characters";
}

std::optional<std::string> line_reader::next() {
  size_t end = pending_.find('\n', searched_);
  if (cutting_) {
    pending_.erase(0, end == std::string::npos ? end : end + 1);
    if (end == std::string::npos) return std::nullopt;
    cutting_ = false;
    end = pending_.find('\n');
  }
  const bool whole = end != std::string::npos;
  const size_t size = whole ? end : pending_.size();
  const size_t length = size - (size > 0 && pending_[size - 1] == '\r' ? 1 : 0);
  too_long_ = length > limit_;
  searched_ = size;
  if (!whole && !too_long_ && (!at_end_ || pending_.empty())) return std::nullopt;

  ++number_;
  std::optional<std::string> line;
  bool lost = false;
  try {
    line.emplace(pending_, 0, std::min(length, limit_));
  } catch (const std::bad_alloc &) {
    lost = true;
  }
  cutting_ = !whole && !at_end_;
  pending_.erase(0, whole ? end + 1 : size);
  searched_ = 0;
  if (lost) throw std::bad_alloc();
  return line;
}

}  // namespace agent
