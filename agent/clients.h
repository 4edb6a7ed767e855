// The clients that the person or program at the agent runs: which IDs watch which VRF.
//
// Watches are made and ended by one thread, the interpreter's; the worker reads them when it
// notifies (nd mutex, then the lock here, then the output's). The lock is never held while the
// module is called. Each watch is one registration, so an event's VRF is that of its client's
// watch. The number of watches is bounded by the commands typed.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "agent/mutex.h"

namespace agent {

class fence;
class output;
class rib_thread;

/// Why a command is refused that found no memory.
inline constexpr const char *kNoMemory = "out of memory";

class clients {
 public:
  /// One object a process: the module's callback carries no context.
  clients(rib_thread &loop, fence &pace, output &out);
  /// Every watch has ended.
  ~clients();
  clients(const clients &) = delete;
  clients &operator=(const clients &) = delete;

  /// Each returns when its notifications are queued for output: an empty string, or what is wrong.
  /// The ledger refused IDs that are wrong here. An empty VRF: every VPN.
  std::string watch(uint32_t id, const std::string &vrf);
  std::string unwatch(uint32_t id);
  std::string resend(uint32_t id);

  void unwatch_all();

 private:
  using vrf_name = std::shared_ptr<const std::string>;  ///< null: every VPN

  static void on_event(uint32_t client_id, uint32_t event, const void *data);
  void pass_on(uint32_t client_id, uint32_t event, const void *data) TARVO_EXCLUDES(lock_);
  void forget(uint32_t id) TARVO_EXCLUDES(lock_);

  rib_thread &loop_;
  fence &pace_;
  output &out_;

  mutex lock_;
  std::map<uint32_t, vrf_name> watches_ TARVO_GUARDED_BY(lock_);
};

}  // namespace agent
