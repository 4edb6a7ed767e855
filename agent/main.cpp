// tarvo-agent: runs the discovery module on a BMP feed, and clients on the module; or does one of
// the jobs around it.
#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <vector>

#include "agent/connect.h"
#include "agent/options.h"
#include "agent/program.h"
#include "agent/start_file.h"

/// Descriptors 0 to 2 that came closed would be taken by the first ones that the agent opens.
static void occupy_standard_descriptors() {
  int fd = open("/dev/null", O_RDWR);
  while (fd >= 0 && fd <= STDERR_FILENO) fd = open("/dev/null", O_RDWR);
  if (fd >= 0) close(fd);
}

int main(int argc, char **argv) {
  using namespace agent;
  occupy_standard_descriptors();
  signal(SIGPIPE, SIG_IGN);

  options given;
  int status = 0;
  if (!read_options(argc, argv, given, status)) return status;
  if (!given.connect.empty()) return run_connected(given);

  const std::string &file = given.check_config.empty() ? given.config : given.check_config;
  std::vector<start_line> config;
  if (!file.empty() && !read_start_file(file, config, complain)) return 1;
  if (given.check_config.empty()) return run_agent(given, config);
  note_missing_vrfs(file, config, complain);
  return 0;
}
