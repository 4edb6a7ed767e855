// Redistribution: which VPN tables the module wants reported, and the road of the reports.
//
// The worker (with the nd mutex held) switches tables on and off and asks for resets; the RIB
// thread adopts these requests, dumps tables and reports changes. The lock covers the requests and
// every hand-over of reports to the module, so that a table switched off is silent once the call
// has returned. The order of locks stands in fence.h; pacing waits without any lock.
//
// Each request gives its table a new generation, and a report carries the generation that it was
// made under: a hand-over drops the reports of an older one, which a new dump covers or nobody
// wants. A dump is a pass over the RIB's buckets, and one pass serves all tables that want one: a
// table joins at the pass's position, and the pass goes round until it is back there. Meanwhile
// changes of the table are reported in the buckets that the pass has visited for it, no others.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <unordered_map>
#include <vector>

#include "agent/mutex.h"
#include "agent/report_times.h"
#include "tarvo/agent_services.h"

namespace agent {

class fence;

class redistribution {
 public:
  /// Reports handed over in one burst. Each burst is one holding of the lock, which the worker, and
  /// a query behind it, may wait for, a quarter of a millisecond; and it costs four switches of
  /// threads.
  static constexpr size_t kBurst = 4096;
  /// Reports of dumps collected before they are handed over.
  static constexpr size_t kDumped = 16384;

  explicit redistribution(fence &pace);

  /// From the worker: the module's calls, as declared in tarvo/agent_services.h. Non-zero: unknown
  /// table, and for a reset one that is off.
  int request(uint32_t table_id, bool on);
  int request_reset(uint32_t table_id);

  /// Where reports go: the module's table, which lives as long as the process.
  void set_callbacks(const tarvo_nd_rib_fns_t *callbacks);
  /// Called after each request, with this lock held and perhaps the nd mutex: returns at once.
  void set_wakeup(std::function<void()> wakeup);

  // ---- The rest is the RIB thread's. ----

  /// Makes a table known under a slot, a small number; a removed table's slot is used again. It may
  /// throw std::bad_alloc; then nothing has changed.
  uint32_t add_table(uint32_t table_id);
  void remove_table(uint32_t slot);

  /// Takes over what the worker asked for since.
  void adopt();
  bool idle() const;  ///< nothing to adopt, to dump or to hand over

  bool dumping() const { return dumping_ != 0; }
  bool dumping(uint32_t slot) const { return tables_[slot].dumping; }
  /// The pass's next bucket. The pass moves by slices; the buckets of a slice and of the RIB are
  /// powers of two, so it comes back exactly to where a table joined.
  size_t position() const { return position_; }
  void advance(size_t visited, size_t buckets);
  /// The number of buckets doubled: bucket b is now 2b and 2b + 1.
  void doubled();

  /// Whether a change in the bucket is to be reported for the table.
  bool wants(uint32_t slot, size_t bucket) const {
    const table &t = tables_[slot];
    return t.on && (!t.dumping || visited(t.start, bucket));
  }
  void report(uint32_t slot, uint32_t nexthop, bool add) {
    changes_.push_back({slot, tables_[slot].generation, nexthop, add});
    if (changes_.size() >= kBurst) flush();
  }
  /// A route that the pass came by. These are handed over by next hop, many at a time: a pass finds
  /// another one with each route, and the module searches faster for one that it has just seen.
  void report_dumped(uint32_t slot, uint32_t nexthop) {
    dumped_.push_back({slot, tables_[slot].generation, nexthop, true});
    if (dumped_.size() >= kDumped) flush();
  }
  /// Hands the reports over; waits while too much is queued.
  void flush();

  /// Reports handed over. Any thread.
  uint64_t reported() const { return reported_.load(std::memory_order_relaxed); }
  /// Since a next hop (network byte order) was last reported as there, for any table; nothing if it
  /// wasn't, or was forgotten.
  std::optional<uint32_t> seconds_since_report(uint32_t nexthop) const;
  size_t memory() const;  ///< bytes held

 private:
  struct pending_report {
    uint32_t slot;
    uint32_t generation;
    uint32_t nexthop;
    bool add;
  };
  /// What the module asked for.
  struct wish {
    uint32_t table_id = 0;
    uint32_t generation = 0;
    bool on = false;
    bool adopted = true;
  };
  /// What the RIB thread has adopted of it.
  struct table {
    uint32_t generation = 0;
    bool on = false;
    bool dumping = false;
    size_t start = 0;  ///< where it joined the pass
  };

  void set(uint32_t slot, bool on) TARVO_REQUIRES(lock_);
  void hand_over(const pending_report &report, uint32_t now) TARVO_REQUIRES(lock_);
  void hand_over_all(std::vector<pending_report> &reports);
  void group_dumped();
  void stop_dump(table &t);
  bool visited(size_t start, size_t bucket) const {
    if (start <= position_) return bucket >= start && bucket < position_;
    return bucket >= start || bucket < position_;
  }

  mutable mutex lock_;
  std::vector<wish> wishes_ TARVO_GUARDED_BY(lock_);                      ///< by slot
  std::vector<uint32_t> requested_ TARVO_GUARDED_BY(lock_);               ///< slots not yet adopted
  std::unordered_map<uint32_t, uint32_t> slots_ TARVO_GUARDED_BY(lock_);  ///< by table ID
  const tarvo_nd_rib_fns_t *callbacks_ TARVO_GUARDED_BY(lock_) = nullptr;
  std::function<void()> wakeup_ TARVO_GUARDED_BY(lock_);

  // The RIB thread's own.
  fence &pace_;
  std::vector<table> tables_;  ///< by slot
  std::vector<uint32_t> free_slots_;
  std::vector<pending_report> changes_;
  std::vector<pending_report> dumped_;   ///< empty between the turns of the pass
  std::vector<pending_report> grouped_;  ///< what group_dumped() works in
  size_t position_ = 0;
  size_t dumping_ = 0;
  report_times times_;
  std::atomic<uint64_t> reported_ = 0;  // written by this thread alone
};

}  // namespace agent
