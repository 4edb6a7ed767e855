// The command line.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "agent/bmp_station.h"

namespace agent {

struct options {
  std::string config;
  std::string check_config;
  std::string replay;
  std::vector<std::string> listen;
  std::vector<std::string> commands;
  std::string control;
  std::string connect;
  std::string metrics;
  mode_t control_mode = 0600;
  bmp_view view = bmp_view::loc_rib;
  bool json = false;
  uint32_t idle = bmp_station::kIdle.count();
};

/// False: the process ends with `status`, and what there was to tell was told.
bool read_options(int argc, char **argv, options &into, int &status);

}  // namespace agent
