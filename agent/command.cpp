#include "agent/command.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <optional>

#include "agent/fence.h"
#include "agent/text.h"
#include "tarvo/records.h"

namespace agent {

namespace {

constexpr command_form kForms[] = {
    {"vrf add NAME table TABLE import RT...", verb::vrf_add,
     "a VRF, its table and what it imports"},
    {"vrf del NAME", verb::vrf_del, "take a VRF away"},
    {"route add PREFIX", verb::route_add, "a route of the global table, which makes PEs reachable"},
    {"route del PREFIX", verb::route_del, "take such a route away; seen at the next refresh"},
    {"watch ID [VRF]", verb::watch, "be told of the PEs of one VRF, or of all"},
    {"unwatch ID", verb::unwatch, "end a watch"},
    {"resend ID [VRF]", verb::resend, "be told again of all PEs of a watch"},
    {"interval SECONDS", verb::interval, "length of the refresh cycle"},
    {"rib restart", verb::rib_restart, "confirm every PE anew, now"},
    {"explain ADDRESS [VRF]", verb::explain, "why a PE is reachable or not, and its routes"},
    {"show vrfs", verb::show_vrfs, "VRFs, their imports, routes and next hops"},
    {"show nexthops [VRF]", verb::show_nexthops, "remote PEs and their routes by VRF"},
    {"show nexthop ADDRESS", verb::show_nexthop, "one PE's routes by VRF"},
    {"show prefix ADDRESS", verb::show_prefix, "the route that covers a PE"},
    {"show state", verb::show_state, "seconds left of the refresh cycle"},
    {"show sessions", verb::show_sessions, "BMP sessions"},
    {"show pools", verb::show_pools, "memory pools"},
    {"show config", verb::show_config, "the commands that would make what was set"},
    {"trace on", verb::trace_on, "debug traces to standard error"},
    {"trace off", verb::trace_off, "no debug traces"},
    {"json", verb::answer_json, "answers as JSON objects from here on, on a control socket"},
    {"text", verb::answer_text, "answers as text again, on a control socket"},
    {"help", verb::help, "this list"},
    {"quit", verb::quit, "end the agent; on a control socket, the connection"},
};

/// A word and where it begins (from 0).
struct word {
  std::string_view text;
  size_t begin;
};

/// A `#` that begins a word begins a comment.
std::vector<word> split(std::string_view line) {
  constexpr std::string_view kBlanks = " \t\r\n";
  std::vector<word> words;
  size_t at = 0;
  while ((at = line.find_first_not_of(kBlanks, at)) != std::string_view::npos && line[at] != '#') {
    const size_t end = std::min(line.find_first_of(kBlanks, at), line.size());
    words.push_back({line.substr(at, end - at), at});
    at = end;
  }
  return words;
}

// ---- Values: a reader returns false when the word is not one. ----

template <typename T>
bool read_number(std::string_view text, T &value) {
  const char *end = text.data() + text.size();
  T number = 0;
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || stop != end) return false;
  value = number;
  return true;
}

std::optional<uint32_t> read_address(std::string_view text) {
  in_addr address{};
  // A NUL would end the text for inet_pton before its end.
  if (text.find('\0') != std::string_view::npos) return std::nullopt;
  if (inet_pton(AF_INET, std::string(text).c_str(), &address) != 1) return std::nullopt;
  return ntohl(address.s_addr);
}

bool read_name(std::string_view text, command &into) {
  if (text.size() >= TARVO_ND_VRF_NAME_SIZE || printable(text) != text) return false;
  into.vrf = text;
  return true;
}

bool read_u32(std::string_view text, command &into) { return read_number(text, into.number); }

/// The last one is the fence's.
bool read_client(std::string_view text, command &into) {
  return read_u32(text, into) && into.number != fence::kClientId;
}

/// What is left of an interval is told as a signed number.
bool read_seconds(std::string_view text, command &into) {
  return read_u32(text, into) && into.number >= 1 && into.number <= INT32_MAX;
}

bool read_nexthop(std::string_view text, command &into) {
  const auto address = read_address(text);
  if (address) into.nexthop = htonl(*address);
  return address.has_value();
}

bool read_prefix(std::string_view text, command &into) {
  const size_t slash = text.find('/');
  if (slash == std::string_view::npos) return false;
  const auto address = read_address(text.substr(0, slash));
  if (!address || !read_number(text.substr(slash + 1), into.length) || into.length > 32) {
    return false;
  }
  into.prefix = *address;
  const uint64_t host_bits = (uint64_t{1} << (32 - into.length)) - 1;
  return (*address & host_bits) == 0;
}

bool read_target(std::string_view text, command &into) {
  constexpr route_target kTwoOctetAs = 0x0002, kAddress = 0x0102, kFourOctetAs = 0x0202;
  const size_t colon = text.find(':');
  if (colon == std::string_view::npos) return false;
  const std::string_view administrator = text.substr(0, colon);
  uint32_t number = 0;
  if (!read_number(text.substr(colon + 1), number)) return false;

  uint32_t as = 0;
  const bool by_as = read_number(administrator, as);
  if (by_as && as <= UINT16_MAX) {
    into.imports.push_back(kTwoOctetAs << 48 | route_target{as} << 32 | number);
    return true;
  }
  const std::optional<uint32_t> address = by_as ? as : read_address(administrator);
  if (!address || number > UINT16_MAX) return false;
  const route_target type = by_as ? kFourOctetAs : kAddress;
  into.imports.push_back(type << 48 | route_target{*address} << 16 | number);
  return true;
}

struct value_kind {
  std::string_view name;
  std::string_view expected;
  bool (*read)(std::string_view text, command &into);
};

constexpr value_kind kValues[] = {
    {"NAME", "a VRF name (UTF-8, at most 244 bytes)", read_name},
    {"VRF", "a VRF name (UTF-8, at most 244 bytes)", read_name},
    {"TABLE", "a number from 0 to 4294967295", read_u32},
    {"ID", "a number from 0 to 4294967294", read_client},
    {"SECONDS", "seconds (1 to 2147483647)", read_seconds},
    {"ADDRESS", "an IPv4 address as 10.255.1.1", read_nexthop},
    {"PREFIX", "a prefix as 10.255.1.0/24, without host bits", read_prefix},
    {"RT", "a route target as 65000:1, 10.255.1.1:7 or 4200000002:9", read_target},
};
static_assert(TARVO_ND_VRF_NAME_SIZE == 245 && fence::kClientId == 4294967295,
              "named in the texts above");

// ---- Forms ----

/// One place of a form; the last one stands for all that follow when it repeats.
struct place {
  std::string_view text;              ///< a literal word, or the value's name
  const value_kind *value = nullptr;  ///< null: a literal
  bool optional = false;
  bool repeats = false;

