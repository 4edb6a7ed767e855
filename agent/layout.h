// How answers are laid out: tables of aligned columns, and the line of JSON.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/json.h"

namespace agent {

/// Characters of UTF-8: all bytes but those that go on with one.
inline size_t width_of(std::string_view text) {
  return static_cast<size_t>(
      std::ranges::count_if(text, [](char c) { return (c & 0xc0) != 0x80; }));
}

/// Rows under a heading; columns as wide as their widest cell, those under '>' to the right.
class table {
 public:
  explicit table(std::vector<std::string> heading) {
    for (std::string &title : heading) {
      right_.push_back(title.starts_with('>'));
      if (right_.back()) title.erase(0, 1);
    }
    add(std::move(heading));
  }

  void add(std::vector<std::string> row) {
    width_.resize(std::max(width_.size(), row.size()));
    for (size_t i = 0; i < row.size(); ++i) width_[i] = std::max(width_[i], width_of(row[i]));
    rows_.push_back(std::move(row));
  }

  std::string lines() const {
    std::string text;
    for (const auto &row : rows_) {
      for (size_t i = 0; i < row.size(); ++i) {
        const std::string blanks(width_[i] - width_of(row[i]), ' ');
        text += (i == 0 ? "" : "  ") + (right_[i] ? blanks + row[i] : row[i] + blanks);
      }
      text.erase(text.find_last_not_of(' ') + 1);
      text += '\n';
    }
    return text;
  }

 private:
  std::vector<bool> right_;
  std::vector<size_t> width_;
  std::vector<std::vector<std::string>> rows_;
};

/// The words with blanks between, "-" for none.
inline std::string joined(const std::vector<std::string> &words) {
  std::string result;
  for (const std::string &word : words) result += (result.empty() ? "" : " ") + word;
  return result.empty() ? "-" : result;
}

/// The line of a `show`: its name, and what it shows.
inline std::string show_line(const char *name, const json &members) {
  json line = {{"schema", kSchema}, {"show", name}};
  line.update(members);
  return one_line(line) + '\n';
}

/// A JSON list.
inline json strings(const std::vector<std::string> &values) {
  json list = json::array();
  for (const std::string &value : values) list.push_back(value);
  return list;
}

}  // namespace agent
