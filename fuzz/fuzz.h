// What the fuzz targets share: input taken piece by piece, and a check that stays in every build.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

/// Ends the run with the input that breaks a promise.
#define REQUIRE(holds)                                                    \
  do {                                                                    \
    if (!(holds)) {                                                       \
      fprintf(stderr, "%s:%d: broken: %s\n", __FILE__, __LINE__, #holds); \
      abort();                                                            \
    }                                                                     \
  } while (false)

namespace fuzz {

/// Bytes from the front of the input; zeros once it is used up.
class source {
 public:
  source(const uint8_t *data, size_t size) : at_(data), left_(size) {}

  uint8_t byte() {
    if (left_ == 0) return 0;
    --left_;
    return *at_++;
  }
  void fill(void *into, size_t size) {
    for (auto *to = static_cast<uint8_t *>(into); size > 0; --size) *to++ = byte();
  }
  /// Up to the next NUL, which is taken too.
  std::string text() {
    std::string result;
    for (uint8_t c; left_ > 0 && (c = byte()) != 0;) result += static_cast<char>(c);
    return result;
  }

 private:
  const uint8_t *at_;
  size_t left_;
};

}  // namespace fuzz
