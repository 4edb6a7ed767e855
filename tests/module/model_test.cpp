// The module beside a plain model of it, driven by the same random requests and routes. After every
// request both have done the same in the same order: notifications, RIB calls, timers, messages;
// and both hold the same database, as the queries and the operational data show it. Requests wait
// in the queue while routes and memory come and go, timers expire and the interval is set.
//
// A disagreement prints how to replay it: the same seed, up to the next request. From the
// environment: MODEL_SEED the first seed, MODEL_REQUESTS how many requests from there on,
// MODEL_YEARS how long the refresh cycles last.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "tarvo/discovery.h"
#include "tests/module/model.h"
#include "tests/module/world.h"

namespace {

constexpr double kYear = 365.25 * 86400;
constexpr size_t kMostQueued = 4000;  // then all is handled; a refresh of large worlds brings 3,250

/// What is drawn from, and how often.
struct profile {
  probes drawn;
  std::vector<std::string> routes;
  std::vector<uint32_t> intervals;
  struct {
    unsigned reports;       ///< among 1000 requests
    unsigned time_in;       ///< one draw in so many lets time pass,
    unsigned most_seconds;  ///< up to this
    unsigned rib_routes;    ///< routes that the RIB knows of a table, at most
    unsigned clients;       ///< registrations that it wants at most: now more, now none
    uint64_t view_every;    ///< requests between two looks at the whole database
  } often;
};

std::vector<uint32_t> scattered(uint32_t count) {
  std::vector<uint32_t> hosts;
  for (uint32_t i = 0; i < count; ++i) hosts.push_back(0x0a000000 | (i * 0x9e3779b1) >> 8);
  return hosts;
}

// The ends of the address space, and neighbours that a wrong byte order or a text order confuses.
const std::vector<uint32_t> kFewHosts = {0,          0x09ffffff, 0x0a000002, 0x0a000003,
                                         0x0a00000a, 0x0a010000, 0x80000001, 0xffffffff};
const std::vector<std::string> kNames = {
    "", "A", "B", std::string(243, 'v'), std::string(244, 'v'), std::string(250, 'v')};

const profile kSmall = {{kFewHosts, {0, 1, 2, 3, 0xe0000000, 0xffffffff}, kNames},
                        {"0.0.0.0/0", "10.0.0.0/8", "10.0.0.0/24", "10.0.0.3/32", "128.0.0.0/1"},
                        {0, 1, 2, 5, 28, 29, 57, 58, 300, 0xffffffff},
                        {500, 3, 40, 3, 6, 1}};
const profile kLarge = {{scattered(700), {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}, kNames},
                        {"10.0.0.0/9", "10.64.0.0/10", "10.128.0.0/9"},
                        {2, 60, 300},
                        {985, 60, 100, 250, 8, 256}};
const profile kCycles = {{kFewHosts, {0, 1, 2}, {"", "A", "B"}},
                         {"10.0.0.0/8", "0.0.0.0/0"},
                         {300},
                         {700, 1, 14400, 6, 8, 256}};

// The calls that may find no memory: for a request, next hops, tables, clients, all of discovery.
const std::vector<consequence> kShortages = [] {
  std::vector<consequence> calls = consequences();
  std::erase_if(calls, [](const consequence &c) { return c.effect != "loss" || c.told.empty(); });
  return calls;
}();

class Random {
 public:
  explicit Random(uint64_t seed) : engine_(seed) {}
  unsigned below(unsigned n) { return static_cast<unsigned>(engine_() % n); }
  bool one_in(unsigned n) { return below(n) == 0; }
  template <typename T>
  const T &of(const std::vector<T> &values) {
    return values[below(static_cast<unsigned>(values.size()))];
  }

 private:
  std::mt19937_64 engine_;
};

template <typename Set, typename Value>
void toggle(Set &set, const Value &value) {
  if (set.erase(value) == 0) set.insert(value);
}

/// Module and model side by side.
class pair_of {
 public:
  pair_of(const profile &p, uint64_t seed, uint64_t requests)
      : p_(p), pick_(seed), seed_(seed), limit_(requests) {
    w.for_good = true;
    EXPECT_EQ(w.start(), TARVO_ND_OK);
    w.take();
  }

