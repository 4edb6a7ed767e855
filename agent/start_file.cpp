#include "agent/start_file.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <optional>
#include <variant>

#include "agent/ledger.h"

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
  std::ifstream file(path);
  ledger so_far;
  bool good = file.is_open(), runs = true;
  std::string text;
  for (size_t number = 1; std::getline(file, text); ++number) {
    const auto wrong = [&](size_t column, const std::string &why) {
      tell(path + ':' + std::to_string(number) + ':' + std::to_string(column) + ": " + why);
      good = false;
    };
    const auto parsed = parse_command(text);
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
    lines.push_back({number, c});
  }
  if (!file.is_open() || file.bad()) {
    tell(path + ": " + strerror(errno));
    return false;
  }
  return good;
}

}  // namespace agent
