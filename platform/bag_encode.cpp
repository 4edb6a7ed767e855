// Encodes a native structure as deterministic CBOR.
//
// The structure is walked twice: once to measure the record and to find what can't be encoded, once
// to write it into a buffer of just that size, the only allocation. Recursion is bounded by
// BAG_MAX_DEPTH and the members of a map by BAG_MAX_MEMBERS; both together take less than 32 KB of
// stack. The length of a record is bounded by its 32-bit length.
#include <stdlib.h>
#include <string.h>

#include "bag_record_private.h"

namespace {

enum major : uint8_t { kUnsigned = 0, kBytes = 2, kText = 3, kArray = 4, kMap = 5, kTag = 6 };

constexpr uint8_t kFalse = 0xf4;
constexpr uint64_t kIpv4Tag = 52, kIpv6Tag = 54;
constexpr size_t kIpv4Size = 4;

struct output {
  const bag::record &record;
  uint8_t *bytes;  // null while measuring
  uint32_t limit;
  uint32_t size = 0;
  uint32_t error = 0;  // why it can't go on
};

bool fail(output &o, uint32_t error) {
  o.error = error;
  return false;
}

// ---- Pieces of CBOR ----

bool put_bytes(output &o, const void *bytes, size_t size) {
  if (size > o.limit - o.size) return fail(o, BAG_ERR_VALUE);
  if (o.bytes != nullptr && size != 0) memcpy(o.bytes + o.size, bytes, size);
  o.size += static_cast<uint32_t>(size);
  return true;
}

/// The head of an item, in its shortest form.
bool put_head(output &o, major kind, uint64_t value) {
  uint8_t head[9];
  if (value < 24) {
    head[0] = static_cast<uint8_t>(kind << 5 | value);
    return put_bytes(o, head, 1);
  }
  const int log = value <= UINT8_MAX ? 0 : value <= UINT16_MAX ? 1 : value <= UINT32_MAX ? 2 : 3;
  const size_t size = size_t{1} << log;
  head[0] = static_cast<uint8_t>(kind << 5 | (24 + log));
  for (size_t i = size; i > 0; --i, value >>= 8) head[i] = static_cast<uint8_t>(value);
  return put_bytes(o, head, 1 + size);
}

bool put_string(output &o, major kind, const void *bytes, size_t size) {
  return put_head(o, kind, size) && put_bytes(o, bytes, size);
}

/// UTF-8 as RFC 3629 has it: the second byte tells overlong forms, surrogates and what is too big.
bool is_utf8(std::string_view text) {
  const auto in = [&text](size_t at, uint8_t low, uint8_t high) {
    if (at >= text.size()) return false;
    const auto c = static_cast<uint8_t>(text[at]);
    return c >= low && c <= high;
  };
  while (!text.empty()) {
    size_t size = 1;
    if (in(0, 0xc2, 0xf4)) {
      const auto lead = static_cast<uint8_t>(text[0]);
      size = lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4;
      const uint8_t low = lead == 0xe0 ? 0xa0 : lead == 0xf0 ? 0x90 : 0x80;
      const uint8_t high = lead == 0xed ? 0x9f : lead == 0xf4 ? 0x8f : 0xbf;
      if (!in(1, low, high)) return false;
      for (size_t i = 2; i < size; ++i) {
        if (!in(i, 0x80, 0xbf)) return false;
      }
    } else if (!in(0, 0, 0x7f)) {
      return false;
    }
    text.remove_prefix(size);
  }
  return true;
}

bool put_text(output &o, const char *text) {
  if (text == nullptr) return fail(o, BAG_ERR_VALUE);
  const size_t size = strlen(text);
  if (!is_utf8({text, size})) return fail(o, BAG_ERR_VALUE);
  return put_string(o, kText, text, size);
}

// ---- Values ----

template <typename T>
T load(const uint8_t *at) {
  T value;
  memcpy(&value, at, sizeof value);
  return value;
}

/// Native form of a counted array.
struct counted_array {
  uint32_t count;
  const uint8_t *elements;
};
static_assert(offsetof(counted_array, elements) == 8 && sizeof(counted_array) == 16,
              "as the layout rules say");

bool put_value(output &o, std::string_view text, const uint8_t *at);

bool put_array(output &o, const bag::element &e, const uint8_t *at) {
  const auto array = load<counted_array>(at);
  if (array.count > e.number) return fail(o, BAG_ERR_COUNT);
  if (array.count != 0 && array.elements == nullptr) return fail(o, BAG_ERR_VALUE);
  bag::element inner;
  bag::storage native;
  std::string_view inside = e.inside;
  bag::read_element(inside, inner);
  bag::element_storage(inner, bag::storage_in(o.record), native);
  if (!put_head(o, kArray, array.count)) return false;
  for (uint32_t i = 0; i < array.count; ++i) {
    if (!put_value(o, e.inside, array.elements + i * native.size)) return false;
  }
  return true;
}

/// A field of a map: its name, its schema text (with what follows it), where its value is.
struct member {
  std::string_view field;
  std::string_view text;
  const uint8_t *at;
};

struct members {
  uint32_t count = 0;
  member list[BAG_MAX_MEMBERS];  // each stands for an element of the body
};

/// The arm that `label` selects.
bool select_arm(std::string_view arms, uint32_t label, bag::arm &out) {
  bool found = false;
  for (bag::arm a; bag::read_arm(arms, a);) {
    const bool exact = !a.by_default && a.label == label;
    if (!exact && !a.by_default) continue;
    out = a;
    if (exact) return true;
    found = true;
  }
  return found;
}

bool collect(output &o, const bag::type &t, const uint8_t *base, members &out) {
  const uint64_t *offset = t.offsets;
  for (std::string_view body = t.body; !body.empty();) {
    bag::element e;
    const std::string_view text = body;
    bag::read_element(body, e);
    const uint8_t *at = base + *offset++;
    if (e.kind != '?') {
      out.list[out.count++] = {e.field, text, at};
      if (e.kind == 'a') ++offset;  // its pointer follows its count
      continue;
    }
    const uint8_t *arms_at = base + *offset++;
    out.list[out.count++] = {e.discriminator, "D", at};
    bag::arm a;
    if (!select_arm(e.inside, load<uint32_t>(at), a)) return fail(o, BAG_ERR_DISCRIMINATOR);
    if (a.value.kind != 'v') out.list[out.count++] = {a.value.field, a.text, arms_at};
  }
  return true;
}

bool put_map(output &o, const bag::type &t, const uint8_t *base) {
  members m;
  if (!collect(o, t, base, m)) return false;
  // An encoded key begins with its length, so the shorter ones come first.
  std::sort(m.list, m.list + m.count, [](const member &a, const member &b) {
    return a.field.size() != b.field.size() ? a.field.size() < b.field.size() : a.field < b.field;
  });
  if (!put_head(o, kMap, m.count)) return false;
  for (uint32_t i = 0; i < m.count; ++i) {
    const member &f = m.list[i];
    if (!put_string(o, kText, f.field.data(), f.field.size())) return false;
    if (!put_value(o, f.text, f.at)) return false;
  }
  return true;
}

bool put_type(output &o, const bag::type &t, const uint8_t *at) {
  return bag::is_bare_value(t.body) ? put_value(o, t.body, at + *t.offsets) : put_map(o, t, at);
}

/// The value at `at`, of the element that `text` begins with.
bool put_value(output &o, std::string_view text, const uint8_t *at) {
  bag::element e;
  bag::read_element(text, e);
  switch (e.kind) {
    case 'D':
    case 'e':
      return put_head(o, kUnsigned, load<uint32_t>(at));
    case 'H':
      return put_head(o, kUnsigned, load<uint64_t>(at));
    case 'C':
      return put_head(o, kUnsigned, *at);
    case 'I':
      return put_head(o, kUnsigned, load<uint16_t>(at));
    case 'b': {
      const uint8_t head = kFalse + (*at != 0);
      return put_bytes(o, &head, 1);
    }
    case 's':
      return put_text(o, load<const char *>(at));
    case 'N':
      return put_head(o, kTag, kIpv4Tag) && put_string(o, kBytes, at, kIpv4Size);
    case 'x':
      return (e.display != 's' || put_head(o, kTag, kIpv6Tag)) &&
             put_string(o, kBytes, at, e.number);
    case 'a':
      return put_array(o, e, at);
    default:  // $
      return put_type(o, *bag::find_type(o.record, e.number), at);
  }
}

}  // namespace

uint32_t bag_encode(void **buffer, uint32_t *length, const void *native, const void *descriptor) {
  bag::record record;
  const uint32_t code = bag::read_record(static_cast<const bag_descriptor_t *>(descriptor), record);
  if (code != 0) return code;
  if (buffer == nullptr || length == nullptr || native == nullptr) return BAG_ERR_VALUE;

  const auto *base = static_cast<const uint8_t *>(native);
  output measured{record, nullptr, UINT32_MAX};
  if (!put_type(measured, record.types[0], base)) return measured.error;
  void *bytes = malloc(measured.size);
  if (bytes == nullptr) return BAG_ERR_NOMEM;

  // Fails only when the structure changes meanwhile, which then must not spoil memory.
  output written{record, static_cast<uint8_t *>(bytes), measured.size};
  if (!put_type(written, record.types[0], base)) {
    free(bytes);
    return written.error;
  }
  *buffer = bytes;
  *length = written.size;
  return 0;
}
