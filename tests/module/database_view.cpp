#include "tests/module/database_view.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <nlohmann/json.hpp>
#include <unordered_map>

#include "db/nhop_table.h"
#include "db/vrf_table.h"
#include "engine/shared_words.h"
#include "query/nhop_query.h"
#include "tarvo/agent_services.h"
#include "tarvo/discovery.h"
#include "tarvo/oper_data.h"
#include "tests/module/world.h"

static const std::string kNotFound = "0x40828600";

std::string hex(uint32_t code) {
  char text[16];
  snprintf(text, sizeof text, "0x%08x", code);
  return text;
}

// Bytes that must be left alone.
template <typename Record>
static Record untouched() {
  Record record;
  memset(static_cast<void *>(&record), 0x5a, sizeof record);
  return record;
}

template <typename Record>
static void expect_same(const Record &a, const Record &b) {
  EXPECT_EQ(memcmp(static_cast<const void *>(&a), &b, sizeof a), 0)
      << "what is not ours is written";
}

uint32_t database::table_of(const std::string &vrf) const {
  const auto found = std::ranges::find_if(vrfs, [&](auto &v) { return v.second == vrf; });
  return found == vrfs.end() ? 0 : found->first;
}

std::map<uint32_t, std::string> database::reachable(const std::string &vrf) const {
  const uint32_t table = vrf.empty() ? 0 : table_of(vrf);
  std::map<uint32_t, std::string> found;
  if (!vrf.empty() && table == 0) return found;
  for (const auto &[host, hop] : hops)
    if (!hop.route.empty() && (table == 0 || hop.tables.contains(table))) found[host] = hop.route;
  return found;
}

// ---- The operational data ----

// A record back in words, with a CBOR library. Few records differ, so each is read once.
static const std::string &record(const void *buffer, uint32_t length) {
  static thread_local std::unordered_map<std::string, std::string> known;
  const auto *bytes = static_cast<const uint8_t *>(buffer);
  std::string &text = known[std::string(bytes, bytes + length)];
  if (text.empty())
    text = nlohmann::json::from_cbor(bytes, bytes + length, true, false,
                                     nlohmann::json::cbor_tag_handler_t::store)
               .dump();
  return text;
}

static ods_path_t path_of(uint32_t item, const uint32_t *nhop, const char *vrf) {
  auto path = untouched<ods_path_t>();
  path.item = item;
  path.key[0] = nhop;
  path.key[1] = vrf;
  return path;
}

std::string ods_get(uint32_t item, uint32_t host, const char *vrf) {
  const uint32_t nhop = htonl(host);
  ods_path_t path = path_of(item, &nhop, vrf);
  auto answer = untouched<ods_item_t>(), expected = answer;
  const uint32_t code = tarvoMplsDiscoveryODSFns.get(&w, &answer, &path);
  if (code == 0) {
    expected.type = 7;
    expected.buffer = answer.buffer;
    expected.length = answer.length;
  }
  expect_same(answer, expected);
  if (code != 0) return hex(code);
  std::string text = record(answer.buffer, answer.length);
  free(answer.buffer);
  return text;
}

std::string ods_list(uint32_t item, uint32_t host, bool data) {
  const uint32_t nhop = htonl(host);
  ods_path_t path = path_of(item, &nhop, "");
  auto answer = untouched<ods_list_result_t>(), expected = answer;
  const auto call = data ? tarvoMplsDiscoveryODSFns.datalist : tarvoMplsDiscoveryODSFns.list;
  const uint32_t code = call(&w, &answer, &path, &path);
  std::string text;
  if (code == 0) {
    expected.list = answer.list;
    expected.count = 0;
    while (const ods_entry_t *entry = ods_list_entry(answer.list, expected.count)) {
      text += (expected.count++ == 0 ? "" : " ") + std::string(entry->key);
      if (data) text += record(entry->buffer, entry->length);
    }
    if (ods_list_more(answer.list) != 0) text += '+';
    (data ? ods_datalist_free : ods_list_free)(answer.list);
  }
  expect_same(answer, expected);
  return code == 0 ? text : hex(code);
}

// ---- Two sources of the same answers ----

enum which { kFirst, kNext, kLookup };

struct answer {
  std::string text = "-";
  uint32_t key = 0;  // next hop, or table
  explicit operator bool() const { return text != "-"; }
};

