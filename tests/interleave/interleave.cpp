// Scenarios of two to four threads, run through every schedule with few preemptions and then
// through random ones.
//
//   interleave PREEMPTIONS RANDOM [SEED]      RANDOM schedules over all scenarios
//   TARVO_SCHEDULE=NAME:SCHEDULE interleave   one schedule, as a failure printed it
#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "engine/shared_words.h"
#include "engine/timers.h"
#include "engine/work_entry.h"
#include "query/nhop_query.h"
#include "tarvo/agent_services.h"
#include "tarvo/discovery.h"
#include "tarvo/oper_data.h"
#include "tests/interleave/interleave.h"

// ------------------------------------------ Readers ------------------------------------------

static void check(const tarvo_nd_nhop_t &hop, uint32_t after = 0) {
  const tarvo_nd_nhop_info_t &info = hop.info;
  require(info.nhop_addr == kHop1 || info.nhop_addr == kHop2, "an unknown next hop");
  require(ntohl(info.nhop_addr) > ntohl(after), "a walk goes back");
  require((hop.flags & TARVO_ND_NHOP_REACHABLE) != 0 && info.prefix == 10 && info.prefix_len == 8,
          "another route");
}

static void walk(uint32_t table_id) {
  tarvo_nd_nhop_t hop = {};
  uint32_t after = 0;
  for (uint32_t found = tarvo_nd_first_nhop_by_tableid(table_id, &hop); found == TARVO_ND_OK;
       found = tarvo_nd_next_nhop_by_tableid(table_id, after, &hop)) {
    check(hop, after);
    after = hop.info.nhop_addr;
  }
}

static void walk_references() {
  tarvo_nd_nhop_table_t ref = {};
  tarvo_nd_vrf_name_copy_t vrf = {};
  for (uint32_t found = tarvo_nd_first_tableid(kHop2, &ref, &vrf); found == TARVO_ND_OK;
       found = tarvo_nd_next_tableid(kHop2, ref.table_id, &ref, &vrf)) {
    require(vrf.known && strcmp(vrf.name, ref.table_id == 7 ? "A" : "B") == 0, "another name");
    require(ref.ref_count <= 1, "another count");
  }
}

static void look_up() {
  tarvo_nd_nhop_t hop = {};
  tarvo_nd_nhop_table_t ref = {};
  if (tarvo_nd_lookup_nhop_by_tableid(0, kHop1, &hop) == TARVO_ND_OK) check(hop);
  if (tarvo_nd_lookup_nhop_by_tableid(7, kHop1, &hop) == TARVO_ND_OK) check(hop);
  if (tarvo_nd_lookup_tableid(kHop2, "A", &ref) == TARVO_ND_OK)
    require(ref.table_id == 7 && ref.ref_count <= 1, "another reference");
}

static const tarvo_nd_ods_fns_t &ods = tarvoMplsDiscoveryODSFns;

static void get_each() {
  for (uint32_t item : {TARVO_DISC_ITEM_STATE, TARVO_DISC_ITEM_PREFIX, TARVO_DISC_ITEM_VRF}) {
    ods_path_t path = {0, item, 0, {&kHop2, "A"}};
    ods_item_t answer = {};
    const uint32_t result = ods.get(nullptr, &answer, &path);
    require(result == 0 || result == TARVO_ODS_ERR_NOT_FOUND, "a get fails");
    free(answer.buffer);
  }
}

static steps lister(decltype(ods.list) call, void (*release)(void *), uint32_t item, uint32_t nhop,
                    const char *one, const char *other) {
  return [=] {
    ods_path_t path = {0, item, 0, {&nhop, nullptr}};
    ods_list_result_t found = {};
    const uint32_t result = call(nullptr, &found, &path, &path);
    require(result == 0 || result == TARVO_ODS_ERR_NOT_FOUND, "a list fails");
    for (uint32_t i = 0; i < found.count; ++i) {
      const std::string key = ods_list_entry(found.list, i)->key;
      require(key == one || key == other, "another key");
    }
    release(found.list);
  };
}

