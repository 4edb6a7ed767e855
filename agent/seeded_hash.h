// The hash of every table whose keys are bytes that a router chooses. Its keys are drawn at random
// when the program starts, so no router can tell which of its routes will share a bucket.
//
// It is NH (RFC 4418) and a multiplication by an odd number: for two inputs, whatever they are, the
// chance that the results, or so many of their top bits, are the same is about that of random ones.
#pragma once

#include <cstdint>

namespace agent {

class seeded_hash {
 public:
  uint32_t operator()(uint64_t value, uint64_t more = 0) const noexcept {
    const uint64_t sum = product(value, keys_[0]) + product(more, keys_[1]);
    return static_cast<uint32_t>((sum ^ sum >> 32) * keys_[2] >> 32);
  }

 private:
  static uint64_t product(uint64_t value, uint64_t key) noexcept {
    const auto low = static_cast<uint32_t>(value + key);
    return static_cast<uint64_t>(low) * static_cast<uint32_t>((value >> 32) + (key >> 32));
  }

  static const uint64_t keys_[3];  ///< the last one is odd
};

}  // namespace agent