  bool accepts(std::string_view given) const { return value != nullptr || given == text; }
  std::string expected() const {
    return value != nullptr ? std::string(value->expected) : '\'' + std::string(text) + '\'';
  }
};

place read_place(std::string_view text) {
  place result;
  if (text.starts_with('[')) {
    result.optional = true;
    text = text.substr(1, text.size() - 2);
  }
  if (text.ends_with("...")) {
    result.repeats = true;
    text.remove_suffix(3);
  }
  result.text = text;
  const auto *value = std::ranges::find(kValues, text, &value_kind::name);
  if (value != std::end(kValues)) result.value = value;
  return result;
}

/// A form that agrees with the words so far.
struct candidate {
  const command_form *form;
  std::vector<place> places;

  /// What may stand as the word number `index`; null: nothing more.
  const place *at(size_t index) const {
    if (index < places.size()) return &places[index];
    return places.back().repeats ? &places.back() : nullptr;
  }
  bool complete(size_t words) const { return words >= places.size() || places[words].optional; }
};

std::vector<candidate> all_candidates() {
  std::vector<candidate> result;
  for (const command_form &form : kForms) {
    result.push_back({&form, {}});
    for (const word &w : split(form.syntax)) result.back().places.push_back(read_place(w.text));
  }
  return result;
}

void keep_agreeing(std::vector<candidate> &candidates, size_t index, std::string_view given) {
  std::erase_if(candidates, [&](const candidate &c) {
    const place *p = c.at(index);
    return p == nullptr || !p->accepts(given);
  });
}

/// "'add' or 'del'": what the candidates accept as the word number `index`.
std::string expected_at(const std::vector<candidate> &candidates, size_t index) {
  std::vector<std::string> choices;
  for (const candidate &c : candidates) {
    const place *p = c.at(index);
    const std::string choice = p == nullptr ? "the end of the line" : p->expected();
    if (std::ranges::find(choices, choice) == choices.end()) choices.push_back(choice);
  }
  std::string text = choices.front();
  for (size_t i = 1; i < choices.size(); ++i) {
    text += (i + 1 == choices.size() ? " or " : ", ") + choices[i];
  }
  return text;
}

command_error wrong_word(const std::vector<candidate> &candidates, size_t index, const word &w) {
  constexpr size_t kShown = 60;
  std::string shown = printable(w.text.substr(0, kShown));
  if (w.text.size() > kShown) shown += "...";
  return {w.begin + 1, "expected " + expected_at(candidates, index) + ", not '" + shown + '\''};
}

}  // namespace

