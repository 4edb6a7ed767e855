// The agent's store and its commands on the real module, page by page and answer by wrong answer.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <future>
#include <nlohmann/json.hpp>

#include "agent/agent_services.h"
#include "agent/bmp_station.h"
#include "agent/clients.h"
#include "agent/explain.h"
#include "agent/fence.h"
#include "agent/global_table.h"
#include "agent/interpreter.h"
#include "agent/output.h"
#include "agent/redistribution.h"
#include "agent/rib_thread.h"
#include "agent/text.h"
#include "platform/event.h"
#include "tarvo/discovery.h"
#include "tarvo/oper_data.h"

namespace agent {
namespace {

constexpr uint32_t kState = TARVO_DISC_ITEM_STATE, kNhop = TARVO_DISC_ITEM_NHOP;
constexpr uint32_t kPrefix = TARVO_DISC_ITEM_PREFIX, kVrf = TARVO_DISC_ITEM_VRF;
constexpr const char *kNone = R"("nexthops":[]})", *kCantRead = "can't be read";

// What is asked, what the module answers about one item, and a part of what is told.
const struct row {
  const char *command, *expected;
  uint32_t item, code;
  std::string_view record = "";
  uint32_t type = TARVO_ODS_TYPE_BAG;
  std::vector<const char *> keys = {};  ///< null: there may be more
} kAnswers[] = {
    {"show state", R"("show":"state","record":{"x":5}})", kState, 0, "\xa1\x61x\x05"},
    {"show nexthops", R"("reachable":false,"prefix":null)", kPrefix, TARVO_ODS_ERR_NOT_FOUND},
    {"show prefix 10.0.0.1", "no route covers next hop", kPrefix, TARVO_ODS_ERR_NOT_FOUND},
    // The first one went meanwhile.
    {"show nexthops", R"([{"nexthop":"10.0.0.1",)", kNhop, 0, "", 0, {"0x1/", "0x100000a/"}},
    {"show vrfs", R"("routes":110,"nexthops":22)", kVrf, 0, "\xa1\x6bPrefixCount\x05"},
    {"show nexthops", kNone, kNhop, TARVO_ODS_ERR_NOT_FOUND},
    {"show state", "code 0x40829000", kState, TARVO_ODS_ERR_ENCODE},
    {"show nexthops", "code 0x40820200", kState, ODS_ERR_NOMEM},
    {"show nexthops", kInactive, kState, TARVO_ODS_ERR_NOT_FOUND},  // it ended meanwhile
    {"show nexthops", "code 0x40820200", kNhop, ODS_ERR_NOMEM},
    {"show nexthops", "code 0x40820200", kPrefix, ODS_ERR_NOMEM},
    {"show nexthops", "code 0x40820200", kVrf, ODS_ERR_NOMEM},
    {"show vrfs", "code 0x40820200", kVrf, ODS_ERR_NOMEM},
    {"show nexthop 10.0.0.1", "code 0x40820200", kVrf, ODS_ERR_NOMEM},
    {"show prefix 10.0.0.1", "code 0x40820200", kPrefix, ODS_ERR_NOMEM},
    {"show state", kCantRead, kState, 0, "\x05"},
    {"show state", kCantRead, kState, 0, "\xa1\x61x\x05\x05"},
    {"show state", kCantRead, kState, 0, "\xa1\x61x\x05", 6},
    {"show state", kCantRead, kState, 0, "\xa1\x61x\x44once"},
    {"show state", kCantRead, kState, 0, "\xa1\x61x\xd8\x36\x44once"},
    {"show state", kCantRead, kState, 0, "\xa1\x61x\xd8\x34\x45twice"},
    {"show nexthops", kCantRead, kPrefix, 0, "\xa1\x6dTargetAddress\xd8\x34\x44once"},
    {"show nexthops", kCantRead, kPrefix, 0, "\xa2\x6aTargetMask\x05\x6dTargetAddress\x05"},
    {"show nexthop 10.0.0.1", kCantRead, kVrf, 0, "\xa1\x61x\x05"},
    {"show nexthop 10.0.0.1", kCantRead, kVrf, 0, "\xa1\x6bPrefixCount\xf5"},
    {"show nexthop 10.0.0.1", kCantRead, kVrf, 0, "\xa1\x6bPrefixCount\x05", 6},
    {"show nexthops", kCantRead, kNhop, 0},
    {"show nexthops", kCantRead, kNhop, 0, "", 0, {"0x1/", nullptr}},  // again and again
    {"show nexthops", kCantRead, kNhop, 0, "", 0, {"0x2/", "0x1/"}},
    {"show nexthops", kCantRead, kNhop, 0, "", 0, {"0x0/"}},
    {"show nexthops", kCantRead, kNhop, 0, "", 0, {"0x12"}},
    {"show nexthops", kCantRead, kNhop, 0, "", 0, {"001/"}},
    {"show nexthops", kCantRead, kNhop, 0, "", 0, {"0x1x/"}},
    {"show nexthops", kCantRead, kNhop, 0, "", 0, {"0x100000000/"}},
};

// ---- The module's callbacks, but for the item of `now` ----

const row *now;
const tarvo_nd_ods_fns_t *real;
int list_requests;

bool as_row_says(const ods_path_t *path) { return now != nullptr && path->item == now->item; }

uint32_t get(void *context, ods_item_t *item, ods_path_t *path) {
  if (!as_row_says(path)) return real->get(context, item, path);
  if (now->code != 0) return now->code;
  const auto length = uint32_t(now->record.size());
  *item = {0, now->type, 0, malloc(length + 1), length};
  memcpy(item->buffer, now->record.data(), length);
  return 0;
}

uint32_t list(void *context, ods_list_result_t *result, ods_path_t *path, void *more) {
  ++list_requests;
  if (!as_row_says(path)) return real->list(context, result, path, more);
  if (now->code != 0) return now->code;
  EXPECT_EQ(ods_list_create(&result->list, path, more), 0u);
  for (const char *key : now->keys) {
    if (key == nullptr) ods_list_set_more_flag(result->list);
    if (key != nullptr) ods_list_add(result->list, key, ODS_RANK_LAST, 0);
  }
  return 0;
}

uint32_t datalist(void *context, ods_list_result_t *result, ods_path_t *path, void *more) {
  if (!as_row_says(path)) return real->datalist(context, result, path, more);
  if (now->code != 0) return now->code;
  EXPECT_EQ(ods_datalist_create(&result->list, path, more), 0u);
  return ods_datalist_add(result->list, "A", now->type, 0, now->record.data(),
                          uint32_t(now->record.size()));
}

/// The agent without its program: one client, and one VRF that imports what announce() brings.
struct world {
  world() {
    install_services(reports, global);
    EXPECT_EQ(tarvo_nd_init(event_mgr_create()), TARVO_ND_OK);
    real = registered_tables().ods;
    tarvoDiscoverySetODSFns(&kCallbacks);
    for (const char *line : {"route add 10.0.0.0/8", "vrf add A table 1 import 1:1", "watch 1"})
      run(line);
  }
  /// What the command prints, or why it is refused.
  std::string run(const std::string &line) {
    std::string printed;
    const auto c = std::get<command>(parse_command(line));
    const std::string refused = commands.run(c, show_as::object, printed).text;
    return refused.empty() ? printed : refused;
  }
  void announce(uint32_t nexthop) {
    loop.call([&] {
      const attr_id attributes = routes.acquire(nexthop, std::vector{kTarget});
      routes.announce(source, {1, nexthop, 0, 32, true}, attributes);
      routes.release(attributes);
    });
    loop.settle();
  }

