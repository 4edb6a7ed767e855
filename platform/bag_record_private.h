// A record's descriptor, read and checked: what registration and encoder start from.
#pragma once

#include "bag_schema.h"

namespace bag {

/// A type as a descriptor defines it.
struct type {
  uint32_t number;
  uint32_t height;          ///< types in the longest chain that starts here; 0: not known yet
  std::string_view body;    ///< long form
  storage native;           ///< what the layout rules imply
  const uint64_t *offsets;  ///< as in bag_type_table_t, but never null
};

/// Refers to its descriptor's texts and tables. About 4 KB, for a stack.
struct record {
  uint32_t count = 0;
  type types[BAG_MAX_TYPES];  ///< the record's own, then the nested ones in ascending number
};

/// Reads a descriptor and checks all that can be known from it alone. `descriptor` may be null.
/// Returns 0, or the first that applies of BAG_ERR_DESCRIPTOR, BAG_ERR_SCHEMA, BAG_ERR_LAYOUT.
[[nodiscard]] uint32_t read_record(const bag_descriptor_t *descriptor, record &out);

/// The type of that number, or null.
const type *find_type(const record &r, uint32_t number);

/// What bag_schema.h asks for as `type_of`, once the record is read.
inline auto storage_in(const record &r) {
  return [&r](uint32_t number, storage &out) {
    const type *t = find_type(r, number);
    if (t != nullptr) out = t->native;
    return t != nullptr;
  };
}

/// Whether a body is one element without a name, other than a union: that element's value.
inline bool is_bare_value(std::string_view body) {
  element e;
  return read_element(body, e) && body.empty() && e.field.empty() && e.kind != '?';
}

}  // namespace bag
