// Message log: formats each message into a buffer on the stack and writes it in one call, so that
// lines of several threads never mix. The lock covers the states of all rate limits; it is never
// held while writing, since a cancelled writer must not stop the others.
#include "message_log.h"

#include <errno.h>
#include <limits.h>
#include <poll.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

#include "lock_private.h"

namespace {

constexpr size_t kMaxLine = 1024;  // newline included
constexpr char kCutMark[] = "...";

// What a limit's state holds; all zero before the message's first line. Copied in and out, since
// the state is only aligned to four bytes.
struct limit_state {
  int64_t printed_at;  // nanoseconds of CLOCK_MONOTONIC
  uint32_t printed;    // not 0: there has been a line
  uint32_t suppressed;
};
static_assert(sizeof(limit_state) <= sizeof(oxa_msg_limit_t::state), "room in the record");

platform::mutex limits_lock;
std::atomic<uint32_t> lost{0};  // lines, since the last that went out

int64_t nanoseconds(clockid_t clock) {
  struct timespec t;
  clock_gettime(clock, &t);
  return t.tv_sec * INT64_C(1'000'000'000) + t.tv_nsec;
}

// Whether the message may be printed now; tells how many were held back before it.
bool pass_limit(oxa_msg_limit_t *limit, uint32_t *suppressed) {
  *suppressed = 0;
  if (limit == nullptr || limit->limit == 0) return true;

  platform::hold held(limits_lock);
  limit_state state;
  memcpy(&state, limit->state, sizeof state);
  const int64_t time = nanoseconds(CLOCK_MONOTONIC);
  const int64_t interval = limit->limit * INT64_C(1'000'000'000);
  const bool pass = state.printed == 0 || time - state.printed_at >= interval;
  if (pass) {
    *suppressed = state.suppressed;
    state = {.printed_at = time, .printed = 1, .suppressed = 0};
  } else if (state.suppressed != UINT32_MAX) {
    ++state.suppressed;
  }
  memcpy(limit->state, &state, sizeof state);
  return pass;
}

// A line under construction. What does not fit is dropped and `cut` tells so.
struct line {
  char text[kMaxLine];
  size_t length = 0;
  bool cut = false;

  // The last bytes are kept free for the cut mark, the counts and the newline.
  static constexpr size_t kReserve =
      sizeof kCutMark + sizeof " (4294967295 suppressed) (4294967295 lines lost)\n";

  void append_args(size_t end, const char *format, va_list args)
      __attribute__((format(printf, 3, 0))) {
    const int wanted = vsnprintf(text + length, end - length, format, args);
    if (wanted < 0) return;  // an argument that cannot be converted leaves its text out
    const size_t room = end - length - 1;
    cut = static_cast<size_t>(wanted) > room;
    length += cut ? room : static_cast<size_t>(wanted);
  }
  void append(size_t end, const char *format, ...) __attribute__((format(printf, 3, 4))) {
    va_list args;
    va_start(args, format);
    append_args(end, format, args);
    va_end(args);
  }
};

void append_head(line *l, const oxa_msg_rec_t *message, int severity) {
  const int64_t time = nanoseconds(CLOCK_REALTIME);
  const time_t seconds = time / 1'000'000'000;
  const int milliseconds = static_cast<int>(time / 1'000'000 % 1000);
  struct tm utc;
  gmtime_r(&seconds, &utc);
  l->length = strftime(l->text, sizeof l->text, "%Y-%m-%dT%H:%M:%S", &utc);
  l->append(kMaxLine - line::kReserve, ".%03dZ %s-%s-%d-%s: ", milliseconds, message->facility,
            message->group, severity, message->mnemonic);
}

void append_tail(line *l, uint32_t suppressed, uint32_t lost_before) {
  if (l->cut) l->append(kMaxLine, "%s", kCutMark);
  if (suppressed != 0) l->append(kMaxLine, " (%u suppressed)", suppressed);
  if (lost_before != 0) l->append(kMaxLine, " (%u lines lost)", lost_before);
  for (size_t i = 0; i < l->length; ++i) {
    const unsigned char c = static_cast<unsigned char>(l->text[i]);
    if (c < ' ' || c == 0x7f) l->text[i] = '?';  // names are not ours; one message is one line
  }
  l->text[l->length++] = '\n';
}

// Whether the line went out. Messages come with locks held, so it does not wait: a pipe that polls
// as writable takes PIPE_BUF bytes at once. The agent has the same for lines of its own, since it
// may run on another layer.
bool write_now(const line &l) {
  static_assert(kMaxLine <= PIPE_BUF, "one write, whole");
  pollfd ready = {STDERR_FILENO, POLLOUT, 0};
  if (poll(&ready, 1, 0) == 0 || (ready.revents & POLLOUT) == 0) return false;
  return write(STDERR_FILENO, l.text, l.length) >= 0;
}

}  // namespace

void oxa_errmsg(const oxa_msg_rec_t *message, int severity, ...) {
  const int saved_errno = errno;
  uint32_t suppressed;
  if (!pass_limit(message->limit, &suppressed)) return;

  line l;
  append_head(&l, message, severity);
  va_list args;
  va_start(args, severity);
  errno = saved_errno;
  l.append_args(kMaxLine - line::kReserve, message->format, args);
  va_end(args);
  const uint32_t lost_before = lost.exchange(0);
  append_tail(&l, suppressed, lost_before);
  if (!write_now(l)) lost += lost_before + 1;
  errno = saved_errno;
}
