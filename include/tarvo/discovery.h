/**
 * @file
 * MPLS VPN provider-edge discovery: the module's exported calls. Open this header first.
 *
 * The agent calls tarvo_nd_init once. From then on it feeds the module through the callback tables
 * that start-up hands to it (see tarvo/agent_services.h): VPN routing tables, the next hops of
 * their routes, RIB restarts, the refresh interval. Monitoring operations register as clients and
 * are told of remote PEs by VPN; any thread may query. Discovery is active while at least one
 * client is registered.
 *
 * Threads: every call here is safe from any thread, except as said. Calls that queue work return
 * at once and take effect later, in the order queued, on the module's one worker thread. Queries
 * take the nd mutex and must not be called from a notify callback, which runs with it held.
 */
#ifndef TARVO_DISCOVERY_H
#define TARVO_DISCOVERY_H

#include "tarvo/records.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Starts the module: work queue, timers, worker thread; then registers the callback tables.
 *
 * @param event_mgr  the agent's event manager; the module's timer event is dispatched on its
 *                   thread. Not to be destroyed after this call
 * @return TARVO_ND_OK, or the code of the first step that failed: TARVO_ND_ERR_NOMEM,
 *         TARVO_ND_ERR_SYS | errno, TARVO_ND_ERR_TIMER, TARVO_ND_ERR_THREAD | error number.
 *         After a failure no table is registered; what was built stays, and nothing may be called.
 *
 * Call once, before any other call here. There is no shutdown: the worker runs for the life of the
 * process, so the library may not be unloaded.
 *
 * Blocks SIGRTMIN+6 and SIGRTMIN+10 in the calling thread for good, so that the worker, which
 * inherits the mask, is not interrupted by them. This platform layer sends no signals, so the agent
 * has nothing to do. On a platform that delivers events or timers by these two, unblock them in the
 * threads that are to receive them, the caller and what it starts from now on included. A failing
 * signal-set call ends the process with an assertion on standard error.
 */
TARVO_API uint32_t tarvo_nd_init(void *event_mgr);

/* ------------------------------ Work entry: the agent's layers ------------------------------ */

/**
 * Reports that a route of a VPN routing table has, or no longer has, this next hop.
 *
 * @param table_id   VPN routing table that holds the route; not checked
 * @param nhop_addr  BGP next hop of the route, network byte order
 * @param add        0: the route is gone; anything else: it is there
 * @return 1 queued; 0 not queued, since memory is gone (logged)
 *
 * One report per route: each add raises the table's count of that next hop, each delete lowers it;
 * at 0 the table no longer refers to the next hop. A delete of what is not counted is ignored,
 * unless no table refers to the next hop, since there was no memory for its reference: then it
 * goes. One that comes between a refresh and the reports that answer it finds the count at 0, and
 * ends the reference at once. Dropped by the worker while discovery is inactive.
 *
 * The table need not be announced. What is reported of one that is not, be it withdrawn, the
 * default table or 0, is counted all the same: all-VPN clients are told, clients of a VRF name are
 * not. No refresh asks for such a table, so what was reported once is removed at the end of the
 * next one. When the table is announced before that, what it has is not told to the clients of its
 * VRF name, now or at a refresh: announce first.
 */
TARVO_API int tarvo_nd_enqueue_nhop_update(uint32_t table_id, uint32_t nhop_addr, int add);

/**
 * Reports that the RIB restarted: every next hop is to be confirmed again within the clear
 * interval, and redistribution of every table is requested anew. That interval runs by the clock:
 * reports that wait in the queue for longer come too late, and so do all of them when the end of a
 * clear phase is queued right behind the restart. Their next hops are told as REMOVE, and then as
 * ADD. Dropped by the worker while discovery is inactive.
 *
 * @return 1 queued; 0 not queued, since memory is gone (logged)
 */
TARVO_API int tarvo_nd_enqueue_rib_restart(void);

/**
 * Announces or withdraws a VPN routing table.
 *
 * @param vrf_name  name of the VRF that carries it, cut to 244 characters; null is the empty name
 * @param table_id  the routing table; the default IPv4 unicast table is ignored. Not 0: queries
 *                  take it for all tables, replays to the clients of a VRF name for none
 * @param add       0: withdrawn; anything else: announced
 * @return 1 queued, or ignored; 0 not queued, since memory is gone (logged)
 *
 * Announcing a known table changes nothing, its name included; to rename one, withdraw it and
 * announce it again. Names need not be unique, but tables that share one do not add up: its clients
 * are told the changes of each table apart, and by registration and resend what the table with the
 * lowest ID has.
 *
 * A withdrawal while discovery is active switches redistribution of the table off, ends its
 * references, with REMOVE to the clients of its VRF name for each reachable next hop and to the
 * all-VPN clients for those that no other table refers to, and drops the reports of it that are
 * queued. While it is inactive the table is just forgotten. A withdrawal's name is not looked at,
 * and one of an unknown table does nothing.
 */
TARVO_API int tarvo_nd_enqueue_table_update(const char *vrf_name, uint32_t table_id, int add);

