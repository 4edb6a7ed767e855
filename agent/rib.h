// Routing information base: every path that the BMP sessions brought, and the VRFs by import.
//
// Paths are kept in one hash table ordered by the hash of (RD, prefix, length), so all paths of an
// NLRI stand in one bucket, and a table's dump is a pass over the buckets. A bucket is the hash's
// top bits: when their number doubles, bucket b becomes 2b and 2b + 1, and a pass in the middle
// keeps its place. A route of a VRF is (RD, prefix, next hop): however many paths carry it, and
// through however many imported targets, it is there once. A path that a change concerns is
// compared with its bucket before and after, and the difference is reported, adds first.
//
// The paths of a source are also linked, newest first, so that closing it costs what it brought.
//
// Everything here is the RIB thread's own; only the redistribution and the global table, which it
// feeds, are shared. A path takes 32 bytes and its share of the buckets 4 to 8; no allocation is
// made per route. kMaxPaths bounds the whole, kMaxPathsPerNlri the work that one change costs, and
// no account (a BMP session's) may hold more paths than are left for all. Where memory fails,
// acquire() and announce() throw std::bad_alloc or refuse, and nothing has changed; withdrawing,
// closing and the passes don't allocate.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "agent/attr_store.h"
#include "agent/route.h"

namespace agent {

class global_table;
class redistribution;

struct vrf_config {
  std::string name;
  uint32_t table_id = 0;
  std::vector<route_target> imports;
};

/// Routes of one VRF with one next hop.
struct route_count {
  uint32_t table_id = 0;
  uint32_t nexthop = 0;  ///< network byte order
  uint64_t routes = 0;
};

class rib {
 public:
  static constexpr size_t kMaxPaths = (size_t{1} << 24) - 1;  ///< half a GiB
  static constexpr size_t kMaxPathsPerNlri = 1024;
  static constexpr size_t kMaxSources = size_t{1} << 20;  ///< open_source() throws beyond

  rib(global_table &global, redistribution &reports);
  ~rib();
  rib(const rib &) = delete;
  rib &operator=(const rib &) = delete;

  /// Counts the paths of sources that are bounded together.
  using account = std::shared_ptr<size_t>;

  source_id open_source(account paths = std::make_shared<size_t>(0));
  /// Withdraws everything that the source brought.
  void close_source(source_id source);

  /// Interns a next hop (network byte order) and a set of targets (any order, duplicates allowed).
  /// The caller holds one reference until release(); every path that uses it holds one more.
  /// attr_store::kNone: there are too many.
  attr_id acquire(uint32_t nexthop, std::span<const route_target> targets);
  void release(attr_id attributes);

  /// Tells of keys to be announced or withdrawn next, so that their buckets come from memory side
  /// by side, and not each in its turn. Changes nothing.
  void expect(std::span<const nlri> keys) const;
  /// A path's key is its source and the whole NLRI; announced again, it takes other attributes.
  /// False: refused, since there are too many paths, in all, of the source's account or of this
  /// NLRI, or no memory for more.
  bool announce(source_id source, const nlri &key, attr_id attributes);
  void withdraw(source_id source, const nlri &key);

  /// The caller has checked that name and table ID are free. It may throw std::bad_alloc; then
  /// nothing has changed.
  void add_vrf(const vrf_config &vrf);
  void remove_vrf(uint32_t table_id);
  const std::vector<vrf_config> &vrfs() const { return vrfs_; }

  /// One turn of background work: requests of the module, a slice of the dumps, and the hand-over
  /// of reports. Returns whether another is due.
  bool work();

  /// Routes by VRF and next hop, in order of table ID and next hop (as a number): one pass.
  std::vector<route_count> count_routes() const;

  /// A VPN path, as visit_nexthop() shows it.
  struct path_info {
    nlri key;
    source_id source = 0;
    std::span<const route_target> targets;  ///< ascending
    /// The importing VRFs, by their place in vrfs(), and whether the path stands there for its
    /// route: of several paths one does.
    std::vector<std::pair<size_t, bool>> imports;
  };

  /// Shows each VPN path with this next hop (network byte order), in no order: one pass.
  void visit_nexthop(uint32_t nexthop, const std::function<void(const path_info &)> &visit) const;

  size_t paths() const { return paths_; }
  size_t memory() const;  ///< bytes held

