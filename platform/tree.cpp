// Balanced trees of caller-owned records: one AVL core under the plain and the threaded calls.
//
// A node keeps its parent's address and its balance in one word. The balance is stored as 1, 2 or 3
// (left subtree higher, even, right subtree higher), so that the word of a node in a tree is never
// zero, not even the root's; that tells a record of the tree from a key record. Both sides of every
// operation are one piece of code: a side is 0 (left) or 1 (right), and it indexes the links.
//
// The caller's lock covers a tree; its records bound it.
#include "tree.h"

#include <errno.h>

namespace {

using node = avl_node_t;

constexpr uintptr_t kBalanceMask = 3;
constexpr int kEven = 2;

static_assert(offsetof(node, left) == 0 && offsetof(node, right) == sizeof(node *),
              "a side indexes the links");

node *&child(node *n, int side) { return reinterpret_cast<node **>(n)[side]; }

node *parent_of(const node *n) { return reinterpret_cast<node *>(n->parent & ~kBalanceMask); }

int balance_of(const node *n) { return static_cast<int>(n->parent & kBalanceMask); }

void set_parent(node *n, node *parent) {
  n->parent = reinterpret_cast<uintptr_t>(parent) | (n->parent & kBalanceMask);
}

void set_word(node *n, node *parent, int balance) {
  n->parent = reinterpret_cast<uintptr_t>(parent) | static_cast<uintptr_t>(balance);
}

void set_balance(node *n, int balance) {
  n->parent = (n->parent & ~kBalanceMask) | static_cast<uintptr_t>(balance);
}

// The balance that a subtree higher on `side` has.
int higher_on(int side) { return kEven - 1 + 2 * side; }

int side_of(const node *parent, const node *n) { return parent->right == n; }

// The link that leads to `n`.
node **place_of(node **root, node *parent, const node *n) {
  return parent == nullptr ? root : &child(parent, side_of(parent, n));
}

node *leftmost(node *n) {
  while (n->left != nullptr) n = n->left;
  return n;
}

node *successor(const node *n) {
  if (n->right != nullptr) return leftmost(n->right);
  node *parent = parent_of(n);
  // Only the last record's way up ends at the root.
  while (__builtin_expect(parent != nullptr, 1)) {
    if (parent->right != n) return parent;
    n = parent;
    parent = parent_of(n);
  }
  return nullptr;
}

// Hangs `n`, which may be null, below `parent`.
void adopt(node *parent, int side, node *n) {
  child(parent, side) = n;
  if (n != nullptr) set_parent(n, parent);
}

// `top`, whose child on `side` is `heavy`, leans to that side by two levels. Lifts `heavy`.
node *rotate_once(node *top, node *heavy, int side, node *parent) {
  const bool was_even = balance_of(heavy) == kEven;
  adopt(top, side, child(heavy, !side));
  child(heavy, !side) = top;
  set_word(top, heavy, was_even ? higher_on(side) : kEven);
  set_word(heavy, parent, was_even ? higher_on(!side) : kEven);
  return heavy;
}

// The same with `heavy` leaning to the other side. Lifts its child on that side.
node *rotate_twice(node *top, node *heavy, int side, node *parent) {
  node *inner = child(heavy, !side);
  const int balance = balance_of(inner);
  adopt(top, side, child(inner, !side));
  adopt(heavy, !side, child(inner, side));
  child(inner, side) = heavy;
  child(inner, !side) = top;
  set_word(top, inner, balance == higher_on(side) ? higher_on(!side) : kEven);
  set_word(heavy, inner, balance == higher_on(!side) ? higher_on(side) : kEven);
  set_word(inner, parent, kEven);
  return inner;
}

// Evens out `top`, which is two levels higher on `side`. Returns the new top of its subtree, which
// has lost a level, unless the new top leans; only a deletion leads to that.
node *rebalance(node **root, node *top, int side) {
  node *parent = parent_of(top);
  node *heavy = child(top, side);
  node **place = place_of(root, parent, top);
  const bool leans_inwards = balance_of(heavy) == higher_on(!side);
  *place = leans_inwards ? rotate_twice(top, heavy, side, parent)
                         : rotate_once(top, heavy, side, parent);
  return *place;
}

// `n` was added below `parent`: its subtree has gained a level.
void retrace_growth(node **root, node *parent, node *n) {
  for (; parent != nullptr; n = parent, parent = parent_of(n)) {
    const int side = side_of(parent, n);
    const int balance = balance_of(parent);
    if (balance == kEven) {
      set_balance(parent, higher_on(side));
      continue;
    }
    if (balance == higher_on(side))
      rebalance(root, parent, side);
    else
      set_balance(parent, kEven);
    return;
  }
}

// The subtree on `side` of `parent` has lost a level.
void retrace_loss(node **root, node *parent, int side) {
  while (parent != nullptr) {
    const int balance = balance_of(parent);
    if (balance == kEven) {
      set_balance(parent, higher_on(!side));
      return;
    }
    node *above = parent_of(parent);
    const int side_above = above != nullptr ? side_of(above, parent) : 0;
    if (balance == higher_on(side))
      set_balance(parent, kEven);
    else if (balance_of(rebalance(root, parent, !side)) != kEven)
      return;
    parent = above;
    side = side_above;
  }
}

// Where the way down to `key` ends: at the equal record, or at the last one before an empty link.
// `at` is null for an empty tree only; then `order` says equal.
struct position {
  node *at;
  int order;  // how `key` compares to it
};

// Both links are loaded, and what they lead to is fetched, before the comparator is called: that
// takes the loads out of the chain from one comparison to the next, and lets the compiler choose
// between the links without a branch, which random keys would have mispredicted every second time.
position descend(node *root, const void *key, tree_cmp cmp) {
  position p = {nullptr, TREE_EQUAL};
  while (root != nullptr) {
    node *left = root->left;
    node *right = root->right;
    __builtin_prefetch(left);
    __builtin_prefetch(right);
    p = {root, cmp(key, root)};
    if (p.order == TREE_EQUAL) break;
    root = p.order == TREE_BEFORE ? left : right;
  }
  return p;
}

node *insert(node **root, node *n, tree_cmp cmp) {
  const position p = descend(*root, n, cmp);
  if (p.at != nullptr && p.order == TREE_EQUAL) return nullptr;

  n->left = n->right = nullptr;
  set_word(n, p.at, kEven);
  *(p.at == nullptr ? root : &child(p.at, p.order == TREE_AFTER)) = n;
  retrace_growth(root, p.at, n);
  return n;
}

node *search(node *root, const void *key, tree_cmp cmp) {
  const position p = descend(root, key, cmp);
  return p.order == TREE_EQUAL ? p.at : nullptr;
}

// Always goes down to an empty link: on the way it passes the record that is looked for, as the
// last one that `key` sorts before. With two outcomes only, a comparator that branches has settled
// which way to go before it returns, and a branch here follows its lead. Not inlined: a walk from
// record to record must not pay for the registers that this needs.
[[gnu::noinline]] node *first_after(node *root, const void *key, tree_cmp cmp) {
  node *found = nullptr;
  while (root != nullptr) {
    node *left = root->left;
    node *right = root->right;
    __builtin_prefetch(left);
    __builtin_prefetch(right);
    if (cmp(key, root) == TREE_BEFORE) {
      found = root;
      root = left;
    } else {
      root = right;
    }
  }
  return found;
}

// Puts the first record of `n`'s right subtree into the place of `n`, which has both children.
void erase_inner(node **root, node *n) {
  node *heir = leftmost(n->right);
  const bool adjacent = heir == n->right;
  node *shrunk = adjacent ? heir : parent_of(heir);
  if (!adjacent) {
    adopt(shrunk, 0, heir->right);
    adopt(heir, 1, n->right);
  }
  adopt(heir, 0, n->left);
  *place_of(root, parent_of(n), n) = heir;
  heir->parent = n->parent;
  retrace_loss(root, shrunk, adjacent ? 1 : 0);
}

void erase_outer(node **root, node *n) {
  node *parent = parent_of(n);
  node *only = n->left != nullptr ? n->left : n->right;
  const int side = parent != nullptr ? side_of(parent, n) : 0;
  if (parent == nullptr)
    *root = only;
  else
    child(parent, side) = only;
  if (only != nullptr) set_parent(only, parent);
  retrace_loss(root, parent, side);
}

void erase(node **root, node *n) {
  if (n->left != nullptr && n->right != nullptr)
    erase_inner(root, n);
  else
    erase_outer(root, n);
  *n = {};
}

}  // namespace

