// The JSON of standard output: one object a line, members in the order they were set.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace agent {

using json = nlohmann::ordered_json;

/// The value of "schema" in every line; raised when a line's meaning changes.
constexpr int kSchema = 1;

/// Bytes that are no UTF-8 (a router's name can hold any) become U+FFFD.
inline std::string one_line(const json &object) {
  return object.dump(-1, ' ', false, json::error_handler_t::replace);
}

}  // namespace agent
