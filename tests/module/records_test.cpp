// The catalogues of messages and records against tables written by hand. The registry holds each
// record's other parts against its schema, with a layout that is the compiler's where the native
// structures are described; that registry and encoder are right is the platform's to show.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "oper/record_layout.h"
#include "tarvo/messages.h"
#include "tarvo/oper_records.h"
#include "tests/module/world.h"

TEST(Messages, AreAsTabled) {
  // MNEMONIC SEVERITY FLAGS SECONDS-BETWEEN-TWO FORMAT, in order of the identifiers
  const std::pair<const oxa_msg_rec_t &, const char *> kMessages[] = {
      {oxa_msg_rec_tarvo_agent, "AGENT 7 0 - %s:id(gid:%d,nid:%d,pid:%d):%s"},
      {oxa_msg_rec_tarvo_disc_limit, "DISC_LIMIT 6 0 300 %s"},
      {oxa_msg_rec_tarvo_err_mem, "ERR_MEM 4 0 - %s"},
      {oxa_msg_rec_tarvo_err_mplslm, "ERR_MPLSLM 4 1 1 MPLSLM(%d) %s: %s"},
      {oxa_msg_rec_tarvo_err_oper, "ERR_OPER 4 1 1 OP:%d.%s.%s"},
      {oxa_msg_rec_tarvo_err_quill, "ERR_QUILL 7 0 - %s:%s"},
      {oxa_msg_rec_tarvo_internal, "INTERNAL 5 0 - %s:%d:%s"},
      {oxa_msg_rec_tarvo_issu_info, "ISSU_INFO 6 0 300 %s (%d)"},
      {oxa_msg_rec_tarvo_lpd_result_chg,
       "LPD_RESULT_CHG 5 0 - Op:%u Tree trace for target address %s %s (retcode: %s)"},
      {oxa_msg_rec_tarvo_lsp_group_chg,
       "LSP_GROUP_CHG 5 0 - Op:%u for target address %s from %s to %s"},
      {oxa_msg_rec_tarvo_threshold_clear,
       "THRESHOLD_CLEAR 5 0 - Monitor element has reset the threshold reaction. "
       "Op:%u, TargetAddr:%s, MonElem:%s(%s)"},
      {oxa_msg_rec_tarvo_threshold_set,
       "THRESHOLD_SET 5 0 - Monitor element has exceeded the threshold condition. "
       "Op:%u, TargetAddr:%s, MonElem:%s(%s)"}};
  uint32_t id = 0x09460000;
  for (const auto &[r, expected] : kMessages) {
    std::ostringstream text;
    text << r.mnemonic << ' ' << r.severity << ' ' << r.flags << ' '
         << (r.limit == nullptr ? "-" : std::to_string(r.limit->limit)) << ' ' << r.format;
    EXPECT_EQ(text.str(), expected);
    EXPECT_EQ(r.message_id, id++);
    EXPECT_EQ(r.facility + std::string(r.group), "TARVOKORV");
    EXPECT_EQ(std::pair(r.facility, r.group),
              std::pair(oxa_msg_rec_tarvo_agent.facility, oxa_msg_rec_tarvo_agent.group));
    EXPECT_TRUE(r.limit == nullptr || std::ranges::count(r.limit->state, 0) == 28);
    EXPECT_EQ(r.reserved0 + r.reserved1 + r.reserved2 + r.reserved3, 0u);
  }
  EXPECT_EQ(oxa_msg_rec_tarvo_disc_limit.limit, &oxa_msg_limit_tarvo_disc_limit);
  EXPECT_EQ(oxa_msg_rec_tarvo_err_mplslm.limit, &oxa_msg_limit_tarvo_err_mplslm);
  EXPECT_EQ(oxa_msg_rec_tarvo_err_oper.limit, &oxa_msg_limit_tarvo_err_oper);
  EXPECT_EQ(oxa_msg_rec_tarvo_issu_info.limit, &oxa_msg_limit_tarvo_issu_info);
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

TEST(Records, AreAsTabled) {
  std::ifstream table(RECORD_TABLE);
  std::string name, schema;
  for (const bag_descriptor_t *record : kRecords) {
    table >> name >> schema;
    EXPECT_EQ(record->name, name);
    EXPECT_EQ(record->long_schema, schema);
    EXPECT_STREQ(record->library, "lib_korv_tarvo_oper_bag_descr.dll");
  }
  EXPECT_FALSE(table >> name) << "a record is missing";
  EXPECT_EQ(bag_register_all_manageability_tarvo_oper_bags(&w), 0u);
  EXPECT_EQ(bag_registered_count(), std::size(kRecords));
}
