// `explain`: why a PE is reachable or not, and what the next sweep will do with it.
//
// What is collected comes from three places one after the other, so it is no snapshot: what
// discovery knows, the RIB, the global table. Routes are found by one pass over the RIB, on its own
// thread; the first kMaxRoutes are kept and the others counted.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "agent/bmp_station.h"
#include "agent/global_table.h"
#include "agent/oper_data.h"
#include "agent/rib.h"
#include "agent/route.h"
#include "agent/show.h"

namespace agent {

class redistribution;

struct explained_vrf {
  std::string vrf;
  std::optional<uint64_t> count;  ///< as discovery has it; none: it doesn't refer to the PE
  uint64_t routes = 0;            ///< in the RIB
};

struct explained_route {
  nlri key;
  source_id source = 0;
  route_origin origin;
  std::vector<route_target> targets;
  std::vector<std::string> vrfs;                    ///< that import it,
  std::vector<std::vector<route_target>> imported;  ///< and by which of the targets
};

struct explanation {
  static constexpr size_t kMaxRoutes = 20;
  static constexpr size_t kMaxVrfs = 100;

  uint32_t nexthop = 0;   ///< network byte order
  std::string vrf;        ///< asked for; empty: all
  uint32_t interval = 0;  ///< of the refresh cycle, in seconds

  bool active = false;
  uint32_t sweep_in = 0;                ///< seconds
  bool known = false;                   ///< to discovery
  std::string prefix;                   ///< that discovery found; empty: unreachable
  std::vector<vrf_routes> counts;       ///< of discovery
  std::vector<explained_vrf> vrfs;      ///< the first ones
  std::vector<explained_route> routes;  ///< the first ones; those that count before the others
  std::optional<uint32_t> reported;     ///< seconds since, for any VRF; none: forgotten, or never
  uint64_t more_vrfs = 0;
  uint64_t more_routes = 0;
  std::optional<covering_route> global;
};

/// Asks the module, as in oper_data.h. 0, also when there is nothing.
[[nodiscard]] uint32_t explain_discovery(explanation &into);

/// After it, on the RIB's thread.
void explain_rib(const rib &routes, const redistribution &reports, const bmp_station &station,
                 explanation &into);

/// Lines with their ends.
std::string show_explanation(show_as as, const explanation &found);

}  // namespace agent
