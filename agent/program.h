// The agent's run, from the start-up file to the signal.
#pragma once

#include <string_view>
#include <vector>

#include "agent/options.h"
#include "agent/start_file.h"

namespace agent {

/// A line on standard error; it waits for its reader, as what runs no agent may.
void complain(std::string_view text);

/// Runs the agent on the calling thread, the main one; the exit status. Once a process.
int run_agent(const options &given, const std::vector<start_line> &config);

}  // namespace agent
