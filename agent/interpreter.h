// Runs commands: each one's effect is there before the next one runs.
//
// One thread, the one that reads the commands, uses it; it asks the RIB on the RIB's thread and
// reaches the module through the callback tables that it registered: what discovery knows through
// oper_data.h.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "agent/command.h"
#include "agent/ledger.h"
#include "agent/rib.h"

namespace agent {

enum class show_as;
class bmp_station;
class clients;
class global_table;
class redistribution;
class rib_thread;

class interpreter {
 public:
  struct parts {
    rib &routes;
    rib_thread &loop;
    global_table &global;
    bmp_station &station;
    clients &watchers;
    redistribution &reports;
  };

  explicit interpreter(const parts &agent);

  /// Why the command was refused, if it was. What it prints, lines with their ends, is added to
  /// `answer`. To quit is its caller's.
  command_error run(const command &c, show_as as, std::string &answer);

  std::vector<std::string> vrf_names() const;

 private:
  std::string effect(const command &c, show_as as, std::string &answer);
  std::string vrf_add(const command &c);
  std::string vrf_del(const std::string &name);
  std::string watch(const command &c, show_as as, std::string &answer);
  std::string rib_restart();
  std::string show_vrfs(show_as as, std::string &answer);
  std::string show_nexthops(const std::string &vrf, show_as as, std::string &answer);
  std::string show_nexthop(uint32_t nexthop, show_as as, std::string &answer);
  std::string show_prefix(uint32_t nexthop, show_as as, std::string &answer);
  std::string show_state(show_as as, std::string &answer);
  std::string explain(const command &c, show_as as, std::string &answer);

  std::vector<route_count> count_routes();

  parts agent_;
  ledger made_;
};

}  // namespace agent
