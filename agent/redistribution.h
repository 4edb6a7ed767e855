// Redistribution: which VPN tables the module wants reported, and the road of the reports.
//
// The worker (with the nd mutex held) switches tables on and off and asks for resets; the RIB
// thread adopts these requests, dumps tables and reports changes. The lock covers the requests and
// every hand-over of reports to the module, so that a table switched off is silent once the call
// has returned. Order: nd mutex, then this lock, then the module's workQ mutex; pacing waits
// without any lock.
#pragma once

#include <cstdint>

namespace agent {

class fence;

class redistribution {
 public:
  explicit redistribution(fence &pace);

  /// From the worker: the module's calls, as declared in tarvo/agent_services.h.
  int request(uint32_t table_id, bool on);
  int request_reset(uint32_t table_id);
};

}  // namespace agent
