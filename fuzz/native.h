// Fills native structures by their record's schema, from a fuzzer's input.
#pragma once

#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "fuzz/fuzz.h"
#include "platform/bag_record_private.h"

namespace fuzz {

/// Whatever an element's type leaves open: any value, or only those that encode.
enum class values { any, good };

class native_filler {
 public:
  native_filler(const bag::record &record, source &input, values what)
      : record_(record), input_(input), what_(what) {}

  /// The record's own structure, of just its size, so that a sanitizer sees a read beyond it. It
  /// refers to the filler.
  std::vector<uint8_t> fill() { return make(record_.types[0], 1); }

 private:
  template <typename T>
  static void put(uint8_t *at, T value) {
    memcpy(at, &value, sizeof value);
  }

  std::vector<uint8_t> make(const bag::type &type, size_t count) {
    std::vector<uint8_t> native(type.native.size * count);
    for (size_t i = 0; i < count; ++i) fill_type(type, native.data() + i * type.native.size);
    return native;
  }

  void fill_type(const bag::type &type, uint8_t *base) {
    const uint64_t *offset = type.offsets;
    for (std::string_view body = type.body; !body.empty();) {
      bag::element e;
      bag::read_element(body, e);
      uint8_t *const at = base + *offset++;
      if (e.kind == 'a') {
        fill_array(e, at, base + *offset++);
      } else if (e.kind == '?') {
        fill_union(e, at, base + *offset++);
      } else {
        fill_element(e, at);
      }
    }
  }

  void fill_element(const bag::element &e, uint8_t *at) {
    if (e.kind == '$') return fill_type(*bag::find_type(record_, e.number), at);
    if (e.kind == 's') return put(at, text());
    input_.fill(at, e.kind == 'x' ? e.number : bag::scalar_storage(e.kind).size);
  }

  const char *text() {
    if (what_ == values::any && input_.byte() == 0xff) return nullptr;
    std::string value = input_.text();
    if (what_ == values::good)
      for (char &c : value) c &= 0x7f;
    std::vector<char> &kept = texts_.emplace_back(value.begin(), value.end());
    for (char &c : kept) c = c == 0 ? '0' : c;
    kept.push_back(0);
    return kept.data();
  }

  // A count that is refused may come with a pointer to nothing.
  void fill_array(const bag::element &e, uint8_t *count_at, uint8_t *pointer_at) {
    bag::element inner;
    bag::storage storage;
    std::string_view inside = e.inside;
    bag::read_element(inside, inner);
    bag::element_storage(inner, bag::storage_in(record_), storage);
    uint32_t count = input_.byte() % 16;
    if (what_ == values::good) count = std::min(count, e.number);
    put(count_at, count);
    if (count > e.number) return put(pointer_at, uintptr_t{1});
    if (count == 0 || (what_ == values::any && input_.byte() == 0xff))
      return put<const void *>(pointer_at, nullptr);
    if (storage.size * count > kLargest) return put(count_at, uint32_t{0});
    std::vector<uint8_t> &elements = arrays_.emplace_back(storage.size * count);
    put(pointer_at, elements.data());
    uint8_t *const first = elements.data();
    for (uint32_t i = 0; i < count; ++i) fill_element(inner, first + i * storage.size);
  }

  void fill_union(const bag::element &e, uint8_t *label_at, uint8_t *arms_at) {
    std::vector<bag::arm> arms(1);
    std::string_view text = e.inside;
    while (bag::read_arm(text, arms.back())) arms.emplace_back();
    arms.pop_back();
    const size_t choice = input_.byte() % (arms.size() + (what_ == values::any ? 1 : 0));
    uint32_t label = 0;
    if (choice == arms.size() || arms[choice].by_default) {
      input_.fill(&label, sizeof label);
    } else {
      label = arms[choice].label;
    }
    put(label_at, label);
    // A label at random may be another arm's.
    const bag::arm *selected = nullptr;
    for (const bag::arm &a : arms)
      if (a.by_default ? selected == nullptr : a.label == label) selected = &a;
    if (selected != nullptr && selected->value.kind != 'v') fill_element(selected->value, arms_at);
  }

  static constexpr uint64_t kLargest = 1 << 16;

  const bag::record &record_;
  source &input_;
  const values what_;
  std::deque<std::vector<char>> texts_;
  std::deque<std::vector<uint8_t>> arrays_;
};

/// Encodes the structure twice, to the same bytes; the code.
inline uint32_t encode_checked(const bag_descriptor_t &descriptor, const uint8_t *native,
                               std::vector<uint8_t> &bytes) {
  void *first = nullptr, *second = nullptr;
  uint32_t length = 0, again = 0;
  const uint32_t code = bag_encode(&first, &length, native, &descriptor);
  REQUIRE(bag_encode(&second, &again, native, &descriptor) == code);
  REQUIRE(code == 0 || (first == nullptr && second == nullptr && length == 0));
  REQUIRE(length == again && (length == 0 || memcmp(first, second, length) == 0));
  bytes.assign(static_cast<uint8_t *>(first), static_cast<uint8_t *>(first) + length);
  free(first);
  free(second);
  REQUIRE(code == 0 || code == BAG_ERR_VALUE || code == BAG_ERR_COUNT ||
          code == BAG_ERR_DISCRIMINATOR);
  return code;
}

}  // namespace fuzz
