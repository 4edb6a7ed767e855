// Reads a record's descriptor and checks it against itself: the schema's two forms against the
// language and each other, the type table against the layout that the schema implies. Once it has
// passed, the encoder can follow it without looking back.
//
// Nothing is allocated or kept. Types, elements and chains are bounded by the BAG_MAX_ constants,
// and each type is settled once, so the work is bounded by the length of the schemas.
#include "bag_record_private.h"

namespace bag {
namespace {

constexpr uint64_t kAtStart = 0;  // offsets of opaque bytes alone
constexpr uint32_t kIpv6Size = 16;

// ---- Definitions: the record's own, then nested ones in ascending number ----

bool read_types(std::string_view schema, record &r) {
  do {
    type t{};
    if (r.count == BAG_MAX_TYPES || !read_definition(schema, t.number, t.body)) return false;
    if (r.count >= 2 && t.number <= r.types[r.count - 1].number) return false;
    r.types[r.count++] = t;
  } while (!schema.empty());
  return true;
}

// ---- Bodies, one by one ----

/// What a body has used up.
struct body_tally {
  uint32_t elements = 0;
  uint32_t name_count = 0;
  std::string_view names[BAG_MAX_MEMBERS];  // every name comes with an element
};

/// Letters, digits and '_' alone: no name is taken for a part of the language, all are UTF-8.
bool is_name(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
  });
}

bool add_element(body_tally &tally, const element &e) {
  if (!e.enumeration.empty() && !is_name(e.enumeration)) return false;
  // Only an IPv6 address has a form for display among the opaque kinds.
  if (e.kind == 'x' && e.display == 's' && e.number != kIpv6Size) return false;
  return tally.elements++ < BAG_MAX_MEMBERS;
}

bool add_name(body_tally &tally, std::string_view name) {
  const auto end = tally.names + tally.name_count;
  if (!is_name(name) || std::find(tally.names, end, name) != end) return false;
  tally.names[tally.name_count++] = name;
  return true;
}

bool check_arms(std::string_view arms, body_tally &tally) {
  uint32_t labels[BAG_MAX_MEMBERS];
  uint32_t *end = labels;
  bool has_default = false;
  do {
    arm a;
    if (!read_arm(arms, a) || !add_element(tally, a.value)) return false;
    const bool empty = a.value.kind == 'v';
    if (empty ? !a.value.field.empty() : !add_name(tally, a.value.field)) return false;
    if (a.by_default ? has_default : std::find(labels, end, a.label) != end) return false;
    has_default |= a.by_default;
    if (!a.by_default) *end++ = a.label;
  } while (!arms.empty());
  return true;
}

bool check_array(std::string_view inside) {
  element e;
  return read_element(inside, e) && inside.empty() && e.field.empty() &&
         std::string_view("DHNCesbI$").find(e.kind) != std::string_view::npos;
}

bool check_body(std::string_view body) {
  const bool bare = is_bare_value(body);
  body_tally tally;
  do {
    element e;
    if (!read_element(body, e) || !add_element(tally, e)) return false;
    if (e.kind == 'a' && !check_array(e.inside)) return false;
    if (e.kind != '?') {
      if (!bare && !add_name(tally, e.field)) return false;
      continue;
    }
    if (!e.field.empty() || !add_name(tally, e.discriminator)) return false;
    if (!check_arms(e.inside, tally)) return false;
  } while (!body.empty());
  return true;
}

bool check_bodies(const record &r) {
  return std::all_of(r.types, r.types + r.count, [](const type &t) { return check_body(t.body); });
}

// ---- Bodies together: chains of types, and native sizes from the innermost out ----

bool settle(record &r, uint32_t number, uint32_t depth, uint32_t &height);

bool settle_element(record &r, const element &e, uint32_t depth, uint32_t &height) {
  if (e.kind == '$') return settle(r, e.number, depth, height);
  if (e.kind == 'a') {
    element inner;
    std::string_view inside = e.inside;
    return read_element(inside, inner) && settle_element(r, inner, depth, height);
  }
  for (std::string_view arms = e.inside; !arms.empty();) {
    arm a;
    if (!read_arm(arms, a) || !settle_element(r, a.value, depth, height)) return false;
  }
  return true;
}