  void play(double seconds) {
    const auto end = static_cast<int64_t>(seconds * 1e9);
    while (going_on() && model_.now < end) {
      change_surroundings();
      for (unsigned i = pick_.below(4); i > 0; --i) offer();
      if (pick_.one_in(60)) set_interval();
      if (pick_.one_in(p_.often.time_in)) pass(pick_.below(p_.often.most_seconds * 10));
      handle_some();
    }
    printf("%lu requests, %lu notifications, %lu deactivations, limit met %lu times, %.2f years\n",
           handled_, told_, deactivations_, limit_met_,
           static_cast<double>(model_.now) / 1e9 / kYear);
    if (testing::Test::HasFailure())
      printf("request %lu, of kind %d; replay: MODEL_SEED=%lu MODEL_REQUESTS=%lu\n", handled_,
             kind_, seed_, handled_ + 1);
  }

 private:
  const profile &p_;
  Random pick_;
  const uint64_t seed_, limit_;
  uint64_t handled_ = 0;
  int kind_ = -1;  // of the last request
  unsigned most_clients_ = 1;
  uint64_t told_ = 0, limit_met_ = 0, deactivations_ = 0;
  model model_;

  bool going_on() const { return handled_ < limit_ && !testing::Test::HasFailure(); }

  void change_surroundings() {
    if (pick_.one_in(8)) toggle(w.routes, pick_.of(p_.routes));
    if (pick_.one_in(20)) {
      w.refused.clear();
      for (unsigned n = pick_.below(3); n > 0; --n) w.refused.insert(pick_.of(p_.drawn.tables));
    }
    if (pick_.one_in(20)) {
      model_.starved = pick_.one_in(8) ? pick_.of(kShortages).call : "";
      w.fail_next(model_.starved);
    }
    if (pick_.one_in(20)) w.withdraws = !w.withdraws;
    if (pick_.one_in(20)) {
      auto &routes = w.rib[pick_.of(p_.drawn.tables)];
      routes.clear();
      for (unsigned n = pick_.below(p_.often.rib_routes + 1); n > 0; --n)
        routes.push_back(pick_.of(p_.drawn.hosts));
    }
  }

  void offer() {
    request r;
    r.id = pick_.of(p_.drawn.tables);
    r.add = !pick_.one_in(3);
    r.name = pick_.of(p_.drawn.names);
    const char *name = r.name.empty() && pick_.one_in(2) ? nullptr : r.name.c_str();
    const unsigned what = pick_.below(10);
    bool queued = false;
    if (pick_.below(1000) < p_.often.reports) {
      r.what = request::report;
      r.host = pick_.of(p_.drawn.hosts);
      queued = tarvo_nd_enqueue_nhop_update(r.id, htonl(r.host), r.add ? 5 : 0) == 1;
    } else if (what < 5 && wants_client()) {
      r.what = request::client_reg;
      queued = accepted(tarvo_pe_discovery_register(r.id, name, tell));
    } else if (what < 5) {
      r.what = request::client_unreg;
      if (pick_.one_in(2)) r.id = model_.some_client(r.id);
      queued = accepted(tarvo_pe_discovery_unregister(r.id));
    } else if (what < 7) {
      r.what = request::table;
      queued = tarvo_nd_enqueue_table_update(name, r.id, r.add) == 1;
    } else if (what < 9) {
      r.what = request::resend;
      queued = accepted(tarvo_pe_discovery_resend(r.id, name));
    } else {
      r.what = request::restart;
      queued = tarvo_nd_enqueue_rib_restart() == 1;
    }
    EXPECT_EQ(queued, model_.offer(r));
  }

  // Discovery begins and ends by what clients there are.
  bool wants_client() {
    if (pick_.one_in(10)) most_clients_ = pick_.below(p_.often.clients + 1);
    return pick_.below(most_clients_ + 1) > model_.clients();
  }

  static bool accepted(uint32_t code) {
    EXPECT_TRUE(code == TARVO_ND_OK || code == TARVO_ND_ERR_NOMEM) << hex(code);
    return code == TARVO_ND_OK;
  }