/**
 * Sets the length of the refresh cycle and restarts it at the beginning of a refresh phase.
 *
 * @param interval  seconds; default 300; 0 is raised to 1
 *
 * The clear phase takes half of an interval of up to 28 s (rounded down) and 29 s of a longer one;
 * the refresh phase takes the rest. The clear phase is what the RIB has to report its routes again:
 * a next hop that it reports later, or that waits in the queue for longer, is told as REMOVE, and
 * then as ADD. An interval of 1 has none, so that every next hop goes and comes once a second: no
 * interval to run with. While discovery is inactive the value is only kept. Of an interval above
 * 2^31 - 1 s the operational data don't tell what is left. Takes the nd mutex: not from a notify
 * callback.
 */
TARVO_API void tarvo_nd_set_rib_refresh_interval(uint32_t interval);

/* --------------------------------- Clients --------------------------------- */

/**
 * Registers a client. It is told ADD for every reachable next hop it watches, then END, then
 * every change.
 *
 * @param client_id  the caller's identifier, passed back in every notification. An identifier may
 *                   be registered more than once, also under one name; each registration is
 *                   told separately
 * @param vrf_name   VRF to watch, cut to 244 characters; null or empty: all VPNs
 * @param notify     the client's callback
 * @return TARVO_ND_OK queued; nothing queued: TARVO_ND_ERR_INVALID_ARG without a callback,
 *         TARVO_ND_ERR_NOMEM since memory is gone (logged)
 *
 * The first registration activates discovery. If activation fails (logged), the client stays
 * registered, is told END, and the next registration tries again. If memory for the registration
 * itself is gone (logged), no END comes.
 */
TARVO_API uint32_t tarvo_pe_discovery_register(uint32_t client_id, const char *vrf_name,
                                               tarvo_nd_notify_fn notify);

/**
 * Removes one registration of a client: its all-VPN registration if it has one, else the one whose
 * VRF name sorts first. The last one to leave deactivates discovery, and nobody is told.
 *
 * @return TARVO_ND_OK queued, also for an unknown client; TARVO_ND_ERR_NOMEM not queued, since
 *         memory is gone (logged)
 *
 * The callback may still run until the worker has handled the request; nobody is told when. The
 * RESEND_END of another client's resend, asked for after this call, tells it.
 */
TARVO_API uint32_t tarvo_pe_discovery_unregister(uint32_t client_id);

/**
 * Replays to a client what it watches: ADD for every reachable next hop, then RESEND_END.
 *
 * @param client_id  as at its registration
 * @param vrf_name   as at its registration; a client not registered so is told nothing
 * @return TARVO_ND_OK queued; TARVO_ND_ERR_NOMEM not queued, since memory is gone (logged)
 *
 * Of an ID registered more than once under that name, the first registration is told, and no other:
 * one resend is one RESEND_END.
 *
 * Requests are handled in order, so RESEND_END also tells that every earlier request is done. The
 * reports that the RIB queues while it is asked (registration, announcement, RIB restart) come
 * after a resend that is queued by then: to have them counted too, ask again when the RIB has
 * queued them.
 */
TARVO_API uint32_t tarvo_pe_discovery_resend(uint32_t client_id, const char *vrf_name);

/**
 * @name Queries
 * Each takes the nd mutex for one search and copies out `info` and `flags`; the copy may be stale
 * on return. The worker takes the mutex anew for each request, and who waits for it has no turn:
 * while a long queue is worked off, a query may wait for many requests. Table 0 stands for all
 * tables. Next hops without a route are found too, with TARVO_ND_NHOP_REACHABLE clear. Results:
 * TARVO_ND_OK; TARVO_ND_ERR_INVALID_ARG when `out` is null; TARVO_ND_ERR_NOT_FOUND when nothing
 * matches or discovery is inactive. `out` is left alone unless the result is TARVO_ND_OK.
 * @{
 */

/** Copies out the next hop with the lowest address that `table_id` refers to. */
TARVO_API uint32_t tarvo_nd_first_nhop_by_tableid(uint32_t table_id, tarvo_nd_nhop_t *out);

/**
 * Copies out the next hop with the lowest address above `nhop_addr` that `table_id` refers to.
 * `nhop_addr` itself need not exist (any more), so a walk survives changes between its calls.
 */
TARVO_API uint32_t tarvo_nd_next_nhop_by_tableid(uint32_t table_id, uint32_t nhop_addr,
                                                 tarvo_nd_nhop_t *out);

/** Copies out the next hop with this address, provided that `table_id` refers to it. */
TARVO_API uint32_t tarvo_nd_lookup_nhop_by_tableid(uint32_t table_id, uint32_t nhop_addr,
                                                   tarvo_nd_nhop_t *out);

/** @} */

/**
 * The VRF name of a routing table, or null when the table is unknown.
 *
 * Takes no lock. The result points into the database and may be freed by the worker at any time,
 * so it is safe only where the nd mutex is held: in a notify callback.
 */
TARVO_API const char *tarvo_nd_tableid2vrf_name(uint32_t table_id);

#ifdef __cplusplus
}
#endif

#endif