static void ask_remaining() {
  const int32_t left = tarvo_nd_get_refresh_interval_remaining();
  require(left >= -1 && left <= 30, "another time left");
}

static const std::pair<const char *, steps> kReaders[] = {
    {"walk", [] { walk(0); }},
    {"walk of a table", [] { walk(7); }},
    {"walk of references", walk_references},
    {"look-ups", look_up},
    {"gets", get_each},
    {"list", lister(ods.list, ods_list_free, TARVO_DISC_ITEM_NHOP, 0, "0x100000a/", "0x200000a/")},
    {"list of VRFs", lister(ods.list, ods_list_free, TARVO_DISC_ITEM_VRF, kHop2, "A", "B")},
    {"data list", lister(ods.datalist, ods_datalist_free, TARVO_DISC_ITEM_VRF, kHop2, "A", "B")},
    {"remaining", ask_remaining}};

// ----------------------------------------- Scenarios -----------------------------------------

static void nothing() {}
static void reg(uint32_t client) { tarvo_pe_discovery_register(client, nullptr, tell); }
static void unreg(uint32_t client) { tarvo_pe_discovery_unregister(client); }
static void table(uint32_t id, int add) { tarvo_nd_enqueue_table_update("A", id, add); }
static void report(uint32_t id, uint32_t nhop, int add) {
  tarvo_nd_enqueue_nhop_update(id, nhop, add);
}
static void deactivate() {
  unreg(1);
  unreg(2);
}

// What the worker finds in its queue, and what must come of it.
static const struct {
  const char *name;
  steps queue;
  bool active;
  int nhops, told, dropped;
} kWork[] = {
    {"nothing", nothing, true, 2, 0, 0},
    {"deactivation", deactivate, false, 0, 0, 0},
    {"flip", [] { deactivate(), reg(3), report(7, kHop1, 1); }, true, 1, 1, 0},
    {"table delete",  // with what is reported of it meanwhile
     [] { table(7, 0), report(7, kHop1, 1), report(8, kHop1, 0), table(7, 1); }, true, 1, 0, 1},
    {"refresh",
     [] {
       tarvo_nd_enqueue_refresh_expired();
       report(8, kHop2, 1);
       tarvo_nd_enqueue_clear_expired();
     },
     true, 1, 0, 0},
    {"restart", [] { tarvo_nd_enqueue_rib_restart(); }, true, 2, 0, 0}};

constexpr int kAny = -1;

static steps leaves(bool active, int nhops, int told = kAny, int dropped = kAny) {
  return [=] {
    require((tarvo_nd_is_active() != 0) == active, "discovery ends in the other state");
    require(nhops == kAny || nhop_count() == nhops, "another count of next hops");
    require(told == kAny || ends == told, "another count of ENDs");
    require(dropped == kAny || purged == dropped, "another count of dropped reports");
  };
}

static void add_scenarios_of_work(std::vector<scenario> &all) {
  const auto set_short = [] { tarvo_nd_set_rib_refresh_interval(10); };
  const auto set_shortest = [] { tarvo_nd_set_rib_refresh_interval(0); };
  const auto expire_twice = [] { expire(), expire(); };
  for (const auto &work : kWork) {
    const auto add = [&](const std::string &name, std::vector<steps> threads, bool sweeps = false) {
      threads.insert(threads.begin(), worker);
      all.push_back({name + ", " + work.name, work.queue, threads,
                     leaves(work.active, sweeps ? kAny : work.nhops, work.told, work.dropped)});
    };
    for (const auto &[name, read] : kReaders) add(name, {read});
    add("setter", {set_short});
    add("setter and expiry", {set_short, expire_twice}, true);
    add("shortest and expiry", {set_shortest, expire}, true);
    add("remaining and expiry", {ask_remaining, expire}, true);
  }
}

