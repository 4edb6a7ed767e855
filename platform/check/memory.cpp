// Trees, queues and pools against models over random operations; zeroed memory; text of addresses.
#include <arpa/inet.h>
#include <sys/mman.h>
#include <unistd.h>

#include <deque>
#include <set>

#include "contract.h"

namespace contract {
namespace {

struct record {
  avl_node_t node;
  uint32_t key;
};

int compare(const void *a, const void *b) {
  const uint32_t x = static_cast<const record *>(a)->key, y = static_cast<const record *>(b)->key;
  return x < y ? TREE_BEFORE : x == y ? TREE_EQUAL : TREE_AFTER;
}

TEST(trees, BothKindsAgreeWithASet) {
  constexpr uint32_t kKeys = 400;
  avl_node_t *root = nullptr;
  wavl_tree_t tree;
  for (unsigned long threads : {0, 2}) EXPECT_NE(wavl_init(&tree, threads, 0, compare), 0);
  EXPECT_NE(wavl_init(&tree, 1, 0, nullptr), 0);
  ASSERT_EQ(wavl_init(&tree, 1, 0, compare), 0);
  record plain[kKeys] = {}, threaded[kKeys] = {};
  for (uint32_t k = 0; k < kKeys; ++k) plain[k].key = threaded[k].key = k;
  std::set<uint32_t> model;
  std::mt19937 random(1);
  using both = std::pair<void *, void *>;
  const auto records = [&](std::set<uint32_t>::iterator at) {
    return at == model.end() ? both() : both(&plain[*at], &threaded[*at]);
  };
  for (int step = 0; step < 40000; ++step) {
    const uint32_t k = random() % kKeys;
    const record key{{}, k};
    record twin = key, *p = &plain[k], *t = &threaded[k];
    const both found = records(model.find(k)), after = records(model.upper_bound(k));
    const bool known = model.count(k) != 0;
    ASSERT_EQ(both(avl_search(root, &key, compare), wavl_search(&tree, &key, 0)), found);
    ASSERT_EQ(wavl_get_next(&tree, &key, 0), after.second);
    ASSERT_TRUE(!known || both(avl_get_next(p), wavl_get_next(&tree, t, 0)) == after);
    if ((random() % 3 != 0) == (step / 2000 % 2 == 0)) {
      void *inserted = avl_insert(&root, known ? &twin : p, compare);
      ASSERT_EQ(inserted, known ? nullptr : p);
      inserted = wavl_insert_thread(&tree, 0, known ? &twin : t);
      ASSERT_EQ(inserted, known ? nullptr : t);
      model.insert(k);
    } else {
      ASSERT_EQ(avl_delete(&root, &key, compare), found.first);
      if (known) wavl_delete_thread(&tree, 0, t);
      model.erase(k);
    }
    ASSERT_EQ(both(avl_get_first(root), wavl_get_first(&tree, 0)), records(model.begin()));
  }
  wavl_finish(&tree);
  record key{{}, *model.begin()};
  EXPECT_EQ(both(wavl_search(&tree, &key, 0), wavl_get_first(&tree, 0)), both());
  EXPECT_EQ(both(wavl_get_next(&tree, &key, 0), wavl_insert_thread(&tree, 0, &key)), both());
  EXPECT_EQ(avl_get_next(nullptr), nullptr);
}

TEST(trees, WalkInOrderUntilTold) {
  record records[9] = {};
  static avl_node_t *root = nullptr;
  for (uint32_t i = 0; i < 9; ++i)
    records[i].key = i * 4 % 9, avl_insert(&root, &records[i], compare);
  struct walk {
    size_t most;
    uint32_t deletes;  // every record whose key this divides
    std::vector<uint32_t> seen = {};
    static int visit(void *node, void *arg) {
      auto *w = static_cast<walk *>(arg);
      const uint32_t key = static_cast<record *>(node)->key;
      w->seen.push_back(key);
      if (key % w->deletes == 0) avl_delete(&root, node, compare);
      const bool ends = w->seen.size() == w->most;
      // What is deleted is the caller's, and the last visit may do anything to the tree.
      if (key % w->deletes == 0 || ends) memset(node, 0xff, sizeof(record));
      return !ends;
    }
  } whole{10, 2}, part{3, 9};
  for (walk *w : {&whole, &part}) EXPECT_EQ(avl_walk(root, walk::visit, w), w == &whole);
  EXPECT_EQ(whole.seen, (std::vector<uint32_t>{0, 1, 2, 3, 4, 5, 6, 7, 8}));
  EXPECT_EQ(part.seen, (std::vector<uint32_t>{1, 3, 5}));
}

TEST(queues, AgreeWithADeque) {
  void *elements[20] = {};
  std::deque<void *> model;
  queue_t q;
  queue_init(&q, 0);
  std::mt19937 random(1);
  for (int step = 0; step < 20000; ++step) {
    void *e = &elements[random() % 20];
    const auto at = std::find(model.begin(), model.end(), e);
    const bool queued = at != model.end();
    const auto choice = random() % 5;
    if (choice < 2 && !queued) {
      queue_enqueue(&q, e);
      model.push_back(e);
    } else if (choice == 2) {
      ASSERT_EQ(queue_dequeue(&q), model.empty() ? nullptr : model.front());
      if (!model.empty()) model.pop_front();
    } else if (choice > 2) {
      const bool known = queued && choice == 3;
      known ? queue_remqueue(&q, e, at == model.begin() ? nullptr : at[-1]) : queue_unqueue(&q, e);
      if (queued) model.erase(at);
    }
    std::deque<void *> links;
    for (void *x = q.head; x != nullptr; x = queue_get_next(x)) links.push_back(x);
    ASSERT_EQ(links, model);
  }
}

TEST(allocation, IsZeroed) {
  for (size_t size = 1; size < 5000; size += 7) {
    auto *bytes = static_cast<unsigned char *>(calloc_named(3, size, "test"));
    ASSERT_EQ(std::count(bytes, bytes + 3 * size, 0), 3 * size);
    memset(bytes, 0xff, 3 * size);
    free(bytes);
  }
  EXPECT_EQ(calloc_named(SIZE_MAX / 8, 16, "test"), nullptr);
}

TEST(addresses, AgreeWithTheSystem) {
  std::mt19937 random(1);
  for (int i = 0; i < 5000; ++i) {
    const auto address = static_cast<uint32_t>(random()) & (i % 2 == 0 ? 0x0f0f0f0f : ~0u);
    char expected[INET_ADDRSTRLEN], text[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &address, expected, sizeof expected);
    const size_t enough = strlen(expected) + 1;
    ASSERT_STREQ(inet_ntoa_r({address}, text, enough), expected);
    ASSERT_EQ(inet_ntoa_r({address}, text, enough - 1), nullptr);
  }
}

constexpr unsigned long kQueue = CHUNK_GROW | CHUNK_TRIM, kZeroed = kQueue | CHUNK_ZERO;

struct pool {
  void *handle;
  pool(unsigned long size, unsigned long count, unsigned long flags)
      : handle(chunk_create("test pool", size, count, flags, 0, 0)) {}
  ~pool() { chunk_destroy(handle); }
};

std::vector<chunk_info_t> pools(size_t most = SIZE_MAX) {
  std::pair<std::vector<chunk_info_t>, size_t> found({}, most);
  const auto visit = [](const chunk_info_t *i, void *arg) -> int {
    auto &[list, limit] = *static_cast<decltype(found) *>(arg);
    if (i->name == std::string("test pool")) list.push_back(*i);
    return list.size() < limit;
  };
  chunk_walk_pools(visit, &found);
  return found.first;
}

// Each element carries a pattern of its own, so elements that overlap spoil each other.
TEST(pools, HandOutEachElementOnce) {
  // Size, count, flags, limit, and how many can be had at once.
  constexpr uint64_t kPools[][5] = {{280, 100, kQueue, 0, SIZE_MAX},
                                    {9, 1, kZeroed, 0, SIZE_MAX},
                                    {33, 10, CHUNK_GROW, 55, 55},
                                    {24, 40, CHUNK_ZERO, 0, 40}};
  for (const auto &[size, count, flags, limit, most] : kPools) {
    pool p(size, count, flags);
    chunk_set_limit(p.handle, limit);
    std::vector<std::pair<char *, char>> in_use;
    const auto filled = [n = size](char *bytes, char with) {
      return std::string(bytes, n) == std::string(n, with);
    };
    std::mt19937 random(1);
    for (int step = 0; step < 30000; ++step) {
      if ((random() % 3 != 0) == (step / 1000 % 2 == 0)) {
        auto *bytes = static_cast<char *>(chunk_malloc(p.handle));
        ASSERT_EQ(bytes == nullptr, in_use.size() == most) << size;
        if (bytes == nullptr) continue;
        ASSERT_EQ(reinterpret_cast<uintptr_t>(bytes) % 8, 0u);
        ASSERT_TRUE((flags & CHUNK_ZERO) == 0 || filled(bytes, 0));
        in_use.emplace_back(bytes, static_cast<char>(1 + random() % 255));
        memset(bytes, in_use.back().second, size);
      } else if (!in_use.empty()) {
        std::swap(in_use[random() % in_use.size()], in_use.back());
        ASSERT_TRUE(filled(in_use.back().first, in_use.back().second));
        chunk_free(p.handle, in_use.back().first);
        in_use.pop_back();
      }
      ASSERT_EQ(pools(1)[0].in_use, in_use.size());
    }
  }
}

bool resident(void *element) {
  const uintptr_t page = sysconf(_SC_PAGESIZE), address = reinterpret_cast<uintptr_t>(element);
  unsigned char in_memory = 0;
  return mincore(reinterpret_cast<void *>(address / page * page), 1, &in_memory) == 0 && in_memory;
}

// Gets elements and puts them in order, reversed or shuffled. Returns how many chunks that freed.
uint64_t burst(pool *p, size_t n, int order) {
  std::vector<void *> elements(n);
  for (void *&e : elements) *static_cast<char *>(e = chunk_malloc(p->handle)) = 1;
  EXPECT_TRUE(resident(elements[0]));
  if (order == 1) std::reverse(elements.begin(), elements.end());
  if (order == 2) std::shuffle(elements.begin(), elements.end(), std::mt19937(1));
  const uint64_t chunks = pools(1)[0].chunks;
  for (void *e : elements) chunk_free(p->handle, e);
  size_t left = 0;
  for (size_t i = 0; i < n; i += 100) left += resident(elements[i]);
  EXPECT_TRUE(n < 100'000 || left <= n / 1000) << left << " of " << n / 100 << " are in memory";
  return chunks - pools(1)[0].chunks;
}

TEST(pools, GiveABurstBackAndKeepWhatABreathNeeds) {
  for (int order : {0, 1, 2}) {
    pool p(16, 100, kQueue);
    for (size_t n : {1'000'000, 100'000}) {
      for (int repeat = 0; repeat < 2; ++repeat) burst(&p, n, order);
      EXPECT_LE(pools(1)[0].bytes, 4u * 100 * 32) << order;
      uint64_t given_back = 0;
      for (int breath = 0; breath < 50; ++breath) given_back += burst(&p, 8000, 0) * (breath >= 5);
      EXPECT_LE(given_back, 45 * 80 / 5);  // of 80 chunks a breath, at most a fifth
      for (int breath = 0; breath < 100; ++breath) burst(&p, 1000, 0);
      EXPECT_LE(pools(1)[0].chunks, 20u) << "a pool that breathes less keeps less";
    }
  }
  pool keeps(16, 100, CHUNK_GROW);
  EXPECT_EQ(burst(&keeps, 10'000, 2), 0u);
}

TEST(pools, RefuseAndDieOfMisuse) {
  constexpr unsigned long kSizes[][2] = {{0, 1}, {1, 0}, {1ul << 40, 1ul << 40}, {~0ul, 1}};
  for (const auto &s : kSizes) EXPECT_EQ(chunk_create("", s[0], s[1], kQueue, 0, 0), nullptr);
  chunk_destroy(nullptr);
  pool huge(1ul << 45, 1ul << 10, kQueue);  // more than there is, but only an element shows it
  EXPECT_EQ(chunk_malloc(huge.handle), nullptr);
  pool p(64, 10, kQueue);
  void *element = chunk_malloc(p.handle);
  chunk_free(p.handle, element);
  EXPECT_DEATH(chunk_free(p.handle, element), "test pool");
}

TEST(pools, AreListedInOrderOfCreation) {
  const auto shown = [](size_t most) {
    std::string text;
    for (const chunk_info_t &i : pools(most))
      text += std::to_string(i.element_size) + "/" + std::to_string(i.limit) + " ";
    return text;
  };
  const pool a(10, 1, kQueue), c(30, 1, kQueue);
  for (unsigned long limit : {7, 0}) {
    const pool last(40, 1, kQueue);
    chunk_set_limit(c.handle, limit);
    EXPECT_EQ(shown(9), "10/0 30/" + std::to_string(limit) + " 40/0 ");
    EXPECT_EQ(shown(1), "10/0 ");
  }
}

}  // namespace
}  // namespace contract
