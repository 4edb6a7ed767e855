// A plain model of discovery: standard containers, nothing of the module's but the texts in which
// the tests record what was done. Addresses in host byte order.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "tests/module/database_view.h"

struct request {
  enum kind {
    report,
    client_reg,
    client_unreg,
    table,
    refresh,
    clear,
    restart,
    resend
  } what = report;
  uint32_t id = 0;    // table or client
  uint32_t host = 0;  // next hop
  bool add = false;
  std::string name;
};

class model {
 public:
  database held;
  std::deque<request> queue;
  std::vector<std::string> did;

  // The surroundings.
  std::set<std::string> routes;
  std::map<uint32_t, std::vector<uint32_t>> rib;  // what the RIB reports when asked, by table
  std::set<uint32_t> refused;
  bool starved = false;           // of memory for references
  int64_t now = 0, deadline = 0;  // nanoseconds

  /// Queues what the entry calls queue of it.
  void offer(request r);
  /// Handles the request at the head.
  void step();
  void set_interval(uint32_t seconds);
  size_t clients() const;
  bool timer_runs() const { return timer_ != 0; }
  /// The timer handler.
  void expire();
  /// For `held`.
  int64_t seconds_left() const;

 private:
  uint32_t interval_ = 300;
  int timer_ = 0;  // 7 refresh, 8 clear, 0 none
  bool limit_logged_ = false;
  std::set<uint32_t> redistributed_;

  uint32_t clear_phase() const { return interval_ > 28 ? 29 : interval_ / 2; }
  void start(int which);
  void stop_running();

  std::string lookup(uint32_t host) const;
  void tell(uint32_t id, const char *event, uint32_t host, const std::string &route);
  void tell_end(uint32_t id, const char *event);
  void tell_group(const std::string &name, bool add, uint32_t host);
  void tell_table(uint32_t table, bool add, uint32_t host);
  void tell_all(bool add, uint32_t host);
  void drop_table(uint32_t host, uint32_t table);
  void drop_if_bare(uint32_t host);

  void add_report(const request &r);
  void delete_report(const request &r);
  void mark();
  void sweep();
  void reported(uint32_t table);
  void switch_on(uint32_t table);
  void switch_off(uint32_t table);
  void redistribute(bool reset, bool restart);
  void add_table(const request &r);
  void delete_table(uint32_t table);
  void replay(uint32_t id, const std::string &name);
  void add_client(const request &r);
  void remove_client(uint32_t id);
  void deactivate();
};
