// What this layer does beyond the contract. Without memory: every allocation of every operation
// fails once, which must change nothing; nor must anything be left over, of which AddressSanitizer
// tells. And its pools tell it which elements are free; its trees are balanced; its timers' thread
// sleeps until the deadline, by the right clock.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <time.h>

#include <atomic>
#include <deque>
#include <random>
#include <semaphore>
#include <string>

#include "platform/bag.h"
#include "platform/ods.h"
#include "platform/pool.h"
#include "platform/timer.h"
#include "platform/tree.h"

namespace {

int fail_after = -1;  // allocations that succeed before the one that fails; negative: none fails

bool fails() { return fail_after >= 0 && fail_after-- == 0; }

constexpr time_t kForEver = -1;
std::counting_semaphore<> waits(0);  // on a condition, begun
std::atomic<time_t> waits_until = 0;

void begin_wait(time_t until) {
  waits_until = until;
  waits.release();
}

std::atomic<time_t> frozen = 0;  // what the monotonic clock shows, unless 0

}  // namespace

extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t n, size_t size);
void *__real_realloc(void *block, size_t size);
void *__wrap_malloc(size_t size) { return fails() ? nullptr : __real_malloc(size); }
void *__wrap_calloc(size_t n, size_t size) { return fails() ? nullptr : __real_calloc(n, size); }
void *__wrap_realloc(void *block, size_t size) {
  return fails() ? nullptr : __real_realloc(block, size);
}
int __real_pthread_cond_wait(pthread_cond_t *cond, pthread_mutex_t *m);
int __real_pthread_cond_timedwait(pthread_cond_t *, pthread_mutex_t *, const struct timespec *);
int __real_clock_gettime(clockid_t clock, struct timespec *t);
int __wrap_pthread_cond_wait(pthread_cond_t *cond, pthread_mutex_t *m) {
  begin_wait(kForEver);
  return __real_pthread_cond_wait(cond, m);
}
int __wrap_pthread_cond_timedwait(pthread_cond_t *cond, pthread_mutex_t *m, const timespec *t) {
  begin_wait(t->tv_sec);
  return __real_pthread_cond_timedwait(cond, m, t);
}
int __wrap_clock_gettime(clockid_t clock, struct timespec *t) {
  if (frozen == 0 || clock != CLOCK_MONOTONIC) return __real_clock_gettime(clock, t);
  *t = {frozen, 0};
  return 0;
}
}

