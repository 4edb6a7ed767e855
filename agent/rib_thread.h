// The RIB's thread: one loop over sockets, jobs of other threads, and redistribution.
#pragma once

#include <functional>

namespace agent {

class rib_thread {
 public:
  /// Runs `job` on the RIB thread and returns when it is done.
  void call(const std::function<void()> &job);

  /// Returns once every pending dump has been reported and the module has handled it all
  /// (discovery inactive: at once). Never from the RIB thread.
  void settle();

  /// Calls `ready` whenever poll() reports `events` on `fd`. RIB thread only.
  void add_fd(int fd, short events, std::function<void(short revents)> ready);
  void remove_fd(int fd);
};

}  // namespace agent