std::span<const command_form> command_forms() { return kForms; }

std::variant<command, command_error> parse_command(std::string_view line) {
  const std::vector<word> words = split(line);
  command result;
  if (words.empty()) return result;
  for (const word &w : words) result.columns.push_back(w.begin + 1);

  std::vector<candidate> candidates = all_candidates();
  for (size_t i = 0; i < words.size(); ++i) {
    const std::vector<candidate> before = candidates;
    keep_agreeing(candidates, i, words[i].text);
    if (candidates.empty()) return wrong_word(before, i, words[i]);

    // Forms that share their words so far have the same kind of value here.
    const value_kind *value = candidates.front().at(i)->value;
    if (value != nullptr && !value->read(words[i].text, result)) {
      return wrong_word(candidates, i, words[i]);
    }
  }

  const auto whole = std::ranges::find_if(
      candidates, [&](const candidate &c) { return c.complete(words.size()); });
  if (whole == candidates.end()) {
    const size_t end = words.back().begin + words.back().text.size();
    return command_error{end + 1,
                         "expected " + expected_at(candidates, words.size()) + " at the end"};
  }
  result.what = whole->form->what;
  return result;
}

std::vector<std::string> complete_command(std::string_view line,
                                          std::span<const std::string> vrfs) {
  std::vector<word> words = split(line);
  const size_t end = words.empty() ? 0 : words.back().begin + words.back().text.size();
  if (line.find('#', end) != std::string_view::npos) return {};  // a comment
  std::string_view last;
  if (!words.empty() && end == line.size()) {
    last = words.back().text;
    words.pop_back();
  }
  std::vector<candidate> candidates = all_candidates();
  for (size_t i = 0; i < words.size(); ++i) keep_agreeing(candidates, i, words[i].text);

  std::vector<std::string> result;
  const auto offer = [&](std::string_view text) {
    if (text.starts_with(last) && std::ranges::find(result, text) == result.end()) {
      result.emplace_back(text);
    }
  };
  for (const candidate &c : candidates) {
    const place *p = c.at(words.size());
    if (p == nullptr) continue;
    if (p->value == nullptr) offer(p->text);
    // A NAME is a new one where a VRF is added, and a known one where it is deleted.
    const bool known = p->text == "VRF" || (p->text == "NAME" && c.form->what == verb::vrf_del);
    if (known) std::ranges::for_each(vrfs, offer);
  }
  std::ranges::sort(result);
  return result;
}

}  // namespace agent
