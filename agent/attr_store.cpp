#include "agent/attr_store.h"

#include <algorithm>
#include <new>

#include "agent/free_list.h"

namespace agent {

static uint64_t attr_key(uint32_t nexthop, uint32_t set) { return uint64_t{nexthop} << 32 | set; }

static uint32_t hash_targets(std::span<const route_target> targets) {
  uint32_t hash = 0;
  for (route_target target : targets) hash = seeded_hash()(target, hash);
  return hash;
}

static bool intersects(std::span<const route_target> targets,
                       std::span<const route_target> imports) {
  for (route_target import : imports)
    if (std::ranges::binary_search(targets, import)) return true;
  return false;
}

attr_store::attr_store() : attrs_(1) {}

// ---- Attributes ----

attr_id attr_store::acquire(uint32_t nexthop, std::span<const route_target> targets) {
  scratch_.assign(targets.begin(), targets.end());
  std::ranges::sort(scratch_);
  scratch_.erase(std::unique(scratch_.begin(), scratch_.end()), scratch_.end());

  const uint32_t set = acquire_set(scratch_);
  if (set == kNoSet) return kNone;
  attr_id id = kNone;
  try {
    id = acquire_attr(nexthop, set);
  } catch (const std::bad_alloc &) {
    release_set(set);
    throw;
  }
  // A new attribute keeps the reference; another holds one already.
  if (id == kNone || attrs_[id].references > 1) release_set(set);
  return id;
}

attr_id attr_store::acquire_attr(uint32_t nexthop, uint32_t set) {
  const auto known = attr_index_.find(attr_key(nexthop, set));
  if (known != attr_index_.end()) {
    retain(known->second);
    return known->second;
  }
  if (attr_index_.size() >= kMaxAttributes) return kNone;
  make_room(attrs_, free_attrs_);
  const bool used_before = !free_attrs_.empty();
  const attr_id id = used_before ? free_attrs_.back() : attr_id(attrs_.size());
  attr_index_.emplace(attr_key(nexthop, set), id);
  if (used_before)
    free_attrs_.pop_back();
  else
    attrs_.emplace_back();
  attrs_[id] = {nexthop, set, 1};
  return id;
}

void attr_store::release(attr_id id) {
  attr &a = attrs_[id];
  if (--a.references > 0) return;
  attr_index_.erase(attr_key(a.nexthop, a.set));
  release_set(a.set);
  free_attrs_.push_back(id);
}

void attr_store::take_out(attr_id id, std::vector<uint32_t> &slots) const {
  auto left = importers(id);
  std::erase_if(slots, [&left](uint32_t slot) {
    while (!left.empty() && left.front() < slot) left = left.subspan(1);
    return !left.empty() && left.front() == slot;
  });
}

// ---- Target sets ----

uint32_t attr_store::acquire_set(std::span<const route_target> sorted) {
  const uint32_t hash = hash_targets(sorted);
  auto [first, last] = set_index_.equal_range(hash);
  for (auto it = first; it != last; ++it) {
    target_set &set = sets_[it->second];
    if (!std::ranges::equal(set.targets, sorted)) continue;
    ++set.references;
    return it->second;
  }
  if (targets_ + sorted.size() > kMaxTargets) return kNoSet;
  target_set set = make_set(sorted);
  make_room(sets_, free_sets_);
  const bool used_before = !free_sets_.empty();
  const uint32_t id = used_before ? free_sets_.back() : uint32_t(sets_.size());
  set_index_.emplace(hash, id);
  if (used_before)
    free_sets_.pop_back();
  else
    sets_.emplace_back();
  sets_[id] = std::move(set);
  targets_ += sorted.size();
  return id;
}

attr_store::target_set attr_store::make_set(std::span<const route_target> sorted) const {
  target_set set;
  set.references = 1;
  set.targets.assign(sorted.begin(), sorted.end());
  for (const importer &vrf : importers_)
    if (intersects(sorted, vrf.imports)) set.importers.push_back(vrf.slot);
  return set;
}

void attr_store::release_set(uint32_t id) {
  target_set &set = sets_[id];
  if (--set.references > 0) return;
  auto [first, last] = set_index_.equal_range(hash_targets(set.targets));
  set_index_.erase(std::find_if(first, last, [id](auto &entry) { return entry.second == id; }));
  targets_ -= set.targets.size();
  set = {};
  free_sets_.push_back(id);
}

// ---- VRFs ----

void attr_store::add_importer(uint32_t slot, std::span<const route_target> imports) {
  auto place = std::ranges::lower_bound(importers_, slot, {}, &importer::slot);
  importers_.insert(place, {slot, {imports.begin(), imports.end()}});
  for (target_set &set : sets_) {
    if (!intersects(set.targets, imports)) continue;
    set.importers.insert(std::ranges::lower_bound(set.importers, slot), slot);
  }
}

void attr_store::remove_importer(uint32_t slot) {
  std::erase_if(importers_, [slot](const importer &vrf) { return vrf.slot == slot; });
  for (target_set &set : sets_) std::erase(set.importers, slot);
}

size_t attr_store::memory() const {
  constexpr size_t kIndexEntry = 4 * sizeof(void *);  // a node with its links, and its bucket
  size_t bytes = attrs_.capacity() * sizeof(attr) + sets_.capacity() * sizeof(target_set) +
                 (attr_index_.size() + set_index_.size()) * kIndexEntry;
  for (const target_set &set : sets_)
    bytes +=
        set.targets.capacity() * sizeof(route_target) + set.importers.capacity() * sizeof(uint32_t);
  return bytes;
}

}  // namespace agent
