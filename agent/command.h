// The command grammar: one line of text to one command, or to what is wrong with it and where.
//
// One table of forms is the grammar: the parser, the help and the prompt's completion all read it.
// Nothing here has state or touches the rest of the agent.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "agent/route.h"

namespace agent {

enum class verb {
  none,  ///< an empty line or a comment
  vrf_add,
  vrf_del,
  route_add,
  route_del,
  watch,
  unwatch,
  resend,
  interval,
  rib_restart,
  explain,
  show_vrfs,
  show_nexthops,
  show_nexthop,
  show_prefix,
  show_state,
  show_sessions,
  show_pools,
  show_config,
  trace_on,
  trace_off,
  answer_json,
  answer_text,
  help,
  quit
};

struct command {
  verb what = verb::none;
  std::string vrf;       ///< empty: not given
  uint32_t number = 0;   ///< table ID, client ID or seconds
  uint32_t prefix = 0;   ///< host byte order, host bits zero
  uint8_t length = 0;    ///< of the prefix
  uint32_t nexthop = 0;  ///< network byte order
  std::vector<route_target> imports;
  std::vector<size_t> columns;  ///< where each word begins, from 1
};

struct command_error {
  size_t column = 0;  ///< from 1
  std::string text;   ///< empty: there is none
};

/// One form of a command. Words in lower case stand for themselves; those in capitals for a value;
/// one in brackets may be left out; one before three dots may be repeated.
struct command_form {
  std::string_view syntax;
  verb what;
  std::string_view help;
};

std::span<const command_form> command_forms();

std::variant<command, command_error> parse_command(std::string_view line);

/// The words that may stand where the line's last word begins (its last word is empty after a
/// blank). `vrfs` are the names known for a VRF.
std::vector<std::string> complete_command(std::string_view line, std::span<const std::string> vrfs);

}  // namespace agent
