/*
 * Operational-data store: the records it exchanges with a provider.
 *
 * A provider's callbacks are given the request's path and write the result only on success. The
 * bytes marked reserved are the store's own.
 */
#ifndef TARVO_PLATFORM_ODS_H
#define TARVO_PLATFORM_ODS_H

#include "export.h"

PLATFORM_BEGIN

/* What is asked for. */
typedef struct ods_path {
  uint64_t reserved0;
  uint32_t item; /* item identifier */
  uint32_t reserved1;
  const void *key[2]; /* values of the item's keys, null for those it has not */
} ods_path_t;

/* Answer of a get. */
typedef struct ods_item {
  uint64_t reserved0;
  uint32_t type; /* kind of value; 7 is an encoded record */
  uint32_t reserved1;
  void *buffer;    /* the value, owned by the store and released with free() */
  uint32_t length; /* bytes in it */
} ods_item_t;

/* Answer of a list or data list. */
typedef struct ods_list_result {
  uint64_t reserved0[2];
  uint32_t count; /* entries added */
  uint32_t reserved1;
  void *list; /* the list or data list, owned by the store */
} ods_list_result_t;

static_assert(offsetof(ods_path_t, item) == 8, "layout of the store");
static_assert(offsetof(ods_path_t, key) == 16, "layout of the store");
static_assert(offsetof(ods_item_t, type) == 8, "layout of the store");
static_assert(offsetof(ods_item_t, buffer) == 16, "layout of the store");
static_assert(offsetof(ods_item_t, length) == 24, "layout of the store");
static_assert(offsetof(ods_list_result_t, count) == 16, "layout of the store");
static_assert(offsetof(ods_list_result_t, list) == 24, "layout of the store");

PLATFORM_END

#endif
