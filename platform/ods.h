/**
 * @file
 * Operational-data store: the records it exchanges with a provider, and the lists a provider
 * builds for it.
 *
 * A provider's callbacks are given the request's path and write the result only on success. The
 * bytes marked reserved are the store's own.
 */
#ifndef TARVO_PLATFORM_ODS_H
#define TARVO_PLATFORM_ODS_H

#include "export.h"

PLATFORM_BEGIN

/** What is asked for. */
typedef struct ods_path {
  uint64_t reserved0; /**< the store's own */
  uint32_t item;      /**< item identifier */
  uint32_t reserved1; /**< the store's own */
  const void *key[2]; /**< values of the item's keys, null for those it has not */
} ods_path_t;

/** Answer of a get. */
typedef struct ods_item {
  uint64_t reserved0; /**< the store's own */
  uint32_t type;      /**< kind of value; 7 is an encoded record */
  uint32_t reserved1; /**< the store's own */
  void *buffer;       /**< the value, owned by the store and released with free() */
  uint32_t length;    /**< bytes in it */
} ods_item_t;

/** Answer of a list or data list. */
typedef struct ods_list_result {
  uint64_t reserved0[2]; /**< the store's own */
  uint32_t count;        /**< entries added */
  uint32_t reserved1;    /**< the store's own */
  void *list;            /**< the list or data list, owned by the store */
} ods_list_result_t;

static_assert(offsetof(ods_path_t, item) == 8, "layout of the store");
static_assert(offsetof(ods_path_t, key) == 16, "layout of the store");
static_assert(offsetof(ods_item_t, type) == 8, "layout of the store");
static_assert(offsetof(ods_item_t, buffer) == 16, "layout of the store");
static_assert(offsetof(ods_item_t, length) == 24, "layout of the store");
static_assert(offsetof(ods_list_result_t, count) == 16, "layout of the store");
static_assert(offsetof(ods_list_result_t, list) == 24, "layout of the store");

/**
 * @name Result codes
 * 0 is success.
 * @{
 */
#define ODS_ERR_NOMEM UINT32_C(0x40820200)    /**< memory is gone */
#define ODS_ERR_ARGUMENT UINT32_C(0x40820400) /**< null, or another rank or flags than below */
/** @} */

/**
 * @name Building
 * A list carries keys; a data list carries a value with each. Both grow with their entries. A list
 * belongs to one thread at a time; whoever holds it frees it. A failure leaves it as it was.
 * @{
 */

/**
 * Creates an empty list in `*list`, or leaves it alone and returns a code.
 *
 * `path` is the request's; `more` are the request's further arguments, which the provider was given
 * and hands on. Both are for stores that build a list by what was asked: this one looks at neither.
 */
PLATFORM_API uint32_t ods_list_create(void **list, ods_path_t *path, void *more);
/** As ods_list_create, for a data list. */
PLATFORM_API uint32_t ods_datalist_create(void **list, ods_path_t *path, void *more);

/** The rank of an entry that goes to the end, the only one there is. */
#define ODS_RANK_LAST UINT32_C(0xffffffff)

/** Appends a copy of `key`. `rank` is ODS_RANK_LAST, `flags` 0. */
PLATFORM_API uint32_t ods_list_add(void *list, const char *key, uint32_t rank, uint32_t flags);

/**
 * Appends copies of `key` and of the value, `length` bytes at `buffer`, which may be null when
 * there are none. `flags` is 0.
 */
PLATFORM_API uint32_t ods_datalist_add(void *list, const char *key, uint32_t type, uint32_t flags,
                                       const void *buffer, uint32_t length);

/**
 * Tells that there may be more after the last entry: the request can be repeated with its key. No
 * effect on null.
 */
PLATFORM_API void ods_list_set_more_flag(void *list);

/** Frees a list with its entries. No effect on null. */
PLATFORM_API void ods_list_free(void *list);
/** Frees a data list with its entries and values. No effect on null. */
PLATFORM_API void ods_datalist_free(void *list);
/** @} */

/**
 * @name Reading, for the store
 * @{
 */

/** One entry, valid until the list is freed. */
typedef struct ods_entry {
  const char *key;    /**< NUL-terminated */
  uint32_t type;      /**< kind of value; 0 in a list of keys */
  uint32_t length;    /**< bytes of the value */
  const void *buffer; /**< the value; null when it has no bytes */
} ods_entry_t;

/** The entry at `index` (from 0) of a list or data list in order of adding; null past the last. */
PLATFORM_API const ods_entry_t *ods_list_entry(const void *list, uint32_t index);

/** 1 when ods_list_set_more_flag was called, else 0. */
PLATFORM_API int ods_list_more(const void *list);
/** @} */

PLATFORM_END

#endif
