// The catalogues of messages and records: against tables written by hand; each record also
// filled through its native structure, encoded, and read
// back with a CBOR library. Registration: see the faults.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <type_traits>

#include "tarvo/messages.h"
#include "tarvo/oper_records.h"
#include "tests/module/world.h"

using nlohmann::json;

TEST(Messages, AreAsTabled) {
  const struct {
    const oxa_msg_rec_t &record;
    const oxa_msg_limit_t *limit;
    const char *expected;  // mnemonic, severity, flags, seconds between two, format
  } kRows[] = {
      {oxa_msg_rec_tarvo_agent, nullptr, "AGENT 7 0 0 %s:id(gid:%d,nid:%d,pid:%d):%s"},
      {oxa_msg_rec_tarvo_disc_limit, &oxa_msg_limit_tarvo_disc_limit, "DISC_LIMIT 6 0 300 %s"},
      {oxa_msg_rec_tarvo_err_mem, nullptr, "ERR_MEM 4 0 0 %s"},
      {oxa_msg_rec_tarvo_err_mplslm, &oxa_msg_limit_tarvo_err_mplslm,
       "ERR_MPLSLM 4 1 1 MPLSLM(%d) %s: %s"},
      {oxa_msg_rec_tarvo_err_oper, &oxa_msg_limit_tarvo_err_oper, "ERR_OPER 4 1 1 OP:%d.%s.%s"},
      {oxa_msg_rec_tarvo_err_quill, nullptr, "ERR_QUILL 7 0 0 %s:%s"},
      {oxa_msg_rec_tarvo_internal, nullptr, "INTERNAL 5 0 0 %s:%d:%s"},
      {oxa_msg_rec_tarvo_issu_info, &oxa_msg_limit_tarvo_issu_info, "ISSU_INFO 6 0 300 %s (%d)"},
      {oxa_msg_rec_tarvo_lpd_result_chg, nullptr,
       "LPD_RESULT_CHG 5 0 0 Op:%u Tree trace for target address %s %s (retcode: %s)"},
      {oxa_msg_rec_tarvo_lsp_group_chg, nullptr,
       "LSP_GROUP_CHG 5 0 0 Op:%u for target address %s from %s to %s"},
      {oxa_msg_rec_tarvo_threshold_clear, nullptr,
       "THRESHOLD_CLEAR 5 0 0 Monitor element has reset the threshold reaction. Op:%u, "
       "TargetAddr:%s, MonElem:%s(%s)"},
      {oxa_msg_rec_tarvo_threshold_set, nullptr,
       "THRESHOLD_SET 5 0 0 Monitor element has exceeded the threshold condition. Op:%u, "
       "TargetAddr:%s, MonElem:%s(%s)"}};
  uint32_t id = 0x09460000;
  for (const auto &[r, limit, expected] : kRows) {
    std::ostringstream text;
    text << r.mnemonic << ' ' << r.severity << ' ' << r.flags << ' '
         << (r.limit == nullptr ? 0 : r.limit->limit) << ' ' << r.format;
    EXPECT_EQ(text.str(), expected);
    EXPECT_EQ(r.message_id, id++);
    EXPECT_EQ(r.limit, limit);
    EXPECT_EQ(r.facility + std::string(r.group), "TARVOKORV");
    EXPECT_EQ(r.reserved0 + r.reserved1 + r.reserved2 + r.reserved3, 0u);
  }
}

#define TYPE(number, name, size, body)
#define RECORD(number, name, size, body) &name##_bag,
static const bag_descriptor_t *const kRecords[] = {
#include "oper/record_types.def"
};

// "NESTED SIZE: OFFSETS / TYPE SIZE: OFFSETS ...": as many offsets as the table says.
static std::string table_text(const bag_type_table_t *own, const std::string &expected) {
  const auto *nested = reinterpret_cast<const bag_nested_type_t *>(own + 1);
  std::istringstream words(expected);
  std::ostringstream text;
  const uint64_t *offset = own->offsets;
  text << own->nested_count << ' ' << own->size << ':';
  words.ignore(expected.size(), ':');
  for (std::string word; words >> word;) {
    if (word != "/") {
      text << ' ' << (offset == nullptr ? "null" : std::to_string(*offset++));
      continue;
    }
    text << " / " << nested->type << ' ' << nested->size << ':';
    offset = nested++->offsets;
    words.ignore(expected.size(), ':');
  }
  return text.str();
}

