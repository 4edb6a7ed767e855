#include "agent/start_file.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <set>
#include <string_view>
#include <variant>

#include "agent/descriptor.h"
#include "agent/ledger.h"
#include "agent/line_reader.h"
#include "agent/text.h"

namespace agent {

namespace {

/// What the line is refused for, coming after those that the ledger knows.
std::optional<ledger::refusal> refuses_at_start(const ledger &so_far, const command &c) {
  if (auto refused = so_far.refuses(c)) return refused;
  if (c.what == verb::show_nexthop || c.what == verb::show_prefix)
    return ledger::refusal{2, "no next hop is known before routers are listened to"};
  return std::nullopt;
}

}  // namespace

bool read_start_file(const std::string &path, std::vector<start_line> &lines,
                     const std::function<void(const std::string &error)> &tell) {
  const descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (file.number < 0) {
    tell("start-up file " + path + ": " + strerror(errno));
    return false;
  }
  ledger so_far;
  line_reader input(file.number);
  bool good = true, runs = true;
  const auto wrong = [&](size_t column, const std::string &why) {
    tell(place_text(path, input.number(), column) + why);
    good = false;
  };
  for (bool more = true; more;) {
    more = input.read_some();
    while (const auto text = input.next()) {
      if (input.too_long()) {
        wrong(line_reader::kMaxLine + 1, line_reader::too_long_text());
        return false;
      }
      const auto parsed = parse_command(*text);
      if (const auto *error = std::get_if<command_error>(&parsed)) {
        wrong(error->column, error->text);
        continue;
      }
      const command &c = std::get<command>(parsed);
      runs = runs && c.what != verb::quit;
      if (const auto refused = runs ? refuses_at_start(so_far, c) : std::nullopt)
        wrong(c.columns[refused->word], refused->text);
      else
        so_far.enter(c);
      lines.push_back({input.number(), c});
    }
  }
  if (input.error() == 0) return good;
  tell("start-up file " + path + ": " + strerror(input.error()));
  return false;
}

void note_missing_vrfs(const std::string &path, const std::vector<start_line> &lines,
                       const std::function<void(const std::string &note)> &tell) {
  std::set<std::string_view> added;
  for (const start_line &line : lines)
    if (line.what.what == verb::vrf_add) added.insert(line.what.vrf);
  for (const start_line &line : lines) {
    const command &c = line.what;
    if (c.what == verb::watch && !c.vrf.empty() && !added.contains(c.vrf))
      tell(place_text(path, line.number, c.columns[2]) + "note: no line adds VRF '" + c.vrf + "'");
  }
}

}  // namespace agent