struct module_source {
  static answer of(uint32_t code, std::string text, uint32_t key) {
    if (code == TARVO_ND_OK) return {std::move(text), key};
    return code == TARVO_ND_ERR_NOT_FOUND ? answer() : answer{hex(code), ~0u};
  }
  static answer hop(which query, uint32_t table, uint32_t host = 0) {
    auto out = untouched<tarvo_nd_nhop_t>(), expected = out;
    const uint32_t nhop = htonl(host);
    const uint32_t code = query == kFirst  ? tarvo_nd_first_nhop_by_tableid(table, &out)
                          : query == kNext ? tarvo_nd_next_nhop_by_tableid(table, nhop, &out)
                                           : tarvo_nd_lookup_nhop_by_tableid(table, nhop, &out);
    if (code == TARVO_ND_OK) expected.info = out.info, expected.flags = out.flags;
    expect_same(out, expected);
    return of(code, hop_text(out.info) + " " + std::to_string(out.flags),
              ntohl(out.info.nhop_addr));
  }
  static answer ref(which query, uint32_t host, uint32_t table = 0) {
    auto out = untouched<tarvo_nd_nhop_table_t>(), expected = out;
    auto name = untouched<tarvo_nd_vrf_name_copy_t>();
    name.known = false;  // what was left in it is no truth value
    const auto no_name = name;
    const uint32_t code = query == kFirst ? tarvo_nd_first_tableid(htonl(host), &out, &name)
                                          : tarvo_nd_next_tableid(htonl(host), table, &out, &name);
    if (code == TARVO_ND_OK) expected.table_id = out.table_id, expected.ref_count = out.ref_count;
    if (code != TARVO_ND_OK) expect_same(name, no_name);
    expect_same(out, expected);
    return of(code,
              std::to_string(out.table_id) + "x" + std::to_string(out.ref_count) +
                  (name.known ? "=" : "?") + std::string(name.name, strnlen(name.name, 245)),
              out.table_id);
  }
  std::string state() const { return ods_get(TARVO_DISC_ITEM_STATE); }
  std::string page(uint32_t after) const { return ods_list(TARVO_DISC_ITEM_NHOP, after); }
  std::string prefix(uint32_t host) const { return ods_get(TARVO_DISC_ITEM_PREFIX, host); }
  std::string vrfs(uint32_t host, bool data) const {
    return ods_list(TARVO_DISC_ITEM_VRF, host, data);
  }
  std::string vrf(uint32_t host, const std::string &name) const {
    return ods_get(TARVO_DISC_ITEM_VRF, host, name.c_str());
  }
};

struct held_source {
  const database &held;

  static bool wanted(which query, uint32_t key, uint32_t than) {
    return query == kFirst || (query == kNext ? key > than : key == than);
  }
  answer hop(which query, uint32_t table, uint32_t than = 0) const {
    for (const auto &[host, hop] : held.hops) {
      if (!wanted(query, host, than) || (table != 0 && !hop.tables.contains(table))) continue;
      return {dotted(host) + " " + (hop.route.empty() ? "0.0.0.0/0" : hop.route) + " " +
                  std::to_string((hop.route.empty() ? 0 : 1) + (hop.marked ? 2 : 0)),
              host};
    }
    return {};
  }
  answer ref(which query, uint32_t host, uint32_t than = 0) const {
    for (const auto &[table, count] : tables_of(host)) {
      if (!wanted(query, table, than)) continue;
      const auto vrf = held.vrfs.find(table);
      return {std::to_string(table) + "x" + std::to_string(count) +
                  (vrf == held.vrfs.end() ? "?" : "=" + vrf->second),
              table};
    }
    return {};
  }
  const std::map<uint32_t, uint32_t> &tables_of(uint32_t host) const {
    static const next_hop kNone;
    const auto found = held.hops.find(host);
    return (found == held.hops.end() ? kNone : found->second).tables;
  }
  std::string state() const {
    if (!held.active || held.seconds_left < 0) return kNotFound;
    return R"({"RefreshRemaining":)" + std::to_string(held.seconds_left) + "}";
  }
  std::string page(uint32_t after) const {
    std::string text;
    int count = 0;
    auto at = after == 0 ? held.hops.begin() : held.hops.upper_bound(after);
    for (; count < 10 && at != held.hops.end(); ++at, ++count) {
      char key[16];
      snprintf(key, sizeof key, "0x%x/", htonl(at->first));
      text += (count == 0 ? "" : " ") + std::string(key);
    }
    return count == 0 ? kNotFound : count == 10 ? text + '+' : text;
  }
  std::string prefix(uint32_t host) const {
    const auto found = held.hops.find(host);
    if (found == held.hops.end() || found->second.route.empty()) return kNotFound;
    std::string bytes = found->second.route;
    std::replace(bytes.begin(), bytes.end(), '.', ',');
    const size_t slash = bytes.find('/');
    return R"({"TargetAddress":{"bytes":[)" + bytes.substr(0, slash) +
           R"(],"subtype":52},"TargetMask":)" + bytes.substr(slash + 1) + "}";
  }
  static std::string count_of(uint32_t count) {
    return R"({"PrefixCount":)" + std::to_string(count) + "}";
  }
  std::string vrfs(uint32_t host, bool data) const {
    std::string text;
    bool any = false;
    for (const auto &[table, count] : tables_of(host)) {
      const auto vrf = held.vrfs.find(table);
      if (vrf == held.vrfs.end()) continue;
      text += (any ? " " : "") + vrf->second + (data ? count_of(count) : "");
      any = true;
    }
    return any ? text : kNotFound;
  }
  std::string vrf(uint32_t host, const std::string &wanted) const {
    const uint32_t table = held.table_of(wanted);
    const auto &tables = tables_of(host);
    return table == 0 || !tables.contains(table) ? kNotFound : count_of(tables.at(table));
  }
};

