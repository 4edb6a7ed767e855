// The command grammar, line by line: an error has its place in the line and a bounded text, a
// comment or blanks change nothing, and a completion continues what was typed.
#include "agent/command.h"

#include <tuple>

#include "fuzz/fuzz.h"

using namespace agent;

namespace {

auto fields(const command &c) {
  return std::tie(c.what, c.vrf, c.number, c.prefix, c.length, c.nexthop, c.imports);
}

void check(const std::string &line) {
  const auto parsed = parse_command(line);
  if (const auto *error = std::get_if<command_error>(&parsed)) {
    REQUIRE(error->column >= 1 && error->column <= line.size() + 1);
    REQUIRE(!error->text.empty() && error->text.size() < 300);
  } else {
    const command &c = std::get<command>(parsed);
    REQUIRE(c.vrf.size() <= 244 && c.length <= 32);
    REQUIRE(c.what != verb::vrf_add || !c.imports.empty());
    const auto again = parse_command("\t " + line + " # comment");
    REQUIRE(std::holds_alternative<command>(again));
    REQUIRE(fields(std::get<command>(again)) == fields(c));
  }
  const size_t last = line.find_last_of(" \t\r\n") + 1;
  const std::string vrfs[] = {"CUST-A", "CUST-B"};
  for (const std::string &offered : complete_command(line, vrfs))
    REQUIRE(offered.starts_with(line.substr(last)));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string text(reinterpret_cast<const char *>(data), size);
  for (size_t at = 0; at <= text.size();) {
    const size_t end = std::min(text.find('\n', at), text.size());
    check(text.substr(at, end - at));
    at = end + 1;
  }
  return 0;
}
