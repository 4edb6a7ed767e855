// Runs commands: each one's effect is there before the next one runs.
//
// One thread, the one that reads the commands, uses it; it asks the RIB on the RIB's thread and
// reaches the module through the callback tables that it registered: what discovery knows through
// oper_data.h. The routes typed here are kept, since the global table counts owners and the feed
// may own the same prefix.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "agent/command.h"
#include "agent/rib.h"

namespace agent {

enum class show_as;
class bmp_station;
class clients;
class global_table;
class output;
class rib_thread;

class interpreter {
 public:
  struct parts {
    rib &routes;
    rib_thread &loop;
    global_table &global;
    bmp_station &station;
    clients &watchers;
    output &out;
  };

  explicit interpreter(const parts &agent);

  /// An empty string, or why the command was refused.
  std::string run(const command &c);

  bool quit() const { return quit_; }
  std::vector<std::string> vrf_names();

 private:
  std::string vrf_add(const command &c);
  std::string vrf_del(const std::string &name);
  std::string route_add(const command &c);
  std::string route_del(const command &c);
  std::string rib_restart();
  std::string show_vrfs();
  std::string show_nexthops(const std::string &vrf);
  std::string show_nexthop(uint32_t nexthop);
  std::string show_prefix(uint32_t nexthop);
  std::string show_state();

  show_as form() const;
  /// Nothing is refused: an empty string.
  std::string print(std::string lines);

  std::vector<vrf_config> vrfs();
  std::optional<vrf_config> find_vrf(const std::string &name);
  std::vector<route_count> count_routes();

  parts agent_;
  std::set<std::pair<uint32_t, uint8_t>> typed_routes_;
  bool quit_ = false;
};

}  // namespace agent
