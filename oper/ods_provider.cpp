// Operational-data provider: answers the platform's store from the locked queries.
//
// Each query takes and releases the nd mutex itself; nothing here holds it, so the store and the
// encoder never run under it.
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "engine/shared_words.h"
#include "engine/timers.h"
#include "query/nhop_query.h"
#include "tarvo/agent_services.h"
#include "tarvo/oper_data.h"
#include "tarvo/oper_records.h"

static uint32_t key_nhop(const ods_path_t *path) {
  uint32_t nhop_addr;
  memcpy(&nhop_addr, path->key[0], sizeof nhop_addr);
  return nhop_addr;
}

// ---- Get ----

static uint32_t answer(ods_item_t *item, const void *native, const bag_descriptor_t *descriptor) {
  void *buffer = nullptr;
  uint32_t length = 0;
  if (bag_encode(&buffer, &length, native, descriptor) != 0) return TARVO_ODS_ERR_ENCODE;
  item->type = TARVO_ODS_TYPE_BAG;
  item->buffer = buffer;
  item->length = length;
  return 0;
}

uint32_t tarvo_mpls_discovery_ods_vpn_state_get(ods_item_t *item, ods_path_t *) {
  if (tarvo_nd_is_active() == 0) return TARVO_ODS_ERR_NOT_FOUND;
  // Negative when discovery ended since: the query tests again under the lock.
  const int32_t remaining = tarvo_nd_get_refresh_interval_remaining();
  if (remaining < 0) return TARVO_ODS_ERR_NOT_FOUND;
  const tarvo_discovery_state_bag state = {static_cast<uint32_t>(remaining)};
  return answer(item, &state, &tarvo_discovery_state_bag_bag);
}

uint32_t tarvo_mpls_discovery_ods_vpn_prefix_get(ods_item_t *item, ods_path_t *path) {
  tarvo_nd_nhop_t nhop = {};
  if (tarvo_nd_lookup_nhop(key_nhop(path), &nhop) != TARVO_ND_OK) return TARVO_ODS_ERR_NOT_FOUND;
  if ((nhop.flags & TARVO_ND_NHOP_REACHABLE) == 0) return TARVO_ODS_ERR_NOT_FOUND;
  const tarvo_discovery_prefix_bag prefix = {nhop.info.prefix, nhop.info.prefix_len};
  return answer(item, &prefix, &tarvo_discovery_prefix_bag_bag);
}

uint32_t tarvo_mpls_discovery_ods_vpn_vrf_get(ods_item_t *item, ods_path_t *path) {
  tarvo_nd_nhop_table_t ref = {};
  const auto *vrf_name = static_cast<const char *>(path->key[1]);
  if (tarvo_nd_lookup_tableid(key_nhop(path), vrf_name, &ref) != TARVO_ND_OK)
    return TARVO_ODS_ERR_NOT_FOUND;
  const tarvo_discovery_vrf_bag vrf = {ref.ref_count};
  return answer(item, &vrf, &tarvo_discovery_vrf_bag_bag);
}

uint32_t tarvo_mpls_discovery_ods_get(void *, ods_item_t *item, ods_path_t *path) {
  switch (path->item) {
    case TARVO_DISC_ITEM_STATE:
      return tarvo_mpls_discovery_ods_vpn_state_get(item, path);
    case TARVO_DISC_ITEM_PREFIX:
      return tarvo_mpls_discovery_ods_vpn_prefix_get(item, path);
    case TARVO_DISC_ITEM_VRF:
      return tarvo_mpls_discovery_ods_vpn_vrf_get(item, path);
    default:
      return TARVO_ODS_ERR_NO_SUCH_ITEM;
  }
}

// ---- Lists ----

namespace {

/// The store's calls for one kind of list.
struct list_kind {
  uint32_t (*create)(void **list, ods_path_t *path, void *more);
  void (*free)(void *list);
};

constexpr list_kind kKeys = {ods_list_create, ods_list_free};
constexpr list_kind kData = {ods_datalist_create, ods_datalist_free};

/// A list that is being built; freed unless it is handed over.
class pending_list {
 public:
  explicit pending_list(const list_kind &kind) : kind_(kind) {}
  ~pending_list() {
    if (list_ != nullptr) kind_.free(list_);
  }
  pending_list(const pending_list &) = delete;
  pending_list &operator=(const pending_list &) = delete;

  [[nodiscard]] uint32_t create(ods_path_t *path, void *more) {
    void *list = nullptr;
    const uint32_t status = kind_.create(&list, path, more);
    if (status == 0) list_ = list;
    return status;
  }

  void *get() const { return list_; }

  uint32_t hand_over(ods_list_result_t *result, uint32_t count) {
    if (count == 0) return TARVO_ODS_ERR_NOT_FOUND;
    if (result == nullptr) return TARVO_ODS_ERR_NO_RESULT;
    result->count = count;
    result->list = std::exchange(list_, nullptr);
    return 0;
  }

