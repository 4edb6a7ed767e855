// The encoder's schema language (platform/bag.h): reading it, and the native layout it implies.
//
// C++ only, and all of it constexpr: a catalogue of records derives its tables with it when it is
// compiled, the encoder reads schemas with it when it runs. No function throws or allocates.
#pragma once

#include <algorithm>
#include <string_view>

#include "bag.h"

namespace bag {

/// One element of a body in the long form.
struct element {
  char kind = 0;                   ///< D H N C e s b I v x a $ ?
  char display = 0;                ///< modifier: h or s; 0 for none
  uint32_t number = 0;             ///< x: bytes; a: most elements; $: type number
  std::string_view field;          ///< empty: unnamed
  std::string_view enumeration;    ///< e, ?: name of the enumeration type
  std::string_view discriminator;  ///< ?: name of its field
  std::string_view inside;         ///< a: the element in its parentheses; ?: its arms
};

/// One arm of a union.
struct arm {
  bool by_default = false;
  uint32_t label = 0;
  element value;
  std::string_view text;  ///< the value's own, and what follows it
};

constexpr bool skip(std::string_view &text, char c) {
  if (!text.starts_with(c)) return false;
  text.remove_prefix(1);
  return true;
}

constexpr bool read_number(std::string_view &text, uint32_t &number) {
  uint64_t value = 0;
  size_t digits = 0;
  while (digits < text.size() && text[digits] >= '0' && text[digits] <= '9') {
    value = value * 10 + static_cast<uint64_t>(text[digits++] - '0');
    if (value > UINT32_MAX) return false;
  }
  text.remove_prefix(digits);
  number = static_cast<uint32_t>(value);
  return digits != 0;
}

/// What stands before the next `end`, which is taken too; not empty.
constexpr bool read_until(std::string_view &text, char end, std::string_view &out) {
  const size_t length = text.find(end);
  if (length == 0 || length == text.npos) return false;
  out = text.substr(0, length);
  text.remove_prefix(length + 1);
  return true;
}

/// What stands in the parentheses that open here.
constexpr bool read_parentheses(std::string_view &text, std::string_view &out) {
  if (!text.starts_with('(')) return false;
  size_t open = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '(') ++open;
    if (text[i] == ')' && --open == 0) {
      out = text.substr(1, i - 1);
      text.remove_prefix(i + 1);
      return true;
    }
  }
  return false;
}

constexpr bool read_union(std::string_view &text, element &out) {
  return read_parentheses(text, out.inside) && skip(out.inside, '<') &&
         read_until(out.inside, ',', out.discriminator) &&
         read_until(out.inside, '>', out.enumeration) && !out.inside.empty();
}

constexpr bool read_kind(std::string_view &text, element &out) {
  if (text.empty()) return false;
  if (text[0] >= '0' && text[0] <= '9') {
    if (!read_number(text, out.number) || out.number == 0) return false;
    if (skip(text, 'x')) return out.kind = 'x', true;
    return out.kind = 'a', skip(text, 'a') && read_parentheses(text, out.inside);
  }
  out.kind = text[0];
  text.remove_prefix(1);
  if (out.kind == '$') return read_number(text, out.number);
  if (out.kind == '?') return read_union(text, out);
  return std::string_view("DHNCesbIv").find(out.kind) != std::string_view::npos &&
         (out.kind == 'e') == !out.enumeration.empty();
}

/// Takes the next element off a body.
constexpr bool read_element(std::string_view &text, element &out) {
  out = {};
  if (skip(text, '{') && !read_until(text, '}', out.field)) return false;
  if (skip(text, '[') && !read_until(text, ']', out.enumeration)) return false;
  const bool enumeration = !out.enumeration.empty();
  if (!read_kind(text, out) || (enumeration && out.kind != 'e')) return false;
  if (!skip(text, '%')) return true;
  if (!text.starts_with('h') && !text.starts_with('s')) return false;
  out.display = text[0];
  text.remove_prefix(1);
  return true;
}