  static constexpr tarvo_nd_ods_fns_t kCallbacks = {get, list, datalist, {}};
  static constexpr route_target kTarget = 0x0002000100000001;
  output out{true, [](std::string_view) { return 0; }, [] {}};
  fence pace;
  redistribution reports{pace};
  global_table global;
  rib routes{global, reports};
  source_id source = routes.open_source();
  rib_thread loop{routes, reports, pace};
  bmp_station station{routes, loop, bmp_view::loc_rib};
  clients watchers{loop, pace, out};
  interpreter commands{{routes, loop, global, station, watchers, reports}};
};

world &the_world() {
  static world &w = *new world;  // the module's worker outlives main()
  return w;
}

// Each address is above the one before, and below it when its bytes are taken in reverse.
TEST(OperData, ListsPagesAndRefusesWrongAnswers) {
  world &w = the_world();
  std::vector<std::string> expected, shown;
  for (uint32_t hops = 0; hops <= 2 * TARVO_ODS_NHOP_PAGE + 1; ++hops) {
    if (hops != 0) {
      const uint32_t address = htonl(0x0a0000ff + hops * 255);
      w.announce(address);
      expected.push_back(address_text(address));
    }
    list_requests = 0;
    shown.clear();
    const auto line = nlohmann::json::parse(w.run("show nexthops"));
    for (const auto &hop : line["nexthops"]) shown.push_back(hop["nexthop"]);
    EXPECT_EQ(shown, expected);
    EXPECT_EQ(list_requests, int(1 + hops / TARVO_ODS_NHOP_PAGE)) << hops;
  }

  w.announce(htonl(0x0a000001));
  for (const row &answer : kAnswers) {
    now = &answer;
    const std::string told = w.run(answer.command);
    EXPECT_PRED_FORMAT2(testing::IsSubstring, answer.expected, told)
        << answer.command << ' ' << &answer - kAnswers;
  }
  now = nullptr;
}

// 25 routes to one PE, two of them one route of two paths, and five that no VRF imports.
TEST(Explain, CollectsFromDiscoveryAndTheRib) {
  world &w = the_world();
  const uint32_t nexthop = htonl(0x0a020304);
  const source_id other = w.routes.open_source();
  w.loop.call([&] {
    const attr_id here = w.routes.acquire(nexthop, std::vector{world::kTarget, world::kTarget + 1});
    const attr_id none = w.routes.acquire(nexthop, std::vector{world::kTarget + 1});
    for (uint32_t i = 0; i < 25; ++i)
      w.routes.announce(w.source, {7, i << 8, 0, 24, true}, i % 5 == 0 ? none : here);
    w.routes.announce(other, {7, 1 << 8, 0, 24, true}, here);
  });
  w.loop.settle();
  const auto told = nlohmann::json::parse(w.run("explain 10.2.3.4"));
  EXPECT_EQ(told["prefix"], "10.0.0.0/8");
  EXPECT_EQ(told["global_route"], "10.0.0.0/8");
  ASSERT_EQ(told["vrfs"].size(), 1u);
  EXPECT_EQ(told["vrfs"][0]["count"], 20);
  EXPECT_EQ(told["vrfs"][0]["routes"], 20);
  EXPECT_LT(told["reported_seconds_ago"], 60);
  ASSERT_EQ(told["routes"].size(), explanation::kMaxRoutes);
  EXPECT_EQ(told["more_routes"], 6);
  for (size_t i = 0; i < told["routes"].size(); ++i) {
    const uint32_t route = uint32_t(i == 0 ? 1 : i + (i - 1) / 4);
    EXPECT_EQ(told["routes"][i]["prefix"], "0.0." + std::to_string(route) + ".0/24") << i;
    EXPECT_EQ(told["routes"][i]["imports"].dump(), R"([{"targets":["1:1"],"vrf":"A"}])");
  }
  w.run("vrf add B table 2 import 1:2");
  const auto of_b = nlohmann::json::parse(w.run("explain 10.2.3.4 B"));
  EXPECT_EQ(of_b["routes"][0]["prefix"], "0.0.0.0/24");
  EXPECT_EQ(of_b["routes"][0]["imports"].dump(), R"([{"targets":["1:2"],"vrf":"B"}])");
  EXPECT_EQ(of_b["vrfs"].size(), 1u);
  EXPECT_EQ(of_b["vrfs"][0]["routes"], 25);
  EXPECT_EQ(w.run("explain 10.2.3.4 C"), "no VRF 'C'");
}

// The worker stands still in a callback until it is let go.
TEST(Fence, KnowsWhetherTheModuleAnswers) {
  world &w = the_world();
  EXPECT_TRUE(w.pace.module_answers());
  w.run("unwatch 1");
  EXPECT_TRUE(w.pace.module_answers());
  static std::promise<void> entered, let_go;
  tarvo_pe_discovery_register(9, "B", [](uint32_t, uint32_t, const void *) {
    entered.set_value();
    let_go.get_future().wait();
  });
  entered.get_future().wait();
  EXPECT_FALSE(w.pace.module_answers());
  let_go.set_value();
  tarvo_pe_discovery_unregister(9);
  EXPECT_TRUE(w.pace.module_answers());
}

}  // namespace
}  // namespace agent