  void set_interval() {
    const uint32_t interval = pick_.of(p_.intervals);
    tarvo_nd_set_rib_refresh_interval(interval);
    model_.set_interval(interval);
    agree();
  }

  // Expiries at their time by the model's clock; at the end nothing else must have been due. Or the
  // event is late, and what is due stays so for some turns.
  void pass(int64_t tenths) {
    const int64_t end = model_.now + tenths * 100000000;
    const bool late = pick_.one_in(16);
    while (going_on() && !late && model_.timer_runs() && model_.deadline <= end) {
      w.now = model_.now = std::max(model_.now, model_.deadline);
      expire();
      handle_some();
    }
    if (!going_on()) return;
    w.now = model_.now = end;
    if (!late) expire();
  }

  void expire() {
    w.expire();
    model_.expire();
    agree();
  }

  // Any share of what is queued, or all.
  void handle_some() {
    const size_t queued = model_.queue.size();
    const bool all = pick_.one_in(3) || queued > kMostQueued;
    handle(all ? SIZE_MAX : pick_.below(static_cast<unsigned>(queued) + 1));
  }

  void handle(size_t most) {
    for (; most > 0 && going_on() && !model_.queue.empty(); --most) {
      kind_ = model_.queue.front().what;
      const bool active = model_.held.active;
      model_.step();
      EXPECT_TRUE(w.step()) << "a request is lost";
      ++handled_;
      deactivations_ += active && !model_.held.active;
      agree();
    }
    if (going_on() && model_.queue.empty()) {
      EXPECT_FALSE(w.step()) << "a request too many";
    }
  }

  void agree() {
    EXPECT_EQ(w.did, model_.did);
    for (const std::string &line : w.did) {
      told_ += line.starts_with("tell");
      limit_met_ += line.starts_with("log 6");
    }
    w.did.clear();
    model_.did.clear();
    if (handled_ % p_.often.view_every != 0) return;
    model_.held.seconds_left = model_.seconds_left();
    probes ask = p_.drawn;
    if (p_.often.view_every > 1) ask.hosts = {pick_.of(ask.hosts), pick_.of(ask.hosts)};
    EXPECT_EQ(view_of_module(ask), view_of(model_.held, ask));
    expect_nothing_else_is_kept(model_.held, model_.queue.size());
  }
};

double from_environment(const char *name, double otherwise) {
  const char *value = getenv(name);
  return value == nullptr ? otherwise : strtod(value, nullptr);
}

void play(const profile &p, uint64_t seed, uint64_t requests, double seconds) {
  const char *const test = testing::UnitTest::GetInstance()->current_test_info()->name();
  printf("seed %lu of %s: ", seed, test);  // first, should the rest never end
  const ended child = in_child([&] { pair_of(p, seed, requests).play(seconds); });
  EXPECT_EQ(child.status, 0) << child.output;
  printf("%s", child.output.c_str());
}

// In pieces, so that a replay never takes long; each from a fresh module. Without a seed given, the
// first half is the same every time.
void play_all(const profile &p, double requests, double years) {
  constexpr double kMostRequests = 500000, kMostYears = 0.25;
  const double given = from_environment("MODEL_SEED", -1);
  uint64_t seed = given < 0 ? 1 : static_cast<uint64_t>(given);
  double share = given < 0 ? 0.5 : 1;
  requests = from_environment("MODEL_REQUESTS", requests);
  while (requests >= 1 && years > 0 && !testing::Test::HasFailure()) {
    const double most = std::min(requests * share, kMostRequests);
    const double length = std::min(years * share, kMostYears);
    play(p, seed, static_cast<uint64_t>(most), length * kYear);
    requests -= most;
    years -= length;
    seed = share < 1 ? std::random_device{}() : seed + 1;
    share = 1;
  }
}

}  // namespace

constexpr double kAny = HUGE_VAL;

TEST(Model, AgreesInSmallWorlds) { play_all(kSmall, SANITIZED ? 7500 : 60000, kAny); }

TEST(Model, AgreesInLargeWorlds) { play_all(kLarge, SANITIZED ? 25000 : 200000, kAny); }

TEST(Model, AgreesOverYearsOfRefreshCycles) {
  play_all(kCycles, kAny, from_environment("MODEL_YEARS", 0.5));
}
