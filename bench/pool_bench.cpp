// Pools beside malloc. Times are per element allocated and freed; elements are work requests' size.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <vector>

#include "platform/pool.h"

namespace {

constexpr unsigned long kSize = 280;

struct pool_heap {
  explicit pool_heap(unsigned long flags) : pool(chunk_create("bench", kSize, 100, flags, 0, 0)) {}
  ~pool_heap() { chunk_destroy(pool); }
  void *allocate() { return chunk_malloc(pool); }
  void release(void *element) { chunk_free(pool, element); }
  void *pool;
};

struct c_heap {
  explicit c_heap(unsigned long flags) : zero((flags & CHUNK_ZERO) != 0) {}
  void *allocate() { return zero ? calloc(1, kSize) : malloc(kSize); }
  void release(void *element) { free(element); }
  bool zero;
};

template <typename heap, unsigned long flags>
void pair(benchmark::State &state) {
  heap h(flags);
  for (auto _ : state) {
    void *element = h.allocate();
    benchmark::DoNotOptimize(element);
    h.release(element);
  }
}

// A queue that fills up to range(0) elements and drains in order, again and again.
template <typename heap, unsigned long flags>
void breathe(benchmark::State &state) {
  heap h(flags);
  std::vector<void *> queue(state.range(0));
  for (auto _ : state) {
    for (void *&element : queue) *static_cast<char *>(element = h.allocate()) = 1;
    for (void *element : queue) h.release(element);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

constexpr unsigned long kQueue = CHUNK_GROW | CHUNK_TRIM;
constexpr unsigned long kZeroed = kQueue | CHUNK_ZERO;

BENCHMARK(pair<pool_heap, kQueue>);
BENCHMARK(pair<c_heap, kQueue>);
BENCHMARK(pair<pool_heap, kZeroed>);
BENCHMARK(pair<c_heap, kZeroed>);
BENCHMARK(breathe<pool_heap, kQueue>)->Arg(8000)->Arg(1000000);
BENCHMARK(breathe<c_heap, kQueue>)->Arg(8000)->Arg(1000000);

}  // namespace
