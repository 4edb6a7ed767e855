// What the commands run so far have made - VRFs, typed routes, watches - and what a command refuses
// because of it. It asks nothing else of the agent, so a start-up file is checked without running.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "agent/command.h"
#include "agent/rib.h"

namespace agent {

class ledger {
 public:
  struct refusal {
    size_t word = 0;  ///< the one at fault, from 0
    std::string text;
  };

  /// Why the command can't be run now.
  std::optional<refusal> refuses(const command &c) const;
  /// The command was run.
  void enter(const command &c);
  /// What a command adds, taken out again.
  void take_out(const command &c);

  const std::vector<vrf_config> &vrfs() const { return vrfs_; }
  const vrf_config *find_vrf(const std::string &name) const;
  uint32_t interval() const { return interval_; }  ///< of the refresh cycle, in seconds
  /// Those that make the same again from nothing.
  std::vector<std::string> commands() const;

 private:
  std::optional<refusal> refuses_vrf(const command &c) const;
  std::optional<refusal> refuses_resend(const command &c) const;
  std::optional<refusal> refuses_inactive() const;

  std::vector<vrf_config> vrfs_;
  std::set<std::pair<uint32_t, uint8_t>> routes_;
  std::map<uint32_t, std::string> watches_;  ///< the VRF by client; empty: every VPN
  uint32_t interval_ = 300;
  bool traces_ = false;
};

}  // namespace agent
