#include "agent/agent_services.h"

#include <arpa/inet.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "agent/diagnostics.h"
#include "agent/global_table.h"
#include "agent/redistribution.h"

namespace agent {

static redistribution *reports;
static const global_table *global;
static module_tables tables;
static std::atomic<bool> tracing;

void install_services(redistribution &to, const global_table &routes) {
  reports = &to;
  global = &routes;
}

const module_tables &registered_tables() { return tables; }

void set_trace(bool on) { tracing.store(on, std::memory_order_relaxed); }

}  // namespace agent

using namespace agent;

// ---- Registration ----

int tarvoDiscoverySetODSFns(const tarvo_nd_ods_fns_t *fns) {
  tables.ods = fns;
  return 0;
}

int tarvo_ital_cb_fn_set(const tarvo_nd_ital_fns_t *fns) {
  tables.ital = fns;
  return 0;
}

int tarvo_rib_cb_fn_set(const tarvo_nd_rib_fns_t *fns) {
  tables.rib = fns;
  reports->set_callbacks(fns);
  return 0;
}

int tarvo_cfg_cb_fn_set(const tarvo_nd_cfg_fns_t *fns) {
  tables.cfg = fns;
  return 0;
}

// ---- RIB ----

int tarvo_rib_ipv4_get_prefix_route(tarvo_nd_nhop_info_t *info) {
  auto route = global->lookup(ntohl(info->nhop_addr));
  if (!route) return -1;
  info->prefix = htonl(route->prefix);
  info->prefix_len = route->length;
  return 0;
}

int tarvo_rib_ipv4_redist(uint32_t table_id, int on) { return reports->request(table_id, on != 0); }

int tarvo_rib_ipv4_redist_reset(uint32_t table_id) { return reports->request_reset(table_id); }

uint32_t rtab_c_tbl_id_ipv4_ucast_dflt(void) { return kDefaultTableId; }

// ---- Traces ----

void tarvo_sa_lstrace(uint64_t, uint64_t, const char *text, uint32_t code, ...) {
  fprintf(stderr, "start-up failed: %s (0x%08x)\n", text, code);
}

void tarvo_sa_debug(uint32_t, uint32_t, const char *format, ...) {
  if (!tracing.load(std::memory_order_relaxed)) return;
  va_list arguments;
  va_start(arguments, format);
  char line[512] = "trace: ";
  const size_t used = strlen(line);
  vsnprintf(line + used, sizeof line - used, format, arguments);
  va_end(arguments);
  diagnose(line);
}