TEST(Records, AreAsTabled) {
  std::ifstream tables(RECORD_TABLES);
  for (const bag_descriptor_t *record : kRecords) {
    std::string name, types, long_schema, short_schema;
    ASSERT_TRUE(std::getline(tables, name) && std::getline(tables, types) &&
                std::getline(tables, long_schema) && std::getline(tables, short_schema));
    EXPECT_EQ(record->name, name);
    EXPECT_EQ(record->format, 1u);
    EXPECT_EQ(record->layout_format, 4u);
    EXPECT_STREQ(record->library, "lib_korv_tarvo_oper_bag_descr.dll");
    EXPECT_EQ(table_text(record->types, types), types) << name;
    EXPECT_EQ(record->long_schema, long_schema);
    EXPECT_EQ(record->short_schema, short_schema);
  }
  EXPECT_EQ(tables.peek(), EOF);
}

// ---- Filling a native structure, with what is to be read back of it ----

static uint64_t filler;  // the next value; any will do
static size_t arm;       // which arm the unions take

static uint64_t next() { return filler = filler * 6364136223846793005u + 1442695040888963407u; }

static json address(const void *at, size_t length, uint8_t tag) {
  const auto *bytes = static_cast<const uint8_t *>(at);
  return json::binary(std::vector<uint8_t>(bytes, bytes + length), tag);
}

template <typename Member>
static json fill(std::string_view element, Member &member) {
  if constexpr (std::is_same_v<Member, const char *>) {
    return member = next() % 2 == 0 ? "" : "t\u00e4g";
  } else if constexpr (std::is_integral_v<Member>) {
    member = static_cast<Member>(next() >> (next() >> 32) % 64);
    if (element == "N") return address(&member, 4, 52);
    return element == "b" ? json(member != 0) : json(member);
  } else {
    static uint32_t labels[10];
    json list = json::array();
    member.count = static_cast<uint32_t>(next() % 11);
    member.elements = member.count == 0 ? nullptr : labels;
    for (uint32_t i = 0; i < member.count; ++i)
      list.push_back(labels[i] = static_cast<uint32_t>(next()));
    return list;
  }
}

#define BARE(element)                                         \
  for (uint8_t & byte : native.bytes) byte = uint8_t(next()); \
  expected = address(native.bytes, 16, 54);
#define FIELD(name, element) expected[#name] = fill(element, native.name);
#define UNION(name, enumeration, arms)                       \
  const auto select = [&](const char *label) {               \
    native.name = *label == '?' ? 3 : uint32_t(atoi(label)); \
    expected[#name] = native.name;                           \
  };                                                         \
  std::vector<std::function<void()>> choices;                \
  arms choices[arm % choices.size()]();
#define ARM(label, name, element) \
  choices.push_back([&] { select(#label), expected[#name] = fill(element, native.name); });
#define EMPTY_ARM(label) choices.push_back([&] { select(#label); });
#define TYPE(number, name, size, body)               \
  static json fill(std::string_view, name &native) { \
    json expected;                                   \
    body return expected;                            \
  }
#define RECORD TYPE
#include "oper/record_types.def"

template <typename Native>
static void round_trip(const bag_descriptor_t &record) {
  // What is no member stays as it is, and does not show.
  Native native;
  memset(static_cast<void *>(&native), 0xa5, sizeof native);
  const json expected = fill("", native);
  void *buffer = nullptr;
  uint32_t length = 0;
  ASSERT_EQ(bag_encode(&buffer, &length, &native, &record), 0u) << record.name;
  const auto *bytes = static_cast<const uint8_t *>(buffer);
  EXPECT_EQ(json::from_cbor(bytes, bytes + length, true, false, json::cbor_tag_handler_t::store),
            expected)
      << record.name;
  free(buffer);
}

TEST(Records, ComeBackAsTheyWereFilled) {
  for (int round = 0; round < 100; ++round) {
    for (arm = 0; arm < 9; ++arm) {
#define TYPE(number, name, size, body)
#define RECORD(number, name, size, body) round_trip<name>(name##_bag);
#include "oper/record_types.def"
    }
  }
}
