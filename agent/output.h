// Standard output: lines in the order they came, written by a thread of their own.
//
// Notifications come on the module's worker with the nd mutex held, so they are only appended to a
// bounded queue, which the writer drains. At the bound, and where there is no memory for it, an
// event is lost and counted, and a line says how many are missing; a command's result is waited for
// until it is written, so that there is one at most. The lock covers the queue; it is never held
// while writing. A reader who left (EPIPE) or a full disk closes the output: from then on lines are
// dropped, and the owner is woken to end the agent.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <variant>
#include <vector>

#include "agent/mutex.h"
#include "agent/pe_event.h"

namespace agent {

class output {
 public:
  /// Entries kept while nobody reads.
  static constexpr size_t kMaxQueued = 65536;

  /// Writes whole lines. Returns 0, or the error number that closes the output.
  using sink = std::function<int(std::string_view lines)>;

  /// `on_closed` is called once, on the writer's thread.
  output(bool json, sink write, std::function<void()> on_closed);
  /// Writes what is queued.
  ~output();
  output(const output &) = delete;
  output &operator=(const output &) = delete;

  bool json() const { return json_; }

  /// Queues an event and numbers it. Any thread, never waits.
  void post(pe_event event) TARVO_EXCLUDES(lock_);
  /// Writes lines, each with its end, after all that was queued before. Not from the worker.
  void print(std::string lines) TARVO_EXCLUDES(lock_);
  /// Returns when everything queued before is written, or the output is closed.
  void flush() TARVO_EXCLUDES(lock_);
  bool closed() const TARVO_EXCLUDES(lock_) { return error() != 0; }
  /// Events posted, and those of them that were lost.
  uint64_t events() const TARVO_EXCLUDES(lock_);
  uint64_t events_lost() const TARVO_EXCLUDES(lock_);
  /// The error that closed the output, or 0.
  int error() const TARVO_EXCLUDES(lock_);

 private:
  using entry = std::variant<pe_event, std::string>;

  struct batch {
    std::vector<entry> entries;
    uint64_t lost = 0;
    uint64_t last_seq = 0;
  };

  void run() TARVO_EXCLUDES(lock_);
  bool take(batch &taken) TARVO_EXCLUDES(lock_);
  int write_out(const batch &taken) TARVO_EXCLUDES(lock_);
  std::string line_of(const pe_event &event) TARVO_EXCLUDES(lock_);
  void lose() TARVO_REQUIRES(lock_);
  lost_line line_of_lost(uint64_t count, uint64_t last_seq) const;

  const bool json_;
  const sink write_;
  const std::function<void()> on_closed_;

  mutable mutex lock_;
  std::condition_variable_any changed_;
  std::vector<entry> queue_ TARVO_GUARDED_BY(lock_);
  uint64_t seq_ TARVO_GUARDED_BY(lock_) = 0;   ///< of the last event, lost ones included
  uint64_t lost_ TARVO_GUARDED_BY(lock_) = 0;  ///< since the writer last took the queue
  uint64_t lost_ever_ TARVO_GUARDED_BY(lock_) = 0;
  bool writing_ TARVO_GUARDED_BY(lock_) = false;
  int error_ TARVO_GUARDED_BY(lock_) = 0;
  bool stop_ TARVO_GUARDED_BY(lock_) = false;

  std::thread writer_;
};

/// A sink that writes to a descriptor.
output::sink write_to(int fd);

}  // namespace agent
