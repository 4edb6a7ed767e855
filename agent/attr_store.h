// Interned attributes: a next hop with a set of route targets, and which VRFs import them.
//
// Both are interned, attributes and target sets, and counted: the last release frees. Target sets
// know the slots of the VRFs that import any of their targets, so that a route's membership is one
// look. The RIB thread's own. It holds no more than what paths refer to, in all kMaxAttributes and
// kMaxTargets: less than half a GiB. There is no share for each session: attributes are interned,
// so one that several sessions bring is no session's own. A hostile router can take what is left,
// and then routes of others are refused, but only those with attributes that nobody brought before.
// It shows in its session's count of routes left out; ending that session frees all. Where memory
// fails, acquire() throws and changes nothing;
// releasing never allocates.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <unordered_map>
#include <vector>

#include "agent/route.h"
#include "agent/seeded_hash.h"

namespace agent {

class attr_store {
 public:
  /// Attributes of no route: no next hop, no VRF. Never released.
  static constexpr attr_id kNone = 0;
  static constexpr size_t kMaxAttributes = (size_t{1} << 20) - 1;
  static constexpr size_t kMaxTargets = size_t{1} << 24;  ///< of all sets together

  attr_store();

  /// One reference more; next hop in network byte order, targets in any order. kNone: the store is
  /// full.
  attr_id acquire(uint32_t nexthop, std::span<const route_target> targets);
  void retain(attr_id id) { ++attrs_[id].references; }
  void release(attr_id id);

  uint32_t nexthop(attr_id id) const { return attrs_[id].nexthop; }
  /// Ascending, each once.
  std::span<const route_target> targets(attr_id id) const { return sets_[attrs_[id].set].targets; }
  /// Slots of the VRFs that a route with these attributes belongs to, ascending. None without a
  /// next hop: that is the router itself, no remote PE.
  std::span<const uint32_t> importers(attr_id id) const {
    const attr &a = attrs_[id];
    if (a.nexthop == 0) return {};
    return sets_[a.set].importers;
  }
  /// Takes those out of `slots`, ascending.
  void take_out(attr_id id, std::vector<uint32_t> &slots) const;

  void add_importer(uint32_t slot, std::span<const route_target> imports);
  void remove_importer(uint32_t slot);

  size_t memory() const;

 private:
  struct attr {
    uint32_t nexthop = 0;
    uint32_t set = 0;
    uint32_t references = 0;
  };
  struct target_set {
    std::vector<route_target> targets;  ///< sorted, each once
    std::vector<uint32_t> importers;
    uint32_t references = 0;
  };
  struct importer {
    uint32_t slot;
    std::vector<route_target> imports;
  };

  static constexpr uint32_t kNoSet = ~uint32_t{0};

  uint32_t acquire_set(std::span<const route_target> sorted);
  attr_id acquire_attr(uint32_t nexthop, uint32_t set);
  void release_set(uint32_t id);
  target_set make_set(std::span<const route_target> sorted) const;

  std::vector<attr> attrs_;
  std::vector<uint32_t> free_attrs_;
  std::unordered_map<uint64_t, attr_id, seeded_hash> attr_index_;  ///< by next hop and set
  std::vector<target_set> sets_;
  std::vector<uint32_t> free_sets_;
  std::unordered_multimap<uint32_t, uint32_t> set_index_;  ///< by the seeded hash of the targets
  std::vector<importer> importers_;                        ///< by slot, ascending
  std::vector<route_target> scratch_;
  size_t targets_ = 0;  ///< of all sets
};

}  // namespace agent