 private:
  const list_kind &kind_;
  void *list_ = nullptr;
};

}  // namespace

static uint32_t add_key(void *list, const char *key) {
  return ods_list_add(list, key, ODS_RANK_LAST, 0);
}

static uint32_t add_nhop(void *list, uint32_t nhop_addr) {
  char key[128];
  snprintf(key, sizeof key, "0x%" PRIx32 "/", nhop_addr);
  return add_key(list, key);
}

static uint32_t add_vrf_record(void *list, const char *vrf_name, uint32_t ref_count) {
  const tarvo_discovery_vrf_bag vrf = {ref_count};
  void *buffer = nullptr;
  uint32_t length = 0;
  if (const uint32_t status = bag_encode(&buffer, &length, &vrf, &tarvo_discovery_vrf_bag_bag);
      status != 0)
    return status;
  const uint32_t status = ods_datalist_add(list, vrf_name, TARVO_ODS_TYPE_BAG, 0, buffer, length);
  free(buffer);
  return status;
}

uint32_t tarvo_mpls_discovery_ods_vpn_nhop_list(ods_list_result_t *result, ods_path_t *path,
                                                void *more) {
  pending_list list(kKeys);
  if (const uint32_t status = list.create(path, more); status != 0) return status;

  const uint32_t after = key_nhop(path);
  tarvo_nd_nhop_t nhop = {};
  uint32_t count = 0;
  uint32_t found = after == 0 ? tarvo_nd_first_nhop(&nhop) : tarvo_nd_next_nhop(after, &nhop);
  while (found == TARVO_ND_OK) {
    const uint32_t status = add_nhop(list.get(), nhop.info.nhop_addr);
    if (status != 0) return status;
    if (++count == TARVO_ODS_NHOP_PAGE) {
      // Without a look whether one is left: it may be gone, or another come, by the next request.
      ods_list_set_more_flag(list.get());
      break;
    }
    found = tarvo_nd_next_nhop(nhop.info.nhop_addr, &nhop);
  }
  return list.hand_over(result, count);
}

/// The VRFs of one next hop in a list; `add(list, VRF name, count of routes)` makes an entry.
template <typename Add>
static uint32_t vrf_list(const list_kind &kind, ods_list_result_t *result, ods_path_t *path,
                         void *more, Add add) {
  pending_list list(kind);
  if (const uint32_t status = list.create(path, more); status != 0) return status;

  const uint32_t nhop_addr = key_nhop(path);
  tarvo_nd_nhop_table_t ref = {};
  tarvo_nd_vrf_name_copy_t vrf = {};
  uint32_t count = 0;
  uint32_t found = tarvo_nd_first_tableid(nhop_addr, &ref, &vrf);
  while (found == TARVO_ND_OK) {
    if (vrf.known) {
      const uint32_t status = add(list.get(), vrf.name, ref.ref_count);
      if (status != 0) return status;
      ++count;
    }
    found = tarvo_nd_next_tableid(nhop_addr, ref.table_id, &ref, &vrf);
  }
  return list.hand_over(result, count);
}

uint32_t tarvo_mpls_discovery_ods_vpn_vrf_list(ods_list_result_t *result, ods_path_t *path,
                                               void *more) {
  return vrf_list(kKeys, result, path, more, [](void *list, const char *vrf_name, uint32_t) {
    return add_key(list, vrf_name);
  });
}

uint32_t tarvo_mpls_discovery_ods_vpn_vrf_datalist(ods_list_result_t *result, ods_path_t *path,
                                                   void *more) {
  return vrf_list(kData, result, path, more, add_vrf_record);
}

uint32_t tarvo_mpls_discovery_ods_list(void *, ods_list_result_t *result, ods_path_t *path,
                                       void *more) {
  switch (path->item) {
    case TARVO_DISC_ITEM_NHOP:
      return tarvo_mpls_discovery_ods_vpn_nhop_list(result, path, more);
    case TARVO_DISC_ITEM_VRF:
      return tarvo_mpls_discovery_ods_vpn_vrf_list(result, path, more);
    default:
      return TARVO_ODS_ERR_NO_SUCH_ITEM;
  }
}

uint32_t tarvo_mpls_discovery_ods_datalist(void *, ods_list_result_t *result, ods_path_t *path,
                                           void *more) {
  if (path->item != TARVO_DISC_ITEM_VRF) return TARVO_ODS_ERR_NO_SUCH_ITEM;
  return tarvo_mpls_discovery_ods_vpn_vrf_datalist(result, path, more);
}

const tarvo_nd_ods_fns_t tarvoMplsDiscoveryODSFns = {tarvo_mpls_discovery_ods_get,
                                                     tarvo_mpls_discovery_ods_list,
                                                     tarvo_mpls_discovery_ods_datalist,
                                                     {nullptr, nullptr}};
