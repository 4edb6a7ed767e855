// Lines from a descriptor that is read when it is ready, so that nothing waits inside stdio.
//
// One thread uses it. A line ends with "\n" or "\r\n". One longer than the limit is given cut, and
// says so.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace agent {

class line_reader {
 public:
  static constexpr size_t kMaxLine = 65536;
  /// What to tell of a line with more.
  static std::string too_long_text();

  explicit line_reader(int fd, size_t limit = kMaxLine);

  /// Reads what is there, once. False at the end, also when reading fails.
  bool read_some();
  int error() const { return error_; }  ///< errno of the reading that failed, or 0

  /// The next whole line without its end; at the end of input also one without an end. It may throw
  /// std::bad_alloc; then the line is lost.
  std::optional<std::string> next();

  size_t number() const { return number_; }  ///< of the line that next() gave, from 1
  bool too_long() const { return too_long_; }

 private:
  static constexpr size_t kRead = 4096;

  const int fd_;
  const size_t limit_;
  std::string pending_;
  size_t searched_ = 0;  ///< so far without a line's end
  size_t number_ = 0;
  int error_ = 0;
  bool at_end_ = false;
  bool cutting_ = false;  ///< the rest of a line that was too long is still to come
  bool too_long_ = false;
};

}  // namespace agent
