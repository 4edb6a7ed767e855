// What follows from the bodies of oper/record_types.def, worked out by the compiler: which types a
// record uses, native sizes and offsets, schema strings, type tables.
//
// The tables are static: a template's variable would take the visibility of its standard type, and
// be exported.
//
// A body that can't be read, or that refers to a type that is not there, has no layout; the size
// that its line expects then stops the build.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <functional>
#include <string_view>
#include <utility>

#include "platform/bag_schema.h"

namespace record_layout {

struct type_body {
  uint32_t number;
  std::string_view body;
};

#define BARE(element) element
#define FIELD(name, element) "{" #name "}" element
#define UNION(name, enumeration, arms) "?(<" #name "," #enumeration ">" arms ")"
#define ARM(label, name, element) "," #label ":{" #name "}" element
#define EMPTY_ARM(label) "," #label ":v"
#define TYPE(number, name, size, body) {number, body},
#define RECORD TYPE
inline constexpr type_body kTypes[] = {
#include "oper/record_types.def"
};

static_assert(std::ranges::adjacent_find(kTypes, std::ranges::greater_equal{},
                                         &type_body::number) == std::end(kTypes),
              "in ascending type number");

/// Empty for a number that no type has.
constexpr std::string_view body_of(uint32_t number) {
  const type_body *type = std::ranges::find(kTypes, number, &type_body::number);
  return type == std::end(kTypes) ? std::string_view() : type->body;
}

// ---- Native layout ----

constexpr bool type_storage(uint32_t number, bag::storage &out) {
  return bag::lay_out(
      body_of(number), type_storage, [](uint64_t) {}, out);
}

/// 0 for a type without a layout.
constexpr uint64_t size_of(uint32_t number) {
  bag::storage storage;
  return type_storage(number, storage) ? storage.size : 0;
}

constexpr size_t offset_count(uint32_t number) {
  bag::storage storage;
  size_t count = 0;
  bag::lay_out(
      body_of(number), type_storage, [&](uint64_t) { ++count; }, storage);
  return count;
}

template <uint32_t kNumber>
static constexpr auto kOffsets = [] {
  std::array<uint64_t, offset_count(kNumber)> offsets{};
  bag::storage storage;
  uint64_t *next = offsets.data();
  bag::lay_out(
      body_of(kNumber), type_storage, [&](uint64_t at) { *next++ = at; }, storage);
  return offsets;
}();

template <uint32_t kNumber>
constexpr const uint64_t *offsets_of() {
  return bag::opaque_alone(body_of(kNumber)) ? nullptr : kOffsets<kNumber>.data();
}

// ---- The types that a type uses, directly or through others ----

/// Types, as bits by their place in kTypes.
using type_set = uint64_t;
static_assert(std::size(kTypes) <= 64);

constexpr size_t place_of(uint32_t number) {
  return static_cast<size_t>(std::ranges::find(kTypes, number, &type_body::number) -
                             std::begin(kTypes));
}

constexpr type_set named_in(const bag::element &e) {
  if (e.kind == '$') return type_set{1} << place_of(e.number);
  type_set named = 0;
  std::string_view inside = e.inside;
  for (bag::element inner; e.kind == 'a' && bag::read_element(inside, inner);)
    named |= named_in(inner);
  for (bag::arm a; bag::read_arm(inside, a);) named |= named_in(a.value);
  return named;
}

/// By place in kTypes. A type comes after those it uses, so theirs are there already.
inline constexpr auto kUses = [] {
  std::array<type_set, std::size(kTypes)> uses{};
  for (size_t i = 0; i < uses.size(); ++i) {
    bag::element e;
    for (std::string_view body = kTypes[i].body; bag::read_element(body, e);)
      uses[i] |= named_in(e);
    for (size_t used = 0; used < i; ++used) {
      if ((uses[i] >> used & 1) != 0) uses[i] |= uses[used];
    }
  }
  return uses;
}();

/// And those are there.
consteval bool types_come_after_those_they_use() {
  for (size_t i = 0; i < kUses.size(); ++i) {
    if (kUses[i] >> i != 0) return false;
  }
  return true;
}
static_assert(types_come_after_those_they_use());

/// In ascending type number, as the bodies stand.
template <uint32_t kRecord>
static constexpr auto kNested = [] {
  constexpr type_set kUsed = kUses[place_of(kRecord)];
  std::array<uint32_t, std::popcount(kUsed)> numbers{};
  auto next = numbers.begin();
  for (size_t i = 0; i < std::size(kTypes); ++i) {
    if ((kUsed >> i & 1) != 0) *next++ = kTypes[i].number;
  }
  return numbers;
}();

// ---- Type tables ----

/// As the encoder reads it: the record's own entry, then those of its nested types.
template <size_t kCount>
struct type_table {
  bag_type_table_t own;
  std::array<bag_nested_type_t, kCount> nested;
};

template <uint32_t kRecord>
static constexpr auto kTypeTable = []<size_t... kIndex>(std::index_sequence<kIndex...>) {
  return type_table<sizeof...(kIndex)>{
      {sizeof...(kIndex), size_of(kRecord), offsets_of<kRecord>()},
      {bag_nested_type_t{kNested<kRecord>[kIndex], size_of(kNested<kRecord>[kIndex]),
                         offsets_of<kNested<kRecord>[kIndex]>()}...}};
}
(std::make_index_sequence<kNested<kRecord>.size()>());

// ---- Schema strings ----

enum class form { long_form, short_form };

template <typename Put>
constexpr void put_number(uint32_t number, Put put) {
  if (number >= 10) put_number(number / 10, put);
  put(static_cast<char>('0' + number % 10));
}

template <typename Put>
constexpr void put_definition(form f, uint32_t number, Put put) {
  put('$');
  put_number(number, put);
  put('=');
  if (f == form::short_form) {
    bag::put_short(body_of(number), put);
  } else {
    std::ranges::for_each(body_of(number), put);
  }
  put(';');
}

template <uint32_t kRecord, typename Put>
constexpr void put_schema(form f, Put put) {
  put_definition(f, kRecord, put);
  for (const uint32_t number : kNested<kRecord>) put_definition(f, number, put);
}

template <uint32_t kRecord, form kForm>
constexpr size_t schema_length() {
  size_t length = 0;
  put_schema<kRecord>(kForm, [&](char) { ++length; });
  return length;
}

/// NUL-terminated.
template <uint32_t kRecord, form kForm>
static constexpr auto kSchema = [] {
  std::array<char, schema_length<kRecord, kForm>() + 1> text{};
  char *next = text.data();
  put_schema<kRecord>(kForm, [&](char c) { *next++ = c; });
  return text;
}();

}  // namespace record_layout
