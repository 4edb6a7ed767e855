// The catalogues of messages and records against tables written by hand. That the records' native
// structures are what the tables say is asserted where they are described; that the encoder follows
// the tables is the platform's to show.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "oper/record_layout.h"
#include "tarvo/messages.h"
#include "tarvo/oper_records.h"
#include "tests/module/world.h"

TEST(Messages, AreAsTabled) {
  const struct {
    const oxa_msg_rec_t &record;
    const oxa_msg_limit_t *limit;
  } kMessages[] = {{oxa_msg_rec_tarvo_agent, nullptr},
                   {oxa_msg_rec_tarvo_disc_limit, &oxa_msg_limit_tarvo_disc_limit},
                   {oxa_msg_rec_tarvo_err_mem, nullptr},
                   {oxa_msg_rec_tarvo_err_mplslm, &oxa_msg_limit_tarvo_err_mplslm},
                   {oxa_msg_rec_tarvo_err_oper, &oxa_msg_limit_tarvo_err_oper},
                   {oxa_msg_rec_tarvo_err_quill, nullptr},
                   {oxa_msg_rec_tarvo_internal, nullptr},
                   {oxa_msg_rec_tarvo_issu_info, &oxa_msg_limit_tarvo_issu_info},
                   {oxa_msg_rec_tarvo_lpd_result_chg, nullptr},
                   {oxa_msg_rec_tarvo_lsp_group_chg, nullptr},
                   {oxa_msg_rec_tarvo_threshold_clear, nullptr},
                   {oxa_msg_rec_tarvo_threshold_set, nullptr}};
  std::ifstream table(MESSAGE_TABLE);
  std::string line;
  std::getline(table, line);
  uint32_t id = 0x09460000;
  for (const auto &[r, limit] : kMessages) {
    std::ostringstream text;
    text << r.mnemonic << ' ' << r.severity << ' ' << r.flags << ' '
         << (r.limit == nullptr ? 0 : r.limit->limit) << ' ' << r.format;
    std::getline(table, line);
    EXPECT_EQ(text.str(), line);
    EXPECT_EQ(r.message_id, id++);
    EXPECT_EQ(r.limit, limit);
    EXPECT_EQ(r.facility + std::string(r.group), "TARVOKORV");
    EXPECT_EQ(r.reserved0 + r.reserved1 + r.reserved2 + r.reserved3, 0u);
  }
  EXPECT_EQ(table.peek(), EOF);
}

// No record has an array of them so far.
TEST(Records, UseTheTypesInTheirArraysAndUnions) {
  namespace layout = record_layout;
  const auto type = [](size_t place) { return "$" + std::to_string(layout::kTypes[place].number); };
  const std::pair<std::string, layout::type_set> kBodies[] = {
      {"3a(" + type(1) + ")", 0b10},
      {"3a(D)", 0},
      {"?(<d,E>,1:" + type(0) + ",2:v,?:" + type(2) + ")", 0b101},
  };
  for (const auto &[text, named] : kBodies) {
    std::string_view body = text;
    bag::element e;
    ASSERT_TRUE(bag::read_element(body, e)) << text;
    EXPECT_EQ(layout::named_in(e), named) << text;
  }
}

TEST(Records, HaveNothingBehindTheirTables) {
  using namespace record_layout;
  EXPECT_EQ((kSchema<10, form::long_form>.size()), strlen(tarvo_ipv4_prefix_t_bag.long_schema) + 1);
  EXPECT_EQ(kOffsets<10>.size(), 2u);
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
