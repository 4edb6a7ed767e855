// Routing information base: every path that the BMP sessions brought, and the VRFs by import.
//
// Paths are kept in one hash table ordered by the hash of (RD, prefix, length), so all paths of an
// NLRI stand in one bucket, and a table's dump is a pass over the buckets. A route of a VRF is
// (RD, prefix, next hop): however many paths carry it, and through however many imported targets,
// it is there once. Everything here is the RIB thread's own; only the redistribution and the
// global table, which it feeds, are shared.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

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
  rib(global_table &global, redistribution &reports);
  ~rib();
  rib(const rib &) = delete;
  rib &operator=(const rib &) = delete;

  source_id open_source();
  /// Withdraws everything that the source brought. Several in a row cost one pass: the work is
  /// done by the next call of settle(), announce() or withdraw().
  void close_source(source_id source);
  void settle();

  /// Interns a next hop (network byte order) and a set of targets (any order, duplicates allowed).
  /// The caller holds one reference until release(); every path that uses it holds one more.
  attr_id acquire(uint32_t nexthop, std::span<const route_target> targets);
  void release(attr_id attributes);

  void announce(source_id source, const nlri &key, attr_id attributes);
  void withdraw(source_id source, const nlri &key);

  /// The caller has checked that name and table ID are free.
  void add_vrf(const vrf_config &vrf);
  void remove_vrf(uint32_t table_id);
  const std::vector<vrf_config> &vrfs() const;

  /// Routes by VRF and next hop, in order of table ID and next hop (as a number): one pass.
  std::vector<route_count> count_routes() const;

  size_t paths() const;
  size_t memory() const;  ///< bytes held
};

}  // namespace agent
