// The whole database as text, as the queries and the operational data show it: of the module, and
// of plain containers that say what the module ought to hold.
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
  int64_t seconds_left = 0;           ///< of the refresh interval, while active
  std::map<uint32_t, next_hop> hops;  ///< by address in host byte order
  std::map<uint32_t, std::string> vrfs;
  std::map<std::string, std::vector<uint32_t>> clients;  ///< "" first: the all-VPN clients
};

/// What is asked for beside everything there is. The tables begin with 0, which stands for all.
struct probes {
  std::vector<uint32_t> hosts, tables;
  std::vector<std::string> names;
};

std::string view_of_module(const probes &ask);
std::string view_of(const database &held, const probes &ask);

/// The module's next hops, references and VRFs, read from its own tables; not the clients.
database held_by_module();

/// The pools and the named memory hold that database and no more, the queue so many requests.
void expect_nothing_else_is_kept(const database &held, uint64_t queued);

std::string dotted_host(uint32_t address);

/// The answers of the module's operational-data table. A record as JSON, or the code of a refusal.
std::string ods_get(uint32_t item, uint32_t nhop = 0, const char *vrf = "");
/// "KEY KEY ..." with the records of a data list, "+" at the end for the more flag; or the code.
std::string ods_list(uint32_t item, uint32_t nhop, bool data = false);
std::string hex(uint32_t code);
