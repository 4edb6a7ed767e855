// The command grammar: every kind of word, every kind of wrong line with its place, and completion.
#include "agent/command.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

namespace agent {
namespace {

const std::vector<route_target> kOne = {0x2fde800000001};
const std::vector<route_target> kThree = {0x20000ffffffff, 0x1020aff01010007, 0x202fa56ea020009};

const struct {
  std::string line;
  verb what = verb::none;
  std::string vrf = "";
  uint32_t number = 0, prefix = 0;
  uint8_t length = 0;
  std::vector<route_target> imports = {};
  uint32_t nexthop = 0;
} kGood[] = {
    {""},
    {"  \t# a comment"},
    {"\tvrf  add CUST-A table 101 import 65000:1   # its comment\r", verb::vrf_add, "CUST-A", 101,
     0, 0, kOne},
    {"vrf add A#1 table 4294967295 import 0:4294967295 10.255.1.1:7 4200000002:9", verb::vrf_add,
     "A#1", ~0u, 0, 0, kThree},
    {"vrf del table", verb::vrf_del, "table"},
    {"route add 10.255.2.0/24", verb::route_add, "", 0, 0x0aff0200, 24},
    {"route del 0.0.0.0/0", verb::route_del},
    {"route add 10.255.2.1/32", verb::route_add, "", 0, 0x0aff0201, 32},
    {"watch 1", verb::watch, "", 1},
    {"watch 2 CUST-A", verb::watch, "CUST-A", 2},
    {"unwatch 0", verb::unwatch},
    {"watch 4294967294 \xc3\xa9\xf0\x9f\x90\x8c", verb::watch, "\xc3\xa9\xf0\x9f\x90\x8c", ~1u},
    {"interval 2147483647", verb::interval, "", 2147483647},
    {"rib restart", verb::rib_restart},
    {"explain 0.0.0.1 CUST-A", verb::explain, "CUST-A", 0, 0, 0, {}, htonl(1)},
};

TEST(Command, Reads) {
  for (const auto &row : kGood) {
    const auto result = parse_command(row.line);
    ASSERT_TRUE(std::holds_alternative<command>(result)) << row.line;
    const command &c = std::get<command>(result);
    EXPECT_EQ(
        std::tie(c.what, c.vrf, c.number, c.prefix, c.length, c.imports, c.nexthop),
        std::tie(row.what, row.vrf, row.number, row.prefix, row.length, row.imports, row.nexthop))
        << row.line;
  }
}

const std::string kLongest(244, 'x'), kImport = "vrf add A table 1 import ";

const struct {
  std::string line;
  size_t column;
  const char *expected;  ///< a part of the message
} kBad[] = {
    {"vrv add A table 1 import 1:1", 1, "'vrf', 'route'"},
    {"vrf", 4, "expected 'add' or 'del' at the end"},
    {" vrf ad A", 6, "expected 'add' or 'del', not 'ad'"},
    {"vrf add", 8, "a VRF name"},
    {"watch 1 " + kLongest + "x", 9, "at most 244 bytes"},
    {"watch 1 A\x1b[2J", 9, "a VRF name"},
    {"vrf add A tabel 101", 11, "expected 'table'"},
    {"vrf add A table 4294967296 import 1:1", 17, "a number"},
    {kImport, 25, "a route target"},
    {kImport + "1:1 1", 30, "a route target"},
    {"route add 10.255.1.1", 11, "a prefix"},
    {"route add 10.255.1.1/24", 11, "without host bits"},
    {"route add 10.0.0.0/33", 11, "a prefix"},
    {"route add 10.0.0/8", 11, "a prefix"},
    {std::string("route add 10.0.0.0\0x/8", 22), 11, "a prefix"},
    {"route del 10.0.0.0/8 now", 22, "expected the end of the line, not 'now'"},
    {"watch 7x", 7, "a number"},
    {"watch 1 A B", 11, "the end of the line"},
    {"show prefix 10.0.0.0/8", 13, "expected an IPv4 address"},
    {"show", 5, "'vrfs', 'nexthops', 'nexthop', 'prefix', 'state', 'sessions', 'pools' or "},
    {"interval soon", 10, "seconds (1 to"},
    {"interval 0", 10, "seconds (1 to"},
    {"interval 2147483648", 10, "seconds (1 to"},
    {"watch 4294967295", 7, "to 4294967294"},
    {std::string(100000, 'q'), 1, "..."},
};

TEST(Command, SaysWhatIsWrongAndWhere) {
  const auto expect_error = [](const std::string &line, size_t column, const char *expected) {
    const auto result = parse_command(line);
    const auto *error = std::get_if<command_error>(&result);
    ASSERT_NE(error, nullptr) << line;
    EXPECT_EQ(error->column, column) << line << ": " << error->text;
    EXPECT_PRED_FORMAT2(testing::IsSubstring, expected, error->text);
    EXPECT_LT(error->text.size(), 300u);
  };
  for (const auto &row : kBad) expect_error(row.line, row.column, row.expected);
  for (const char *target : {"65000:4294967296", "65536:65536", "4294967296:1", "10.255.1.1:65536",
                             "10.255.1:7", "65000x:1", ":"})
    expect_error(kImport + target, 26, "a route target");
  // No UTF-8, or a control character: shown without what would reach a terminal.
  for (const char *name :
       {"\x9b", "\xc2\x9b", "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xc3"})
    expect_error(std::string("watch 1 ") + name, 9,
                 (", not '" + std::string(strlen(name), '?') + "'").c_str());
  EXPECT_TRUE(std::holds_alternative<command>(parse_command("watch 1 " + kLongest)));
}

TEST(Command, Completes) {
  const std::vector<std::string> vrfs = {"CUST-A", "CUST-B", "OTHER"};
  const struct {
    const char *line;
    std::vector<std::string> expected;
  } rows[] = {
      {"r", {"resend", "rib", "route"}},
      {"show n", {"nexthop", "nexthops"}},
      {"show nexthop ", {}},
      {"show nexthops CU", {"CUST-A", "CUST-B"}},
      {"watch 7 ", vrfs},
      {"vrf del O", {"OTHER"}},
      {"vrf add ", {}},
      {"quit ", {}},
      {"nonsense s", {}},
      {"# s", {}},
      {"show #", {}},
  };
  for (const auto &row : rows)
    EXPECT_EQ(complete_command(row.line, vrfs), row.expected) << row.line;
}

}  // namespace
}  // namespace agent
