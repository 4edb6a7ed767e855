// Every allocation and every call of the platform fails in turn: a standard scenario is run once to
// count the calls, then once for each call with that one failing, and once with it and all later
// calls of its operation failing. Each run is a process of its own.
//
// A failure has its message and code, and does no harm: what the module holds is what it shows and
// what its clients were told; nothing is kept that is not held. When the call works again, the
// agent asks again for what it was refused, and a refresh brings database and clients to where they
// are without the failure. Then all is taken down, and the scenario runs as if nothing had been.
//
// Under a sanitizer most mutex calls are left out, unless FAULTS_ALL is set; ThreadSanitizer then
// needs TSAN_OPTIONS=report_mutex_bugs=0, as it reports the unlocking of a lock that failed.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <set>

#include "engine/shared_words.h"
#include "engine/timers.h"
#include "tarvo/discovery.h"
#include "tarvo/oper_records.h"
#include "tests/module/database_view.h"
#include "tests/module/world.h"

namespace {

/// An agent that knows what it wants, what its clients were told, and what the module refused it.
class agent {
 public:
  texts record;  ///< what the module did but for messages, and its views ("= ...")
  texts messages;
  bool answers_fail = false;

  void announce(uint32_t table, const char *name) {
    tables_[table] = name;
    tarvo_nd_enqueue_table_update(name, table, 1);
    done();
  }
  void withdraw(uint32_t table) {
    if (tarvo_nd_enqueue_table_update("", table, 0) == 0) withdrawing_.insert(table);
    tables_.erase(table);
    done();
  }
  void join(uint32_t id, const char *vrf) {
    clients_[id] = {vrf, false, {}};
    tarvo_pe_discovery_register(id, vrf, tell);
    done();
  }
  void leave(uint32_t id) {
    if (tarvo_pe_discovery_unregister(id) == TARVO_ND_OK) {
      clients_.erase(id);
    } else {
      leaving_.insert(id);
    }
    done();
  }
  // All records or none, once. A registration that fails at its end stays open.
  void register_records() {
    uint32_t code = 0;
    if (bag_registered_count() == 0) code = bag_register_all_manageability_tarvo_oper_bags(&w);
    if (code != 0 && w.failed.back() == "bag_register_end") bag_register_abort();
    EXPECT_EQ(bag_registered_count(), code == 0 ? 26u : 0u);
    record.push_back("registration " + hex(code));
  }
  // The RIB tells of a change where it was asked to.
  void route(uint32_t table, uint32_t hop, bool add) {
    auto &hops = w.rib[table];
    if (add) {
      hops.push_back(hop);
    } else {
      hops.erase(std::ranges::find(hops, hop));
    }
    const database held = held_by_module();
    if (held.active && held.vrfs.contains(table))
      tarvo_nd_enqueue_nhop_update(table, htonl(hop), add);
    done();
  }
  void pass(int seconds) {
    for (; seconds > 0; --seconds) {
      w.now += 1000000000;
      w.expire();
      if (!w.did.empty()) done();
    }
    done();
  }

  // Takes down what was done, and looks whether it hangs together.
  void done() {
    w.run();
    for (const std::string &line : w.take()) {
      const texts word = split(line, " ");
      if (word[0] == "log" || word[0] == "lstrace") {
        messages.push_back(line);
      } else if (word[0] == "wrong:") {
        ADD_FAILURE() << line;
      } else if (word[0] != "block" && word[0] != "trace") {
        record.push_back(line);
      }
      if (word[0] == "tell") hear(word);
    }
    database held = held_by_module();
    for (const auto &[id, client] : clients_)
      if (client.ended) held.clients[client.vrf].push_back(id);
    expect_nothing_else_is_kept(held, 0);
    for (auto &[id, client] : clients_) {
      if (!held.active) client.told.clear();
      const auto expected = client.ended ? held.reachable(client.vrf) : routes();
      EXPECT_EQ(client.told, expected) << "client " << id;
    }
  }

  void look() {
    done();
    database held = held_by_module();
    held.seconds_left = tarvo_nd_get_refresh_interval_remaining();
    const probes ask = {{host("10.0.0.2"), host("10.9.9.9")}, {0, 7}, {"A", "B"}};
    const std::string seen = view_of_module(ask);
    EXPECT_TRUE(answers_fail || seen == view_of(held, ask)) << seen << "\n" << view_of(held, ask);
    for (const std::string &line : split(seen, "\n")) record.push_back("= " + line);
    done();
  }

  // Asks again for what was refused or lost, as an agent would, and waits for a refresh.
  void settle() {
    for (const uint32_t id : std::exchange(leaving_, {})) leave(id);
    for (const uint32_t table : std::exchange(withdrawing_, {})) withdraw(table);
    for (const auto &[table, name] : std::map(tables_)) announce(table, name.c_str());
    for (const auto &[id, client] : std::map(clients_))
      if (!client.ended) join(id, client.vrf.c_str());
    if (tarvo_nd_is_active() == 0 && !clients_.empty()) {
      join(99, "");  // a registration tries the activation again
      leave(99);
    }
    tarvo_nd_set_rib_refresh_interval(300);
    pass(300);
    record.push_back("settled");
    for (const auto &[id, client] : clients_)
      for (const auto &[hop, told] : client.told)
        record.push_back(std::to_string(id) + " knows " + dotted(hop) + " " + told);
  }

