// `tarvo-agent --connect`: commands to a running agent through its control socket.
#pragma once

#include "agent/options.h"

namespace agent {

/// Runs the commands given, else those of standard input, at a prompt if a person sits there. The
/// exit status.
int run_connected(const options &given);

}  // namespace agent
