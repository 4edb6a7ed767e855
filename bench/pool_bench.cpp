// Pools beside malloc and Boost's pool. Times are per element allocated and freed; elements are
// work requests' size.
#include <benchmark/benchmark.h>

#include <boost/pool/pool.hpp>
#include <cstdlib>
#include <cstring>
#include <string>
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

struct boost_heap {
  explicit boost_heap(unsigned long flags) : pool(kSize, 100), zero((flags & CHUNK_ZERO) != 0) {}
  void *allocate() { return zero ? memset(pool.malloc(), 0, kSize) : pool.malloc(); }
  void release(void *element) { pool.free(element); }
  boost::pool<> pool;
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

template <typename heap>
void register_all(const char *name) {
  const auto add = [name](const char *operation, void (*run)(benchmark::State &)) {
    return benchmark::RegisterBenchmark((std::string(operation) + "/" + name).c_str(), run);
  };
  add("pair", pair<heap, kQueue>);
  add("zeroed-pair", pair<heap, kZeroed>);
  add("queue", breathe<heap, kQueue>)->Arg(8000)->Arg(1000000);
}

}  // namespace

int main(int argc, char **argv) {
  register_all<pool_heap>("platform");
  register_all<c_heap>("malloc");
  register_all<boost_heap>("boost");
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
