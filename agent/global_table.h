// The global IPv4 table: prefixes, each held by any number of owners, with longest-prefix match.
//
// It answers the module's route lookups on the worker thread, so it has a lock of its own, held for
// one call. Nothing is called with it held.
#pragma once

#include <cstdint>
#include <optional>

namespace agent {

struct covering_route {
  uint32_t prefix = 0;  ///< host byte order
  uint8_t length = 0;
};

class global_table {
 public:
  /// One more, one fewer owner of the prefix (host byte order, host bits zero).
  void add(uint32_t prefix, uint8_t length);
  void remove(uint32_t prefix, uint8_t length);

  /// The longest prefix that covers the address (host byte order).
  std::optional<covering_route> lookup(uint32_t address) const;
};

}  // namespace agent
