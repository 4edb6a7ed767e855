// VRF names: one rule for cutting and comparing them.
#pragma once

#include <cstring>

#include "tarvo/records.h"

/// A name in a record: at most 244 characters, zero-filled to the end.
using vrf_name_t = char[TARVO_ND_VRF_NAME_SIZE];

/// Copies `name`, cut to what fits; null is the empty name.
inline void tarvo_nd_vrf_name_copy(vrf_name_t &to, const char *name) {
  if (name == nullptr) name = "";
  const size_t length = strnlen(name, sizeof to - 1);
  memcpy(to, name, length);
  memset(to + length, 0, sizeof to - length);
}

/// As strcmp, over at most a buffer's length.
inline int tarvo_nd_vrf_name_compare(const char *a, const char *b) {
  return strncmp(a, b, TARVO_ND_VRF_NAME_SIZE);
}
