// The whole database as text, as the queries and the operational data show it: of the module, and
// of plain containers that say what the module ought to hold. Addresses in host byte order.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

struct next_hop {
  std::string route;  ///< "10.0.0.0/8"; empty: not reachable
  bool marked = false;
  std::map<uint32_t, uint32_t> tables;  ///< counts of the references
};

struct database {
  bool active = false;
  int64_t seconds_left = 0;  ///< of the refresh interval, while active
  std::map<uint32_t, next_hop> hops;
  std::map<uint32_t, std::string> vrfs;
  std::map<std::string, std::vector<uint32_t>> clients;  ///< "" first: the all-VPN clients

  /// 0 for a VRF that is not there, or by that number cannot be told from all.
  uint32_t table_of(const std::string &vrf) const;
  /// Next hops with a route, of a VRF or of all (""), and the routes.
  std::map<uint32_t, std::string> reachable(const std::string &vrf) const;
};

/// What is asked for beside everything there is. The tables begin with 0, which stands for all.
struct probes {
  std::vector<uint32_t> hosts, tables;
  std::vector<std::string> names;
};

std::string view_of_module(const probes &ask);
std::string view_of(const database &held, const probes &ask);

/// What the module holds, but for its clients; not by its queries.
database held_by_module();

/// Expects what the module keeps in memory to be that database, and so many queued requests.
void expect_nothing_else_is_kept(const database &held, uint64_t queued);

/// The answers of the module's operational-data table. A record as JSON, or the code of a refusal.
std::string ods_get(uint32_t item, uint32_t host = 0, const char *vrf = "");
/// "KEY KEY ..." with the records of a data list, "+" at the end for the more flag; or the code.
std::string ods_list(uint32_t item, uint32_t host, bool data = false);
std::string hex(uint32_t code);
