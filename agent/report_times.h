// When a next hop was last reported: a cache of fixed size, 32 KiB, of 4,096 next hops.
//
// It is written with every report, so a next hop is looked for in one cache line and nowhere else,
// and tables are not told apart: kept by pairs it outgrows the processor's first cache, which the
// ingestion feels. Where a line is full, the next hop that was reported longest ago is forgotten.
// One thread uses it.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <optional>

namespace agent {

/// Spreads next hops over 2^bits places.
inline uint32_t place_of(uint32_t nexthop, unsigned bits) {
  return uint32_t(nexthop * 0x9e3779b1u) >> (32 - bits);
}

class report_times {
 public:
  /// `now` counts seconds from any origin and is not 0.
  void note(uint32_t nexthop, uint32_t now) {
    line &where = line_of(nexthop);
    auto at = find(where, nexthop);
    if (at == where.entries.end()) at = std::ranges::min_element(where.entries, {}, &entry::when);
    *at = {nexthop, now};
  }

  /// Nothing: never, or forgotten.
  std::optional<uint32_t> last(uint32_t nexthop) const {
    line &where = line_of(nexthop);
    const auto at = find(where, nexthop);
    if (at == where.entries.end() || at->when == 0) return std::nullopt;
    return at->when;
  }

  size_t memory() const { return kLines * sizeof(line); }

 private:
  struct entry {
    uint32_t nexthop = 0;
    uint32_t when = 0;
  };
  struct alignas(64) line {
    std::array<entry, 8> entries;
  };
  static_assert(sizeof(line) == 64, "one cache line");
  static constexpr unsigned kLineBits = 9;
  static constexpr size_t kLines = size_t{1} << kLineBits;

  line &line_of(uint32_t nexthop) const { return lines_[place_of(nexthop, kLineBits)]; }
  static std::array<entry, 8>::iterator find(line &in, uint32_t nexthop) {
    return std::ranges::find(in.entries, nexthop, &entry::nexthop);
  }

  const std::unique_ptr<line[]> lines_ = std::make_unique<line[]>(kLines);
};

}  // namespace agent
