#include "tests/module/database_view.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <nlohmann/json.hpp>
#include <optional>
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

std::string dotted_host(uint32_t address) { return dotted(htonl(address)); }

// ---- The operational data ----

// A record back in words, with a CBOR library. Few records differ, so each is read once.
static const std::string &record(const void *buffer, uint32_t length) {
  static auto &known = *new std::unordered_map<std::string, std::string>;
  const auto *bytes = static_cast<const uint8_t *>(buffer);
  std::string &text = known[std::string(bytes, bytes + length)];
  if (text.empty())
    text = nlohmann::json::from_cbor(bytes, bytes + length, true, false,
                                     nlohmann::json::cbor_tag_handler_t::store)
               .dump();
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

struct ods_request {
  ods_path_t path = untouched<ods_path_t>();
  uint32_t nhop;

  ods_request(uint32_t item, uint32_t nhop_addr, const char *vrf = "") : nhop(nhop_addr) {
    path.item = item;
    path.key[0] = &nhop;
    path.key[1] = vrf;
  }
};

std::string ods_get(uint32_t item, uint32_t nhop, const char *vrf) {
  ods_request r(item, nhop, vrf);
  auto answer = untouched<ods_item_t>(), expected = answer;
  if (const uint32_t code = tarvoMplsDiscoveryODSFns.get(&w, &answer, &r.path); code != 0) {
    expect_same(answer, expected);
    return hex(code);
  }
  expected.type = 7;
  expected.buffer = answer.buffer;
  expected.length = answer.length;
  expect_same(answer, expected);
  std::string text = record(answer.buffer, answer.length);
  free(answer.buffer);
  return text;
}

std::string ods_list(uint32_t item, uint32_t nhop, bool data) {
  ods_request r(item, nhop);
  auto answer = untouched<ods_list_result_t>(), expected = answer;
  const auto call = data ? tarvoMplsDiscoveryODSFns.datalist : tarvoMplsDiscoveryODSFns.list;
  if (const uint32_t code = call(&w, &answer, &r.path, &r.path); code != 0) {
    expect_same(answer, expected);
    return hex(code);
  }
  expected.list = answer.list;
  std::string text;
  for (expected.count = 0;; ++expected.count) {
    const ods_entry_t *entry = ods_list_entry(answer.list, expected.count);
    if (entry == nullptr) break;
    if (expected.count > 0) text += ' ';
    text += entry->key;
    if (data) text += record(entry->buffer, entry->length);
  }
  expect_same(answer, expected);
  if (ods_list_more(answer.list) != 0) text += '+';
  (data ? ods_datalist_free : ods_list_free)(answer.list);
  return text;
}

// ---- Two sources of the same answers ----

struct answer {
  uint32_t key;  // next hop, or table
  std::string text;
};
using maybe = std::optional<answer>;

struct module_source {
  template <typename Query>
  static maybe hop(Query query) {
    auto out = untouched<tarvo_nd_nhop_t>(), expected = out;
    const uint32_t code = query(&out);
    if (code == TARVO_ND_OK) expected.info = out.info, expected.flags = out.flags;
    expect_same(out, expected);
    if (code == TARVO_ND_ERR_NOT_FOUND) return {};
    if (code != TARVO_ND_OK) return answer{~0u, hex(code)};
    return answer{ntohl(out.info.nhop_addr),
                  dotted(out.info.nhop_addr) + " " + dotted(out.info.prefix) + "/" +
                      std::to_string(out.info.prefix_len) + " " + std::to_string(out.flags)};
  }
  maybe first(uint32_t table) const {
    return hop([=](auto *out) { return tarvo_nd_first_nhop_by_tableid(table, out); });
  }
  maybe next(uint32_t table, uint32_t host) const {
    return hop([=](auto *out) { return tarvo_nd_next_nhop_by_tableid(table, htonl(host), out); });
  }
  maybe lookup(uint32_t table, uint32_t host) const {
    return hop([=](auto *out) { return tarvo_nd_lookup_nhop_by_tableid(table, htonl(host), out); });
  }
  template <typename Query>
  static maybe ref(Query query) {
    auto out = untouched<tarvo_nd_nhop_table_t>(), expected = out;
    auto name = untouched<tarvo_nd_vrf_name_copy_t>();
    const uint32_t code = query(&out, &name);
    if (code == TARVO_ND_OK) expected.table_id = out.table_id, expected.ref_count = out.ref_count;
    expect_same(out, expected);
    if (code == TARVO_ND_ERR_NOT_FOUND) {
      expect_same(name, untouched<tarvo_nd_vrf_name_copy_t>());
      return {};
    }
    if (code != TARVO_ND_OK) return answer{~0u, hex(code)};
    return answer{out.table_id, std::to_string(out.table_id) + "x" + std::to_string(out.ref_count) +
                                    (name.known ? "=" : "?") + name.name};
  }
  maybe first_table(uint32_t host) const {
    return ref(
        [=](auto *out, auto *name) { return tarvo_nd_first_tableid(htonl(host), out, name); });
  }
  maybe next_table(uint32_t host, uint32_t table) const {
    return ref([=](auto *out, auto *name) {
      return tarvo_nd_next_tableid(htonl(host), table, out, name);
    });
  }
  maybe name(uint32_t table) const {
    const char *name = tarvo_nd_tableid2vrf_name(table);
    return name == nullptr ? maybe{} : answer{table, name};
  }
  std::string state() const { return ods_get(TARVO_DISC_ITEM_STATE); }
  std::string page(uint32_t after) const { return ods_list(TARVO_DISC_ITEM_NHOP, htonl(after)); }
  std::string prefix(uint32_t host) const { return ods_get(TARVO_DISC_ITEM_PREFIX, htonl(host)); }
  std::string vrfs(uint32_t host, bool data) const {
    return ods_list(TARVO_DISC_ITEM_VRF, htonl(host), data);
  }
  std::string vrf(uint32_t host, const std::string &name) const {
    return ods_get(TARVO_DISC_ITEM_VRF, htonl(host), name.c_str());
  }
};

struct held_source {
  const database &held;
  using place = std::map<uint32_t, next_hop>::const_iterator;

  const next_hop *of(uint32_t host) const {
    const auto found = held.hops.find(host);
    return held.active && found != held.hops.end() ? &found->second : nullptr;
  }
  static answer hop(uint32_t host, const next_hop &hop) {
    return {host, dotted_host(host) + " " + (hop.route.empty() ? "0.0.0.0/0" : hop.route) + " " +
                      std::to_string((hop.route.empty() ? 0 : 1) + (hop.marked ? 2 : 0))};
  }
  maybe from(place at, uint32_t table) const {
    while (at != held.hops.end() && table != 0 && !at->second.tables.contains(table)) ++at;
    return held.active && at != held.hops.end() ? maybe(hop(at->first, at->second)) : maybe();
  }
  maybe first(uint32_t table) const { return from(held.hops.begin(), table); }
  maybe next(uint32_t table, uint32_t host) const {
    return from(held.hops.upper_bound(host), table);
  }
  maybe lookup(uint32_t table, uint32_t host) const {
    const next_hop *there = of(host);
    if (there == nullptr || (table != 0 && !there->tables.contains(table))) return {};
    return hop(host, *there);
  }
  maybe table(uint32_t host, std::optional<uint32_t> after) const {
    const next_hop *there = of(host);
    if (there == nullptr) return {};
    const auto at = after ? there->tables.upper_bound(*after) : there->tables.begin();
    if (at == there->tables.end()) return {};
    const maybe known = name(at->first);
    return answer{at->first, std::to_string(at->first) + "x" + std::to_string(at->second) +
                                 (known ? "=" + known->text : "?")};
  }
  maybe first_table(uint32_t host) const { return table(host, {}); }
  maybe next_table(uint32_t host, uint32_t after) const { return table(host, after); }
  maybe name(uint32_t table) const {
    const auto found = held.vrfs.find(table);
    return found == held.vrfs.end() ? maybe{} : answer{table, found->second};
  }
  std::string state() const {
    if (!held.active || held.seconds_left < 0) return kNotFound;
    return R"({"RefreshRemaining":)" + std::to_string(held.seconds_left) + "}";
  }
  std::string page(uint32_t after) const {
    std::string text;
    int count = 0;
    for (place at = after == 0 ? held.hops.begin() : held.hops.upper_bound(after);
         held.active && count < 10 && at != held.hops.end(); ++at, ++count) {
      char key[16];
      snprintf(key, sizeof key, "0x%x/", htonl(at->first));
      text += (count == 0 ? "" : " ") + std::string(key);
    }
    return count == 0 ? kNotFound : count == 10 ? text + '+' : text;
  }
  std::string prefix(uint32_t host) const {
    const next_hop *there = of(host);
    if (there == nullptr || there->route.empty()) return kNotFound;
    const size_t slash = there->route.find('/');
    std::string bytes = there->route.substr(0, slash);
    std::replace(bytes.begin(), bytes.end(), '.', ',');
    return R"({"TargetAddress":{"bytes":[)" + bytes + R"(],"subtype":52},"TargetMask":)" +
           there->route.substr(slash + 1) + "}";
  }
  static std::string count_of(uint32_t count) {
    return R"({"PrefixCount":)" + std::to_string(count) + "}";
  }
  std::string vrfs(uint32_t host, bool data) const {
    const next_hop *there = of(host);
    std::string text;
    bool any = false;
    if (there == nullptr) return kNotFound;
    for (const auto &[table, count] : there->tables) {
      const maybe known = name(table);
      if (!known) continue;
      text += (any ? " " : "") + known->text + (data ? count_of(count) : "");
      any = true;
    }
    return any ? text : kNotFound;
  }
  std::string vrf(uint32_t host, const std::string &wanted) const {
    const next_hop *there = of(host);
    for (const auto &[table, vrf_name] : held.vrfs) {
      if (vrf_name != wanted) continue;
      if (table == 0 || there == nullptr || !there->tables.contains(table)) return kNotFound;
      return count_of(there->tables.at(table));
    }
    return kNotFound;
  }
};

// ---- One text of both ----

static std::string shown(const maybe &found) { return found ? found->text : "-"; }

template <typename Source>
static std::string of_one(const Source &source, uint32_t host) {
  return " prefix " + source.prefix(host) + " names " + source.vrfs(host, false) + " data " +
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
  for (maybe hop = source.first(0); hop; hop = source.next(0, hop->key)) {
    text += "\nhop " + hop->text + " tables";
    for (maybe ref = source.first_table(hop->key); ref; ref = source.next_table(hop->key, ref->key))
      text += " " + ref->text;
    text += of_one(source, hop->key);
  }
  for (const uint32_t table : ask.tables)
    text += "\ntable " + std::to_string(table) + " " + shown(source.name(table)) + " first " +
            shown(source.first(table));
  for (const uint32_t host : ask.hosts) {
    text += "\nat " + dotted_host(host) + of_one(source, host) + " lookup, next, next table";
    for (const uint32_t table : ask.tables)
      text += " | " + shown(source.lookup(table, host)) + ", " + shown(source.next(table, host)) +
              ", " + shown(source.next_table(host, table));
    for (const std::string &name : ask.names) text += " | " + source.vrf(host, name);
  }
  return text;
}

std::string view_of_module(const probes &ask) {
  const auto before = static_cast<std::ptrdiff_t>(w.did.size());
  std::string text = view(module_source(), ask);
  // The calls of the store and the encoder were noted too; what was wrong about them stays.
  const auto asked = [](const std::string &line) {
    return !line.starts_with("wrong") && !line.starts_with("log");
  };
  w.did.erase(std::remove_if(w.did.begin() + before, w.did.end(), asked), w.did.end());
  return text;
}

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
    if ((nhop->flags & TARVO_ND_NHOP_REACHABLE) != 0)
      hop.route = dotted(nhop->info.prefix) + "/" + std::to_string(nhop->info.prefix_len);
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
  EXPECT_EQ(nhop_count(), static_cast<int32_t>(held.hops.size()));
}
