// The lines that arrive on standard error, which a test sends to a file of its own.
#include <unistd.h>

#include <fstream>
#include <map>

#include "contract.h"

namespace contract {
namespace {

struct log : testing::Test {
  FILE *file = tmpfile();
  int saved = dup(STDERR_FILENO);
  log() { dup2(fileno(file), STDERR_FILENO); }
  ~log() override {
    dup2(saved, STDERR_FILENO);
    close(saved);
    fclose(file);
  }
  std::vector<std::string> lines() {
    std::vector<std::string> found;
    std::ifstream stream("/dev/fd/" + std::to_string(fileno(file)));
    for (std::string line; std::getline(stream, line);) found.push_back(line);
    return found;
  }
};

oxa_msg_rec_t message(const char *format, oxa_msg_limit_t *limit = nullptr) {
  return {0, format, limit, "TARVO", "KORV", "INTERNAL", 0, 5, 0, 0, 0, 0};
}

TEST_F(log, WritesOneLineInUtcAndCutsALongOne) {
  setenv("TZ", "Asia/Kathmandu", 1);
  tzset();
  const oxa_msg_rec_t m = message("%s:%d:%s"), longer = message("%s");
  const time_t before = time(nullptr);
  errno = 71;
  oxa_errmsg(&m, 4, "Cannot lock nd mutex, error", 22, "two\nlines");
  EXPECT_EQ(errno, 71);
  ASSERT_EQ(lines().size(), 1u);
  std::string line = lines()[0];
  struct tm utc = {};
  const char *milliseconds = strptime(line.c_str(), "%Y-%m-%dT%H:%M:%S.", &utc);
  EXPECT_STREQ(milliseconds + 3,
               "Z TARVO-KORV-4-INTERNAL: Cannot lock nd mutex, error:22:two?lines");
  EXPECT_TRUE(timegm(&utc) >= before && timegm(&utc) <= time(nullptr));
  for (long length : {100, 900, 1024, 5000}) {
    oxa_errmsg(&longer, 5, std::string(length, 'x').c_str());
    line = lines().back();
    EXPECT_LT(line.size(), 1024u);
    EXPECT_EQ(line.ends_with("..."), length > 900) << length;
    EXPECT_EQ(std::count(line.begin(), line.end(), 'x') < length, length > 900) << length;
  }
}

TEST_F(log, HoldsBackAndCounts) {
  oxa_msg_limit_t limit = {.limit = 1, .state = {}}, none = {};
  const oxa_msg_rec_t limited = message("again", &limit), unlimited = message("again", &none);
  for (int i = 0; i < 2; ++i) oxa_errmsg(&unlimited, 5);
  const auto begin = std::chrono::steady_clock::now();
  for (size_t count = 3; count <= 5; ++count) {
    long held_back = -1;
    for (; lines().size() < count; ++held_back) oxa_errmsg(&limited, 5);
    const std::string tail = " (" + std::to_string(held_back) + " suppressed)";
    EXPECT_TRUE(lines().back().ends_with(": again" + (count == 3 ? "" : tail)));
  }
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(2));
}

TEST_F(log, KeepsLinesOfThreadsApart) {
  oxa_msg_limit_t limit = {.limit = 3600, .state = {}};
  const oxa_msg_rec_t m = message("%s%d%s"), once = message("once", &limit);
  const std::string padding(300, 'p'), head = " TARVO-KORV-5-INTERNAL: ";
  std::map<std::string, int> expected{{head + "once", 1}}, counts;
  for (int t = 0; t < 4; ++t) expected[head + padding + std::to_string(t) + padding] = 200;
  on_threads(4, [&](int t) {
    for (int i = 0; i < 200; ++i) {
      oxa_errmsg(&m, 5, padding.c_str(), t, padding.c_str());
      oxa_errmsg(&once, 5);
    }
  });
  for (const std::string &line : lines()) ++counts[line.substr(line.find(' '))];
  EXPECT_EQ(counts, expected);
}

}  // namespace
}  // namespace contract
