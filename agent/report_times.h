// When a next hop was last reported for a table: a cache of fixed size, 512 KiB, of 40,960 pairs.
//
// It is written with every report, so a pair is looked for in one cache line and nowhere else; where
// that is full, the pair that was reported longest ago is forgotten. One thread uses it.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <optional>

namespace agent {

class report_times {
 public:
  /// `now` counts seconds from any origin and is not 0.
  void note(uint32_t table_id, uint32_t nexthop, uint32_t now) {
    line &where = line_of(table_id, nexthop);
    auto at = find(where, table_id, nexthop);
    if (at == where.entries.end()) at = std::ranges::min_element(where.entries, {}, &entry::when);
    *at = {table_id, nexthop, now};
  }

  /// Nothing: never, or forgotten.
  std::optional<uint32_t> last(uint32_t table_id, uint32_t nexthop) const {
    line &where = line_of(table_id, nexthop);
    const auto at = find(where, table_id, nexthop);
    if (at == where.entries.end() || at->when == 0) return std::nullopt;
    return at->when;
  }

  size_t memory() const { return kLines * sizeof(line); }

 private:
  struct entry {
    uint32_t table_id = 0;
    uint32_t nexthop = 0;
    uint32_t when = 0;
  };
  struct alignas(64) line {
    std::array<entry, 5> entries;
  };
  static_assert(sizeof(line) == 64, "one cache line");
  static constexpr unsigned kLineBits = 13;
  static constexpr size_t kLines = size_t{1} << kLineBits;

  line &line_of(uint32_t table_id, uint32_t nexthop) const {
    const uint64_t mixed = (uint64_t{table_id} << 32 | nexthop) * 0x9e3779b97f4a7c15;
    return lines_[(mixed ^ mixed << 32) >> (64 - kLineBits)];
  }
  static std::array<entry, 5>::iterator find(line &in, uint32_t table_id, uint32_t nexthop) {
    return std::ranges::find_if(in.entries, [=](const entry &e) {
      return e.table_id == table_id && e.nexthop == nexthop;
    });
  }

  const std::unique_ptr<line[]> lines_ = std::make_unique<line[]>(kLines);
};

}  // namespace agent