 private:
  /// An index of a path, or kNone.
  using path_index = uint32_t;
  static constexpr path_index kNone = kMaxPaths;
  static constexpr unsigned kSegmentBits = 16;
  static constexpr size_t kSegmentPaths = size_t{1} << kSegmentBits;
  static constexpr unsigned kMinBucketBits = 10;
  static constexpr size_t kSliceBuckets = 16384;
  static constexpr size_t kPrefetchAhead = 8;

  // The bits are those of kMaxPaths, kMaxAttributes, kMaxSources and 32; what a walk of the bucket
  // reads comes first, since half of the paths stand in two cache lines.
  struct path {
    uint64_t rd;
    uint32_t prefix;
    uint32_t next : 24;  // in the bucket, or of the free ones
    uint32_t length : 6;
    uint32_t vpn : 1;
    uint64_t attributes : 20;
    uint64_t source : 20;
    uint64_t older : 24;  // of the source
    uint32_t newer : 24;
    uint32_t path_id;

    nlri key() const { return {rd, prefix, path_id, uint8_t(length), vpn != 0}; }
    bool same_route(const nlri &other) const {
      return prefix == other.prefix && rd == other.rd && length == other.length && vpn == other.vpn;
    }
  };
  static_assert(sizeof(path) == 32, "what a route costs");

  struct origin {
    path_index newest = kNone;
    account together;
  };

  /// Where a path stands, or would stand.
  struct place {
    size_t bucket = 0;
    path_index at = kNone;
    path_index before = kNone;  ///< its predecessor in the bucket
    size_t siblings = 0;        ///< other paths of the NLRI
  };

  path &at(path_index index) {
    return segments_[index >> kSegmentBits][index & (kSegmentPaths - 1)];
  }
  const path &at(path_index index) const {
    return segments_[index >> kSegmentBits][index & (kSegmentPaths - 1)];
  }
  size_t bucket_of(const nlri &key) const;
  place locate(source_id source, const nlri &key) const;
  bool has_room(const place &where, source_id source);
  void insert(const place &where, source_id source, const nlri &key, attr_id attributes);
  void replace(const place &where, attr_id attributes);
  void remove(const place &where);
  path_index take_path();
  void free_path(path_index index);
  void unlink(const place &where);
  void double_buckets();
  void split_bucket(path_index first, size_t bucket);

  void report_change(const place &where, const nlri &key, attr_id before, attr_id after);
  void report_gained(const place &where, const nlri &key, attr_id gained, attr_id other, bool add);
  /// VRFs by slot, ascending: the importing ones, or in made_ what is left of them.
  using slot_span = std::span<const uint32_t>;
  void take_out(slot_span &slots, uint32_t nexthop, attr_id other) const;
  void take_out_others(slot_span &slots, uint32_t nexthop, const nlri &key, path_index first,
                       path_index end, path_index itself) const;

  void dump_slice();
  void dump_bucket(size_t bucket);
  // Inlined always: to GCC a function that only prefetches has no effect, and it drops the call.
  [[gnu::always_inline]] void prefetch_first(size_t bucket) const {
    if (bucket < heads_.size() && heads_[bucket] != kNone) __builtin_prefetch(&at(heads_[bucket]));
  }
  /// When the first has come.
  [[gnu::always_inline]] void prefetch_second(size_t bucket) const {
    if (bucket >= heads_.size() || heads_[bucket] == kNone) return;
    const path_index second = at(heads_[bucket]).next;
    if (second != kNone) __builtin_prefetch(&at(second));
  }
  /// For a pass that is at `bucket`.
  [[gnu::always_inline]] void prefetch_after(size_t bucket) const {
    prefetch_first(bucket + 2 * kPrefetchAhead);
    prefetch_second(bucket + kPrefetchAhead);
  }
  slot_span routes_of(size_t bucket, path_index index) const;
  template <typename Asked, typename Visit>
  void visit_routes(size_t bucket, Asked asked, Visit visit) const;

  global_table &global_;
  redistribution &reports_;
  attr_store attrs_;

  std::vector<std::unique_ptr<path[]>> segments_;
  path_index unused_ = 0;  ///< paths from here on were never used
  path_index free_ = kNone;
  size_t paths_ = 0;
  std::vector<path_index> heads_;
  unsigned bucket_bits_ = kMinBucketBits;

  std::vector<origin> sources_;
  std::vector<source_id> free_sources_;

  std::vector<vrf_config> vrfs_;
  std::vector<uint32_t> slots_;         ///< of vrfs_, in the same order
  mutable std::vector<uint32_t> made_;  ///< scratch of take_out()
};

}  // namespace agent
