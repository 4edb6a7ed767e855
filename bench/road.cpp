// The module's whole road, from a report to its notification, beside the least that could do it.
//
// The other is a queue behind a mutex and a condition, one worker, and std::map for the next hops,
// for the tables of each, for the VRFs and for their clients: the same lookups, counts and
// notifications, without the module's bounds, guarded locks, diagnostics and trees for hosts of C.
// Its requests are records of a fixed size, as the module's are, with room for a VRF's name; beside
// it stands the same with short names, to show what the size of the record costs.
// Producers keep a window of routes: each report adds a route, or withdraws the oldest. A round
// ends when the worker has handled all of it; rounds take turns, and both must have notified alike.
#include <arpa/inet.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <random>
#include <semaphore>
#include <string>
#include <thread>
#include <vector>

#include "engine/work_request.h"
#include "platform/event.h"
#include "tarvo/agent_services.h"
#include "tarvo/discovery.h"

namespace {

constexpr uint32_t kVrfs = 100, kPes = 400;
constexpr uint32_t kFenceClient = kVrfs + 1;
constexpr char kFenceVrf[] = "no such VRF";
constexpr uint32_t kCovering = 0x0aff0000;  // 10.255.0.0/16, the global table's one route

struct report {
  uint32_t table;
  uint32_t nexthop;  // network byte order
  bool add;
};

uint64_t notified;  // by the worker of whose turn it is
std::binary_semaphore done(0);

void on_event(uint32_t, uint32_t event, const void *) {
  if (event == TARVO_ND_EVENT_RESEND_END)
    done.release();
  else if (event != TARVO_ND_EVENT_END)
    ++notified;
}

bool resolve(tarvo_nd_nhop_info_t *info) {
  if ((ntohl(info->nhop_addr) & 0xffff0000) != kCovering) return false;
  info->prefix = htonl(kCovering);
  info->prefix_len = 16;
  return true;
}

std::string vrf_name(uint32_t table) { return "VRF-" + std::to_string(table); }

// ---- The other road ----

/// `name_size`: of the VRF name in a request.
template <size_t name_size>
class bare_road {
 public:
  bare_road() {
    for (uint32_t table = 1; table <= kVrfs; ++table) {
      vrfs_[table] = vrf_name(table);
      watchers_[vrf_name(table)] = {{table, on_event}};
    }
    std::thread([this] { work(); }).detach();  // like the module's, it lasts as long as the process
  }
  void report_route(const report &r) { enqueue({request::kRoute, r, {}}); }
  void fence() {
    request resend{request::kResend, {}, {}};
    memcpy(resend.vrf, kFenceVrf, sizeof kFenceVrf);
    enqueue(resend);
  }

 private:
  struct request {
    enum { kRoute, kResend } type;
    report route;
    char vrf[name_size];
  };
  struct client {
    uint32_t id;
    tarvo_nd_notify_fn notify;
  };
  struct next_hop {
    tarvo_nd_nhop_info_t info{};
    bool reachable = false;
    std::map<uint32_t, uint32_t> tables;  // routes by table
  };

  void enqueue(const request &r) {
    {
      std::lock_guard hold(queue_lock_);
      queue_.push_back(r);
    }
    queued_.notify_one();
  }

  void work() {
    for (;;) {
      std::unique_lock hold(queue_lock_);
      queued_.wait(hold, [this] { return !queue_.empty(); });
      const request next = queue_.front();
      queue_.pop_front();
      hold.unlock();
      std::lock_guard database(lock_);
      if (next.type == request::kResend)
        on_event(kFenceClient, TARVO_ND_EVENT_RESEND_END, nullptr);
      else
        next.route.add ? add(next.route) : remove(next.route);
    }
  }

  static void tell(const std::vector<client> &clients, const next_hop &of, bool add) {
    for (const client &c : clients)
      c.notify(c.id, add ? TARVO_ND_EVENT_ADD : TARVO_ND_EVENT_REMOVE, &of.info);
  }
  void tell_watchers(uint32_t table, const next_hop &of, bool add) {
    if (!of.reachable) return;
    const auto vrf = vrfs_.find(table);
    if (vrf == vrfs_.end()) return;
    const auto clients = watchers_.find(vrf->second);
    if (clients != watchers_.end()) tell(clients->second, of, add);
  }

  void add(const report &r) {
    auto [found, fresh] = next_hops_.try_emplace(ntohl(r.nexthop));
    next_hop &hop = found->second;
    hop.info.nhop_addr = r.nexthop;
    if (!hop.reachable && resolve(&hop.info)) {
      hop.reachable = true;
      tell(all_vpns_, hop, true);
    }
    if (++hop.tables[r.table] == 1) tell_watchers(r.table, hop, true);
  }
  void remove(const report &r) {
    const auto found = next_hops_.find(ntohl(r.nexthop));
    if (found == next_hops_.end()) return;
    next_hop &hop = found->second;
    const auto routes = hop.tables.find(r.table);
    if (routes == hop.tables.end() || --routes->second > 0) return;
    tell_watchers(r.table, hop, false);
    hop.tables.erase(routes);
    if (!hop.tables.empty()) return;
    if (hop.reachable) tell(all_vpns_, hop, false);
    next_hops_.erase(found);
  }

