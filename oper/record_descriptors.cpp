// The descriptors of the operational records: constant data, complete when the library is loaded.
#include <cstddef>
#include <iterator>

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
#undef TYPE
#undef RECORD

// ---- The native structures of tarvo/oper_records.h are what the descriptors say ----

namespace {

/// A member of a native structure, as C lays it out.
struct native_member {
  std::string_view name;
  uint64_t offset;
  uint64_t size;
};

constexpr bool same(const native_member &m, std::string_view name, uint64_t offset, uint64_t size) {
  return m.name == name && m.offset == offset && m.size == size;
}

/// Takes the members of a union off `next`.
constexpr bool same_union(const bag::element &e, const uint64_t *offset,
                          const native_member *&next) {
  if (!same(*next++, e.discriminator, offset[0], sizeof(uint32_t))) return false;
  bag::arm a;
  for (std::string_view arms = e.inside; bag::read_arm(arms, a);) {
    bag::storage storage;
    if (a.value.kind == 'v') continue;
    if (!bag::element_storage(a.value, type_storage, storage) ||
        !same(*next++, a.value.field, offset[1], storage.size)) {
      return false;
    }
  }
  return true;
}

template <uint32_t kNumber>
consteval bool same_members(std::initializer_list<native_member> members) {
  const native_member *next = members.begin();
  const uint64_t *offset = kOffsets<kNumber>.data();
  bag::element e;
  for (std::string_view body = body_of(kNumber); bag::read_element(body, e);) {
    bag::storage storage;
    if (e.kind == '?') {
      if (!same_union(e, offset, next)) return false;
    } else if (!e.field.empty()) {
      if (!bag::element_storage(e, type_storage, storage) ||
          !same(*next++, e.field, *offset, storage.size)) {
        return false;
      }
    }
    offset += e.kind == 'a' || e.kind == '?' ? 2 : 1;
  }
  return next == members.end();
}

#define BARE(element)
#define FIELD(name, element) {#name, offsetof(native, name), sizeof(native::name)},
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
#undef TYPE
#undef RECORD

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
