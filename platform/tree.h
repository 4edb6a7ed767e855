/**
 * @file
 * Ordered trees of caller-owned records: plain (`avl_*`) and threaded (`wavl_*`).
 *
 * A record's first member is its node, so calls take and return the record's own address; the tree
 * allocates nothing and frees nothing. A comparator returns TREE_BEFORE when the first record sorts
 * before the second, TREE_EQUAL, or TREE_AFTER. Keys are unique: inserting an equal record fails.
 * Search, insert and delete cost a logarithm of the number of records; the successor of a record is
 * found in constant time on average.
 *
 * A walk survives the deletion of its current record when the successor was taken first.
 * Nothing here locks.
 */
#ifndef TARVO_PLATFORM_TREE_H
#define TARVO_PLATFORM_TREE_H

#include "export.h"

PLATFORM_BEGIN

enum { TREE_BEFORE = 0, TREE_EQUAL = 1, TREE_AFTER = 2 };

/** Compares two records; either may be a key record, of which only the key fields are set. */
typedef int (*tree_cmp)(const void *a, const void *b);

/**
 * The node of one record. All zero in every key record, and before the record is first inserted.
 * The members are the layer's own: another implementation may give these 24 bytes any meaning.
 */
typedef struct avl_node {
  struct avl_node *left;  /**< lower records */
  struct avl_node *right; /**< higher records */
  /** The parent's address, with the balance in the low two bits; never 0 in a tree. */
  uintptr_t parent;
} avl_node_t;

/** Links of a record in a threaded tree. */
typedef avl_node_t wavl_node_t;

static_assert(sizeof(avl_node_t) == 24, "records with a node have fixed layouts");

/* --- Plain tree: the root is a pointer that the caller keeps, null when empty. --- */

/** Inserts `node` (its record's address). Returns it, or null when an equal record is present. */
PLATFORM_API void *avl_insert(void *root_address, void *node, tree_cmp cmp);

/** The record equal to `key`, or null. */
PLATFORM_API void *avl_search(void *root, const void *key, tree_cmp cmp);

/** Unlinks and returns the record equal to `key`, or null when there is none. */
PLATFORM_API void *avl_delete(void *root_address, const void *key, tree_cmp cmp);

/**
 * Calls `visit` for every record in ascending order while it returns 1; 0 ends the walk at once,
 * and then the tree is not looked at again, so such a last visit may change the tree at will. A
 * visit that returns 1 may delete, and free, its own record and no other.
 * Returns 1 when every record was visited, else 0.
 */
PLATFORM_API int avl_walk(void *root, int (*visit)(void *node, void *arg), void *arg);

/** The record that sorts first, or null. */
PLATFORM_API void *avl_get_first(void *root);

/** The successor of `node`, which is in a tree; null after the last and for a null argument. */
PLATFORM_API void *avl_get_next(void *node);

/* --- Threaded tree: a head that remembers its comparator. --- */

/** Head of a threaded tree; what is in it is the layer's own. */
typedef struct wavl_tree {
  avl_node_t *root;      /**< null when empty */
  tree_cmp cmp;          /**< null after wavl_finish */
  uint64_t reserved[10]; /**< not looked at */
} wavl_tree_t;

static_assert(sizeof(wavl_tree_t) == 96, "part of the next-hop entry's layout");

/**
 * Makes `tree` empty. `threads` is the number of orders in which a record is linked; a 24-byte
 * node has room for one, so any other number is refused, as is a null comparator. The third
 * argument is 0. Returns 0, or an error number.
 */
PLATFORM_API int wavl_init(wavl_tree_t *tree, unsigned long threads, unsigned long zero,
                           tree_cmp cmp);

/**
 * Ends the use of `tree`: it holds nothing and refuses insertions until it is initialised again.
 * Records still in it are not touched.
 */
PLATFORM_API void wavl_finish(wavl_tree_t *tree);

/** As avl_insert; `thread` is 0. */
PLATFORM_API void *wavl_insert_thread(wavl_tree_t *tree, unsigned long thread, void *node);

/** Unlinks `node`, which is in the tree. */
PLATFORM_API void wavl_delete_thread(wavl_tree_t *tree, unsigned long thread, void *node);

/** The record equal to `key`, or null. */
PLATFORM_API void *wavl_search(wavl_tree_t *tree, const void *key, unsigned long thread);

/** The record that sorts first, or null. */
PLATFORM_API void *wavl_get_first(wavl_tree_t *tree, unsigned long thread);

/**
 * The first record that sorts after `node_or_key`, or null. The argument is a record of the tree,
 * or a key record that need not be present; a key record's node is all zero, by which the two are
 * told apart.
 */
PLATFORM_API void *wavl_get_next(wavl_tree_t *tree, const void *node_or_key, unsigned long thread);

PLATFORM_END

#endif
