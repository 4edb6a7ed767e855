// Both kinds of tree against a set of keys, over random operations, and the edges of their calls.
#include "platform/tree.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <random>
#include <set>
#include <vector>

namespace {

struct record {
  avl_node_t node;
  uint32_t key;
};

int compare(const void *a, const void *b) {
  const uint32_t x = static_cast<const record *>(a)->key, y = static_cast<const record *>(b)->key;
  return x < y ? TREE_BEFORE : x == y ? TREE_EQUAL : TREE_AFTER;
}

bool is_zero(const avl_node_t &n) {
  return n.left == nullptr && n.right == nullptr && n.parent == 0;
}

struct plain {
  avl_node_t *root = nullptr;
  void *insert(record *r) { return avl_insert(&root, r, compare); }
  void *erase(record *r) { return avl_delete(&root, r, compare); }
  void *search(const record *key) { return avl_search(root, key, compare); }
  void *first() { return avl_get_first(root); }
  void *next(record *r) { return avl_get_next(r); }
  void *next_after(const record *) { return nullptr; }
  static constexpr bool finds_after_key = false;
};

struct threaded {
  wavl_tree_t tree;
  avl_node_t *&root = tree.root;
  threaded() { EXPECT_EQ(wavl_init(&tree, 1, 0, compare), 0); }
  void *insert(record *r) { return wavl_insert_thread(&tree, 0, r); }
  void *erase(record *r) {
    if (is_zero(r->node)) return nullptr;
    wavl_delete_thread(&tree, 0, r);
    return r;
  }
  void *search(const record *key) { return wavl_search(&tree, key, 0); }
  void *first() { return wavl_get_first(&tree, 0); }
  void *next(record *r) { return wavl_get_next(&tree, r, 0); }
  void *next_after(const record *key) { return wavl_get_next(&tree, key, 0); }
  static constexpr bool finds_after_key = true;
};

// Height of a subtree, checking parents and balance all the way down.
int height(const avl_node_t *n, const avl_node_t *parent) {
  if (n == nullptr) return 0;
  EXPECT_EQ(n->parent & ~uintptr_t{3}, reinterpret_cast<uintptr_t>(parent));
  const int left = height(n->left, n), right = height(n->right, n);
  EXPECT_LE(std::abs(left - right), 1);
  return 1 + std::max(left, right);
}

template <typename T>
class Tree : public testing::Test {};
using kinds = testing::Types<plain, threaded>;
TYPED_TEST_SUITE(Tree, kinds);

TYPED_TEST(Tree, AgreesWithASet) {
  constexpr uint32_t kKeys = 400;
  TypeParam tree;
  std::vector<record> records(kKeys, record{});
  for (uint32_t k = 0; k < kKeys; ++k) records[k].key = k;
  std::set<uint32_t> model;
  std::mt19937 random(1);
  const auto expected = [&](std::set<uint32_t>::iterator at) -> void * {
    return at == model.end() ? nullptr : &records[*at];
  };

  for (int step = 0; step < 40000; ++step) {
    const uint32_t k = random() % kKeys;
    const record key{{}, k};
    record duplicate = key;
    const bool present = model.contains(k);
    ASSERT_EQ(tree.search(&key), present ? &records[k] : nullptr);
    if (TypeParam::finds_after_key) {
      ASSERT_EQ(tree.next_after(&key), expected(model.upper_bound(k)));
    }
    if (present) {
      ASSERT_EQ(tree.insert(&duplicate), nullptr);
      ASSERT_EQ(tree.next(&records[k]), expected(model.upper_bound(k)));
    }

    const bool grow = (step / 2000) % 2 == 0 ? random() % 3 != 0 : random() % 3 == 0;
    if (grow && !present) {
      ASSERT_EQ(tree.insert(&records[k]), &records[k]);
      model.insert(k);
    } else if (!grow) {
      ASSERT_EQ(tree.erase(&records[k]), present ? &records[k] : nullptr);
      ASSERT_TRUE(is_zero(records[k].node));
      model.erase(k);
    }
    ASSERT_EQ(tree.first(), expected(model.begin()));
    if (step % 50 == 0) height(tree.root, nullptr);
  }
}

using key_list = std::vector<uint32_t>;

TEST(TreeWalk, IsAscendingAndStopsWhereTold) {
  plain tree;
  std::vector<record> records;
  for (uint32_t k : {5, 1, 4, 2, 3}) records.push_back({{}, k});
  for (record &r : records) tree.insert(&r);
  key_list seen;
  const auto visit = [](void *node, void *arg) -> int {
    auto &list = *static_cast<key_list *>(arg);
    list.push_back(static_cast<record *>(node)->key);
    return list.size() != 8;
  };
  EXPECT_EQ(avl_walk(tree.root, visit, &seen), 1);
  EXPECT_EQ(avl_walk(tree.root, visit, &seen), 0);
  EXPECT_EQ(seen, (key_list{1, 2, 3, 4, 5, 1, 2, 3}));
  EXPECT_EQ(avl_walk(nullptr, visit, &seen), 1);
}

// The last visit may free anything: an address sanitizer sees a walk that looks again.
TEST(TreeWalk, LeavesTheTreeAloneAfterTheLastVisit) {
  static plain tree;
  tree = {};
  for (uint32_t k = 0; k < 7; ++k) tree.insert(new record{{}, k});
  const auto delete_third = [](void *node, void *) -> int {
    if (static_cast<record *>(node)->key != 2) return 1;
    while (auto *r = static_cast<record *>(tree.first())) {
      tree.erase(r);
      delete r;
    }
    return 0;
  };
  EXPECT_EQ(avl_walk(tree.root, delete_third, nullptr), 0);
  EXPECT_EQ(tree.root, nullptr);
}

TEST(TreeWalk, SurvivesDeletionOfTheCurrentRecord) {
  threaded tree;
  std::vector<record> records(100, record{});
  for (uint32_t k = 0; k < 100; ++k) records[k].key = k;
  for (record &r : records) tree.insert(&r);
  uint32_t visited = 0;
  for (auto *r = static_cast<record *>(tree.first()); r != nullptr; ++visited) {
    auto *next = static_cast<record *>(tree.next(r));
    EXPECT_EQ(r->key, visited);
    if (r->key % 3 != 0) tree.erase(r);
    r = next;
  }
  EXPECT_EQ(visited, 100u);
  EXPECT_EQ(tree.tree.count, 34u);
  height(tree.root, nullptr);
}

TEST(Tree, RefusesAndFinishes) {
  wavl_tree_t tree;
  EXPECT_NE(wavl_init(&tree, 0, 0, compare), 0);
  EXPECT_NE(wavl_init(&tree, 2, 0, compare), 0);
  EXPECT_NE(wavl_init(&tree, 1, 0, nullptr), 0);
  ASSERT_EQ(wavl_init(&tree, 1, 0, compare), 0);
  EXPECT_EQ(avl_get_first(nullptr), nullptr);
  EXPECT_EQ(avl_get_next(nullptr), nullptr);

  record one{{}, 1}, two{{}, 2};
  const record key{{}, 0};
  ASSERT_NE(wavl_insert_thread(&tree, 0, &one), nullptr);
  wavl_finish(&tree);
  EXPECT_EQ(tree.count, 0u);
  EXPECT_EQ(wavl_search(&tree, &one, 0), nullptr);
  EXPECT_EQ(wavl_get_first(&tree, 0), nullptr);
  EXPECT_EQ(wavl_get_next(&tree, &key, 0), nullptr);
  EXPECT_EQ(wavl_insert_thread(&tree, 0, &two), nullptr);
}

}  // namespace
