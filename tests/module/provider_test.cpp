// The operational data as a store sees it: through the callback table, with the platform's lists
// and encoder, and the records read back with a CBOR library.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <nlohmann/json.hpp>

#include "engine/guarded_mutex.h"
#include "tarvo/agent_services.h"
#include "tarvo/oper_data.h"
#include "tests/module/world.h"

using texts = std::vector<std::string>;

static const tarvo_nd_ods_fns_t &ods = tarvoMplsDiscoveryODSFns;

static std::string hex(uint32_t code) {
  char text[16];
  snprintf(text, sizeof text, "0x%08x", code);
  return text;
}

static std::string record(const void *buffer, uint32_t length) {
  const auto *bytes = static_cast<const uint8_t *>(buffer);
  return nlohmann::json::from_cbor(bytes, bytes + length, true, false,
                                   nlohmann::json::cbor_tag_handler_t::store)
      .dump();
}

// Every byte of an answer that the provider must leave alone.
template <typename Answer>
static Answer untouched() {
  Answer answer;
  memset(&answer, 0x5a, sizeof answer);
  return answer;
}

template <typename Answer>
static bool same(const Answer &a, const Answer &b) {
  return memcmp(&a, &b, sizeof a) == 0;
}

struct request {
  ods_path_t path = untouched<ods_path_t>();
  uint32_t nhop;

  request(uint32_t item, uint32_t nhop_addr, const char *vrf = "") : nhop(nhop_addr) {
    path.item = item;
    path.key[0] = &nhop;
    path.key[1] = vrf;
  }
};

// The record as text, or the code of a refusal.
static std::string get(uint32_t item, uint32_t nhop = 0, const char *vrf = "") {
  request r(item, nhop, vrf);
  auto answer = untouched<ods_item_t>(), expected = answer;
  if (const uint32_t code = ods.get(&w, &answer, &r.path); code != 0) {
    EXPECT_TRUE(same(answer, expected));
    return hex(code);
  }
  expected.type = 7;
  expected.buffer = answer.buffer;
  expected.length = answer.length;
  EXPECT_TRUE(same(answer, expected));
  const std::string text = record(answer.buffer, answer.length);
  free(answer.buffer);
  return text;
}

// "KEY KEY ..." with the records of a data list, "+" at the end for the more flag; or the code.
static std::string list(uint32_t item, uint32_t nhop, bool data = false) {
  request r(item, nhop);
  auto answer = untouched<ods_list_result_t>(), expected = answer;
  const auto call = data ? ods.datalist : ods.list;
  if (const uint32_t code = call(&w, &answer, &r.path, &r.path); code != 0) {
    EXPECT_TRUE(same(answer, expected));
    return hex(code);
  }
  expected.list = answer.list;
  std::string text;
  for (expected.count = 0;; ++expected.count) {
    const ods_entry_t *entry = ods_list_entry(answer.list, expected.count);
    if (entry == nullptr) break;
    text += (text.empty() ? "" : " ") + std::string(entry->key);
    if (data) text += record(entry->buffer, entry->length);
  }
  EXPECT_TRUE(same(answer, expected));
  if (ods_list_more(answer.list) != 0) text += "+";
  (data ? ods_datalist_free : ods_list_free)(answer.list);
  return text;
}

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
      const std::string got = get(item, nhop, "A"), keys = list(item, lists ? nhop : 0),
                        data = list(item, nhop, true);
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

TEST(Provider, ListsNextHopsInPagesOfTen) {
  w.start();
  w.client(1);
  uint32_t reported = 0;
  for (const uint32_t count : {0, 1, 9, 10, 11, 20, 25}) {
    for (; reported < count; ++reported)
      tarvo_nd_enqueue_nhop_update(1, htonl(0x0a0102f0 + reported), 1);
    w.run();
    uint32_t last = 0;
    for (uint32_t first = 0;; first += 10) {
      std::string expected;
      for (uint32_t i = first; i < std::min(first + 10, count); ++i) {
        last = htonl(0x0a0102f0 + i);
        char key[16];
        snprintf(key, sizeof key, "0x%x/", last);
        expected += (expected.empty() ? "" : " ") + std::string(key);
      }
      if (first + 10 <= count) expected += '+';
      const uint32_t key = first == 0 ? 0 : htonl(0x0a0102f0 + first - 1);
      ASSERT_EQ(list(kNhops, key), expected.empty() ? kNotFound : expected) << count;
      if (expected.empty() || expected.back() != '+') break;
    }
  }
  // A key that is gone by the time of the next request; and how a key looks.
  w.report(1, "9.1.2.3");
  w.report(1, "9.1.2.3", false);
  EXPECT_EQ(list(kNhops, addr("10.1.3.7")), "0x803010a/");
  EXPECT_EQ(list(kNhops, addr("9.1.2.3")), list(kNhops, 0));
  EXPECT_EQ(list(kNhops, 0).substr(0, 11), "0xf002010a/");
}

