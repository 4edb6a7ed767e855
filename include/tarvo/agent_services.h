/**
 * @file
 * What the agent provides to the module, and the callback tables that the module hands to it.
 *
 * The library leaves these functions undefined; the program that loads it defines them (and
 * exports them to its libraries). The thread and lock rules stand at each.
 */
#ifndef TARVO_AGENT_SERVICES_H
#define TARVO_AGENT_SERVICES_H

#include "platform/ods.h"
#include "tarvo/records.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Callback tables: constant data of the module, registered by start-up ---- */

/** For the configuration layer. */
typedef struct tarvo_nd_cfg_fns {
  void (*set_rib_refresh_interval)(uint32_t seconds); /**< tarvo_nd_set_rib_refresh_interval */
} tarvo_nd_cfg_fns_t;

/** For the RIB layer. */
typedef struct tarvo_nd_rib_fns {
  /** tarvo_nd_enqueue_nhop_update */
  int (*nhop_update)(uint32_t table_id, uint32_t nhop_addr, int add);
  int (*rib_restart)(void); /**< tarvo_nd_enqueue_rib_restart */
} tarvo_nd_rib_fns_t;

/** For the table layer. */
typedef struct tarvo_nd_ital_fns {
  /** tarvo_nd_enqueue_table_update */
  int (*table_update)(const char *vrf_name, uint32_t table_id, int add);
} tarvo_nd_ital_fns_t;

/** For the operational-data store (tarvo/oper_data.h). */
typedef struct tarvo_nd_ods_fns {
  /** tarvo_mpls_discovery_ods_get */
  uint32_t (*get)(void *context, ods_item_t *item, ods_path_t *path);
  /** tarvo_mpls_discovery_ods_list */
  uint32_t (*list)(void *context, ods_list_result_t *result, ods_path_t *path, void *more);
  /** tarvo_mpls_discovery_ods_datalist */
  uint32_t (*datalist)(void *context, ods_list_result_t *result, ods_path_t *path, void *more);
  void (*unused[2])(void); /**< null */
} tarvo_nd_ods_fns_t;

static_assert(sizeof(tarvo_nd_ods_fns_t) == 5 * sizeof(void *), "five slots");

/** @name The tables
 * @{ */
/** What start-up hands to the registration calls below. */
TARVO_API extern const tarvo_nd_cfg_fns_t tarvoMplsDiscoveryCfgFns;
TARVO_API extern const tarvo_nd_rib_fns_t tarvoMplsDiscoveryRibFns;
TARVO_API extern const tarvo_nd_ital_fns_t tarvoMplsDiscoveryItalFns;
TARVO_API extern const tarvo_nd_ods_fns_t tarvoMplsDiscoveryODSFns;
/** @} */

/** @name Registration calls
 * @{ */
/**
 * Made by tarvo_nd_init on its caller's thread, in this order. The tables live as long as the
 * module. The results are not looked at.
 */
TARVO_API int tarvoDiscoverySetODSFns(const tarvo_nd_ods_fns_t *fns);
TARVO_API int tarvo_ital_cb_fn_set(const tarvo_nd_ital_fns_t *fns);
TARVO_API int tarvo_rib_cb_fn_set(const tarvo_nd_rib_fns_t *fns);
TARVO_API int tarvo_cfg_cb_fn_set(const tarvo_nd_cfg_fns_t *fns);
/** @} */

/**
 * @name RIB
 * Called on the worker thread with the nd mutex held. They must not wait for the worker and must
 * not call a query; they may queue reports.
 * @{
 */

/**
 * Finds the route of the global table that covers `info->nhop_addr` (longest match).
 * Returns 0 with `prefix` and `prefix_len` written; anything else when there is none.
 */
TARVO_API int tarvo_rib_ipv4_get_prefix_route(tarvo_nd_nhop_info_t *info);

/**
 * Switches the redistribution of a VPN routing table on (1) or off (0). On, also when it is on
 * already: report the next hop of every route of the table, one report per route, and then every
 * change. Off: once this has returned, no further report of the table is queued.
 * Returns 0 when accepted. A refusal to switch on is repeated at the next refresh. After a refusal
 * to switch off at the end of discovery the table is taken as on: the next activation does not
 * switch it on, and refreshes only reset it. After one at a withdrawal the table is forgotten all
 * the same, and off is not asked for again.
 */
TARVO_API int tarvo_rib_ipv4_redist(uint32_t table_id, int on);

/** Asks for the next hop of every route of a redistributed table again. The result is not used. */
TARVO_API int tarvo_rib_ipv4_redist_reset(uint32_t table_id);

/** @} */

/** The router's default IPv4 unicast table, which is no VPN table. Any thread. */
TARVO_API uint32_t rtab_c_tbl_id_ipv4_ucast_dflt(void);

/* ----------------------------------- Traces ----------------------------------- */

/**
 * Start-up trace: the step that failed. On tarvo_nd_init's thread, before it returns its code.
 *
 * @param mask  class of the trace, always 0x100000
 * @param id    place of the trace, always 0x10200106001
 * @param text  the step, such as "create timer tree": plain text, no format, without a newline
 * @param code  the step's error number, as in errno
 *
 * No further arguments are passed.
 */
TARVO_API void tarvo_sa_lstrace(uint64_t mask, uint64_t id, const char *text, uint32_t code, ...);

/**
 * Debug trace. Any thread, also with the nd mutex held: return soon, call no query.
 *
 * @param category  subject of the trace, always 13: discovery
 * @param level     1, the only one
 * @param format    printf format, without a newline at the end; begins "DISC: "
 *
 * The arguments are those of the format, %u and %s alone, valid during the call.
 */
TARVO_API void tarvo_sa_debug(uint32_t category, uint32_t level, const char *format, ...);

#ifdef __cplusplus
}
#endif

#endif
