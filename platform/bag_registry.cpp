// Registry of record descriptors.
//
// It keeps a pointer to each, in order of registration, and reads the schemas anew when something
// is to be compared with them; the array doubles when it is full. An open registration appends to
// it, so that ending one is to count what was appended and aborting one to forget it. The lock
// covers all of it. What it keeps is bounded by what is registered: one pointer a record, each
// record with a name and a type number of its own.
#include <stdlib.h>
#include <string.h>

#include "bag_record_private.h"
#include "lock_private.h"

namespace {

constexpr uint32_t kFirstCapacity = 32;

platform::mutex lock;
const bag_descriptor_t **records TARVO_GUARDED_BY(lock) = nullptr;
size_t capacity TARVO_GUARDED_BY(lock) = 0;
uint32_t kept TARVO_GUARDED_BY(lock) = 0;   // those that stay whatever happens
uint32_t count TARVO_GUARDED_BY(lock) = 0;  // with those of the open registration
bool open TARVO_GUARDED_BY(lock) = false;

// ---- Conflicts of a record with one that is registered, the first to be told first ----

bool same_name(const bag_descriptor_t &known, const bag_descriptor_t &added, const bag::record &) {
  return strcmp(known.name, added.name) == 0;
}

// Whether `differs(position, number, body)` holds for a definition of the registered record.
template <typename Predicate>
bool any_definition(const bag_descriptor_t &known, Predicate holds) {
  uint32_t number;
  std::string_view body, schema = known.long_schema;
  for (uint32_t i = 0; bag::read_definition(schema, number, body); ++i) {
    if (holds(i, number, body)) return true;
  }
  return false;
}

bool same_type(const bag_descriptor_t &known, const bag_descriptor_t &, const bag::record &added) {
  return any_definition(known, [&](uint32_t i, uint32_t number, std::string_view) {
    return i == 0 && number == added.types[0].number;
  });
}

bool other_body(const bag_descriptor_t &known, const bag_descriptor_t &, const bag::record &added) {
  return any_definition(known, [&](uint32_t, uint32_t number, std::string_view body) {
    const bag::type *t = bag::find_type(added, number);
    return t != nullptr && t->body != body;
  });
}

bool uses_type(const bag_descriptor_t &known, const bag_descriptor_t &, const bag::record &added) {
  return any_definition(known, [&](uint32_t i, uint32_t number, std::string_view) {
    return i != 0 && number == added.types[0].number;
  });
}

constexpr struct {
  uint32_t code;
  bool (*applies)(const bag_descriptor_t &known, const bag_descriptor_t &added,
                  const bag::record &read);
} kConflicts[] = {
    {BAG_ERR_DUPLICATE_NAME, same_name},
    {BAG_ERR_DUPLICATE_TYPE, same_type},
    {BAG_ERR_OTHER_BODY, other_body},
    {BAG_ERR_ORDER, uses_type},
};

uint32_t find_conflict(const bag_descriptor_t &added, const bag::record &read)
    TARVO_REQUIRES(lock) {
  for (const auto &conflict : kConflicts) {
    for (uint32_t i = 0; i < count; ++i) {
      if (conflict.applies(*records[i], added, read)) return conflict.code;
    }
  }
  return 0;
}

uint32_t append(const bag_descriptor_t *added) TARVO_REQUIRES(lock) {
  if (count == UINT32_MAX) return BAG_ERR_NOMEM;
  if (count == capacity) {
    const size_t grown = capacity == 0 ? kFirstCapacity : 2 * capacity;
    void *moved = realloc(records, grown * sizeof *records);
    if (moved == nullptr) return BAG_ERR_NOMEM;
    records = static_cast<const bag_descriptor_t **>(moved);
    capacity = grown;
  }
  records[count++] = added;
  return 0;
}

}  // namespace

uint32_t bag_register_start(void *) {
  platform::hold held(lock);
  if (open) return BAG_ERR_BUSY;
  open = true;
  return 0;
}

uint32_t bag_register(const void *descriptor) {
  const auto *added = static_cast<const bag_descriptor_t *>(descriptor);
  platform::hold held(lock);
  if (!open) return BAG_ERR_NOT_OPEN;
  bag::record read;
  uint32_t code = bag::read_record(added, read);
  if (code == 0) code = find_conflict(*added, read);
  return code == 0 ? append(added) : code;
}

uint32_t bag_register_end(void) {
  platform::hold held(lock);
  if (!open) return BAG_ERR_NOT_OPEN;
  open = false;
  kept = count;
  return 0;
}

void bag_register_abort(void) {
  platform::hold held(lock);
  open = false;
  count = kept;
}

uint32_t bag_registered_count(void) {
  platform::hold held(lock);
  return kept;
}
