// The lines that arrive on standard error, which a test sends to a file of its own.
#include "platform/message_log.h"

#include <ctype.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace {

struct captured_stderr {
  FILE *file = tmpfile();
  int saved = dup(STDERR_FILENO);
  captured_stderr() { dup2(fileno(file), STDERR_FILENO); }
  ~captured_stderr() {
    dup2(saved, STDERR_FILENO);
    close(saved);
    fclose(file);
  }
  // Lines so far.
  std::vector<std::string> lines() {
    std::vector<std::string> found;
    std::string text(static_cast<size_t>(lseek(fileno(file), 0, SEEK_END)), '\0');
    EXPECT_EQ(pread(fileno(file), text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    for (size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1)
      found.push_back(text.substr(at, end - at));
    EXPECT_TRUE(text.empty() || text.back() == '\n');
    return found;
  }
};

oxa_msg_rec_t message(const char *format, oxa_msg_limit_t *limit = nullptr) {
  oxa_msg_rec_t m = {};
  m.format = format;
  m.limit = limit;
  m.facility = "TARVO";
  m.group = "KORV";
  m.mnemonic = "INTERNAL";
  m.severity = 5;
  return m;
}

constexpr size_t kStampLength = sizeof "2026-11-24T19:30:00.123Z" - 1;

TEST(MessageLog, WritesOneLineInUtc) {
  setenv("TZ", "Asia/Kathmandu", 1);
  tzset();
  captured_stderr capture;
  const oxa_msg_rec_t m = message("%s:%d:%s");
  const time_t before = time(nullptr);
  errno = 71;
  oxa_errmsg(&m, 4, "Cannot lock nd mutex, error", 22, "two\nlines");
  EXPECT_EQ(errno, 71);
  const time_t after = time(nullptr);

  const auto lines = capture.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].substr(kStampLength),
            " TARVO-KORV-4-INTERNAL: Cannot lock nd mutex, error:22:two?lines");
  std::string stamp = lines[0].substr(0, kStampLength);
  std::replace_if(stamp.begin(), stamp.end(), isdigit, '9');
  EXPECT_EQ(stamp, "9999-99-99T99:99:99.999Z");
  struct tm utc = {};
  strptime(lines[0].c_str(), "%Y-%m-%dT%H:%M:%S", &utc);
  EXPECT_GE(timegm(&utc), before);
  EXPECT_LE(timegm(&utc), after);
}

TEST(MessageLog, CutsAnOverlongLine) {
  captured_stderr capture;
  const oxa_msg_rec_t m = message("%s");
  for (size_t length : {100u, 900u, 1024u, 5000u}) {
    oxa_errmsg(&m, 5, std::string(length, 'x').c_str());
    const std::string line = capture.lines().back();
    EXPECT_LT(line.size(), 1024u);
    const bool cut = line.ends_with("...");
    EXPECT_EQ(cut, length > 900) << length;
    EXPECT_EQ(std::count(line.begin(), line.end(), 'x') == static_cast<long>(length), !cut);
  }
}

TEST(MessageLog, HoldsBackAndCounts) {
  captured_stderr capture;
  oxa_msg_limit_t limit = {.limit = 1, .state = {}}, none = {};
  const oxa_msg_rec_t limited = message("again", &limit), unlimited = message("again", &none);
  oxa_errmsg(&unlimited, 5);
  oxa_errmsg(&unlimited, 5);
  ASSERT_EQ(capture.lines().size(), 2u);

  const auto begin = std::chrono::steady_clock::now();
  long calls = 0, held_back[3] = {};
  for (size_t line = 0; line < 3; ++line, calls = 0) {
    for (; capture.lines().size() < 3 + line; ++calls) oxa_errmsg(&limited, 5);
    held_back[line] = calls - 1;
  }
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(2));
  const auto lines = capture.lines();
  EXPECT_TRUE(lines[2].ends_with(": again"));
  for (size_t line : {1u, 2u})
    EXPECT_TRUE(
        lines[2 + line].ends_with(": again (" + std::to_string(held_back[line]) + " suppressed)"));
}

TEST(MessageLog, KeepsLinesOfThreadsApart) {
  captured_stderr capture;
  oxa_msg_limit_t limit = {.limit = 3600, .state = {}};
  const oxa_msg_rec_t m = message("%s%d%s"), once = message("once", &limit);
  std::vector<std::thread> threads;
  const std::string padding(300, 'p');
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 200; ++i) {
        oxa_errmsg(&m, 5, padding.c_str(), t, padding.c_str());
        oxa_errmsg(&once, 5);
      }
    });
  }
  for (std::thread &t : threads) t.join();
  int counts[5] = {};
  for (const std::string &line : capture.lines()) {
    const std::string text = line.substr(kStampLength + sizeof " TARVO-KORV-5-INTERNAL: " - 1);
    const int thread = text == "once" ? 4 : text.at(padding.size()) - '0';
    if (thread != 4) {
      ASSERT_EQ(text, padding + std::to_string(thread) + padding);
    }
    ++counts[thread];
  }
  for (int t = 0; t < 4; ++t) EXPECT_EQ(counts[t], 200);
  EXPECT_EQ(counts[4], 1);
}

}  // namespace