/// Settles the type of that number, which stands `depth` deep in its chain; raises `height` to its
/// own. A type in a cycle gets ever deeper, so it is refused too. So is one of 4 GiB, since sizes
/// could overflow.
bool settle(record &r, uint32_t number, uint32_t depth, uint32_t &height) {
  const type *found = find_type(r, number);
  if (found == nullptr) return false;
  type &t = r.types[found - r.types];
  if (depth + std::max(t.height, 1u) - 1 > BAG_MAX_DEPTH) return false;
  if (t.height == 0) {
    uint32_t below = 0;
    for (std::string_view body = t.body; !body.empty();) {
      element e;
      if (!read_element(body, e) || !settle_element(r, e, depth + 1, below)) return false;
    }
    const auto ignore = [](uint64_t) {};
    if (!lay_out(t.body, storage_in(r), ignore, t.native)) return false;  // a v outside a union
    if (t.native.size > UINT32_MAX) return false;
    t.height = below + 1;
  }
  height = std::max(height, t.height);
  return true;
}

/// A definition that nothing leads to stays unsettled: of a type not used, or a type's second one.
bool settle_all(record &r) {
  uint32_t height = 0;
  return settle(r, r.types[0].number, 1, height) &&
         std::all_of(r.types, r.types + r.count, [](const type &t) { return t.height != 0; });
}

// ---- The short form, and the type table ----

bool same_short_form(std::string_view long_schema, const char *short_schema) {
  const auto expect = [&short_schema](char c) {
    if (short_schema != nullptr) short_schema = *short_schema == c ? short_schema + 1 : nullptr;
  };
  while (!long_schema.empty()) {
    uint32_t number = 0;
    std::string_view body;
    const std::string_view definition = long_schema;
    if (!read_definition(long_schema, number, body)) return false;
    std::for_each(definition.data(), body.data(), expect);
    put_short(body, expect);
    expect(';');
  }
  return short_schema != nullptr && *short_schema == '\0';
}

bool fits(const record &r, type &t, uint64_t size, const uint64_t *offsets) {
  if (size != t.native.size) return false;
  const bool alone = opaque_alone(t.body);
  if (alone != (offsets == nullptr)) return false;
  t.offsets = alone ? &kAtStart : offsets;
  bool same = true;
  const auto compare = [&same, next = t.offsets](uint64_t at) mutable {
    same = same && *next++ == at;
  };
  storage native;
  return lay_out(t.body, storage_in(r), compare, native) && same;
}

bool fits_type_table(record &r, const bag_type_table_t &table) {
  if (table.nested_count != r.count - 1) return false;
  if (!fits(r, r.types[0], table.size, table.offsets)) return false;
  const auto *nested = reinterpret_cast<const bag_nested_type_t *>(&table + 1);
  for (uint32_t i = 1; i < r.count; ++i, ++nested) {
    if (nested->type != r.types[i].number) return false;
    if (!fits(r, r.types[i], nested->size, nested->offsets)) return false;
  }
  return true;
}

bool complete(const bag_descriptor_t *d) {
  return d != nullptr && d->format == BAG_FORMAT && d->layout_format == BAG_LAYOUT_FORMAT &&
         d->name != nullptr && d->library != nullptr && d->types != nullptr &&
         d->long_schema != nullptr && d->short_schema != nullptr;
}

}  // namespace

uint32_t read_record(const bag_descriptor_t *descriptor, record &out) {
  if (!complete(descriptor)) return BAG_ERR_DESCRIPTOR;
  const std::string_view schema = descriptor->long_schema;
  if (!read_types(schema, out) || !check_bodies(out) || !settle_all(out)) return BAG_ERR_SCHEMA;
  if (!same_short_form(schema, descriptor->short_schema)) return BAG_ERR_SCHEMA;
  return fits_type_table(out, *descriptor->types) ? 0 : BAG_ERR_LAYOUT;
}

const type *find_type(const record &r, uint32_t number) {
  const type *end = r.types + r.count;
  const type *t =
      std::find_if(r.types, end, [number](const type &known) { return known.number == number; });
  return t == end ? nullptr : t;
}

}  // namespace bag
