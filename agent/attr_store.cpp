#include "agent/attr_store.h"

#include <algorithm>

namespace agent {

static uint64_t attr_key(uint32_t nexthop, uint32_t set) { return uint64_t{nexthop} << 32 | set; }

static uint64_t hash_targets(std::span<const route_target> targets) {
  uint64_t hash = targets.size();
  for (route_target target : targets) {
    hash = (hash ^ target) * 0x9e3779b97f4a7c15;
    hash ^= hash >> 32;
  }
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

  uint32_t set = acquire_set(scratch_);
  auto [entry, fresh] = attr_index_.try_emplace(attr_key(nexthop, set), kNone);
  if (!fresh) {
    release_set(set);  // the attribute holds it already
    retain(entry->second);
    return entry->second;
  }
  attr_id id = attr_id(attrs_.size());
  if (free_attrs_.empty()) {
    attrs_.emplace_back();
  } else {
    id = free_attrs_.back();
    free_attrs_.pop_back();
  }
  attrs_[id] = {nexthop, set, 1};
  entry->second = id;
  return id;
}

void attr_store::release(attr_id id) {
  attr &a = attrs_[id];
  if (--a.references > 0) return;
  attr_index_.erase(attr_key(a.nexthop, a.set));
  release_set(a.set);
  free_attrs_.push_back(id);
}

bool attr_store::gives(attr_id id, uint32_t slot, uint32_t nexthop) const {
  const attr &a = attrs_[id];
  return a.nexthop == nexthop && nexthop != 0 &&
         std::ranges::binary_search(sets_[a.set].importers, slot);
}

// ---- Target sets ----

uint32_t attr_store::acquire_set(std::span<const route_target> sorted) {
  uint64_t hash = hash_targets(sorted);
  auto [first, last] = set_index_.equal_range(hash);
  for (auto it = first; it != last; ++it) {
    target_set &set = sets_[it->second];
    if (!std::ranges::equal(set.targets, sorted)) continue;
    ++set.references;
    return it->second;
  }
  uint32_t id = new_set(sorted);
  set_index_.emplace(hash, id);
  return id;
}

uint32_t attr_store::new_set(std::span<const route_target> sorted) {
  uint32_t id = uint32_t(sets_.size());
  if (free_sets_.empty()) {
    sets_.emplace_back();
  } else {
    id = free_sets_.back();
    free_sets_.pop_back();
  }
  target_set &set = sets_[id];
  set.references = 1;
  set.targets.assign(sorted.begin(), sorted.end());
  for (const importer &vrf : importers_)
    if (intersects(sorted, vrf.imports)) set.importers.push_back(vrf.slot);
  return id;
}

void attr_store::release_set(uint32_t id) {
  target_set &set = sets_[id];
  if (--set.references > 0) return;
  auto [first, last] = set_index_.equal_range(hash_targets(set.targets));
  set_index_.erase(std::find_if(first, last, [id](auto &entry) { return entry.second == id; }));
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
