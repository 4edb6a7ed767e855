#include "agent/redistribution.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <numeric>
#include <span>

#include "agent/fence.h"
#include "agent/free_list.h"

namespace agent {

redistribution::redistribution(fence &pace) : pace_(pace) {
  changes_.reserve(kBurst);
  dumped_.reserve(kDumped);
  grouped_.reserve(kDumped);
}

void redistribution::set_callbacks(const tarvo_nd_rib_fns_t *callbacks) {
  scoped_lock held(lock_);
  callbacks_ = callbacks;
}

void redistribution::set_wakeup(std::function<void()> wakeup) {
  scoped_lock held(lock_);
  wakeup_ = std::move(wakeup);
}

// ---- Requests ----

void redistribution::set(uint32_t slot, bool on) {
  wish &w = wishes_[slot];
  w.on = on;
  ++w.generation;
  if (w.adopted) requested_.push_back(slot);
  w.adopted = false;
  if (wakeup_) wakeup_();
}

int redistribution::request(uint32_t table_id, bool on) {
  scoped_lock held(lock_);
  auto found = slots_.find(table_id);
  if (found == slots_.end()) return -1;
  set(found->second, on);
  return 0;
}

int redistribution::request_reset(uint32_t table_id) {
  scoped_lock held(lock_);
  auto found = slots_.find(table_id);
  if (found == slots_.end() || !wishes_[found->second].on) return -1;
  set(found->second, true);
  return 0;
}

// ---- Tables ----

uint32_t redistribution::add_table(uint32_t table_id) {
  scoped_lock held(lock_);
  make_room(tables_, free_slots_);
  wishes_.reserve(tables_.capacity());
  requested_.reserve(tables_.capacity());  // the worker's requests never allocate
  const bool used_before = !free_slots_.empty();
  const uint32_t slot = used_before ? free_slots_.back() : uint32_t(tables_.size());
  slots_.emplace(table_id, slot);
  if (used_before) {
    free_slots_.pop_back();
  } else {
    tables_.emplace_back();
    wishes_.emplace_back();
  }
  wishes_[slot].table_id = table_id;
  return slot;
}

void redistribution::remove_table(uint32_t slot) {
  scoped_lock held(lock_);
  // The generation outlives the table: reports still buffered must not pass for the next user's.
  wish &w = wishes_[slot];
  slots_.erase(w.table_id);
  w.on = false;
  ++w.generation;
  table &t = tables_[slot];
  stop_dump(t);
  t.on = false;
  free_slots_.push_back(slot);
}

// ---- Dumps ----

void redistribution::stop_dump(table &t) {
  if (t.dumping) --dumping_;
  t.dumping = false;
}

void redistribution::adopt() {
  scoped_lock held(lock_);
  for (uint32_t slot : requested_) {
    wish &w = wishes_[slot];
    w.adopted = true;
    table &t = tables_[slot];
    stop_dump(t);
    t.on = w.on;
    t.generation = w.generation;
    if (!t.on) continue;
    t.dumping = true;
    t.start = position_;
    ++dumping_;
  }
  requested_.clear();
}

bool redistribution::idle() const {
  scoped_lock held(lock_);
  return requested_.empty() && dumping_ == 0 && changes_.empty() && dumped_.empty();
}

void redistribution::advance(size_t visited, size_t buckets) {
  position_ = (position_ + visited) % buckets;
  for (table &t : tables_)
    if (t.dumping && t.start == position_) stop_dump(t);
}

void redistribution::doubled() {
  position_ *= 2;
  for (table &t : tables_) t.start *= 2;
}

// ---- Reports ----

static uint32_t seconds_now() {
  const auto since = std::chrono::steady_clock::now().time_since_epoch();
  return uint32_t(std::chrono::duration_cast<std::chrono::seconds>(since).count()) + 1;
}

void redistribution::hand_over(const pending_report &report, uint32_t now) {
  const wish &w = wishes_[report.slot];
  if (w.generation != report.generation) return;
  // A report that finds no memory is lost (the module logs it); the next refresh makes it good.
  if (callbacks_->nhop_update(w.table_id, report.nexthop, report.add) == 0) return;
  if (report.add) times_.note(report.nexthop, now);
  reported_.store(reported() + 1, std::memory_order_relaxed);
}

void redistribution::hand_over_all(std::vector<pending_report> &reports) {
  for (size_t done = 0; done < reports.size();) {
    const auto burst = std::span(reports).subspan(done, std::min(reports.size() - done, kBurst));
    pace_.pass([&] {
      const uint32_t now = seconds_now();
      scoped_lock held(lock_);
      for (const pending_report &report : burst) hand_over(report, now);
    });
    done += burst.size();
  }
  reports.clear();
}

// By a hash of the next hop: two passes, whatever the next hops are.
void redistribution::group_dumped() {
  if (dumped_.empty()) return;
  constexpr unsigned kLaneBits = 10;
  const auto lane = [](const pending_report &report) {
    return place_of(report.nexthop, kLaneBits);
  };
  std::array<uint32_t, (1u << kLaneBits) + 1> place{};
  for (const pending_report &report : dumped_) ++place[lane(report) + 1];
  std::partial_sum(place.begin(), place.end(), place.begin());
  grouped_.resize(dumped_.size());
  for (const pending_report &report : dumped_) grouped_[place[lane(report)]++] = report;
  dumped_.swap(grouped_);
}

// What the pass met is added before changes remove anything, so that no next hop goes and comes.
void redistribution::flush() {
  group_dumped();
  hand_over_all(dumped_);
  hand_over_all(changes_);
}

std::optional<uint32_t> redistribution::seconds_since_report(uint32_t nexthop) const {
  const auto last = times_.last(nexthop);
  if (!last) return std::nullopt;
  return seconds_now() - *last;
}

size_t redistribution::memory() const {
  return times_.memory() +
         (changes_.capacity() + dumped_.capacity() + grouped_.capacity()) * sizeof(pending_report) +
         tables_.capacity() * sizeof(table);
}

}  // namespace agent
