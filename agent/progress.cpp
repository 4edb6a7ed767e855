#include "agent/progress.h"

#include <new>
#include <utility>

#include "agent/text.h"

namespace agent {

void progress::begin(std::string what, std::string unit) {
  what_ = std::move(what);
  unit_ = std::move(unit);
  begun_ = told_ = now_();
  done_ = 0;
  shown_ = false;
}

void progress::update(uint64_t done) {
  done_ = done;
  const time_point now = now_();
  if (now - told_ < (terminal_ ? kTerminalPeriod : kLinePeriod)) return;
  told_ = now;
  shown_ = true;
  tell(now);
}

void progress::end(uint64_t done) {
  if (!shown_) return;
  done_ = done;
  tell(now_());
  if (terminal_) show_("\n");
}

void progress::tell(time_point now) try {
  const double seconds = std::chrono::duration<double>(now - begun_).count();
  const auto rate = static_cast<uint64_t>(static_cast<double>(done_) / seconds);
  const std::string text =
      what_ + ": " + grouped(done_) + ' ' + unit_ + ", " + grouped(rate) + " a second";
  show_(terminal_ ? '\r' + text + "\x1b[K" : text + '\n');
} catch (const std::bad_alloc &) {  // the work goes on untold
}

}  // namespace agent
