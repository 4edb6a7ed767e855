// Lists, registry and encoder without memory: every allocation of every operation fails once, which
// must change nothing, and in the end nothing is left over. The allocator is wrapped by the linker,
// so this test links the platform's objects instead of going through the library.
#include <stdlib.h>

#include "platform/bag.h"
#include "platform/ods.h"
#include "platform_test.h"

namespace {

int fail_after = -1;  // allocations that succeed before the one that fails; negative: none fails
int blocks = 0;       // in use

bool fails() { return fail_after >= 0 && fail_after-- == 0; }

void *counted(void *block) {
  blocks += block != nullptr;
  return block;
}

}  // namespace

extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t n, size_t size);
void *__real_realloc(void *block, size_t size);
void __real_free(void *block);
void *__wrap_malloc(size_t size) { return fails() ? nullptr : counted(__real_malloc(size)); }
void *__wrap_calloc(size_t n, size_t size) {
  return fails() ? nullptr : counted(__real_calloc(n, size));
}
void *__wrap_realloc(void *block, size_t size) {
  if (fails()) return nullptr;
  return block == nullptr ? counted(__real_realloc(block, size)) : __real_realloc(block, size);
}
void __wrap_free(void *block) {
  blocks -= block != nullptr;
  __real_free(block);
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

TEST(NoMemory, ListsStayAsTheyWere) {
  const int at_first = blocks;
  void *list = nullptr;
  const auto pointer = [&] { return list; };
  const auto create = [&](auto creator) {
    return without_memory(
        ODS_ERR_NOMEM, [&] { return creator(&list, nullptr, nullptr); }, pointer);
  };
  for (auto creator : {ods_list_create, ods_datalist_create}) {
    EXPECT_EQ(create(creator), 1);
    std::string expected;
    const auto keys = [&] {
      std::string text;
      for (uint32_t i = 0; ods_list_entry(list, i) != nullptr; ++i)
        text += ods_list_entry(list, i)->key;
      return text;
    };
    int failures = 0;
    for (char key[] = "a"; key[0] <= 'z'; ++key[0]) {
      const auto add = [&] {
        return creator == ods_list_create ? ods_list_add(list, key, ODS_RANK_LAST, 0)
                                          : ods_datalist_add(list, key, 7, 0, "value", 5);
      };
      failures += without_memory(ODS_ERR_NOMEM, add, keys);
      expected += key;
      ASSERT_EQ(keys(), expected);
    }
    EXPECT_GT(failures, 26);  // an entry each, and room for them now and then
    ods_list_free(list);
    list = nullptr;
    EXPECT_EQ(blocks, at_first);
  }
}

TEST(NoMemory, RegistryAndEncoderStayAsTheyWere) {
  constexpr int kRecords = 100;
  const uint64_t at_start = 0;
  const bag_type_table_t table = {0, 4, &at_start};
  static std::string texts[kRecords][3];
  static bag_descriptor_t records[kRecords];
  for (int i = 0; i < kRecords; ++i) {
    const std::string number = std::to_string(i);
    texts[i][0] = "record " + number, texts[i][1] = "$" + number + "={A}D;",
    texts[i][2] = "$" + number + "=D;";
    records[i] = {BAG_FORMAT, texts[i][0].c_str(), BAG_LAYOUT_FORMAT,  "",
                  &table,     texts[i][1].c_str(), texts[i][2].c_str()};
  }
  ASSERT_EQ(bag_register_start(nullptr), 0u);
  int failures = 0;
  for (const bag_descriptor_t &d : records) {
    failures += without_memory(
        BAG_ERR_NOMEM, [&] { return bag_register(&d); }, bag_registered_count);
    EXPECT_EQ(bag_register(&d), BAG_ERR_DUPLICATE_NAME);
  }
  EXPECT_GT(failures, 1);
  EXPECT_EQ(bag_register_end(), 0u);
  EXPECT_EQ(bag_registered_count(), uint32_t{kRecords});

  const int before = blocks;
  void *buffer = nullptr;
  uint32_t length = 0;
  const uint32_t native = 1;
  const auto encode = [&] { return bag_encode(&buffer, &length, &native, &records[0]); };
  const auto result = [&] { return std::tuple(buffer, length, blocks); };
  EXPECT_EQ(without_memory(BAG_ERR_NOMEM, encode, result), 1);
  free(buffer);
  // One that fails after others have succeeded, for its value.
  const char *text = nullptr;
  const bag_type_table_t string = {0, 8, &at_start};
  const bag_descriptor_t refused = {BAG_FORMAT, "",     BAG_LAYOUT_FORMAT, "", &string,
                                    "$1={A}s;", "$1=s;"};
  EXPECT_EQ(bag_encode(&buffer, &length, &text, &refused), BAG_ERR_VALUE);
  EXPECT_EQ(blocks, before);
}

}  // namespace