void *avl_insert(void *root_address, void *node_address, tree_cmp cmp) {
  return insert(static_cast<node **>(root_address), static_cast<node *>(node_address), cmp);
}

void *avl_search(void *root, const void *key, tree_cmp cmp) {
  return search(static_cast<node *>(root), key, cmp);
}

void *avl_delete(void *root_address, const void *key, tree_cmp cmp) {
  auto **root = static_cast<node **>(root_address);
  node *n = search(*root, key, cmp);
  if (n != nullptr) erase(root, n);
  return n;
}

int avl_walk(void *root, int (*visit)(void *node, void *arg), void *arg) {
  auto *at = static_cast<node *>(avl_get_first(root));
  while (at != nullptr) {
    node *next = successor(at);
    if (visit(at, arg) == 0) return 0;
    at = next;
  }
  return 1;
}

void *avl_get_first(void *root) {
  return root == nullptr ? nullptr : leftmost(static_cast<node *>(root));
}

void *avl_get_next(void *node_address) {
  return node_address == nullptr ? nullptr : successor(static_cast<node *>(node_address));
}

int wavl_init(wavl_tree_t *tree, unsigned long threads, unsigned long, tree_cmp cmp) {
  if (tree == nullptr || threads != 1 || cmp == nullptr) return EINVAL;
  *tree = {};
  tree->cmp = cmp;
  return 0;
}

void wavl_finish(wavl_tree_t *tree) { *tree = {}; }

void *wavl_insert_thread(wavl_tree_t *tree, unsigned long, void *node_address) {
  if (tree->cmp == nullptr) return nullptr;
  return insert(&tree->root, static_cast<node *>(node_address), tree->cmp);
}

void wavl_delete_thread(wavl_tree_t *tree, unsigned long, void *node_address) {
  erase(&tree->root, static_cast<node *>(node_address));
}

void *wavl_search(wavl_tree_t *tree, const void *key, unsigned long) {
  return search(tree->root, key, tree->cmp);
}

void *wavl_get_first(wavl_tree_t *tree, unsigned long) { return avl_get_first(tree->root); }

// From a line of the cache on, so that neither loop of a walk lies across two: that costs a tenth.
[[gnu::aligned(64)]] void *wavl_get_next(wavl_tree_t *tree, const void *node_or_key,
                                         unsigned long) {
  const auto *n = static_cast<const node *>(node_or_key);
  return n->parent != 0 ? successor(n) : first_after(tree->root, n, tree->cmp);
}