/// Takes the next arm off a union's arms.
constexpr bool read_arm(std::string_view &text, arm &out) {
  out = {};
  if (!skip(text, ',')) return false;
  out.by_default = skip(text, '?');
  if (!out.by_default && !read_number(text, out.label)) return false;
  if (!skip(text, ':')) return false;
  out.text = text;
  return read_element(text, out.value) && out.value.kind != '?' && out.value.kind != 'a';
}

/// Takes the next definition off a schema.
constexpr bool read_definition(std::string_view &schema, uint32_t &type, std::string_view &body) {
  return skip(schema, '$') && read_number(schema, type) && skip(schema, '=') &&
         read_until(schema, ';', body);
}

/// The short form of a body, a character at a time.
template <typename Put>
constexpr void put_short(std::string_view body, Put put) {
  while (!body.empty()) {
    const char c = body[0];
    if (c == '{' || c == '[' || c == '<') {
      const size_t end = body.find(c == '{' ? '}' : c == '[' ? ']' : '>');
      if (end == body.npos) return;  // no body that can be read
      body.remove_prefix(end + 1);
      continue;
    }
    put(c);
    body.remove_prefix(1);
    if (c != '$') continue;
    for (; !body.empty() && body[0] >= '0' && body[0] <= '9'; body.remove_prefix(1)) put(body[0]);
    put('.');
  }
}

// ---- Native layout: natural alignment, 64-bit pointers ----

struct storage {
  uint64_t size = 0;
  uint64_t align = 1;
};

constexpr uint64_t round_up(uint64_t value, uint64_t align) {
  return (value + align - 1) / align * align;
}

constexpr storage scalar_storage(char kind) {
  switch (kind) {
    case 'D':
    case 'N':
    case 'e':
      return {4, 4};
    case 'H':
    case 's':
      return {8, 8};
    case 'I':
      return {2, 2};
    case 'C':
    case 'b':
      return {1, 1};
    default:  // v
      return {0, 1};
  }
}

/// A union's arms: their storage, which its 32-bit discriminator precedes.
template <typename TypeOf>
constexpr bool arms_storage(std::string_view arms, TypeOf type_of, storage &out);

/// Native storage of an element. `type_of(number, storage &)` knows the other types.
template <typename TypeOf>
constexpr bool element_storage(const element &e, TypeOf type_of, storage &out) {
  switch (e.kind) {
    case '$':
      return type_of(e.number, out);
    case 'x':
      return out = {e.number, 8}, true;
    case 'a':
      return out = {16, 8}, true;
    case '?': {
      if (!arms_storage(e.inside, type_of, out)) return false;
      out.align = std::max<uint64_t>(out.align, 4);
      out.size = round_up(round_up(4, out.align) + out.size, out.align);
      return true;
    }
    default:
      return out = scalar_storage(e.kind), true;
  }
}

template <typename TypeOf>
constexpr bool arms_storage(std::string_view arms, TypeOf type_of, storage &out) {
  out = {};
  while (!arms.empty()) {
    arm a;
    storage s;
    if (!read_arm(arms, a) || !element_storage(a.value, type_of, s)) return false;
    out = {std::max(out.size, s.size), std::max(out.align, s.align)};
  }
  return true;
}

/// The layout of a body; `put(offset)` gets the entries of its offsets array.
template <typename TypeOf, typename Put>
constexpr bool lay_out(std::string_view body, TypeOf type_of, Put put, storage &out) {
  out = {};
  do {
    element e;
    storage s;
    if (!read_element(body, e) || e.kind == 'v' || !element_storage(e, type_of, s)) return false;
    const uint64_t at = round_up(out.size, s.align);
    put(at);
    if (e.kind == 'a' || e.kind == '?') put(at + round_up(4, s.align));
    out = {at + s.size, std::max(out.align, s.align)};
  } while (!body.empty());
  out.size = round_up(out.size, out.align);
  return true;
}

/// A body that is opaque bytes and nothing else has no offsets array.
constexpr bool opaque_alone(std::string_view body) {
  element e;
  return read_element(body, e) && body.empty() && e.kind == 'x';
}

}  // namespace bag
