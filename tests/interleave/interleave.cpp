// Scenarios of two to four threads, run through every schedule with few preemptions and then
// through random ones.
//
//   interleave PREEMPTIONS RANDOM [SEED]   RANDOM schedules in all
//   TARVO_SCHEDULE=... interleave          one schedule, as a failure printed it
#include <arpa/inet.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "engine/shared_words.h"
#include "engine/state.h"
#include "engine/timers.h"
#include "engine/work_entry.h"
#include "query/nhop_query.h"
#include "tarvo/agent_services.h"
#include "tarvo/discovery.h"
#include "tarvo/oper_data.h"
#include "tests/interleave/scheduler.h"
#include "tests/interleave/world.h"

// ------------------------------------------ Readers ------------------------------------------

static void check(const tarvo_nd_nhop_t &hop, uint32_t after = 0) {
  require(hop.info.nhop_addr == kHop1 || hop.info.nhop_addr == kHop2, "an unknown next hop");
  require(ntohl(hop.info.nhop_addr) > ntohl(after), "a walk goes back");
  require((hop.flags & ~TARVO_ND_NHOP_RERESOLVE) == TARVO_ND_NHOP_REACHABLE &&
              hop.info.prefix == 10 && hop.info.prefix_len == 8,
          "another route");
}

static void check(const tarvo_nd_nhop_table_t &ref, const tarvo_nd_vrf_name_copy_t &name) {
  require(ref.ref_count <= 1, "another count");
  require(name.known && strcmp(name.name, ref.table_id == 7 ? "A" : "B") == 0, "another name");
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
  tarvo_nd_vrf_name_copy_t name = {};
  for (uint32_t found = tarvo_nd_first_tableid(kHop2, &ref, &name); found == TARVO_ND_OK;
       found = tarvo_nd_next_tableid(kHop2, ref.table_id, &ref, &name))
    check(ref, name);
}

static void look_up() {
  tarvo_nd_nhop_t hop = {};
  tarvo_nd_nhop_table_t ref = {};
  for (uint32_t table_id : {0, 7})
    if (tarvo_nd_lookup_nhop_by_tableid(table_id, kHop1, &hop) == TARVO_ND_OK) check(hop);
  if (tarvo_nd_lookup_tableid(kHop2, "A", &ref) == TARVO_ND_OK)
    require(ref.table_id == 7 && ref.ref_count <= 1, "another reference");
}

static const tarvo_nd_ods_fns_t &ods = tarvoMplsDiscoveryODSFns;

static void get(uint32_t item, const char *vrf_name = nullptr) {
  ods_path_t path = {0, item, 0, {&kHop2, vrf_name}};
  ods_item_t answer = {};
  const uint32_t result = ods.get(nullptr, &answer, &path);
  require(result == 0 || result == TARVO_ODS_ERR_NOT_FOUND, "a get fails");
  free(answer.buffer);
}

static void list(decltype(ods.list) call, void (*release)(void *), uint32_t item, uint32_t nhop) {
  ods_path_t path = {0, item, 0, {&nhop, nullptr}};
  ods_list_result_t found = {};
  const uint32_t result = call(nullptr, &found, &path, &path);
  require(result == 0 || result == TARVO_ODS_ERR_NOT_FOUND, "a list fails");
  for (uint32_t i = 0; i < found.count; ++i) {
    const std::string key = ods_list_entry(found.list, i)->key;
    require(nhop == 0 ? key == "0x100000a/" || key == "0x200000a/" : key == "A" || key == "B",
            "another key");
  }
  if (result == 0) release(found.list);
}

static const struct {
  const char *name;
  std::function<void()> read;
} kReaders[] = {
    {"walk", [] { walk(0); }},
    {"walk of a table", [] { walk(7); }},
    {"walk of references", walk_references},
    {"look-ups", look_up},
    {"gets",
     [] {
       get(TARVO_DISC_ITEM_STATE);
       get(TARVO_DISC_ITEM_PREFIX);
       get(TARVO_DISC_ITEM_VRF, "A");
     }},
    {"list", [] { list(ods.list, ods_list_free, TARVO_DISC_ITEM_NHOP, 0); }},
    {"list of VRFs", [] { list(ods.list, ods_list_free, TARVO_DISC_ITEM_VRF, kHop2); }},
    {"data list", [] { list(ods.datalist, ods_datalist_free, TARVO_DISC_ITEM_VRF, kHop2); }},
    {"remaining",
     [] {
       const int32_t left = tarvo_nd_get_refresh_interval_remaining();
       require(left >= -1 && left <= 30, "another time left");
     }},
};

// ------------------------------------- The worker's work -------------------------------------

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

static std::function<void()> ended(bool active, int nhops, int told = -1, int dropped = -1) {
  return [=] {
    require((tarvo_nd_is_active() != 0) == active, "discovery ends in the other state");
    require(nhops < 0 || nhop_count() == nhops, "another count of next hops");
    require(told < 0 || ends == told, "another count of ENDs");
    require(dropped < 0 || purged == dropped, "another count of purged requests");
  };
}

