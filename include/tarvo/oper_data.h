/**
 * @file
 * Operational data: what the platform's store can ask the module, and how.
 *
 * Start-up hands tarvoMplsDiscoveryODSFns to the agent (tarvo/agent_services.h); a store calls its
 * get, list and datalist with the item identifier and the keys in the request's path. Values are
 * records of tarvo/oper_records.h, encoded by the platform (platform/bag.h).
 *
 *   item                    key 0               key 1      get     list   datalist
 *   TARVO_DISC_ITEM_STATE                                  state
 *   TARVO_DISC_ITEM_NHOP    continue after                         next hops
 *   TARVO_DISC_ITEM_PREFIX  next hop                       prefix
 *   TARVO_DISC_ITEM_VRF     next hop            VRF name   VRF     VRF names  VRF names, records
 *
 * A next hop in key 0 is a uint32_t, network byte order; 0 begins the list. A VRF name is a
 * NUL-terminated string. The keys that an item has must be there, and so must item and path.
 *
 * Threads: any, also several at once. A call takes the nd mutex for one search at a time and never
 * holds it while it is in the store or the encoder. The module's worker holds it in notify
 * callbacks and in the calls of the RIB: not from there. So a list is no snapshot; it goes on from
 * the last entry it found, while next hops come and go. Names are copied under the lock.
 *
 * Results: 0 with the answer written, or a code below, or from a list's or a data list's callback
 * the store's or encoder's own. On a failure nothing is written and nothing is left to free.
 */
#ifndef TARVO_OPER_DATA_H
#define TARVO_OPER_DATA_H

#include "platform/ods.h"
#include "tarvo/records.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Item identifiers. */
#define TARVO_DISC_ITEM_STATE UINT32_C(0x01010001)  /**< tarvo_discovery_state_bag */
#define TARVO_DISC_ITEM_NHOP UINT32_C(0x01010002)   /**< the remote PEs */
#define TARVO_DISC_ITEM_PREFIX UINT32_C(0x01010003) /**< tarvo_discovery_prefix_bag of one */
#define TARVO_DISC_ITEM_VRF UINT32_C(0x01010004)    /**< the VRFs of one: tarvo_discovery_vrf_bag */

/** Result codes. */
#define TARVO_ODS_ERR_NO_SUCH_ITEM UINT32_C(0x40828400) /**< not an item of this callback */
#define TARVO_ODS_ERR_NOT_FOUND UINT32_C(0x40828600) /**< inactive, unknown, or nothing to list */
#define TARVO_ODS_ERR_ENCODE UINT32_C(0x40829000)    /**< the encoder failed in a get */
#define TARVO_ODS_ERR_NO_RESULT UINT32_C(0x40818800) /**< a list without a place for it */

/** ods_item_t's type of an encoded record. */
#define TARVO_ODS_TYPE_BAG 7

/** Most next hops in one reply. A reply of that many has the more flag, also when none is left. */
#define TARVO_ODS_NHOP_PAGE 10

/** @name Callbacks
 * @{ */
/** A callback of tarvoMplsDiscoveryODSFns: by item, to the calls below. `context` is not used. */
TARVO_API uint32_t tarvo_mpls_discovery_ods_get(void *context, ods_item_t *item, ods_path_t *path);
TARVO_API uint32_t tarvo_mpls_discovery_ods_list(void *context, ods_list_result_t *result,
                                                 ods_path_t *path, void *more);
TARVO_API uint32_t tarvo_mpls_discovery_ods_datalist(void *context, ods_list_result_t *result,
                                                     ods_path_t *path, void *more);
/** @} */

/** Seconds left of the refresh interval; TARVO_ODS_ERR_NOT_FOUND above 2^31 - 1. */
TARVO_API uint32_t tarvo_mpls_discovery_ods_vpn_state_get(ods_item_t *item, ods_path_t *path);

/** The route of the global table that covers a next hop; TARVO_ODS_ERR_NOT_FOUND without one. */
TARVO_API uint32_t tarvo_mpls_discovery_ods_vpn_prefix_get(ods_item_t *item, ods_path_t *path);

/**
 * How many routes of a VRF use a next hop. Of VRFs with the same name, the one with the lowest
 * table ID.
 */
TARVO_API uint32_t tarvo_mpls_discovery_ods_vpn_vrf_get(ods_item_t *item, ods_path_t *path);

/**
 * The next hops after key 0 by address as a number, at most TARVO_ODS_NHOP_PAGE. An entry's key is
 * the address as stored, "0x%x/": 0x302010a/ is 10.1.2.3 on a little-endian machine. Hand that
 * number back in key 0 to go on; it need not exist any more. `more` goes to ods_list_create.
 */
TARVO_API uint32_t tarvo_mpls_discovery_ods_vpn_nhop_list(ods_list_result_t *result,
                                                          ods_path_t *path, void *more);

/** The names of the VRFs that use a next hop, by table ID. A table without a VRF is left out. */
TARVO_API uint32_t tarvo_mpls_discovery_ods_vpn_vrf_list(ods_list_result_t *result,
                                                         ods_path_t *path, void *more);

/** The same, each name with its tarvo_discovery_vrf_bag. */
TARVO_API uint32_t tarvo_mpls_discovery_ods_vpn_vrf_datalist(ods_list_result_t *result,
                                                             ods_path_t *path, void *more);

#ifdef __cplusplus
}
#endif

#endif
