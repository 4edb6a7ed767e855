// Fence: tells when the module has handled everything queued so far, and paces the RIB thread.
//
// It is a client of the module under a VRF name that no table can have: its resend brings
// RESEND_END and nothing else, in queue order. It is registered while anyone watches.
#pragma once

#include <cstdint>

namespace agent {

class fence {
 public:
  /// The fence's own client ID; no watch may use it.
  static constexpr uint32_t kClientId = 0xffffffff;

  /// Registers the fence with the module; before the first watcher registers.
  void open();
  /// Waits for what is outstanding and unregisters it; after the last watcher unregistered.
  void close();
  bool is_open() const;

  /// Returns once every request queued before the call has been handled. At once while closed.
  void wait();
};

}  // namespace agent
