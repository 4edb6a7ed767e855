#include "agent/seeded_hash.h"

#include <random>

namespace agent {

static uint64_t draw() {
  std::random_device random;
  return uint64_t{random()} << 32 | random();
}

const uint64_t seeded_hash::keys_[3] = {draw(), draw(), draw() | 1};

}  // namespace agent
