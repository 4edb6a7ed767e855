// Trees beside Boost's intrusive AVL: the same records, keys, comparator and operations, in one
// run. Times are per operation. Keys come in random order, as next-hop addresses do.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstddef>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "bench/boost_tree.h"
#include "platform/tree.h"

namespace {

struct record {
  boost_node node;  // either tree's
  uint32_t key;
  uint32_t value;
};
static_assert(sizeof(boost_node) == sizeof(wavl_node_t));

int compare(const void *a, const void *b) {
  const uint32_t x = static_cast<const record *>(a)->key;
  const uint32_t y = static_cast<const record *>(b)->key;
  return x < y ? TREE_BEFORE : TREE_AFTER - (x == y);
}

struct ours {
  wavl_tree_t tree;
  ours() { wavl_init(&tree, 1, 0, compare); }
  void *insert(record *r) { return wavl_insert_thread(&tree, 0, r); }
  void erase(record *r) { wavl_delete_thread(&tree, 0, r); }
  void *search(const record *key) { return wavl_search(&tree, key, 0); }
  void *first() { return wavl_get_first(&tree, 0); }
  void *next(void *r) { return wavl_get_next(&tree, r, 0); }
  void *next_after_key(const record *key) { return wavl_get_next(&tree, key, 0); }
};

struct boosts {
  boost_node header;
  boosts() { boost_tree_init(&header); }
  void *insert(record *r) { return boost_tree_insert(&header, r, compare); }
  void erase(record *r) { boost_tree_erase(&header, r); }
  void *search(const record *key) { return boost_tree_search(&header, key, compare); }
  void *first() { return boost_tree_first(&header); }
  void *next(void *r) { return boost_tree_next(&header, r); }
  void *next_after_key(const record *key) {
    return boost_tree_next_after_key(&header, key, compare);
  }
};

// Records with distinct even keys, and an order to take them in. Both are drawn anew for every
// iteration, outside the measured time: branch predictors learn an order of 500 by heart.
struct workload {
  std::mt19937 random{1};
  std::vector<record> records;
  std::vector<uint32_t> order;

  explicit workload(size_t n) : records(n), order(n) { std::iota(order.begin(), order.end(), 0); }

  void draw_keys() {
    draw_order();
    for (size_t i = 0; i < records.size(); ++i) records[i] = {{}, 2 * order[i], 0};
  }
  void draw_order() { std::shuffle(order.begin(), order.end(), random); }
};

template <typename T>
void fill(T *tree, workload *w) {
  for (record &r : w->records) tree->insert(&r);
}

template <typename T>
void insert(benchmark::State &state) {
  workload w(state.range(0));
  for (auto _ : state) {
    state.PauseTiming();
    w.draw_keys();
    state.ResumeTiming();
    T tree;
    fill(&tree, &w);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

template <typename T>
void erase(benchmark::State &state) {
  workload w(state.range(0));
  for (auto _ : state) {
    state.PauseTiming();
    w.draw_keys();
    T tree;
    fill(&tree, &w);
    w.draw_order();
    state.ResumeTiming();
    for (uint32_t i : w.order) tree.erase(&w.records[i]);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

// Looks up every key of the workload plus `offset` (1: keys that are absent).
template <typename T, void *(T::*operation)(const record *), uint32_t offset>
void look_up(benchmark::State &state) {
  workload w(state.range(0));
  w.draw_keys();
  T tree;
  fill(&tree, &w);
  record key{};
  for (auto _ : state) {
    state.PauseTiming();
    w.draw_order();
    state.ResumeTiming();
    for (uint32_t i : w.order) {
      key.key = 2 * i + offset;
      benchmark::DoNotOptimize((tree.*operation)(&key));
    }
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

template <typename T>
void next(benchmark::State &state) {
  workload w(state.range(0));
  w.draw_keys();
  T tree;
  fill(&tree, &w);
  for (auto _ : state) {
    for (void *r = tree.first(); r != nullptr; r = tree.next(r)) benchmark::DoNotOptimize(r);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

template <typename T>
void register_all(const char *tree) {
  const auto add = [tree](const char *operation, void (*run)(benchmark::State &)) {
    benchmark::RegisterBenchmark((std::string(operation) + "/" + tree).c_str(), run)
        ->Arg(500)
        ->Arg(100000);
  };
  add("insert", insert<T>);
  add("erase", erase<T>);
  add("search", look_up<T, &T::search, 0>);
  add("next", next<T>);
  add("next_after_key", look_up<T, &T::next_after_key, 1>);
}

}  // namespace

int main(int argc, char **argv) {
  register_all<ours>("platform");
  register_all<boosts>("boost");
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
