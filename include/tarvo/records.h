/**
 * @file
 * Result codes, and the records of the discovery database that queries and notifications show.
 *
 * IPv4 addresses are 32-bit values in network byte order everywhere. Next hops are ordered by the
 * address as a number: 10.0.0.9 before 10.0.0.10.
 */
#ifndef TARVO_RECORDS_H
#define TARVO_RECORDS_H

#include "platform/export.h"
#include "platform/tree.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Marks what the library exports. */
#define TARVO_API PLATFORM_API

/**
 * @name Result codes
 * Two carry an error number in their low byte.
 * @{
 */
#define TARVO_ND_OK UINT32_C(0)                       /**< done, or queued */
#define TARVO_ND_ERR_NOMEM UINT32_C(0xc4a30200)       /**< no pool, or request not queued */
#define TARVO_ND_ERR_INVALID_ARG UINT32_C(0x44a30400) /**< a required argument is missing */
#define TARVO_ND_ERR_NOT_FOUND UINT32_C(0x44a30600)   /**< discovery inactive, or no match */
#define TARVO_ND_ERR_SYS UINT32_C(0xc4a31400)    /**< with errno: an event-manager call failed */
#define TARVO_ND_ERR_TIMER UINT32_C(0xc4a31600)  /**< a timer tree or leaf was not created */
#define TARVO_ND_ERR_THREAD UINT32_C(0xc4a31a00) /**< with error number: no worker thread */
/** @} */

/** Most next hops kept at once; further ones are refused with one DISC_LIMIT message. */
#define TARVO_ND_MAX_NHOPS 500

/** Bytes of a VRF name's buffer, its NUL included. Longer names are cut. */
#define TARVO_ND_VRF_NAME_SIZE 245

/** A next hop and the route of the global table that covers it. */
typedef struct tarvo_nd_nhop_info {
  uint32_t nhop_addr; /**< address of the remote PE, network byte order */
  uint32_t prefix;    /**< covering prefix, network byte order; 0 when not reachable */
  uint8_t prefix_len; /**< its length; 0 when not reachable */
} tarvo_nd_nhop_info_t;

/**
 * @name Bits of a next hop's flags
 * @{
 */
#define TARVO_ND_NHOP_REACHABLE UINT32_C(0x1) /**< a covering route was found */
/** A refresh marked it; the next report resolves it. */
#define TARVO_ND_NHOP_RERESOLVE UINT32_C(0x2)
/** @} */

/** One next hop. Queries write `info` and `flags` into the caller's record, nothing else. */
typedef struct tarvo_nd_nhop {
  wavl_node_t node;          /**< its place among the next hops */
  tarvo_nd_nhop_info_t info; /**< its address and covering prefix */
  uint32_t flags;            /**< TARVO_ND_NHOP_ bits */
  wavl_tree_t tables;        /**< its tarvo_nd_nhop_table_t, by table ID */
} tarvo_nd_nhop_t;

/** A routing table's reference to a next hop. */
typedef struct tarvo_nd_nhop_table {
  wavl_node_t node;   /**< its place among the next hop's references */
  uint32_t table_id;  /**< the routing table */
  uint32_t ref_count; /**< adds less deletes since the last marking; swept at 0 */
} tarvo_nd_nhop_table_t;

static_assert(sizeof(tarvo_nd_nhop_info_t) == 12, "layout seen by clients");
static_assert(offsetof(tarvo_nd_nhop_info_t, nhop_addr) == 0, "layout seen by clients");
static_assert(offsetof(tarvo_nd_nhop_info_t, prefix) == 4, "layout seen by clients");
static_assert(offsetof(tarvo_nd_nhop_info_t, prefix_len) == 8, "layout seen by clients");
static_assert(sizeof(tarvo_nd_nhop_t) == 136, "element size of its pool");
static_assert(offsetof(tarvo_nd_nhop_t, node) == 0, "tree calls cast node to record");
static_assert(offsetof(tarvo_nd_nhop_t, info) == 24, "layout seen by callers");
static_assert(offsetof(tarvo_nd_nhop_t, flags) == 36, "layout seen by callers");
static_assert(offsetof(tarvo_nd_nhop_t, tables) == 40, "layout seen by callers");
static_assert(sizeof(tarvo_nd_nhop_table_t) == 32, "element size of its pool");
static_assert(offsetof(tarvo_nd_nhop_table_t, node) == 0, "tree calls cast node to record");
static_assert(offsetof(tarvo_nd_nhop_table_t, table_id) == 24, "layout seen by callers");
static_assert(offsetof(tarvo_nd_nhop_table_t, ref_count) == 28, "layout seen by callers");

/**
 * @name Events of a client
 * @{
 */
#define TARVO_ND_EVENT_ADD \
  UINT32_C(1) /**< reachable for what the client watches, or its route changed */
#define TARVO_ND_EVENT_REMOVE UINT32_C(2) /**< no longer reachable for what the client watches */
#define TARVO_ND_EVENT_END UINT32_C(3)    /**< the replay after a registration is complete */
#define TARVO_ND_EVENT_RESEND_END UINT32_C(4) /**< the replay after a resend is complete */
/** @} */

/**
 * A client's callback.
 *
 * `data` is a `const tarvo_nd_nhop_info_t *` for ADD and REMOVE, valid during the call only; a
 * REMOVE still carries the prefix that was announced. For END and RESEND_END it points at nothing
 * of interest. Called on the module's worker thread with the nd mutex held: return soon, do not
 * call a query, do not wait for the worker, do not throw. Queuing work (register, unregister,
 * resend) is allowed.
 */
typedef void (*tarvo_nd_notify_fn)(uint32_t client_id, uint32_t event, const void *data);

#ifdef __cplusplus
}
#endif

#endif