  void take_down() {
    for (const auto &[id, client] : std::map(clients_)) leave(id);
    for (const auto &[table, name] : std::map(tables_)) withdraw(table);
    EXPECT_EQ(tarvo_nd_is_active(), 0);
    EXPECT_TRUE(held_by_module().vrfs.empty());
  }

 private:
  using routes = std::map<uint32_t, std::string>;  // by next hop
  struct registration {
    std::string vrf;
    bool ended;   // told END: it is registered
    routes told;  // added and not removed
  };
  std::map<uint32_t, registration> clients_;
  std::map<uint32_t, std::string> tables_;
  std::set<uint32_t> leaving_, withdrawing_;  // not queued yet

  // "tell CLIENT EVENT", for a next hop "NEXT-HOP ROUTE" too.
  void hear(const texts &word) {
    registration &to = clients_[static_cast<uint32_t>(std::stoi(word[1]))];
    if (word.size() == 3) {
      to.ended = true;
      return;
    }
    const uint32_t hop = host(word[3].c_str());
    if (word[2] == "REMOVE") {
      EXPECT_EQ(to.told[hop], word[4]) << "withdrawn otherwise than announced";
      to.told.erase(hop);
    } else {
      to.told[hop] = word[4];
    }
  }
};

// From nothing to a second activation.
void scenario(agent &a) {
  a.register_records();
  tarvo_nd_set_rib_refresh_interval(300);
  w.routes = {"10.0.0.0/8", "10.2.0.0/16"};
  w.rib = {{7, {host("10.0.0.1"), host("10.0.0.2"), host("10.0.0.2")}},
           {9, {host("10.0.0.2"), host("11.0.0.1")}},
           {11, {host("10.2.0.1")}}};
  a.announce(7, "A");
  a.announce(9, "B");
  a.join(1, "");
  a.join(2, "A");
  a.join(3, "B");
  a.join(4, "C");
  a.announce(11, "C");
  a.route(7, host("10.0.0.5"), true);
  a.route(7, host("10.0.0.2"), false);
  a.route(9, host("10.0.0.1"), true);
  a.look();

  // A refresh that finds routes changed, gone and come, and a report lost on the way.
  w.routes = {"10.0.0.0/24", "11.0.0.0/8"};
  w.rib[9].erase(w.rib[9].begin());
  a.pass(271);
  a.pass(29);
  a.look();

  tarvo_nd_set_rib_refresh_interval(20);
  tarvo_nd_enqueue_rib_restart();
  a.pass(10);
  tarvo_pe_discovery_resend(2, "A");
  tarvo_pe_discovery_resend(1, nullptr);
  a.done();
  a.withdraw(9);
  a.leave(3);
  a.look();

  for (const uint32_t id : {2, 4, 1}) a.leave(id);
  a.look();
  a.join(5, "");
  a.join(6, "A");
  a.look();
}

/// The calls of an operation from the `nth` on fail, or that one alone.
struct fault {
  std::string operation;
  int nth;
  bool for_good;
};

// The scenario under failures, from "settled" on without.
texts run(agent &a) {
  scenario(a);
  w.fail.clear();
  w.counting = false;
  a.answers_fail = false;
  const auto messages = a.messages.size();
  a.settle();
  a.look();
  a.take_down();
  scenario(a);
  a.take_down();
  // What a failed unlock has left behind is met by whoever locks next.
  const bool unlock = !w.failed.empty() && w.failed[0].starts_with("pthread_mutex_unlock");
  EXPECT_LE(a.messages.size(), messages + (unlock ? 2 : 0)) << "still failing";
  return a.record;
}

texts settled(const texts &record) { return {std::ranges::find(record, "settled"), record.end()}; }

// One answer is the code for its kind; for good, so are all later ones of its kind that had found
// something. Nothing else differs.
void expect_answers(const texts &record, const texts &reference, bool for_good,
                    const std::string &codes) {
  static const std::set<std::string> kLists = {"= page", "= names", "= data"};
  ASSERT_EQ(record.size(), reference.size());
  std::set<std::string> refused;
  for (size_t i = 0; i < record.size(); ++i) {
    const std::string kind = reference[i].substr(0, reference[i].find(' ', 2));
    const bool found = !reference[i].starts_with(kind + " 0x4");
    if (record[i] == reference[i]) {
      EXPECT_FALSE(found && for_good && refused.contains(kind)) << record[i] << " does not fail";
      if (record[i] == "settled") refused.clear();
      continue;
    }
    EXPECT_EQ(record[i],
              kind + " " + codes.substr(kLists.contains(kind) ? codes.size() - 10 : 0, 10));
    refused.insert(kind);
  }
}

// The messages of the calls that failed, each as often as it should be.
void expect_messages(texts told) {
  texts expected;
  for (const std::string &call : w.failed) {
    const consequence *r = consequence_of(call);
    ASSERT_NE(r, nullptr) << call;
    expected.insert(expected.end(), r->told.begin(), r->told.end());
  }
  // A lock that could not be released is met again by whoever wants it next.
  if (w.failed[0].starts_with("pthread_mutex_unlock"))
    std::erase_if(told, [](auto &t) { return t.ends_with("35:Resource deadlock avoided"); });
  std::ranges::sort(told);
  std::ranges::sort(expected);
  EXPECT_EQ(told, expected);
}

void inject(const fault &f, const texts &reference) {
  w.error = 22;
  w.for_good = f.for_good;
  w.fail = {{f.operation, f.nth}};
  if (f.operation == "pthread_mutex_lock")
    w.fail = {{"pthread_mutex_trylock", f.nth}, {f.operation, 1}};
  const uint32_t code = w.start();
  if (code != TARVO_ND_OK) {
    const consequence *r = consequence_of(w.failed.at(0));
    ASSERT_TRUE(r != nullptr && r->effect == "no start") << w.failed[0];
    EXPECT_EQ(hex(code), r->code);
    // The agent starts once: after this nobody calls in, and what was made stays. No more to see.
    EXPECT_EQ(w.take(), r->told) << "and no table is registered";
    sigset_t blocked;
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    EXPECT_EQ(sigismember(&blocked, SIGRTMIN + 6), f.operation == "pthread_create");
    return;
  }
  agent a;
  a.answers_fail = f.operation.starts_with("ods_") || f.operation.starts_with("bag_");
  const texts record = run(a);
  ASSERT_FALSE(w.failed.empty());
  expect_messages(a.messages);
  const consequence &r = *consequence_of(w.failed.back());
  if (r.effect == "answer") expect_answers(record, reference, f.for_good, r.code);
  EXPECT_TRUE(r.effect != "none" || record == reference);
  EXPECT_TRUE(r.effect != "death" && r.effect != "no start") << r.call;
  EXPECT_EQ(settled(record), settled(reference));
}

void expect_harmless(const fault &f, const consequence &of, const texts &reference) {
  const ended child = in_child([&] { inject(f, reference); });
  if (of.effect == "death" && WIFSIGNALED(child.status) && WTERMSIG(child.status) == SIGABRT &&
      child.output == "locked: " + of.told.at(0) + "\n")
    return;
  EXPECT_EQ(child.status, 0) << f.operation << " " << f.nth << (f.for_good ? " and later" : "")
                             << "\n"
                             << child.output;
}

}  // namespace

