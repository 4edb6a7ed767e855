// Boost's intrusive AVL algorithms behind calls of the same shape as the platform's trees.
//
// The node is the compact one: three words, the balance in the parent's low bits. A tree is its
// header node. Calls never cross into the caller's code inline.
#pragma once

#include <cstdint>

#include "platform/export.h"

struct boost_node {
  void *left, *right;
  std::uintptr_t parent;
};

using boost_cmp = int (*)(const void *a, const void *b);  // as tree_cmp

PLATFORM_API void boost_tree_init(boost_node *header);
PLATFORM_API void *boost_tree_insert(boost_node *header, void *node, boost_cmp cmp);
PLATFORM_API void boost_tree_erase(boost_node *header, void *node);
PLATFORM_API void *boost_tree_search(boost_node *header, const void *key, boost_cmp cmp);
PLATFORM_API void *boost_tree_first(boost_node *header);
PLATFORM_API void *boost_tree_next(boost_node *header, void *node);
PLATFORM_API void *boost_tree_next_after_key(boost_node *header, const void *key, boost_cmp cmp);
