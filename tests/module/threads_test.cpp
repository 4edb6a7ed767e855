// The real worker thread with producers, readers, the setter, the timer handler and clients that
// come and go, all at once. Run under ThreadSanitizer and AddressSanitizer in CI.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "engine/shared_words.h"
#include "engine/timers.h"
#include "query/nhop_query.h"
#include "tarvo/agent_services.h"
#include "tarvo/oper_data.h"
#include "tests/module/world.h"

static std::atomic<int> fences;

static void fence(uint32_t, uint32_t event, const void *) {
  if (event != TARVO_ND_EVENT_RESEND_END) return;
  ++fences;
  fences.notify_all();
}

// Requests are handled in order, so a resend's end tells that everything before it is done.
static void wait_for_worker() {
  const int before = fences;
  ASSERT_EQ(tarvo_pe_discovery_resend(99, " fence"), TARVO_ND_OK);
  fences.wait(before);
}

// What was done, without the waits for a lock, which depend on how the threads happen to run.
static std::vector<std::string> taken() {
  std::vector<std::string> lines = w.take();
  std::erase_if(lines, [](const std::string &line) {
    return line.starts_with("block ") || line == "unblock";
  });
  return lines;
}

TEST(Threads, WorkerWakesAndIsCancelledCleanly) {
  w.threaded = true;
  w.start();
  tarvo_pe_discovery_register(99, " fence", fence);
  wait_for_worker();
  w.routes = {"10.0.0.0/8"};
  EXPECT_EQ(std::ranges::count(w.take(), "name mpls_vpn"), 1);
  tarvo_pe_discovery_register(1, nullptr, tell);
  tarvo_nd_enqueue_nhop_update(7, addr("10.0.0.1"), 1);
  wait_for_worker();
  EXPECT_EQ(taken(), (std::vector<std::string>{"tell 1 END", "tell 1 ADD 10.0.0.1 10.0.0.0/8"}));
  pthread_cancel(w.worker);
  void *result = nullptr;
  pthread_join(w.worker, &result);
  EXPECT_EQ(result, PTHREAD_CANCELED);
  EXPECT_EQ(taken(), std::vector<std::string>{"unname"});
}

TEST(Threads, EveryoneAtOnce) {
  w.threaded = true;
  w.routes = {"10.0.0.0/8"};
  w.start();
  constexpr int kRounds = 3000;
  const std::vector<std::function<void(unsigned &)>> kActions = {
      [](unsigned &seed) {
        const uint32_t address = htonl(0x0a000000u + rand_r(&seed) % 20);
        EXPECT_EQ(tarvo_nd_enqueue_nhop_update(1 + rand_r(&seed) % 3, address, rand_r(&seed) % 3),
                  1);
      },
      [](unsigned &seed) {
        tarvo_nd_enqueue_table_update("A", 1 + rand_r(&seed) % 3, rand_r(&seed) % 2);
        if (rand_r(&seed) % 8 == 0) tarvo_nd_enqueue_rib_restart();
      },
      [](unsigned &seed) {
        if (rand_r(&seed) % 2 == 0) {
          tarvo_pe_discovery_register(1, rand_r(&seed) % 2 == 0 ? "A" : nullptr, fence);
        } else {
          tarvo_pe_discovery_unregister(1);
        }
      },
      [](unsigned &) {
        tarvo_nd_nhop_t hop = {};
        tarvo_nd_nhop_table_t ref = {};
        tarvo_nd_vrf_name_copy_t name = {};
        for (uint32_t found = tarvo_nd_first_nhop_by_tableid(2, &hop); found == TARVO_ND_OK;
             found = tarvo_nd_next_nhop_by_tableid(2, hop.info.nhop_addr, &hop)) {
          const uint32_t result = tarvo_nd_first_tableid(hop.info.nhop_addr, &ref, &name);
          EXPECT_STREQ(name.name, result == TARVO_ND_OK && name.known ? "A" : "");
          name = {};
        }
      },
      [](unsigned &) {
        const tarvo_nd_ods_fns_t &ods = tarvoMplsDiscoveryODSFns;
        uint32_t nhop = 0;
        ods_path_t all = {0, TARVO_DISC_ITEM_NHOP, 0, {&nhop, nullptr}};
        ods_path_t one = {0, TARVO_DISC_ITEM_VRF, 0, {&nhop, "A"}};
        ods_list_result_t keys = {}, vrfs = {};
        ods_item_t vrf = {};
        if (ods.list(nullptr, &keys, &all, &all) != 0) return;
        for (uint32_t i = 0; i < keys.count; ++i) {
          nhop = static_cast<uint32_t>(strtoul(ods_list_entry(keys.list, i)->key, nullptr, 16));
          if (ods.get(nullptr, &vrf, &one) == 0) free(vrf.buffer);
          if (ods.datalist(nullptr, &vrfs, &one, &one) != 0) continue;
          while (vrfs.count-- > 0) EXPECT_STREQ(ods_list_entry(vrfs.list, vrfs.count)->key, "A");
          ods_datalist_free(vrfs.list);
        }
        ods_list_free(keys.list);
      },
      [](unsigned &seed) {
        tarvo_nd_set_rib_refresh_interval(rand_r(&seed) % 3 * 20);
        tarvo_nd_get_refresh_interval_remaining();
      },
      [](unsigned &) {
        w.advance(7);
        w.expire();
      },
  };
  std::vector<std::thread> threads;
  for (size_t i = 0; i < kActions.size(); ++i) {
    threads.emplace_back([&, i] {
      unsigned seed = static_cast<unsigned>(i);
      for (int round = 0; round < kRounds; ++round) kActions[i](seed);
    });
  }
  for (std::thread &thread : threads) thread.join();

  tarvo_pe_discovery_register(99, " fence", fence);
  wait_for_worker();
  const std::vector<std::string> did = w.take();
  const auto amiss = [](auto &t) { return t.starts_with("wrong") || t.starts_with("log"); };
  EXPECT_EQ(std::ranges::count_if(did, amiss), 0);
  EXPECT_NE(tarvo_nd_is_active(), 0);
  EXPECT_GE(tarvo_nd_get_refresh_interval_remaining(), 0);
}