static steps dies_with(guarded_mutex_t *lock) {
  return [lock]() TARVO_NO_THREAD_SAFETY_ANALYSIS { guarded_mutex_lock(lock, "dies", 1); };
}

static std::vector<scenario> all_scenarios() {
  const auto set = [] { tarvo_nd_set_rib_refresh_interval(10); };
  const auto nd_dies = dies_with(&tarvo_nd_mutex), workq_dies = dies_with(&tarvo_nd_workq_mutex);
  const auto produce = [] { report(8, kHop1, 1); };
  const auto come_and_go = [](uint32_t id) { return [id] { reg(id), unreg(id); }; };
  const auto delete_table = [] { table(7, 0); };
  const auto withdraw = [] { report(7, kHop1, 0), report(7, kHop2, 0); };
  std::vector<scenario> all = {
      {"two producers", nothing, {worker, produce, produce}, leaves(true, 2)},
      {"two come and go",
       deactivate,
       {worker, come_and_go(3), come_and_go(4)},
       leaves(false, 0, 2)},
      {"one comes as the last leaves",
       nothing,
       {worker, deactivate, [] { reg(3); }, look_up},
       leaves(true, kAny, 1)},
      {"setter there and back as discovery begins",
       [] { deactivate(), reg(3); },
       {worker,
        [] { tarvo_nd_set_rib_refresh_interval(10), tarvo_nd_set_rib_refresh_interval(300); }},
       leaves(true, 0, 1),
       false,
       1},
      {"withdrawals as their table leaves",
       nothing,
       {worker, delete_table, withdraw},
       leaves(true, 1)},
      {"death, readers", nothing, {nd_dies, look_up, look_up}, leaves(true, 2), true},
      {"death, setter", nothing, {nd_dies, set, look_up}, leaves(true, 2), true},
      {"death, expiry", nothing, {worker, nd_dies, expire}, leaves(true, kAny), true},
      {"death, deactivation", deactivate, {worker, nd_dies, look_up}, leaves(false, 0), true},
      {"two deaths", nothing, {nd_dies, nd_dies, look_up, look_up}, leaves(true, 2), true},
      // Without the worker: its wait, not its lock, might be told of the death.
      {"producer's death", nothing, {workq_dies, produce, produce}, leaves(true, kAny), true}};
  add_scenarios_of_work(all);
  return all;
}

// ------------------------------------------- Main -------------------------------------------

static void run_named(const std::vector<scenario> &scenarios, const std::string &again) {
  const size_t colon = again.rfind(':');
  const auto named = [&](const scenario &s) { return s.name == again.substr(0, colon); };
  const auto found = std::ranges::find_if(scenarios, named);
  require(found != scenarios.end(), "no scenario of this name");
  run_again(*found, again.substr(colon + 1));
}

int main(int argc, char **argv) {
  create_world();
  const std::vector<scenario> scenarios = all_scenarios();
  if (const char *again = getenv("TARVO_SCHEDULE"); again != nullptr) {
    run_named(scenarios, again);
    return 0;
  }
  if (argc < 3) {
    fprintf(stderr, "usage: interleave PREEMPTIONS RANDOM [SEED]\n");
    return 2;
  }
  uint64_t count = 0;
  for (const scenario &s : scenarios) count += run_all(s, atoi(argv[1]) + s.deeper);
  printf("%zu scenarios, preemptions up to %s: %lu schedules\n", scenarios.size(), argv[1], count);
  const uint64_t random = strtoull(argv[2], nullptr, 10);
  const uint64_t seed =
      argc > 3 ? strtoull(argv[3], nullptr, 10) : static_cast<uint64_t>(time(nullptr));
  for (uint64_t i = 0; i < random; ++i) run_random(scenarios[i % scenarios.size()], seed + i);
  printf("at random from seed %lu: %lu schedules\n", seed, random);
}
