// The command grammar: every form, every kind of wrong line with its place, help and completion.
#include "agent/command.h"

#include <gtest/gtest.h>

#include "agent/text.h"

namespace agent {
namespace {

/// A command as one line, to compare with: the verb's form and the values that were given.
std::string show(const command &c) {
  std::string text = std::to_string(static_cast<int>(c.what)) + ' ' + c.vrf + ' ' +
                     std::to_string(c.number) + ' ' + std::to_string(c.prefix) + '/' +
                     std::to_string(c.length);
  for (const route_target t : c.imports) text += ' ' + target_text(t);
  return text;
}

const command kVrf{verb::vrf_add, "CUST-A", 101, 0, 0, {0x0002fde800000001}};

const struct {
  const char *line;
  command expected;
} kGood[] = {
    {"", {}},
    {"  \t# a comment", {}},
    {"vrf add CUST-A table 101 import 65000:1", kVrf},
    {"\tvrf  add CUST-A table 101 import 65000:1   # its comment\r", kVrf},
    {"vrf add A#1 table 4294967295 import 0:4294967295 10.255.1.1:7 4200000002:9",
     {verb::vrf_add,
      "A#1",
      4294967295,
      0,
      0,
      {0x00020000ffffffff, 0x01020aff01010007, 0x0202fa56ea020009}}},
    {"vrf del table", {verb::vrf_del, "table", 0, 0, 0, {}}},
    {"route add 10.255.2.0/24", {verb::route_add, "", 0, 0x0aff0200, 24, {}}},
    {"route del 0.0.0.0/0", {verb::route_del, "", 0, 0, 0, {}}},
    {"route add 10.255.2.1/32", {verb::route_add, "", 0, 0x0aff0201, 32, {}}},
    {"watch 1", {verb::watch, "", 1, 0, 0, {}}},
    {"watch 2 CUST-A", {verb::watch, "CUST-A", 2, 0, 0, {}}},
    {"unwatch 0", {verb::unwatch, "", 0, 0, 0, {}}},
    {"resend 2 CUST-A", {verb::resend, "CUST-A", 2, 0, 0, {}}},
    {"interval 0", {verb::interval, "", 0, 0, 0, {}}},
    {"rib restart", {verb::rib_restart, "", 0, 0, 0, {}}},
    {"show vrfs", {verb::show_vrfs, "", 0, 0, 0, {}}},
    {"show nexthops", {verb::show_nexthops, "", 0, 0, 0, {}}},
    {"show nexthops CUST-A", {verb::show_nexthops, "CUST-A", 0, 0, 0, {}}},
    {"show sessions", {verb::show_sessions, "", 0, 0, 0, {}}},
    {"show pools", {verb::show_pools, "", 0, 0, 0, {}}},
    {"trace on", {verb::trace_on, "", 0, 0, 0, {}}},
    {"trace off", {verb::trace_off, "", 0, 0, 0, {}}},
    {"help", {verb::help, "", 0, 0, 0, {}}},
    {"quit", {verb::quit, "", 0, 0, 0, {}}},
};

TEST(Command, Reads) {
  for (const auto &row : kGood) {
    const auto result = parse_command(row.line);
    const auto *error = std::get_if<command_error>(&result);
    ASSERT_EQ(error, nullptr) << row.line << ": " << error->text;
    EXPECT_EQ(show(std::get<command>(result)), show(row.expected)) << row.line;
    EXPECT_EQ(std::get<command>(result).imports, row.expected.imports) << row.line;
  }
}

const std::string kLongName(245, 'x');
const std::string kLongestName(244, 'x');

const struct {
  std::string line;
  size_t column;
  const char *expected;  ///< a part of the message
} kBad[] = {
    {"vrv add A table 1 import 1:1", 1, "'vrf', 'route'"},
    {"vrf", 4, "expected 'add' or 'del' at the end"},
    {" vrf ad A", 6, "expected 'add' or 'del', not 'ad'"},
    {"vrf add", 8, "a VRF name"},
    {"vrf add " + kLongName + " table 1 import 1:1", 9, "at most 244 characters"},
    {"watch 1 A\x1b[2J", 9, "a VRF name"},
    {"vrf add A tabel 101", 11, "expected 'table'"},
    {"vrf add A table x import 1:1", 17, "a number"},
    {"vrf add A table 4294967296 import 1:1", 17, "a number"},
    {"vrf add A table -1 import 1:1", 17, "a number"},
    {"vrf add A table 1 import", 25, "a route target"},
    {"vrf add A table 1 import 1:1 1", 30, "a route target"},
    {"vrf add A table 1 import 65000:4294967296", 26, "a route target"},
    {"vrf add A table 1 import 65536:65536", 26, "a route target"},
    {"vrf add A table 1 import 4294967296:1", 26, "a route target"},
    {"vrf add A table 1 import 10.255.1.1:65536", 26, "a route target"},
    {"vrf add A table 1 import 10.255.1:7", 26, "a route target"},
    {"vrf add A table 1 import 65000x:1", 26, "a route target"},
    {"vrf add A table 1 import :", 26, "a route target"},
    {"route add 10.255.1.1", 11, "a prefix"},
    {"route add 10.255.1.1/24", 11, "without host bits"},
    {"route add 10.0.0.0/33", 11, "a prefix"},
    {"route add 10.0.0/8", 11, "a prefix"},
    {"route del 10.0.0.0/8 now", 22, "expected the end of the line, not 'now'"},
    {"watch CUST-A", 7, "a number"},
    {"watch 1 A B", 11, "the end of the line"},
    {"show", 5, "'vrfs', 'nexthops', 'sessions' or 'pools'"},
    {"interval soon", 10, "seconds"},
    {"trace maybe", 7, "'on' or 'off'"},
    {std::string(100000, 'q'), 1, "..."},
};

TEST(Command, SaysWhatIsWrongAndWhere) {
  for (const auto &row : kBad) {
    const auto result = parse_command(row.line);
    const auto *error = std::get_if<command_error>(&result);
    ASSERT_NE(error, nullptr) << row.line;
    EXPECT_EQ(error->column, row.column) << row.line << ": " << error->text;
    EXPECT_NE(error->text.find(row.expected), std::string::npos) << row.line << ": " << error->text;
    EXPECT_LT(error->text.size(), 300u);
  }
  EXPECT_TRUE(std::holds_alternative<command>(parse_command("watch 1 " + kLongestName)));
}

TEST(Command, Completes) {
  const std::vector<std::string> vrfs = {"CUST-A", "CUST-B", "OTHER"};
  using words = std::vector<std::string>;
  const struct {
    const char *line;
    words expected;
  } rows[] = {
      {"",
       {"help", "interval", "quit", "resend", "rib", "route", "show", "trace", "unwatch", "vrf",
        "watch"}},
      {"r", {"resend", "rib", "route"}},
      {"show ", {"nexthops", "pools", "sessions", "vrfs"}},
      {"show nexthops CU", {"CUST-A", "CUST-B"}},
      {"watch 7 ", vrfs},
      {"vrf del O", {"OTHER"}},
      {"vrf add ", {}},
      {"vrf add A table 1 import 1:1 ", {}},
      {"quit ", {}},
      {"nonsense s", {}},
  };
  for (const auto &row : rows)
    EXPECT_EQ(complete_command(row.line, vrfs), row.expected) << row.line;
}

}  // namespace
}  // namespace agent
