// Lists for the operational-data store. One kind serves both: a list of keys is a data list whose
// entries have no value.
//
// An entry is one block: its record, the value, the key. The array of entries doubles when it is
// full. A list keeps no lock, since it belongs to one thread at a time; how long it gets is for the
// provider to bound, which decides what it adds.
#include "ods.h"

#include <stdlib.h>
#include <string.h>

namespace {

constexpr size_t kFirstCapacity = 8;

struct list {
  ods_entry_t **entries;
  size_t capacity;
  uint32_t count;
  int more;
};

uint32_t create(void **out) {
  if (out == nullptr) return ODS_ERR_ARGUMENT;
  void *created = calloc(1, sizeof(list));
  if (created == nullptr) return ODS_ERR_NOMEM;
  *out = created;
  return 0;
}

ods_entry_t *create_entry(const char *key, uint32_t type, const void *value, uint32_t length) {
  const size_t key_size = strlen(key) + 1;
  auto *entry = static_cast<ods_entry_t *>(malloc(sizeof(ods_entry_t) + length + key_size));
  if (entry == nullptr) return nullptr;
  auto *bytes = reinterpret_cast<char *>(entry + 1);
  if (length != 0) memcpy(bytes, value, length);
  memcpy(bytes + length, key, key_size);
  *entry = {bytes + length, type, length, length == 0 ? nullptr : bytes};
  return entry;
}

bool make_room(list *l) {
  if (l->count == UINT32_MAX) return false;
  if (l->count < l->capacity) return true;
  const size_t capacity = l->capacity == 0 ? kFirstCapacity : 2 * l->capacity;
  void *entries = realloc(l->entries, capacity * sizeof *l->entries);
  if (entries == nullptr) return false;
  l->entries = static_cast<ods_entry_t **>(entries);
  l->capacity = capacity;
  return true;
}

uint32_t add(void *to, const char *key, uint32_t type, const void *value, uint32_t length) {
  auto *l = static_cast<list *>(to);
  if (l == nullptr || key == nullptr || (value == nullptr && length != 0)) return ODS_ERR_ARGUMENT;
  if (!make_room(l)) return ODS_ERR_NOMEM;
  ods_entry_t *entry = create_entry(key, type, value, length);
  if (entry == nullptr) return ODS_ERR_NOMEM;
  l->entries[l->count++] = entry;
  return 0;
}

void destroy(void *freed) {
  auto *l = static_cast<list *>(freed);
  if (l == nullptr) return;
  for (uint32_t i = 0; i < l->count; ++i) free(l->entries[i]);
  free(l->entries);
  free(l);
}

}  // namespace

uint32_t ods_list_create(void **list, ods_path_t *, void *) { return create(list); }
uint32_t ods_datalist_create(void **list, ods_path_t *, void *) { return create(list); }

uint32_t ods_list_add(void *list, const char *key, uint32_t rank, uint32_t flags) {
  if (rank != ODS_RANK_LAST || flags != 0) return ODS_ERR_ARGUMENT;
  return add(list, key, 0, nullptr, 0);
}

uint32_t ods_datalist_add(void *list, const char *key, uint32_t type, uint32_t flags,
                          const void *buffer, uint32_t length) {
  if (flags != 0) return ODS_ERR_ARGUMENT;
  return add(list, key, type, buffer, length);
}

void ods_list_set_more_flag(void *marked) {
  if (marked != nullptr) static_cast<list *>(marked)->more = 1;
}

void ods_list_free(void *list) { destroy(list); }
void ods_datalist_free(void *list) { destroy(list); }

const ods_entry_t *ods_list_entry(const void *of, uint32_t index) {
  const auto *l = static_cast<const list *>(of);
  return l != nullptr && index < l->count ? l->entries[index] : nullptr;
}

int ods_list_more(const void *of) {
  const auto *l = static_cast<const list *>(of);
  return l != nullptr && l->more;
}
