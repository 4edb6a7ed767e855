#include "agent/rib.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <new>
#include <tuple>
#include <unordered_map>

#include "agent/free_list.h"
#include "agent/global_table.h"
#include "agent/redistribution.h"
#include "agent/seeded_hash.h"

namespace agent {

static constexpr auto kEveryVrf = [](uint32_t) { return true; };

rib::rib(global_table &global, redistribution &reports)
    : global_(global), reports_(reports), heads_(size_t{1} << kMinBucketBits, kNone) {}

rib::~rib() = default;

// ---- Attributes and VRFs ----

attr_id rib::acquire(uint32_t nexthop, std::span<const route_target> targets) {
  return attrs_.acquire(nexthop, targets);
}

void rib::release(attr_id attributes) { attrs_.release(attributes); }

// A new table has nothing to report yet: the module asks for it once it knows the table.
void rib::add_vrf(const vrf_config &vrf) {
  make_room(vrfs_, slots_);
  made_.reserve(vrfs_.capacity());
  vrf_config kept = vrf;
  const uint32_t slot = reports_.add_table(vrf.table_id);
  try {
    attrs_.add_importer(slot, vrf.imports);
  } catch (const std::bad_alloc &) {
    attrs_.remove_importer(slot);
    reports_.remove_table(slot);
    throw;
  }
  vrfs_.push_back(std::move(kept));
  slots_.push_back(slot);
}

void rib::remove_vrf(uint32_t table_id) {
  auto vrf = std::ranges::find(vrfs_, table_id, &vrf_config::table_id);
  if (vrf == vrfs_.end()) return;
  auto slot = slots_.begin() + (vrf - vrfs_.begin());
  reports_.remove_table(*slot);
  attrs_.remove_importer(*slot);
  slots_.erase(slot);
  vrfs_.erase(vrf);
}

// ---- Sources ----

source_id rib::open_source(account paths) {
  if (sources_.size() == kMaxSources && free_sources_.empty()) throw std::bad_alloc();
  make_room(sources_, free_sources_);
  source_id id = source_id(sources_.size());
  if (free_sources_.empty()) {
    sources_.emplace_back();
  } else {
    id = free_sources_.back();
    free_sources_.pop_back();
  }
  sources_[id].together = std::move(paths);
  return id;
}

void rib::close_source(source_id id) {
  std::array<nlri, 64> keys;  // so many at a time, as expect() likes it
  while (sources_[id].newest != kNone) {
    size_t count = 0;
    for (path_index i = sources_[id].newest; i != kNone && count < keys.size(); i = at(i).older)
      keys[count++] = at(i).key();
    const std::span known(keys.data(), count);
    expect(known);
    for (const nlri &key : known) withdraw(id, key);
  }
  sources_[id] = {};
  free_sources_.push_back(id);
}

// ---- Paths ----

size_t rib::bucket_of(const nlri &key) const {
  const uint64_t rest = uint64_t{key.prefix} << 8 | uint64_t{key.length} << 1 | uint64_t{key.vpn};
  return seeded_hash()(key.rd, rest) >> (32 - bucket_bits_);
}

rib::place rib::locate(source_id source, const nlri &key) const {
  place where;
  where.bucket = bucket_of(key);
  path_index before = kNone;
  for (path_index index = heads_[where.bucket]; index != kNone;) {
    const path &p = at(index);
    if (p.same_route(key)) {
      if (p.source == source && p.path_id == key.path_id) {
        where.at = index;
        where.before = before;
      } else {
        ++where.siblings;
      }
    }
    before = index;
    index = p.next;
  }
  return where;
}

void rib::expect(std::span<const nlri> keys) const {
  for (const nlri &key : keys) __builtin_prefetch(&heads_[bucket_of(key)]);
  for (const nlri &key : keys) prefetch_first(bucket_of(key));
  for (const nlri &key : keys) prefetch_second(bucket_of(key));
}

bool rib::announce(source_id source, const nlri &key, attr_id attributes) {
  place where = locate(source, key);
  if (where.at != kNone) {
    replace(where, attributes);
    return true;
  }
  if (!has_room(where, source)) return false;
  insert(where, source, key, attributes);
  return true;
}

// Whether one path more may be, and a place for it, which is made.
bool rib::has_room(const place &where, source_id source) {
  if (*sources_[source].together >= kMaxPaths - paths_ || where.siblings >= kMaxPathsPerNlri)
    return false;
  if (free_ != kNone || unused_ < segments_.size() * kSegmentPaths) return true;
  segments_.push_back(std::make_unique_for_overwrite<path[]>(kSegmentPaths));
  return true;
}

void rib::withdraw(source_id source, const nlri &key) {
  place where = locate(source, key);
  if (where.at != kNone) remove(where);
}

void rib::insert(const place &where, source_id source, const nlri &key, attr_id attributes) {
  if (!key.vpn && where.siblings == 0) global_.add(key.prefix, key.length);
  report_change(where, key, attr_store::kNone, attributes);

  path_index index = take_path();
  path_index &newest = sources_[source].newest;
  at(index) = {.rd = key.rd,
               .prefix = key.prefix,
               .next = heads_[where.bucket],
               .length = key.length,
               .vpn = key.vpn,
               .attributes = attributes,
               .source = source,
               .older = newest,
               .newer = kNone,
               .path_id = key.path_id};
  heads_[where.bucket] = index;
  if (newest != kNone) at(newest).newer = index;
  newest = index;
  attrs_.retain(attributes);
  ++*sources_[source].together;
  if (++paths_ > heads_.size()) double_buckets();
}

void rib::replace(const place &where, attr_id attributes) {
  path &p = at(where.at);
  attr_id before = p.attributes;
  if (before == attributes) return;
  report_change(where, p.key(), before, attributes);
  attrs_.retain(attributes);
  p.attributes = attributes;
  attrs_.release(before);
}

void rib::remove(const place &where) {
  const path &p = at(where.at);
  report_change(where, p.key(), p.attributes, attr_store::kNone);
  if (!p.vpn && where.siblings == 0) global_.remove(p.prefix, p.length);

  unlink(where);
  attrs_.release(p.attributes);
  --*sources_[p.source].together;
  free_path(where.at);
}

// From its bucket and its source.
void rib::unlink(const place &where) {
  const path &p = at(where.at);
  if (where.before == kNone)
    heads_[where.bucket] = p.next;
  else
    at(where.before).next = p.next;

  if (p.newer == kNone)
    sources_[p.source].newest = p.older;
  else
    at(p.newer).older = p.older;
  if (p.older != kNone) at(p.older).newer = p.newer;
}

rib::path_index rib::take_path() {
  if (free_ != kNone) {
    path_index index = free_;
    free_ = at(index).next;
    return index;
  }
  return unused_++;
}

void rib::free_path(path_index index) {
  at(index).next = free_;
  free_ = index;
  if (--paths_ > 0) return;
  segments_.clear();
  unused_ = 0;
  free_ = kNone;
}

void rib::double_buckets() {
  size_t buckets = heads_.size();
  try {
    heads_.resize(2 * buckets);
  } catch (const std::bad_alloc &) {
    return;  // longer buckets until the next path tries again
  }
  ++bucket_bits_;
  // From the end, so that no bucket is overwritten before its turn.
  for (size_t bucket = buckets; bucket-- > 0;) {
    if (bucket >= 2 * kPrefetchAhead) prefetch_first(bucket - 2 * kPrefetchAhead);
    if (bucket >= kPrefetchAhead) prefetch_second(bucket - kPrefetchAhead);
    split_bucket(heads_[bucket], bucket);
  }
  reports_.doubled();
}

void rib::split_bucket(path_index first, size_t bucket) {
  heads_[2 * bucket] = heads_[2 * bucket + 1] = kNone;
  for (path_index index = first; index != kNone;) {
    path &p = at(index);
    path_index next = p.next;
    path_index &head = heads_[bucket_of(p.key())];
    p.next = head;
    head = index;
    index = next;
  }
}

// ---- Changes ----

void rib::report_change(const place &where, const nlri &key, attr_id before, attr_id after) {
  if (!key.vpn) return;
  report_gained(where, key, after, before, true);
  report_gained(where, key, before, after, false);
}

// Reports the routes that `gained` makes and neither `other` nor another path of the NLRI does.
void rib::report_gained(const place &where, const nlri &key, attr_id gained, attr_id other,
                        bool add) {
  const uint32_t nexthop = attrs_.nexthop(gained);
  slot_span slots = attrs_.importers(gained);
  take_out(slots, nexthop, other);
  if (where.siblings != 0)
    take_out_others(slots, nexthop, key, heads_[where.bucket], kNone, where.at);
  for (uint32_t slot : slots)
    if (reports_.wants(slot, where.bucket)) reports_.report(slot, nexthop, add);
}

// Takes those VRFs out where a path with other attributes makes the route with this next hop.
void rib::take_out(slot_span &slots, uint32_t nexthop, attr_id other) const {
  if (attrs_.nexthop(other) != nexthop) return;
  if (slots.data() != made_.data()) made_.assign(slots.begin(), slots.end());
  attrs_.take_out(other, made_);
  slots = made_;
}

// The same for each path of the NLRI from `first` up to `end`. One walk for all VRFs.
void rib::take_out_others(slot_span &slots, uint32_t nexthop, const nlri &key, path_index first,
                          path_index end, path_index itself) const {
  for (path_index index = first; index != end && !slots.empty(); index = at(index).next) {
    const path &p = at(index);
    if (index != itself && p.same_route(key)) take_out(slots, nexthop, p.attributes);
  }
}

// ---- Passes ----

// The VRFs where the path makes a route: of several paths that do, the first in the bucket.
rib::slot_span rib::routes_of(size_t bucket, path_index index) const {
  const path &p = at(index);
  slot_span slots = attrs_.importers(p.attributes);
  take_out_others(slots, attrs_.nexthop(p.attributes), p.key(), heads_[bucket], index, index);
  return slots;
}

template <typename Asked, typename Visit>
void rib::visit_routes(size_t bucket, Asked asked, Visit visit) const {
  for (path_index index = heads_[bucket]; index != kNone; index = at(index).next) {
    const path &p = at(index);
    if (!p.vpn || std::ranges::none_of(attrs_.importers(p.attributes), asked)) continue;
    for (uint32_t slot : routes_of(bucket, index))
      if (asked(slot)) visit(slot, attrs_.nexthop(p.attributes));
  }
}

bool rib::work() {
  reports_.adopt();
  if (reports_.dumping()) dump_slice();
  reports_.flush();
  return !reports_.idle();
}

void rib::dump_slice() {
  size_t first = reports_.position();
  size_t visited = std::min(heads_.size(), kSliceBuckets);
  for (size_t bucket = first; bucket < first + visited; ++bucket) {
    prefetch_after(bucket);
    dump_bucket(bucket);
  }
  reports_.advance(visited, heads_.size());
}

void rib::dump_bucket(size_t bucket) {
  visit_routes(
      bucket, [&](uint32_t slot) { return reports_.dumping(slot); },
      [&](uint32_t slot, uint32_t nexthop) { reports_.report_dumped(slot, nexthop); });
}

std::vector<route_count> rib::count_routes() const {
  std::unordered_map<uint64_t, uint64_t, seeded_hash> counts;  // by slot and next hop
  for (size_t bucket = 0; bucket < heads_.size(); ++bucket) {
    prefetch_after(bucket);
    visit_routes(bucket, kEveryVrf, [&](uint32_t slot, uint32_t nexthop) {
      ++counts[uint64_t{slot} << 32 | nexthop];
    });
  }
  std::unordered_map<uint32_t, uint32_t> table_ids;
  for (size_t i = 0; i < vrfs_.size(); ++i) table_ids[slots_[i]] = vrfs_[i].table_id;

  std::vector<route_count> result;
  for (auto [key, routes] : counts)
    result.push_back({table_ids[uint32_t(key >> 32)], uint32_t(key), routes});
  std::ranges::sort(result, {}, [](const route_count &count) {
    return std::tuple(count.table_id, ntohl(count.nexthop));
  });
  return result;
}

void rib::visit_nexthop(uint32_t nexthop,
                        const std::function<void(const path_info &)> &visit) const {
  for (size_t bucket = 0; bucket < heads_.size(); ++bucket) {
    prefetch_after(bucket);
    for (path_index index = heads_[bucket]; index != kNone; index = at(index).next) {
      const path &p = at(index);
      if (!p.vpn || attrs_.nexthop(p.attributes) != nexthop) continue;
      path_info info{p.key(), source_id(p.source), attrs_.targets(p.attributes), {}};
      const slot_span routes = routes_of(bucket, index);
      for (uint32_t slot : attrs_.importers(p.attributes)) {
        const size_t vrf = size_t(std::ranges::find(slots_, slot) - slots_.begin());
        info.imports.emplace_back(vrf, std::ranges::binary_search(routes, slot));
      }
      visit(info);
    }
  }
}

size_t rib::memory() const {
  return segments_.size() * kSegmentPaths * sizeof(path) + heads_.capacity() * sizeof(path_index) +
         sources_.capacity() * sizeof(origin) + attrs_.memory() + reports_.memory();
}

}  // namespace agent