namespace {

// Runs `operation` with its first allocation failing, then with its second, until it has as many as
// it needs. Returns how many that are.
template <typename operation_t, typename state_t>
int without_memory(uint32_t no_memory, const operation_t &operation, const state_t &state) {
  for (int n = 0;; ++n) {
    const auto before = state();
    fail_after = n;
    const uint32_t code = operation();
    const bool failed = fail_after < 0;
    fail_after = -1;
    EXPECT_EQ(code, failed ? no_memory : 0);
    if (!failed || code == 0) return n;
    EXPECT_EQ(state(), before);
  }
}

TEST(NoMemory, AListStaysAsItWas) {
  void *list = nullptr;
  const auto create = [&] { return ods_datalist_create(&list, nullptr, nullptr); };
  const auto add = [&] { return ods_datalist_add(list, "key", 7, 0, "value", 5); };
  const auto count = [&] {
    uint32_t n = 0;
    while (ods_list_entry(list, n) != nullptr) ++n;
    return n;
  };
  EXPECT_EQ(without_memory(ODS_ERR_NOMEM, create, [&] { return list; }), 1);
  int failures = 0;
  for (uint32_t n = 1; n <= 26; ++n) {
    failures += without_memory(ODS_ERR_NOMEM, add, count);
    EXPECT_EQ(count(), n);
  }
  EXPECT_GT(failures, 26);  // an entry each, and room for them now and then
  ods_datalist_free(list);
}

TEST(NoMemory, RegistryAndEncoderStayAsTheyWere) {
  const uint64_t at_start = 0;
  const bag_type_table_t table = {0, 4, &at_start};
  bag_descriptor_t d = {1, "", 4, "", &table, "", ""};
  std::deque<std::string> texts;  // the registry refers to them
  std::deque<bag_descriptor_t> records;
  ASSERT_EQ(bag_register_start(nullptr), 0u);
  int failures = 0;
  for (int i = 0; i < 100; ++i) {
    const std::string number = "$" + std::to_string(i);
    d.name = texts.emplace_back(number).c_str();
    d.long_schema = texts.emplace_back(number + "={A}D;").c_str();
    d.short_schema = texts.emplace_back(number + "=D;").c_str();
    const auto add = [added = &records.emplace_back(d)] { return bag_register(added); };
    failures += without_memory(BAG_ERR_NOMEM, add, bag_registered_count);
    EXPECT_EQ(add(), BAG_ERR_DUPLICATE_NAME);
  }
  EXPECT_GT(failures, 1);
  EXPECT_EQ(bag_register_end(), 0u);
  EXPECT_EQ(bag_registered_count(), 100u);

  void *buffer = nullptr;
  uint32_t length = 0;
  const uint64_t native = 0;
  const auto encode = [&] { return bag_encode(&buffer, &length, &native, &d); };
  const auto result = [&] { return std::pair(buffer, length); };
  EXPECT_EQ(without_memory(BAG_ERR_NOMEM, encode, result), 1);
  free(buffer);
  const bag_type_table_t string = {0, 8, &at_start};
  d = {1, "", 4, "", &string, "$1={A}s;", "$1=s;"};
  EXPECT_EQ(encode(), BAG_ERR_VALUE);
}

struct record {
  avl_node_t node = {};
  uint32_t key;
  explicit record(uint32_t k) : key(k) {}
  static int compare(const void *a, const void *b) {
    const auto x = static_cast<const record *>(a)->key, y = static_cast<const record *>(b)->key;
    return x < y ? TREE_BEFORE : x == y ? TREE_EQUAL : TREE_AFTER;
  }
};

int height(const avl_node_t *n) {
  if (n == nullptr) return 0;
  const int left = height(n->left), right = height(n->right);
  EXPECT_LE(std::abs(left - right), 1);
  return 1 + std::max(left, right);
}

TEST(Trees, AreBalanced) {
  std::deque<record> records;
  for (uint32_t k = 0; k < 400; ++k) records.emplace_back(k);
  wavl_tree_t tree;
  wavl_init(&tree, 1, 0, record::compare);
  std::mt19937 random(1);
  for (int step = 0; step < 40000; ++step) {
    record *r = &records[random() % records.size()];
    const bool grows = (random() % 3 != 0) == (step / 2000 % 2 == 0);
    if (grows)
      wavl_insert_thread(&tree, 0, r);
    else if (r->node.parent != 0)
      wavl_delete_thread(&tree, 0, r);
    if (step % 50 == 0) height(tree.root);
  }
}

TEST(Timers, SleepUntilTheDeadlineAndKeepTheOrderOfCreation) {
  struct sigevent event = {};
  event.sigev_notify = SIGEV_NONE;
  frozen = 1000;
  void *tree = mgd_timer_tree_new(&event, 0);
  auto *a = mgd_timer_leaf_new(tree, 0, 0, 0), *b = mgd_timer_leaf_new(tree, 0, 1, 0);
  const struct timespec now = {}, later = {INT32_MAX, 0};
  waits.acquire();
  EXPECT_EQ(waits_until, kForEver);
  mgd_timer_leaf_start(static_cast<mgd_timer_leaf_t *>(a), &later);
  waits.acquire();
  EXPECT_EQ(waits_until, frozen + INT32_MAX);
  for (void *l : {b, a}) mgd_timer_leaf_start(static_cast<mgd_timer_leaf_t *>(l), &now);
  EXPECT_EQ(mgd_timer_tree_first_expired(tree), a) << "of equal deadlines";
  mgd_timer_tree_destroy(tree);
  frozen = 0;
}

#ifdef __SANITIZE_ADDRESS__
TEST(Poison, CoversFreeElements) {
  void *pool = chunk_create("test pool", 64, 10, CHUNK_GROW, 0, 0);
  auto *bytes = static_cast<char *>(chunk_malloc(pool));
  chunk_free(pool, bytes);
  EXPECT_DEATH(bytes[10] = 1, "use-after-poison");
  chunk_destroy(pool);
}
#endif

}  // namespace