TEST(Provider, TellsStatePrefixAndVrfs) {
  w.start();
  w.routes = {"10.0.0.0/8"};
  w.client(1);
  w.advance(170);
  w.now += 300000000;
  EXPECT_EQ(get(kState), R"({"RefreshRemaining":129})");  // 100.7 s of this phase, 29 s of the next

  for (const uint32_t id : {3u, 4u, 6u}) w.table(id, id == 4 ? "B" : "A");
  w.table(7, "C");
  const char *const kNhop = "10.0.0.1";
  for (const uint32_t id : {0u, 3u, 4u, 4u, 5u, 6u, 6u, 6u}) w.report(id, kNhop);
  w.report(7, "11.0.0.1");
  w.report(5, "11.0.0.2");
  EXPECT_EQ(get(kPrefix, addr(kNhop)),
            R"({"TargetAddress":{"bytes":[10,0,0,0],"subtype":52},"TargetMask":8})");
  EXPECT_EQ(get(kPrefix, addr("11.0.0.1")), kNotFound) << "not resolved";
  EXPECT_EQ(get(kPrefix, addr("10.0.0.2")), kNotFound) << "unknown";

  EXPECT_EQ(list(kVrfs, addr(kNhop)), "A B A") << "tables 0 and 5 have no name";
  EXPECT_EQ(list(kVrfs, addr(kNhop), true),
            R"(A{"PrefixCount":1} B{"PrefixCount":2} A{"PrefixCount":3})");
  for (const bool data : {false, true}) {
    EXPECT_EQ(list(kVrfs, addr("11.0.0.2"), data), kNotFound) << "no name at all";
    EXPECT_EQ(list(kVrfs, addr("10.0.0.2"), data), kNotFound) << "unknown";
  }
  const struct {
    const char *nhop, *vrf;
    std::string expected;
  } kGets[] = {{kNhop, "A", R"({"PrefixCount":1})"},
               {kNhop, "B", R"({"PrefixCount":2})"},
               {kNhop, "C", kNotFound},
               {kNhop, "unknown", kNotFound},
               {kNhop, "", kNotFound},
               {"10.0.0.2", "A", kNotFound},
               {"11.0.0.1", "C", R"({"PrefixCount":1})"}};
  for (const auto &row : kGets) EXPECT_EQ(get(kVrfs, addr(row.nhop), row.vrf), row.expected);
}

// What is created is freed, what the store or the encoder refuses is passed on, and nothing is
// written; the calls are made in order.
TEST(Provider, GivesUpCleanlyAtEachStep) {
  w.start();
  w.routes = {"10.0.0.0/8"};
  w.client(1);
  w.table(1, "A");
  w.table(2, "B");
  report_nhops(2);
  w.report(2, "10.0.0.1");
  const uint32_t nhop = addr("10.0.0.1");
  const std::string kError = hex(0x77);
  const struct {
    std::function<std::string()> call;
    const char *operation;
    int nth;
    std::string code;
    texts did;
  } kRows[] = {
      {[] { return get(kState); }, "bag_encode", 1, "0x40829000", {"encode"}},
      {[=] { return get(kPrefix, nhop); }, "bag_encode", 1, "0x40829000", {"encode"}},
      {[=] { return get(kVrfs, nhop, "A"); }, "bag_encode", 1, "0x40829000", {"encode"}},
      {[] { return list(kNhops, 0); }, "ods_list_create", 1, kError, {"list"}},
      {[] { return list(kNhops, 0); },
       "ods_list_add",
       2,
       kError,
       {"list", "add 0x100000a/", "add 0x200000a/", "free"}},
      {[=] { return list(kVrfs, nhop); }, "ods_list_create", 1, kError, {"list"}},
      {[=] { return list(kVrfs, nhop); },
       "ods_list_add",
       2,
       kError,
       {"list", "add A", "add B", "free"}},
      {[=] { return list(kVrfs, 1); }, "", 1, kNotFound, {"list", "free"}},
      {[=] { return list(kVrfs, nhop, true); }, "ods_datalist_create", 1, kError, {"datalist"}},
      {[=] { return list(kVrfs, nhop, true); },
       "ods_datalist_add",
       2,
       kError,
       {"datalist", "encode", "add A", "encode", "add B", "free data"}},
      {[=] { return list(kVrfs, nhop, true); },
       "bag_encode",
       2,
       kError,
       {"datalist", "encode", "add A", "encode", "free data"}},
      {[=] { return list(kVrfs, 1, true); }, "", 1, kNotFound, {"datalist", "free data"}},
  };
  for (const auto &row : kRows) {
    w.take();
    w.fail_next(row.operation, row.nth, 0x77);
    EXPECT_EQ(row.call(), row.code) << row.operation;
    EXPECT_EQ(w.take(), row.did) << row.operation;
  }
  // Without a place for the answer it is built all the same, but nothing found comes first.
  w.fail_next("");
  for (const bool found : {true, false}) {
    request nhops(kNhops, found ? 0 : addr("10.0.0.2")), vrfs(kVrfs, found ? nhop : 1);
    const std::string code = found ? "0x40818800" : kNotFound;
    EXPECT_EQ(hex(ods.list(nullptr, nullptr, &nhops.path, &nhops.path)), code);
    EXPECT_EQ(hex(ods.list(nullptr, nullptr, &vrfs.path, &vrfs.path)), code);
    EXPECT_EQ(hex(ods.datalist(nullptr, nullptr, &vrfs.path, &vrfs.path)), code);
    const texts did = w.take();
    EXPECT_EQ(std::ranges::count(did, "free") + std::ranges::count(did, "free data"), 3);
    EXPECT_EQ(std::ranges::count_if(did, [](auto &t) { return t.starts_with("add"); }),
              found ? 6 : 0);
  }
}
