// The global IPv4 table: prefixes, each held by any number of owners, with longest-prefix match.
//
// It answers the module's route lookups on the worker thread, so it has a lock of its own, held for
// one call. Nothing is called with it held. It holds no more than the routes of the feed and the
// configured ones.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <unordered_map>

#include "agent/mutex.h"
#include "agent/seeded_hash.h"

namespace agent {

struct covering_route {
  uint32_t prefix = 0;  ///< host byte order
  uint8_t length = 0;
};

class global_table {
 public:
  /// One more, one fewer owner of the prefix (host byte order, host bits zero, length up to 32).
  void add(uint32_t prefix, uint8_t length);
  void remove(uint32_t prefix, uint8_t length);

  /// The longest prefix that covers the address (host byte order).
  std::optional<covering_route> lookup(uint32_t address) const;

 private:
  mutable mutex lock_;
  /// Owners by prefix, one map for each length.
  std::array<std::unordered_map<uint32_t, uint32_t, seeded_hash>, 33> owners_
      TARVO_GUARDED_BY(lock_);
  /// Bit n: there are prefixes of length n. Spares a lookup the lengths that nobody uses.
  uint64_t lengths_ TARVO_GUARDED_BY(lock_) = 0;
};

}  // namespace agent
