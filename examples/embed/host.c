/*
 * The smallest host of the PE discovery module: one VPN routing table, three next hops, one client.
 *
 * It provides the services of tarvo/agent_services.h, starts the module, prints what the client is
 * told, and then reads the same through a query and through the operational data. Its routes are
 * constants, so it needs no locks of its own; a host whose routes change must not hold the lock of
 * its RIB while it queries the module, if its RIB services below take that lock too.
 */
#include <arpa/inet.h>
#include <pthread.h>
#include <semaphore.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "platform/event.h"
#include "platform/ods.h"
#include "tarvo/agent_services.h"
#include "tarvo/discovery.h"
#include "tarvo/oper_data.h"

enum { DEFAULT_TABLE = 1, CUSTOMER_TABLE = 101, CLIENT = 7 };

static const char *const vpn_route_nexthops[] = {"10.255.0.1", "10.255.0.2", "192.0.2.9"};
enum { NEXTHOPS = sizeof vpn_route_nexthops / sizeof vpn_route_nexthops[0] };

static const char *address(uint32_t network_order) {
  static _Thread_local char text[INET_ADDRSTRLEN];
  return inet_ntop(AF_INET, &network_order, text, sizeof text);
}

/* ---- What the module asks of its host. The linker exports these to the library by itself. ---- */

/* The module's callback tables: the host calls the module through them. */
static const tarvo_nd_rib_fns_t *rib;
static const tarvo_nd_ital_fns_t *tables;
static const tarvo_nd_ods_fns_t *oper;
static const tarvo_nd_cfg_fns_t *config;

int tarvo_rib_cb_fn_set(const tarvo_nd_rib_fns_t *fns) { return rib = fns, 0; }
int tarvo_ital_cb_fn_set(const tarvo_nd_ital_fns_t *fns) { return tables = fns, 0; }
int tarvoDiscoverySetODSFns(const tarvo_nd_ods_fns_t *fns) { return oper = fns, 0; }
int tarvo_cfg_cb_fn_set(const tarvo_nd_cfg_fns_t *fns) { return config = fns, 0; }

uint32_t rtab_c_tbl_id_ipv4_ucast_dflt(void) { return DEFAULT_TABLE; }

/* Longest match in the global table, which here holds 10.255.0.0/16 and nothing else. */
int tarvo_rib_ipv4_get_prefix_route(tarvo_nd_nhop_info_t *info) {
  const uint32_t covering = UINT32_C(0x0aff0000);
  if ((ntohl(info->nhop_addr) & UINT32_C(0xffff0000)) != covering) return -1;
  info->prefix = htonl(covering);
  info->prefix_len = 16;
  return 0;
}

/* Reports the next hop of every route of the table: one report a route, queued, not waited for. */
static int report_routes(uint32_t table_id) {
  if (table_id != CUSTOMER_TABLE) return 0;
  for (int i = 0; i < NEXTHOPS; ++i)
    rib->nhop_update(table_id, inet_addr(vpn_route_nexthops[i]), 1);
  return 0;
}

/* On: all routes now and every change from then on. These never change, so off is easy. */
int tarvo_rib_ipv4_redist(uint32_t table_id, int on) { return on ? report_routes(table_id) : 0; }
int tarvo_rib_ipv4_redist_reset(uint32_t table_id) { return report_routes(table_id); }

void tarvo_sa_lstrace(uint64_t mask, uint64_t id, const char *text, uint32_t code, ...) {
  (void)mask, (void)id;
  fprintf(stderr, "host: start-up failed: %s (0x%08x)\n", text, code);
}

void tarvo_sa_debug(uint32_t category, uint32_t level, const char *format, ...) {
  (void)category, (void)level, (void)format; /* a host with a debug log writes it there */
}

/* ---- The client ---- */

static sem_t complete;

