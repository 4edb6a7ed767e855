// The bounded output: order, the bound, and a sink that fails.
#include "agent/output.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <future>
#include <sstream>

namespace agent {
namespace {

TEST(Output, LosesEventsAtTheBoundAndSaysHowMany) {
  std::promise<void> entered, reader;
  std::string written;
  constexpr uint64_t kLost = 10, kKept = output::kMaxQueued;
  const auto slow = [&](std::string_view lines) {
    if (written.empty()) {
      entered.set_value();
      reader.get_future().wait();
    }
    written += lines;
    return 0;
  };
  {
    output out(true, slow, [] { FAIL(); });
    out.post({});
    entered.get_future().wait();  // the writer holds event 1
    for (uint64_t i = 0; i < kKept + kLost; ++i) out.post({});
    auto printed = std::async([&] { out.print("result\n"); });
    reader.set_value();
    printed.wait();
    out.post({});
  }
  std::istringstream lines(written);
  const auto expect_line = [&](const std::string &part) {
    std::string line;
    std::getline(lines, line);
    ASSERT_NE(line.find(part), std::string::npos) << line;
  };
  const auto event = [](uint64_t seq) { return "\"seq\":" + std::to_string(seq) + ",\"time\""; };
  for (uint64_t seq = 1; seq <= 1 + kKept; ++seq) expect_line(event(seq));
  expect_line("\"seq\":" + std::to_string(1 + kKept + kLost) +
              ",\"event\":\"LOST\",\"count\":" + std::to_string(kLost) + '}');
  expect_line("result");
  expect_line(event(1 + kKept + kLost + 1));
}

TEST(Output, ClosesAtAnErrorAndKeepsNobodyWaiting) {
  std::promise<void> woken;
  output out(
      false, [](std::string_view) { return ENOSPC; }, [&] { woken.set_value(); });
  out.post({});
  woken.get_future().wait();
  EXPECT_EQ(out.error(), ENOSPC);
  out.print("dropped\n");
  out.flush();
}

}  // namespace
}  // namespace agent
