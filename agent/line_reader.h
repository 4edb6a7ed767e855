// Lines from a descriptor that is read when it is ready, so that nothing waits inside stdio.
//
// One thread uses it. A line longer than kMaxLine is given cut, and says so.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace agent {

class line_reader {
 public:
  static constexpr size_t kMaxLine = 65536;

  explicit line_reader(int fd) : fd_(fd) {}

  /// Reads what is there, once. False at the end, also when reading fails.
  bool read_some();

  /// The next whole line without its end; at the end of input also one without an end.
  std::optional<std::string> next();

  size_t number() const { return number_; }  ///< of the line that next() gave, from 1
  bool too_long() const { return too_long_; }

 private:
  int fd_;
  std::string pending_;
  size_t number_ = 0;
  bool at_end_ = false;
  bool cutting_ = false;  ///< the rest of a line that was too long is still to come
  bool too_long_ = false;
};

}  // namespace agent
