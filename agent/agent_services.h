// The agent's side of the module's interface: what the module calls, and what it registered.
//
// The functions themselves are declared in tarvo/agent_services.h. They go to the objects given
// here, which live as long as the module may call.
#pragma once

#include <cstdint>

#include "tarvo/agent_services.h"

namespace agent {

class global_table;
class redistribution;

/// The router's default IPv4 unicast table; no VRF may use it.
constexpr uint32_t kDefaultTableId = 0xe0000000;

/// Why there is nothing to tell.
constexpr const char *kInactive = "discovery is inactive: no client watches";

/// The callback tables that the module registered; null until then.
struct module_tables {
  const tarvo_nd_cfg_fns_t *cfg = nullptr;
  const tarvo_nd_rib_fns_t *rib = nullptr;
  const tarvo_nd_ital_fns_t *ital = nullptr;
  const tarvo_nd_ods_fns_t *ods = nullptr;
};

/// Before tarvo_nd_init, on the same thread.
void install_services(redistribution &reports, const global_table &global);

/// After tarvo_nd_init.
const module_tables &registered_tables();

/// Debug traces to standard error, one line each. Any thread.
void set_trace(bool on);

}  // namespace agent