// ---- One text of both: operational data has a line for each answer, "KIND ANSWER" ----

template <typename Source>
static std::string of_one(const Source &source, uint32_t host) {
  return "\nprefix " + source.prefix(host) + "\nnames " + source.vrfs(host, false) + "\ndata " +
         source.vrfs(host, true);
}

template <typename Source>
static std::string view(const Source &source, const probes &ask) {
  std::string text = "state " + source.state();
  std::string page;
  for (uint32_t after = 0; page.empty() || page.back() == '+';) {
    text += "\npage " + (page = source.page(after));
    if (page.back() == '+')
      after = ntohl(static_cast<uint32_t>(strtoul(&page[page.rfind("0x")], nullptr, 16)));
  }
  for (answer hop = source.hop(kFirst, 0); hop; hop = source.hop(kNext, 0, hop.key)) {
    text += "\nhop " + hop.text + " tables";
    for (answer ref = source.ref(kFirst, hop.key); ref; ref = source.ref(kNext, hop.key, ref.key))
      text += " " + ref.text;
    text += of_one(source, hop.key);
  }
  for (const uint32_t table : ask.tables)
    text += "\nfirst of " + std::to_string(table) + " " + source.hop(kFirst, table).text;
  for (const uint32_t host : ask.hosts) {
    text += "\nat " + dotted(host) + of_one(source, host) + "\nlookup, next, next table";
    for (const uint32_t table : ask.tables)
      text += " | " + source.hop(kLookup, table, host).text + ", " +
              source.hop(kNext, table, host).text + ", " + source.ref(kNext, host, table).text;
    for (const std::string &name : ask.names) text += "\nvrf " + source.vrf(host, name);
  }
  return text;
}

std::string view_of_module(const probes &ask) { return view(module_source(), ask); }

std::string view_of(const database &held, const probes &ask) {
  return view(held_source{held}, ask);
}

database held_by_module() TARVO_NO_THREAD_SAFETY_ANALYSIS {
  database held;
  held.active = tarvo_nd_is_active() != 0;
  for (void *node = avl_get_first(tarvo_nd_vrf_tree); node != nullptr; node = avl_get_next(node)) {
    const auto *vrf = static_cast<const tarvo_nd_vrf_t *>(node);
    held.vrfs[vrf->table_id] = vrf->vrf_name;
  }
  if (!held.active) return held;
  for (auto *nhop = tarvo_nd_nhop_tree_first(); nhop != nullptr;
       nhop = tarvo_nd_nhop_tree_next(nhop)) {
    next_hop &hop = held.hops[ntohl(nhop->info.nhop_addr)];
    if ((nhop->flags & TARVO_ND_NHOP_REACHABLE) != 0) hop.route = route_text(nhop->info);
    hop.marked = (nhop->flags & TARVO_ND_NHOP_RERESOLVE) != 0;
    for (auto *ref = tarvo_nd_nhop_table_first(&nhop->tables); ref != nullptr;
         ref = tarvo_nd_nhop_table_next(&nhop->tables, ref))
      hop.tables[ref->table_id] = ref->ref_count;
  }
  return held;
}

void expect_nothing_else_is_kept(const database &held, uint64_t queued) {
  std::map<std::string, uint64_t> expected = {{"PE Discovery workQ Chunk", queued}};
  if (held.active) {
    expected["PE Discovery NHop Chunk"] = held.hops.size();
    uint64_t &references = expected["PE Discovery Table ID Chunk"];
    for (const auto &[address, hop] : held.hops) references += hop.tables.size();
  }
  const auto named = [&](const char *name, uint64_t count) {
    if (count != 0) expected[name] = count;
  };
  uint64_t registrations = 0;
  for (const auto &[name, group] : held.clients) registrations += group.size();
  named("TARVO DISC VRF Info", held.vrfs.size());
  named("TARVO DISC Client Entry", registrations);
  named("TARVO DISC Client Info", held.clients.size() - held.clients.count(""));
  EXPECT_EQ(in_use(), expected);
  EXPECT_EQ(held_by_module().vrfs, held.vrfs);
  EXPECT_EQ(nhop_count(), static_cast<int32_t>(held.hops.size()));
}
