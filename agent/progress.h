// Progress of long work: one line rewritten on a terminal, else a line every few seconds.
//
// Work that is done soon tells nothing. The thread that does the work uses it; it never waits for
// whoever reads.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace agent {

class progress {
 public:
  using time_point = std::chrono::steady_clock::time_point;
  using clock = std::function<time_point()>;
  /// Gets lines with their ends, and on a terminal what rewrites the last one.
  using sink = std::function<void(std::string_view text)>;

  /// How often a line is told, and how long work lasts at least that is told of.
  static constexpr std::chrono::milliseconds kTerminalPeriod{500};
  static constexpr std::chrono::milliseconds kLinePeriod{5000};

  progress(bool terminal, clock now, sink show)
      : terminal_(terminal), now_(std::move(now)), show_(std::move(show)) {}

  /// Work on `what` begins; it is counted in `unit`.
  void begin(std::string what, std::string unit);
  /// So much is done in all. As often as one likes.
  void update(uint64_t done);
  /// All is done. Tells of the whole, if anything was told before.
  void end(uint64_t done);

 private:
  void tell(time_point now);

  const bool terminal_;
  const clock now_;
  const sink show_;
  std::string what_;
  std::string unit_;
  time_point begun_;
  time_point told_;
  uint64_t done_ = 0;
  bool shown_ = false;
};

}  // namespace agent
