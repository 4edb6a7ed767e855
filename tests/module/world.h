// The module's world in the tests: a fake agent, fake timers and a recording of everything that
// the module does to its surroundings, around the platform's real queues, pools, trees and lists.
//
// The worker is single-stepped: run() handles every queued request on the calling thread and stops
// when the worker would wait. With `threaded` set before start(), the real thread runs instead.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "tarvo/discovery.h"

using texts = std::vector<std::string>;

struct world {
  /// Everything the module did, in order, as text: "tell 1 ADD 10.0.0.1 10.0.0.0/8",
  /// "rib on 7", "start refresh 271", "log 4 ERR_MEM During mallocing ...", "trace 13/1 DISC: ...".
  /// What it must not do is "wrong: ...", so that it spoils every expectation.
  texts did;

  /// The RIB: covering prefixes ("10.0.0.0/8"), tables it refuses to switch, and by table the next
  /// hops that it reports at once when asked for its routes.
  std::set<std::string> routes;
  std::set<uint32_t> refused;
  std::map<uint32_t, std::vector<uint32_t>> rib;
  bool withdraws = false;  ///< the RIB withdraws them when a table is switched off

  /// The n-th call of an operation fails (for thread calls: with `error`), and so do later ones
  /// when `for_good`. "chunk_malloc", or with the object: "chunk_malloc PE Discovery NHop Chunk".
  std::map<std::string, int, std::less<>> fail;
  bool for_good = false;
  int error = 11;
  texts failed;  ///< the calls that failed, with their objects
  /// While `counting`, the calls that can fail, with their objects.
  texts calls;
  bool counting = false;

  std::atomic<int64_t> now = 0;  ///< fake time, nanoseconds
  bool threaded = false;
  pthread_t worker = {};
  void *workq_pool = nullptr;                ///< the first pool of all
  std::atomic<int> handled = 0, purged = 0;  ///< work requests that left the queue
  std::recursive_mutex guard;                ///< for what is recorded, when threads run

  uint32_t start();  ///< tarvo_nd_init
  void run();
  /// One request. False when there was none, and the worker would wait.
  bool step();
  void client(uint32_t id, const char *vrf = nullptr);
  void expire();  ///< delivers the timer event
  /// The longest route that covers an address; empty when there is none.
  std::string route_to(uint32_t host) const;
  /// What was done since the last call.
  texts take();

  /// Whether this call of an operation, on an object of that name, is to fail. Null: not ours.
  bool failing(const char *operation, const char *object = "");
  /// Makes the n-th call from now fail; none for an empty name.
  void fail_next(const std::string &operation, int nth = 1, int with = 11);
  void note(std::string text);

 private:
  std::map<std::string, int> nth_;
};

/// Each test runs in a process of its own, and this is its world.
extern world &w;

/// A call, with the object it is made for, and what its failure leads to, as fault_table.txt says.
struct consequence {
  std::string effect, call, code;
  texts told;
};
const std::vector<consequence> &consequences();
/// Null for a call of which the table says nothing.
const consequence *consequence_of(const std::string &call);

texts split(const std::string &text, const std::string &separator);

/// Elements in use by pool, and pieces of memory by name; a pool that is gone is missing. Memory:
/// what is allocated by name, encoded records, lists of the store.
std::map<std::string, uint64_t> in_use();

/// Next hops in the database's own count.
int32_t nhop_count();

/// A running timer that belongs to nobody, expired.
void add_stray_timer();

/// A callback that records "tell ID EVENT address prefix".
void tell(uint32_t client_id, uint32_t event, const void *data);

/// The host byte order's address as text, and back.
std::string dotted(uint32_t host);
std::string route_text(const tarvo_nd_nhop_info_t &info);  ///< "10.0.0.0/8"
std::string hop_text(const tarvo_nd_nhop_info_t &info);    ///< "10.0.0.1 10.0.0.0/8"
uint32_t host(const char *dotted);

struct ended {
  int status;  ///< as waitpid tells it; 0: it ran to its end, no expectation failed, no leak
  std::string output;  ///< standard output and error
};

/// A part of a test in a process of its own: the module starts as it was loaded.
ended in_child(const std::function<void()> &part);
