#include "agent/oper_data.h"

#include <arpa/inet.h>

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

#include "agent/agent_services.h"
#include "agent/text.h"
#include "tarvo/oper_data.h"

namespace agent {

namespace {

template <auto Free>
struct freed_by {
  void operator()(void *held) const { Free(held); }
};

/// What a callback handed over, and how it is freed.
template <auto Free>
using owned = std::unique_ptr<void, freed_by<Free>>;

/// `nexthop` is read when the request is made.
ods_path_t path_to(uint32_t item, const uint32_t *nexthop) {
  ods_path_t path{};
  path.item = item;
  path.key[0] = nexthop;
  return path;
}

// ---- Records ----

/// An address is a byte string under its tag; no record here has any other byte string.
bool make_dotted(json &value) {
  constexpr uint64_t kIpv4Tag = 52;
  const json::binary_t &bytes = value.get_binary();
  uint32_t address = 0;
  if (bytes.subtype() != kIpv4Tag || bytes.size() != sizeof address) return false;
  memcpy(&address, bytes.data(), sizeof address);
  value = address_text(address);
  return true;
}

/// False: no encoded record.
bool decode(uint32_t type, const void *buffer, uint32_t length, json &record) {
  if (type != TARVO_ODS_TYPE_BAG) return false;
  const auto *bytes = static_cast<const uint8_t *>(buffer);
  json fields =
      json::from_cbor(bytes, bytes + length, true, false, json::cbor_tag_handler_t::store);
  if (!fields.is_object()) return false;
  for (json &value : fields) {
    if (value.is_binary() && !make_dotted(value)) return false;
  }
  record = std::move(fields);
  return true;
}

uint32_t get(uint32_t item, const uint32_t *nexthop, json &record) {
  ods_path_t path = path_to(item, nexthop);
  ods_item_t answer{};
  const uint32_t code = registered_tables().ods->get(nullptr, &answer, &path);
  if (code != 0) return code;

  const owned<free> buffer(answer.buffer);
  return decode(answer.type, answer.buffer, answer.length, record) ? 0 : kOperUnreadable;
}

// ---- Next hops ----

/// Reads "0x302010a/".
bool read_key(std::string_view key, uint32_t &nexthop) {
  if (!key.starts_with("0x") || !key.ends_with('/')) return false;
  const char *end = key.data() + key.size() - 1;
  const auto [stop, error] = std::from_chars(key.data() + 2, end, nexthop, 16);
  return error == std::errc() && stop == end;
}

/// Appends the next hops that one request brings, from the last of `found` on. They ascend, and
/// there is one at least: a walk that gets nowhere would not end.
uint32_t next_page(std::vector<uint32_t> &found, bool &more) {
  uint32_t last = found.empty() ? 0 : found.back();
  ods_path_t path = path_to(TARVO_DISC_ITEM_NHOP, &last);
  ods_list_result_t answer{};
  const uint32_t code = registered_tables().ods->list(nullptr, &answer, &path, nullptr);
  if (code != 0) return code;

  const owned<ods_list_free> page(answer.list);
  const size_t before = found.size();
  while (const auto *entry = ods_list_entry(answer.list, uint32_t(found.size() - before))) {
    uint32_t nexthop = 0;
    if (!read_key(entry->key, nexthop) || ntohl(nexthop) <= ntohl(last)) return kOperUnreadable;
    found.push_back(last = nexthop);
  }
  more = ods_list_more(answer.list) != 0;
  return found.size() > before ? 0 : kOperUnreadable;
}

uint32_t list_nexthops(std::vector<uint32_t> &found) {
  for (bool more = true; more;) {
    const uint32_t code = next_page(found, more);
    // A full page may have been the last one.
    if (code == TARVO_ODS_ERR_NOT_FOUND && !found.empty()) return 0;
    if (code != 0) return code;
  }
  return 0;
}

}  // namespace

uint32_t oper_state(json &record) { return get(TARVO_DISC_ITEM_STATE, nullptr, record); }

uint32_t oper_prefix(uint32_t nexthop, json &record, std::string &text) {
  const uint32_t code = get(TARVO_DISC_ITEM_PREFIX, &nexthop, record);
  if (code != 0) return code;

  const json address = record.value("TargetAddress", json());
  const json length = record.value("TargetMask", json());
  if (!address.is_string() || !length.is_number_unsigned()) return kOperUnreadable;
  text = address.get<std::string>() + '/' + length.dump();
  return 0;
}

uint32_t oper_covering_prefix(uint32_t nexthop, std::string &text) {
  json record;
  const uint32_t code = oper_prefix(nexthop, record, text);
  return code == TARVO_ODS_ERR_NOT_FOUND ? 0 : code;
}

uint32_t oper_vrfs(uint32_t nexthop, std::vector<vrf_routes> &routes) {
  ods_path_t path = path_to(TARVO_DISC_ITEM_VRF, &nexthop);
  ods_list_result_t answer{};
  const uint32_t code = registered_tables().ods->datalist(nullptr, &answer, &path, nullptr);
  if (code != 0) return code;

  const owned<ods_datalist_free> list(answer.list);
  std::vector<vrf_routes> found;
  while (const auto *entry = ods_list_entry(answer.list, uint32_t(found.size()))) {
    json record;
    if (!decode(entry->type, entry->buffer, entry->length, record)) return kOperUnreadable;
    const json count = record.value("PrefixCount", json());
    if (!count.is_number_unsigned()) return kOperUnreadable;
    found.push_back({entry->key, count.get<uint64_t>()});
  }
  routes = std::move(found);
  return 0;
}

uint32_t oper_nexthops(std::vector<oper_nexthop> &nexthops) {
  std::vector<uint32_t> addresses;
  uint32_t code = list_nexthops(addresses);
  if (code != 0) return code;

  std::vector<oper_nexthop> found;
  for (const uint32_t address : addresses) {
    oper_nexthop nexthop{address, {}, {}};
    code = oper_vrfs(address, nexthop.vrfs);
    if (code == TARVO_ODS_ERR_NOT_FOUND) continue;
    if (code != 0) return code;
    found.push_back(std::move(nexthop));
  }
  nexthops = std::move(found);
  return 0;
}

uint32_t oper_prefixes(std::vector<oper_nexthop> &nexthops) {
  for (oper_nexthop &nexthop : nexthops) {
    const uint32_t code = oper_covering_prefix(nexthop.address, nexthop.prefix);
    if (code != 0) return code;
  }
  return 0;
}

}  // namespace agent