/* Called on the module's worker with its database lock held: print and return. */
static void on_event(uint32_t client, uint32_t event, const void *data) {
  const tarvo_nd_nhop_info_t *pe = data; /* of ADD and REMOVE; valid during the call only */
  switch (event) {
    case TARVO_ND_EVENT_ADD:
      printf("client %u: ADD %s", client, address(pe->nhop_addr));
      printf(", covered by %s/%u\n", address(pe->prefix), pe->prefix_len);
      break;
    case TARVO_ND_EVENT_REMOVE:
      printf("client %u: REMOVE %s\n", client, address(pe->nhop_addr));
      break;
    default: /* the replay after a registration, or the one asked for, is complete */
      printf("client %u: %s\n", client, event == TARVO_ND_EVENT_END ? "END" : "RESEND_END");
      sem_post(&complete);
  }
}

/* ---- Reading: from any thread, never from a callback ---- */

static void read_by_query(void) {
  tarvo_nd_nhop_t pe;
  uint32_t code = tarvo_nd_first_nhop_by_tableid(CUSTOMER_TABLE, &pe);
  for (; code == TARVO_ND_OK;
       code = tarvo_nd_next_nhop_by_tableid(CUSTOMER_TABLE, pe.info.nhop_addr, &pe)) {
    printf("query: %s, %s\n", address(pe.info.nhop_addr),
           pe.flags & TARVO_ND_NHOP_REACHABLE ? "reachable" : "not reachable");
  }
}

/* The record is a CBOR map of the fields of tarvo_discovery_vrf_bag. */
static void print_entry(uint32_t nexthop, const ods_entry_t *entry) {
  const unsigned char *record = entry->buffer;
  printf("operational data: %s, VRF %s, record ", address(nexthop), entry->key);
  for (uint32_t i = 0; i < entry->length; ++i) printf("%02x", record[i]);
  putchar('\n');
}

static void read_vrfs(uint32_t nexthop) {
  ods_path_t path = {.item = TARVO_DISC_ITEM_VRF, .key = {&nexthop}};
  ods_list_result_t vrfs = {0};
  if (oper->datalist(NULL, &vrfs, &path, NULL) != 0) return;
  for (uint32_t i = 0; i < vrfs.count; ++i) print_entry(nexthop, ods_list_entry(vrfs.list, i));
  ods_datalist_free(vrfs.list);
}

/* A page of next hops at a time. A last page that is full promises more too: then the next is
   TARVO_ODS_ERR_NOT_FOUND. */
static void read_oper_data(void) {
  uint32_t nexthop = 0; /* from the start */
  for (int more = 1; more;) {
    ods_path_t path = {.item = TARVO_DISC_ITEM_NHOP, .key = {&nexthop}};
    ods_list_result_t page = {0};
    if (oper->list(NULL, &page, &path, NULL) != 0) return;
    for (uint32_t i = 0; i < page.count; ++i) {
      nexthop = (uint32_t)strtoul(ods_list_entry(page.list, i)->key, NULL, 16);
      read_vrfs(nexthop);
    }
    more = ods_list_more(page.list);
    ods_list_free(page.list);
  }
}

/* ---- The host ---- */

static void *dispatch(void *events) {
  event_mgr_dispatch(events);
  return NULL;
}

int main(void) {
  pthread_t thread;
  void *events = event_mgr_create();
  if (events == NULL || pthread_create(&thread, NULL, dispatch, events) != 0) return 1;
  sem_init(&complete, 0, 0);

  if (tarvo_nd_init(events) != TARVO_ND_OK) return 1;
  tables->table_update("CUST-A", CUSTOMER_TABLE, 1);
  if (tarvo_pe_discovery_register(CLIENT, "CUST-A", on_event) != TARVO_ND_OK) return 1;
  sem_wait(&complete);

  /* The reports were queued when the registration was handled, so this comes after them. */
  tarvo_pe_discovery_resend(CLIENT, "CUST-A");
  sem_wait(&complete);

  read_by_query();
  read_oper_data();
  return 0; /* the worker lives as long as the process */
}
