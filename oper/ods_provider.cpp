// Operational-data provider: the callbacks by which the platform's store asks for what discovery
// knows. It serves no item yet.
#include "tarvo/agent_services.h"

constexpr uint32_t TARVO_ODS_ERR_NO_SUCH_ITEM = 0x40828400;

static uint32_t tarvo_mpls_discovery_ods_get(void *, ods_item_t *, ods_path_t *) {
  return TARVO_ODS_ERR_NO_SUCH_ITEM;
}

static uint32_t tarvo_mpls_discovery_ods_list(void *, ods_list_result_t *, ods_path_t *, void *) {
  return TARVO_ODS_ERR_NO_SUCH_ITEM;
}

static uint32_t tarvo_mpls_discovery_ods_datalist(void *, ods_list_result_t *, ods_path_t *,
                                                  void *) {
  return TARVO_ODS_ERR_NO_SUCH_ITEM;
}

const tarvo_nd_ods_fns_t tarvoMplsDiscoveryODSFns = {tarvo_mpls_discovery_ods_get,
                                                     tarvo_mpls_discovery_ods_list,
                                                     tarvo_mpls_discovery_ods_datalist,
                                                     {nullptr, nullptr}};
