// A bounded, forward-only reader of big-endian fields.
//
// It never steps past its end: a read that doesn't fit makes the cursor fail for good, and from
// then on every read gives zero. So a parser may read a group of fields and test ok() once. A
// sub-cursor keeps the origin of its parent, so offsets are those of the whole message.
#pragma once

#include <endian.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

namespace agent {

class byte_cursor {
 public:
  byte_cursor() = default;
  explicit byte_cursor(std::span<const uint8_t> bytes)
      : origin_(bytes.data()), pos_(bytes.data()), end_(bytes.data() + bytes.size()) {}

  bool ok() const { return !failed_; }
  size_t left() const { return static_cast<size_t>(end_ - pos_); }
  size_t offset() const { return static_cast<size_t>(pos_ - origin_); }

  uint8_t u8() { return has(1) ? *pos_++ : 0; }
  uint16_t u16() { return be16toh(read<uint16_t>()); }
  uint32_t u24() {
    const uint32_t high = u16();
    return high << 8 | u8();
  }
  uint32_t u32() { return be32toh(read<uint32_t>()); }
  uint64_t u64() { return be64toh(read<uint64_t>()); }

  void skip(size_t size) {
    if (has(size)) pos_ += size;
  }

  /// The next `size` bytes as a cursor of their own; an empty, failed one when there are fewer.
  byte_cursor take(size_t size) {
    byte_cursor part = *this;
    skip(size);
    if (failed_) return *this;
    part.end_ = pos_;
    return part;
  }

  /// What is left, unread.
  std::span<const uint8_t> rest() const { return {pos_, end_}; }

 private:
  template <typename T>
  T read() {
    T value = 0;
    if (!has(sizeof value)) return 0;
    std::memcpy(&value, pos_, sizeof value);
    pos_ += sizeof value;
    return value;
  }

  bool has(size_t size) {
    if (left() >= size) return true;
    fail();
    return false;
  }
  void fail() {
    failed_ = true;
    end_ = pos_;
  }

  const uint8_t *origin_ = nullptr;
  const uint8_t *pos_ = nullptr;
  const uint8_t *end_ = nullptr;
  bool failed_ = false;
};

}  // namespace agent