TEST(Faults, EachFailureIsToldAndSurvived) {
  // The reference comes out of a child too, line by line.
  texts reference;
  std::map<std::string, texts> calls;  // by operation, with their objects
  std::set<std::string> made;
  const ended child = in_child([] {
    w.counting = true;
    EXPECT_EQ(w.start(), TARVO_ND_OK);
    agent a;
    const texts record = run(a);
    EXPECT_EQ(a.messages, texts{});
    for (const std::string &call : w.calls) printf("- %s\n", call.c_str());
    for (const std::string &line : record) printf("> %s\n", line.c_str());
  });
  ASSERT_EQ(child.status, 0) << child.output;
  for (const std::string &line : split(child.output, "\n")) {
    if (line.empty()) continue;
    const std::string text = line.substr(line.find(' ') + 1);
    if (line[0] == '>') {
      reference.push_back(text);
      continue;
    }
    EXPECT_NE(consequence_of(text), nullptr) << "what " << text << " leads to is not said";
    made.insert(text);
    calls[text.substr(0, text.find(' '))].push_back(text);
  }
  // A lock is asked for only where the trylock failed.
  calls["pthread_mutex_lock"] = calls["pthread_mutex_trylock"];
  for (const consequence &r : consequences())
    EXPECT_TRUE(made.contains(r.call) || r.call.starts_with("pthread_mutex_lock"))
        << r.call << " is not reached";

  const bool all = getenv("FAULTS_ALL") != nullptr;
  int points = 0;
  for (const auto &[operation, made_for] : calls) {
#ifdef __SANITIZE_THREAD__
    if (!all && operation.starts_with("pthread_mutex")) continue;
#endif
    printf("%s: %zu calls\n", operation.c_str(), made_for.size());
    // A sanitizer takes ten times as long, and has little to see in the many calls of threads.
    const int step = SANITIZED && !all && operation.starts_with("pthread_mutex") ? 10 : 1;
    for (int nth = 1; nth <= static_cast<int>(made_for.size()); nth += step, ++points) {
      const consequence &of = *consequence_of(made_for[nth - 1]);
      expect_harmless({operation, nth, false}, of, reference);
      expect_harmless({operation, nth, true}, of, reference);
      if (HasFailure()) return;
    }
  }
  printf("%d injection points, each once and for good\n", points);
}
