// The operational data as a store sees it: what the model check cannot see.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "tarvo/agent_services.h"
#include "tarvo/oper_data.h"
#include "tests/module/database_view.h"
#include "tests/module/world.h"

using texts = std::vector<std::string>;

static const tarvo_nd_ods_fns_t &ods = tarvoMplsDiscoveryODSFns;

constexpr uint32_t kState = TARVO_DISC_ITEM_STATE, kNhops = TARVO_DISC_ITEM_NHOP,
                   kPrefix = TARVO_DISC_ITEM_PREFIX, kVrfs = TARVO_DISC_ITEM_VRF;
static const std::string kNotFound = "0x40828600", kNoItem = "0x40828400";

// Next hops 10.0.0.1 to 10.0.0.5 on, each used by table 1.
static void report_nhops(uint32_t count) {
  for (uint32_t i = 1; i <= count; ++i) tarvo_nd_enqueue_nhop_update(1, htonl(0x0a000000 + i), 1);
  w.run();
}

TEST(Provider, ServesEachItemByItsCallbacksOnly) {
  EXPECT_EQ(ods.unused[0], nullptr);
  EXPECT_EQ(ods.unused[1], nullptr);
  w.start();
  w.table(1, "A");
  for (const bool active : {false, true}) {
    if (active) w.client(1), report_nhops(1);
    w.take();
    const uint32_t nhop = addr("10.0.0.1");
    for (const uint32_t item : {0u, kState, kNhops, kPrefix, kVrfs, kVrfs + 1, 1u}) {
      const bool gets = item == kState || item == kPrefix || item == kVrfs;
      const bool lists = item == kNhops || item == kVrfs;
      const std::string got = ods_get(item, nhop, "A"), keys = ods_list(item, lists ? nhop : 0),
                        data = ods_list(item, nhop, true);
      // The prefix is not resolved, and no next hop comes after this one.
      const bool there = active && item != kPrefix;
      EXPECT_EQ(got == kNoItem, !gets) << hex(item);
      EXPECT_EQ(got == kNotFound, gets && !there) << hex(item);
      EXPECT_EQ(keys == kNoItem, !lists) << hex(item);
      EXPECT_EQ(keys == kNotFound, lists && (!active || item == kNhops)) << hex(item);
      EXPECT_EQ(data, item != kVrfs ? kNoItem : active ? "A{\"PrefixCount\":1}" : kNotFound);
    }
  }
}

// The pages, records and names in full are the model check's; this is how they look.
TEST(Provider, LooksLikeThis) {
  w.start();
  w.routes = {"10.0.0.0/8"};
  w.client(1);
  w.advance(170);
  w.now += 300000000;
  // 100.7 s of this phase, 29 s of the next.
  EXPECT_EQ(ods_get(kState), R"({"RefreshRemaining":129})");
  for (const uint32_t id : {3u, 4u, 6u}) w.table(id, id == 4 ? "B" : "A");
  for (const uint32_t id : {0u, 3u, 4u, 4u, 5u, 6u}) w.report(id, "10.1.2.3");
  w.report(5, "11.0.0.1");
  const uint32_t nhop = addr("10.1.2.3");
  EXPECT_EQ(ods_list(kNhops, 0), "0x302010a/ 0x100000b/");
  EXPECT_EQ(ods_list(kNhops, addr("10.255.0.0")), "0x100000b/");
  EXPECT_EQ(ods_get(kPrefix, nhop),
            R"({"TargetAddress":{"bytes":[10,0,0,0],"subtype":52},"TargetMask":8})");
  EXPECT_EQ(ods_get(kPrefix, addr("11.0.0.1")), kNotFound) << "not resolved";
  EXPECT_EQ(ods_list(kVrfs, nhop), "A B A") << "tables 0 and 5 have no name";
  EXPECT_EQ(ods_list(kVrfs, nhop, true),
            R"(A{"PrefixCount":1} B{"PrefixCount":2} A{"PrefixCount":1})");
  EXPECT_EQ(ods_get(kVrfs, nhop, "B"), R"({"PrefixCount":2})");
  EXPECT_EQ(ods_list(kVrfs, addr("11.0.0.1")), kNotFound) << "no name at all";
}

// What is created is freed and in order, also on a failure.
TEST(Provider, FreesWhatItDoesNotHandOver) {
  w.start();
  w.client(1);
  w.table(1, "A");
  w.table(2, "B");
  report_nhops(2);
  w.report(2, "10.0.0.1");
  const uint32_t nhop = addr("10.0.0.1");
  const struct {
    std::function<std::string()> call;
    const char *operation;
    std::string code;
    texts did;
  } kRows[] = {
      {[] { return ods_list(kNhops, 0); },
       "ods_list_add",
       hex(0x77),
       {"list", "add 0x100000a/", "add 0x200000a/", "free"}},
      {[=] { return ods_list(kVrfs, nhop); },
       "ods_list_add",
       hex(0x77),
       {"list", "add A", "add B", "free"}},
      {[=] { return ods_list(kVrfs, 1); }, "", kNotFound, {"list", "free"}},
      {[=] { return ods_list(kVrfs, nhop, true); },
       "ods_datalist_add",
       hex(0x77),
       {"datalist", "encode", "add A", "encode", "add B", "free data"}},
      {[=] { return ods_list(kVrfs, nhop, true); },
       "bag_encode",
       hex(0x77),
       {"datalist", "encode", "add A", "encode", "free data"}},
      {[=] { return ods_list(kVrfs, 1, true); }, "", kNotFound, {"datalist", "free data"}},
  };
  for (const auto &row : kRows) {
    w.take();
    w.fail_next(row.operation, 2, 0x77);
    EXPECT_EQ(row.call(), row.code) << row.operation;
    EXPECT_EQ(w.take(), row.did) << row.operation;
  }
  // Without a place for the answer it is built all the same, but nothing found comes first.
  w.fail_next("");
  for (const bool found : {true, false}) {
    uint32_t after = found ? 0 : addr("10.0.0.2"), of = found ? nhop : 1;
    ods_path_t nhops = {0, kNhops, 0, {&after, nullptr}}, vrfs = {0, kVrfs, 0, {&of, nullptr}};
    const std::string code = found ? "0x40818800" : kNotFound;
    EXPECT_EQ(hex(ods.list(nullptr, nullptr, &nhops, &nhops)), code);
    EXPECT_EQ(hex(ods.list(nullptr, nullptr, &vrfs, &vrfs)), code);
    EXPECT_EQ(hex(ods.datalist(nullptr, nullptr, &vrfs, &vrfs)), code);
    const texts did = w.take();
    EXPECT_EQ(std::ranges::count(did, "free") + std::ranges::count(did, "free data"), 3);
    EXPECT_EQ(std::ranges::count_if(did, [](auto &t) { return t.starts_with("add"); }),
              found ? 6 : 0);
  }
}
