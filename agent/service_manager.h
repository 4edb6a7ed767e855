// The service manager's side: readiness, status and watchdog, as systemd's notification protocol.
//
// It is one datagram to the socket that NOTIFY_SOCKET names, so there is no library for it here:
// libsystemd would bring its compressors and cryptography into every process. Without the variable
// nothing is done.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <string_view>
#include <thread>

#include "agent/mutex.h"

namespace agent {

/// How long a manager whose socket is full is waited for; without its "READY=1" it would end the
/// agent.
constexpr std::chrono::microseconds kManagerPatience = std::chrono::seconds(5);

/// Sends "READY=1" and the like; lines. Lost when the manager takes nothing for `patience`, which
/// is more than 0.
void notify_service(std::string_view state,
                    std::chrono::microseconds patience = kManagerPatience) noexcept;

/// How often the manager wants to hear of this process at the least; 0: it doesn't.
std::chrono::microseconds watchdog_limit();

/// Feeds the watchdog, from a thread of its own, each time that `alive` returns true; it is asked
/// three times in the limit, and may take its time.
class watchdog {
 public:
  watchdog(std::chrono::microseconds limit, std::function<bool()> alive);
  /// Waits for `alive`.
  ~watchdog();
  watchdog(const watchdog &) = delete;
  watchdog &operator=(const watchdog &) = delete;

 private:
  void run();

  const std::chrono::microseconds period_;
  const std::function<bool()> alive_;
  mutex lock_;
  std::condition_variable_any stopped_;
  bool stop_ TARVO_GUARDED_BY(lock_) = false;
  std::thread thread_;
};

}  // namespace agent