  std::mutex queue_lock_, lock_;
  std::condition_variable queued_;
  std::deque<request> queue_;
  std::map<uint32_t, next_hop> next_hops_;
  std::map<uint32_t, std::string> vrfs_;
  std::map<std::string, std::vector<client>> watchers_;
  std::vector<client> all_vpns_ = {{0, on_event}};
};

// ---- The module's road ----

const tarvo_nd_rib_fns_t *rib;
const tarvo_nd_ital_fns_t *tables;

bool start_module() {
  void *events = event_mgr_create();
  if (events == nullptr || tarvo_nd_init(events) != TARVO_ND_OK) return false;
  std::thread([events] { event_mgr_dispatch(events); }).detach();
  tarvo_pe_discovery_register(0, nullptr, on_event);
  tarvo_pe_discovery_register(kFenceClient, kFenceVrf, on_event);
  for (uint32_t table = 1; table <= kVrfs; ++table) {
    tables->table_update(vrf_name(table).c_str(), table, 1);
    tarvo_pe_discovery_register(table, vrf_name(table).c_str(), on_event);
  }
  return true;
}

struct module_road {
  void report_route(const report &r) { rib->nhop_update(r.table, r.nexthop, r.add); }
  void fence() { tarvo_pe_discovery_resend(kFenceClient, kFenceVrf); }
};

// ---- Rounds ----

// Each producer has PEs of its own, so that however they mix, the notifications are as many.
std::vector<report> make_reports(uint32_t producer, uint32_t producers, uint32_t count,
                                 uint32_t window) {
  std::mt19937 random(producer);
  std::vector<report> reports;
  std::deque<report> present;
  while (reports.size() + present.size() < count) {
    if (present.size() == window) {
      reports.push_back(present.front());
      present.pop_front();
    }
    const uint32_t pe = random() % (kPes / producers) * producers + producer;
    reports.push_back({1 + uint32_t(random() % kVrfs), htonl(kCovering + 1 + pe), true});
    present.push_back({reports.back().table, reports.back().nexthop, false});
  }
  reports.insert(reports.end(), present.begin(), present.end());
  return reports;
}

using work = std::vector<std::vector<report>>;

/// Reports a second.
template <typename Road>
double run(Road &road, const work &of) {
  size_t count = 0;
  const auto start = std::chrono::steady_clock::now();
  {
    std::vector<std::jthread> producers;
    for (const std::vector<report> &reports : of) {
      count += reports.size();
      producers.emplace_back([&] {
        for (const report &r : reports) road.report_route(r);
      });
    }
  }
  road.fence();
  done.acquire();
  return double(count) /
         std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double median(std::vector<double> values) {
  std::ranges::sort(values);
  return values[values.size() / 2];
}

template <typename Bare>
bool compare(const char *name, module_road &module, Bare &bare, uint32_t producers,
             uint32_t reports, uint32_t rounds) {
  work of;
  for (uint32_t p = 0; p < producers; ++p)
    of.push_back(make_reports(p, producers, reports / producers, reports / producers / 2));
  std::vector<double> ours, theirs;
  for (uint32_t round = 0; round <= rounds; ++round) {
    notified = 0;
    ours.push_back(run(module, of));
    const uint64_t by_module = std::exchange(notified, 0);
    theirs.push_back(run(bare, of));
    if (notified != by_module || notified == 0)
      return fprintf(stderr, "road: %lu notifications and %lu\n", by_module, notified), false;
  }
  ours.erase(ours.begin());  // the first round warms up
  theirs.erase(theirs.begin());
  printf("%s/%u\t%.0f\t%.0f\n", name, producers, median(ours), median(theirs));
  return true;
}

}  // namespace

// ---- What the module asks of its host ----

int tarvo_rib_cb_fn_set(const tarvo_nd_rib_fns_t *fns) { return rib = fns, 0; }
int tarvo_ital_cb_fn_set(const tarvo_nd_ital_fns_t *fns) { return tables = fns, 0; }
int tarvoDiscoverySetODSFns(const tarvo_nd_ods_fns_t *) { return 0; }
int tarvo_cfg_cb_fn_set(const tarvo_nd_cfg_fns_t *) { return 0; }
int tarvo_rib_ipv4_get_prefix_route(tarvo_nd_nhop_info_t *info) { return resolve(info) ? 0 : -1; }
int tarvo_rib_ipv4_redist(uint32_t, int) { return 0; }
int tarvo_rib_ipv4_redist_reset(uint32_t) { return 0; }
uint32_t rtab_c_tbl_id_ipv4_ucast_dflt() { return 0xffffffff; }
void tarvo_sa_lstrace(uint64_t, uint64_t, const char *, uint32_t, ...) {}
void tarvo_sa_debug(uint32_t, uint32_t, const char *, ...) {}

int main(int argc, char **argv) {
  CLI::App app("Reports a second on the module's road and on a bare one, by producers.");
  uint32_t reports = 400000, rounds = 9;
  app.add_option("--reports", reports, "in a round")->capture_default_str();
  app.add_option("--rounds", rounds, "of which the median counts")->capture_default_str();
  CLI11_PARSE(app, argc, argv);

  if (!start_module()) return fprintf(stderr, "road: the module doesn't start\n"), 1;
  static module_road module;
  // Their workers outlive main().
  static auto &bare = *new bare_road<sizeof(vrf_name_t)>;
  static auto &small = *new bare_road<sizeof kFenceVrf>;
  for (const uint32_t producers : {1, 2, 4})
    if (!compare("road", module, bare, producers, reports, rounds)) return 1;
  if (!compare("small-requests", module, small, 1, reports, rounds)) return 1;
}
