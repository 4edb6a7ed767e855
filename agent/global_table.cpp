#include "agent/global_table.h"

#include <bit>

namespace agent {

static uint32_t netmask(unsigned length) { return length == 0 ? 0 : ~uint32_t{0} << (32 - length); }

void global_table::add(uint32_t prefix, uint8_t length) {
  scoped_lock held(lock_);
  ++owners_[length][prefix];
  lengths_ |= uint64_t{1} << length;
}

void global_table::remove(uint32_t prefix, uint8_t length) {
  scoped_lock held(lock_);
  auto &prefixes = owners_[length];
  auto found = prefixes.find(prefix);
  if (found == prefixes.end() || --found->second > 0) return;

  prefixes.erase(found);
  if (prefixes.empty()) lengths_ &= ~(uint64_t{1} << length);
}

std::optional<covering_route> global_table::lookup(uint32_t address) const {
  scoped_lock held(lock_);
  for (uint64_t left = lengths_; left != 0;) {
    unsigned length = 63 - std::countl_zero(left);
    left &= ~(uint64_t{1} << length);
    uint32_t prefix = address & netmask(length);
    if (owners_[length].contains(prefix)) return covering_route{prefix, uint8_t(length)};
  }
  return std::nullopt;
}

}  // namespace agent
