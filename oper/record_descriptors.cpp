// The descriptors of the operational records: constant data, complete when the library is loaded.
#include <cstddef>
#include <iterator>
#include <type_traits>

#include "oper/record_layout.h"
#include "tarvo/oper_records.h"

using namespace record_layout;

template <uint32_t kRecord>
static consteval bag_descriptor_t describe(const char *name) {
  return {BAG_FORMAT,
          name,
          BAG_LAYOUT_FORMAT,
          "lib_korv_tarvo_oper_bag_descr.dll",
          &kTypeTable<kRecord>.own,
          kSchema<kRecord, form::long_form>.data(),
          kSchema<kRecord, form::short_form>.data()};
}

#define TYPE(number, name, size, body)
#define RECORD(number, name, size, body) \
  constinit const bag_descriptor_t name##_bag = describe<number>(#name);
#include "oper/record_types.def"

// ---- The native structures of tarvo/oper_records.h are what the descriptors say ----

namespace {

/// A member of a native structure, as C lays it out.
struct native_member {
  std::string_view name;
  uint64_t offset;
  uint64_t size;
  bool pointer;
  uint64_t elements;  ///< offset of a counted array's pointer; 0 for anything else
};

template <typename Member>
consteval uint64_t elements_offset() {
  if constexpr (requires { &Member::count, &Member::elements; }) {
    if (offsetof(Member, count) == 0 && sizeof(Member::count) == sizeof(uint32_t))
      return offsetof(Member, elements);
  }
  return 0;
}

consteval bool same(const native_member &m, std::string_view name, uint64_t offset, uint64_t size) {
  return m.name == name && m.offset == offset && m.size == size;
}

/// The member of an element that is no union; `offset` are the element's offsets.
consteval bool same_field(const bag::element &e, const uint64_t *offset, const native_member &m) {
  bag::storage storage;
  return bag::element_storage(e, type_storage, storage) &&
         same(m, e.field, offset[0], storage.size) && m.pointer == (e.kind == 's') &&
         (e.kind == 'a' ? offset[0] + m.elements == offset[1] : m.elements == 0);
}

/// Takes the members of a union off `next`.
consteval bool same_union(const bag::element &e, const uint64_t *offset,
                          const native_member *&next) {
  if (!same(*next++, e.discriminator, offset[0], sizeof(uint32_t))) return false;
  bag::arm a;
  for (std::string_view arms = e.inside; bag::read_arm(arms, a);) {
    if (a.value.kind != 'v' && !same_field(a.value, offset + 1, *next++)) return false;
  }
  return true;
}

template <uint32_t kNumber>
consteval bool same_members(std::initializer_list<native_member> members) {
  const native_member *next = members.begin();
  const uint64_t *offset = kOffsets<kNumber>.data();
  bag::element e;
  for (std::string_view body = body_of(kNumber); bag::read_element(body, e);) {
    if (e.kind == '?') {
      if (!same_union(e, offset, next)) return false;
    } else if (!e.field.empty() && !same_field(e, offset, *next++)) {
      return false;
    }
    offset += e.kind == 'a' || e.kind == '?' ? 2 : 1;
  }
  return next == members.end();
}

#define BARE(element)
#define FIELD(name, element)                                                                       \
  {#name, offsetof(native, name), sizeof(native::name), std::is_pointer_v<decltype(native::name)>, \
   elements_offset<decltype(native::name)>()},
#define UNION(name, enumeration, arms) FIELD(name, ) arms
#define ARM(label, name, element) FIELD(name, element)
#define EMPTY_ARM(label)
#define TYPE(number, name, size, body)                                           \
  static_assert(size_of(number) == size, "the size that is expected of " #name); \
  static_assert(sizeof(name) == size, "native size of " #name);                  \
  static_assert(                                                                 \
      [] {                                                                       \
        using native [[maybe_unused]] = name;                                    \
        return same_members<number>({body});                                     \
      }(),                                                                       \
      "members of " #name);
#define RECORD TYPE
#include "oper/record_types.def"

}  // namespace

// ---- Registration ----

constexpr const bag_descriptor_t *kRecords[] = {
#define TYPE(number, name, size, body)
#define RECORD(number, name, size, body) &name##_bag,
#include "oper/record_types.def"
};

uint32_t bag_register_all_manageability_tarvo_oper_bags(void *registry) {
  if (const uint32_t status = bag_register_start(registry); status != 0) return status;
  for (const bag_descriptor_t *record : kRecords) {
    if (const uint32_t status = bag_register(record); status != 0) {
      bag_register_abort();
      return status;
    }
  }
  return bag_register_end();
}
