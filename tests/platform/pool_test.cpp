// Pools against a list of what is handed out; what they hold after bursts; limits and misuse.
#include "platform/pool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <random>
#include <string>
#include <vector>

// A pool without memory is a case of its own here, also under sanitizers.
extern "C" __attribute__((visibility("default"))) const char *__asan_default_options() {
  return "allocator_may_return_null=1";
}
extern "C" __attribute__((visibility("default"))) const char *__tsan_default_options() {
  return "allocator_may_return_null=1";
}

namespace {

constexpr unsigned long kQueue = CHUNK_GROW | CHUNK_TRIM;

struct pool {
  void *handle;
  pool(unsigned long size, unsigned long count, unsigned long flags)
      : handle(chunk_create("test pool", size, count, flags, 0, 0)) {}
  ~pool() { chunk_destroy(handle); }
  void *get() { return chunk_malloc(handle); }
  void put(void *element) { chunk_free(handle, element); }
  chunk_info_t info() {
    chunk_info_t last{};
    chunk_walk_pools(
        [](const chunk_info_t *i, void *arg) {
          *static_cast<chunk_info_t *>(arg) = *i;
          return 1;
        },
        &last);
    return last;
  }
};

bool filled_with(const unsigned char *bytes, size_t size, unsigned char value) {
  return std::all_of(bytes, bytes + size, [value](unsigned char b) { return b == value; });
}

// Each element carries a pattern of its own, so elements that overlap spoil each other.
TEST(Pool, HandsOutEachElementOnce) {
  constexpr struct {
    unsigned long size, count, flags;
    uint64_t limit;
    size_t most;  // elements that can be had at once
  } kPools[] = {
      {280, 100, kQueue, 0, SIZE_MAX},
      {136, 7, kQueue | CHUNK_ZERO, 0, SIZE_MAX},
      {1, 1, kQueue | CHUNK_ZERO, 0, SIZE_MAX},
      {33, 10, CHUNK_GROW, 55, 55},
      {24, 40, CHUNK_ZERO, 0, 40},
  };
  for (const auto &c : kPools) {
    SCOPED_TRACE(c.size);
    struct held {
      unsigned char *bytes, pattern;
    };
    pool p(c.size, c.count, c.flags);
    chunk_set_limit(p.handle, c.limit);
    std::vector<held> in_use;
    std::mt19937 random(1);
    for (int step = 0; step < 30000; ++step) {
      const bool grow = (step / 1000) % 2 == 0 ? random() % 3 != 0 : random() % 3 == 0;
      if (grow) {
        auto *bytes = static_cast<unsigned char *>(p.get());
        ASSERT_EQ(bytes == nullptr, in_use.size() == c.most);
        if (bytes == nullptr) continue;
        ASSERT_EQ(reinterpret_cast<uintptr_t>(bytes) % 8, 0u);
        if ((c.flags & CHUNK_ZERO) != 0) {
          ASSERT_TRUE(filled_with(bytes, c.size, 0));
        }
        const auto pattern = static_cast<unsigned char>(1 + random() % 255);
        memset(bytes, pattern, c.size);
        in_use.push_back({bytes, pattern});
      } else if (!in_use.empty()) {
        std::swap(in_use[random() % in_use.size()], in_use.back());
        ASSERT_TRUE(filled_with(in_use.back().bytes, c.size, in_use.back().pattern));
        p.put(in_use.back().bytes);
        in_use.pop_back();
      }
      ASSERT_EQ(p.info().in_use, in_use.size());
    }
  }
}

void burst(pool *p, size_t n, const std::string &order) {
  std::vector<void *> elements(n);
  for (void *&e : elements) ASSERT_NE(e = p->get(), nullptr);
  if (order == "last first") std::reverse(elements.begin(), elements.end());
  if (order == "random") std::shuffle(elements.begin(), elements.end(), std::mt19937(1));
  for (void *e : elements) p->put(e);
}

TEST(Pool, GivesABurstBack) {
  constexpr uint64_t kFewChunks = 4;
  for (const char *order : {"first first", "last first", "random"}) {
    pool p(16, 100, kQueue);
    for (int repeat = 0; repeat < 2; ++repeat) {
      burst(&p, 1'000'000, order);
      EXPECT_EQ(p.info().in_use, 0u);
      EXPECT_LE(p.info().chunks, kFewChunks) << order;
      EXPECT_LE(p.info().bytes, kFewChunks * 100 * 32) << order;
    }
  }
  pool keeps(16, 100, CHUNK_GROW);
  burst(&keeps, 10'000, "random");
  EXPECT_EQ(keeps.info().chunks, 100u);
}

TEST(Pool, KeepsWhatABreathNeeds) {
  pool p(280, 100, kQueue);
  std::deque<void *> queue;
  uint64_t given_back = 0;
  for (int breath = 0; breath < 50; ++breath) {
    for (int i = 0; i < 8000; ++i) queue.push_back(p.get());
    for (uint64_t before = p.info().chunks; !queue.empty(); queue.pop_front()) {
      p.put(queue.front());
      const uint64_t now = p.info().chunks;
      if (breath >= 5) given_back += before - now;
      before = now;
    }
  }
  EXPECT_LE(given_back, 45 * 80 / 5);  // of 80 chunks a breath, at most a fifth
  burst(&p, 100'000, "first first");
  burst(&p, 100'000, "first first");
  EXPECT_LE(p.info().chunks, 4u);
}

TEST(Pool, Refuses) {
  EXPECT_EQ(chunk_create("size", 0, 1, kQueue, 0, 0), nullptr);
  EXPECT_EQ(chunk_create("count", 1, 0, kQueue, 0, 0), nullptr);
  EXPECT_EQ(chunk_create("product", 1ul << 40, 1ul << 40, kQueue, 0, 0), nullptr);
  EXPECT_EQ(chunk_create("rounding", ~0ul, 1, kQueue, 0, 0), nullptr);
  chunk_destroy(nullptr);
  pool p(1ul << 45, 1ul << 10,
         kQueue);  // more than there is, but only when an element is asked for
  EXPECT_EQ(p.get(), nullptr);
  EXPECT_EQ(p.info().in_use, 0u);
}

TEST(PoolDeathTest, DiesOfMisuse) {
  pool p(64, 10, kQueue);
  auto *bytes = static_cast<char *>(p.get());
  p.put(bytes);
  EXPECT_DEATH(p.put(bytes), "test pool.*not in use");
#ifdef __SANITIZE_ADDRESS__
  EXPECT_DEATH(bytes[10] = 1, "use-after-poison");
#endif
}

TEST(Pool, ListsPoolsInOrderOfCreation) {
  void *a = chunk_create("a", 10, 1, kQueue, 0, 0), *b = chunk_create("b", 20, 1, kQueue, 0, 0);
  void *c = chunk_create("c", 30, 1, kQueue, 0, 0);
  chunk_set_limit(c, 7);
  chunk_malloc(c);
  const auto collect = [](const chunk_info_t *i, void *arg) -> int {
    auto &text = *static_cast<std::string *>(arg);
    text += std::string(i->name) + ":" + std::to_string(i->element_size) + "," +
            std::to_string(i->in_use) + "," + std::to_string(i->limit) + " ";
    return i->limit == 0;
  };
  std::string all, rest;
  chunk_walk_pools(collect, &all);
  EXPECT_EQ(all, "a:10,0,0 b:20,0,0 c:30,1,7 ");
  chunk_destroy(b);
  chunk_set_limit(a, 1);
  chunk_walk_pools(collect, &rest);
  EXPECT_EQ(rest, "a:10,0,1 ") << "the visit ended the walk";
  chunk_destroy(a);
  chunk_destroy(c);
}

}  // namespace
