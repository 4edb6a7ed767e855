// The start-up file: commands, a line each, that run before all else.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "agent/command.h"

namespace agent {

struct start_line {
  size_t number;
  command what;
};

/// Reads the whole file. False: it can't be read, or a line is wrong or would be refused when it
/// runs; `tell` gets every error as "FILE:LINE:COLUMN: TEXT". What only running finds is a lack of
/// memory. Lines after `quit` don't run: of them the grammar alone is checked. After a line that is
/// too long nothing is read: it may have no end. How many lines there are is up to their author.
bool read_start_file(const std::string &path, std::vector<start_line> &lines,
                     const std::function<void(const std::string &error)> &tell);

/// Tells, in the same form, of each watch of a VRF that no line adds: no error, since it may come
/// later.
void note_missing_vrfs(const std::string &path, const std::vector<start_line> &lines,
                       const std::function<void(const std::string &note)> &tell);

}  // namespace agent