static const struct {
  const char *name;
  std::function<void()> queue;
  bool active;  ///< in the end, and so on
  int nhops, told, dropped;
} kWork[] = {
    {"nothing", [] {}, true, 2, 0, 0},
    {"deactivation", deactivate, false, 0, 0, 0},
    {"flip",
     [] {
       deactivate();
       reg(3);
       report(7, kHop1, 1);
     },
     true, 1, 1, 0},
    {"table delete",
     [] {
       table(7, 0);
       report(7, kHop1, 1);  // dropped with the table
       report(8, kHop1, 0);
       table(7, 1);
     },
     true, 1, 0, 1},
    {"refresh",
     [] {
       tarvo_nd_enqueue_refresh_expired();
       report(8, kHop2, 1);
       tarvo_nd_enqueue_clear_expired();
     },
     true, 1, 0, 0},
    {"restart", [] { tarvo_nd_enqueue_rib_restart(); }, true, 2, 0, 0},
};

// ----------------------------------------- Scenarios -----------------------------------------

static void set_short() { tarvo_nd_set_rib_refresh_interval(10); }
static void set_shortest() { tarvo_nd_set_rib_refresh_interval(0); }
static void expire_twice() {
  expire();
  expire();
}

static std::function<void()> dies_with(guarded_mutex_t *lock) {
  return [lock]() TARVO_NO_THREAD_SAFETY_ANALYSIS { guarded_mutex_lock(lock, "dies", 1); };
}

static std::vector<scenario> all_scenarios() {
  std::vector<scenario> all;
  for (const auto &work : kWork) {
    const auto add = [&](const std::string &name, std::vector<std::function<void()>> others,
                         bool sweeps = false) {
      others.insert(others.begin(), worker);
      all.push_back({name + ", " + work.name, work.queue, others,
                     ended(work.active, sweeps ? -1 : work.nhops, work.told, work.dropped)});
    };
    for (const auto &reader : kReaders) add(reader.name, {reader.read});
    add("setter", {set_short});
    add("setter and expiry", {set_short, expire_twice}, true);
    add("shortest and expiry", {set_shortest, expire}, true);
    add("remaining and expiry", {kReaders[8].read, expire}, true);
  }
  const auto nd_dies = dies_with(&tarvo_nd_mutex), workq_dies = dies_with(&tarvo_nd_workq_mutex);
  const auto look = [] { look_up(); };
  const auto one_report = [] { report(8, kHop1, 1); };
  const std::vector<scenario> others = {
      {"two producers", {}, {worker, one_report, one_report}, ended(true, 2)},
      {"two registrations",
       deactivate,
       {worker,
        [] {
          reg(3);
          unreg(3);
        },
        [] {
          reg(4);
          unreg(4);
        }},
       ended(false, 0, 2)},
      {"a registration as the last client leaves",
       {},
       {worker, deactivate, [] { reg(3); }, look},
       ended(true, -1, 1)},
      {"reports as their table leaves",
       {},
       {worker, [] { table(7, 0); },
        [] {
          report(7, kHop1, 0);
          report(7, kHop2, 0);
        }},
       ended(true, 1)},
      {"death and readers", {}, {nd_dies, look, look}, ended(true, 2), true},
      {"death and setter", {}, {nd_dies, set_short, look}, ended(true, 2), true},
      {"death and expiry", {}, {worker, nd_dies, expire}, {}, true},
      {"death and deactivation", deactivate, {worker, nd_dies, look}, ended(false, 0), true},
      {"death of the reviver, too", {}, {nd_dies, nd_dies, look, look}, ended(true, 2), true},
      // No worker: a waiting one would be told of the death by its wait.
      {"death of a producer", {}, {workq_dies, one_report, one_report}, {}, true},
  };
  all.insert(all.end(), others.begin(), others.end());
  return all;
}

static uint64_t number(int argc, char **argv, int index, uint64_t otherwise) {
  return index < argc ? strtoull(argv[index], nullptr, 10) : otherwise;
}

int main(int argc, char **argv) {
  using clock = std::chrono::steady_clock;
  create_world();
  const std::vector<scenario> scenarios = all_scenarios();
  if (const char *again = getenv("TARVO_SCHEDULE"); again != nullptr) {
    const char *schedule = strrchr(again, ':');
    for (const scenario &s : scenarios)
      if (schedule != nullptr && s.name == std::string(again, schedule)) run_again(s, schedule + 1);
    return 0;
  }

  auto rate = [begun = clock::now()](uint64_t count) mutable {
    const double seconds = std::chrono::duration<double>(clock::now() - begun).count();
    begun = clock::now();
    printf("%llu schedules in %.1f s", static_cast<unsigned long long>(count), seconds);
  };
  const int preemptions = static_cast<int>(number(argc, argv, 1, 2));
  uint64_t count = 0;
  for (const scenario &s : scenarios) count += run_all(s, preemptions);
  printf("%zu scenarios; at most %d preemptions: ", scenarios.size(), preemptions);
  rate(count);

  const uint64_t random = number(argc, argv, 2, 100000);
  const uint64_t seed = number(argc, argv, 3, static_cast<uint64_t>(time(nullptr)));
  printf("; random from seed %llu: ", static_cast<unsigned long long>(seed));
  fflush(stdout);
  for (uint64_t i = 0; i < random; ++i) run_random(scenarios[i % scenarios.size()], seed + i);
  rate(random);
  puts("; all clean");
}
