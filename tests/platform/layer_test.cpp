// What this layer does beyond the contract. Without memory: every allocation of every operation
// fails once, which must change nothing; nor must anything be left over, of which AddressSanitizer
// tells. And its pools tell it which elements are free.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <deque>
#include <string>

#include "platform/bag.h"
#include "platform/ods.h"
#include "platform/pool.h"

namespace {

int fail_after = -1;  // allocations that succeed before the one that fails; negative: none fails

bool fails() { return fail_after >= 0 && fail_after-- == 0; }

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
