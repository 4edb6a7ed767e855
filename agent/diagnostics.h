// Diagnostics: lines on standard error from threads that must not wait for its reader.
#pragma once

#include <string_view>

namespace agent {

/// Writes one line, whole, unless standard error takes none now: then the line is dropped and
/// counted, and the next one that goes out is preceded by how many were. A line is cut at 4,000
/// characters. Any thread.
void diagnose(std::string_view line);

}  // namespace agent
