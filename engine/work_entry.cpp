// Work entry: the calls by which the agent's layers, the monitoring operations and the timer
// handler ask for changes. Each fills a request on its own stack and queues it.
#include "engine/work_entry.h"

#include <cstring>

#include "engine/work_queue.h"
#include "tarvo/agent_services.h"
#include "tarvo/discovery.h"

// A request with everything but its type zero. An initialiser would leave the rest of the union
// behind its first member open.
static tarvo_nd_work_req_t request_of(tarvo_nd_req_type type) {
  tarvo_nd_work_req_t request;
  memset(&request, 0, sizeof request);
  request.type = type;
  return request;
}

static int enqueue_bare(tarvo_nd_req_type type) {
  const tarvo_nd_work_req_t request = request_of(type);
  return tarvo_nd_work_enqueue(&request);
}

int tarvo_nd_enqueue_nhop_update(uint32_t table_id, uint32_t nhop_addr, int add) {
  tarvo_nd_work_req_t request =
      request_of(add != 0 ? TARVO_ND_REQ_NHOP_ADD : TARVO_ND_REQ_NHOP_DEL);
  request.nhop.table_id = table_id;
  request.nhop.nhop_addr = nhop_addr;
  return tarvo_nd_work_enqueue(&request);
}

int tarvo_nd_enqueue_rib_restart() { return enqueue_bare(TARVO_ND_REQ_RIB_RESTART); }

void tarvo_nd_enqueue_refresh_expired() { enqueue_bare(TARVO_ND_REQ_REFRESH_EXPIRED); }

void tarvo_nd_enqueue_clear_expired() { enqueue_bare(TARVO_ND_REQ_CLEAR_EXPIRED); }

int tarvo_nd_enqueue_table_update(const char *vrf_name, uint32_t table_id, int add) {
  if (table_id == rtab_c_tbl_id_ipv4_ucast_dflt()) return 1;

  tarvo_nd_work_req_t request =
      request_of(add != 0 ? TARVO_ND_REQ_TABLE_ADD : TARVO_ND_REQ_TABLE_DEL);
  request.table.table_id = table_id;
  tarvo_nd_vrf_name_copy(request.table.vrf_name, vrf_name);
  return tarvo_nd_work_enqueue(&request);
}

static int tarvo_nd_enqueue_client_reg(uint32_t client_id, const char *vrf_name,
                                       tarvo_nd_notify_fn notify, int reg) {
  tarvo_nd_work_req_t request =
      request_of(reg != 0 ? TARVO_ND_REQ_CLIENT_REG : TARVO_ND_REQ_CLIENT_UNREG);
  request.client.client_id = client_id;
  if (reg != 0) {
    tarvo_nd_vrf_name_copy(request.client.vrf_name, vrf_name);
    request.client.notify = notify;
  }
  return tarvo_nd_work_enqueue(&request);
}

static int tarvo_nd_enqueue_resend(uint32_t client_id, const char *vrf_name) {
  tarvo_nd_work_req_t request = request_of(TARVO_ND_REQ_RESEND);
  request.client.client_id = client_id;
  tarvo_nd_vrf_name_copy(request.client.vrf_name, vrf_name);
  return tarvo_nd_work_enqueue(&request);
}

static uint32_t queued(int result) { return result == 1 ? TARVO_ND_OK : TARVO_ND_ERR_NOMEM; }

uint32_t tarvo_pe_discovery_register(uint32_t client_id, const char *vrf_name,
                                     tarvo_nd_notify_fn notify) {
  if (notify == nullptr) return TARVO_ND_ERR_INVALID_ARG;
  return queued(tarvo_nd_enqueue_client_reg(client_id, vrf_name, notify, 1));
}

uint32_t tarvo_pe_discovery_unregister(uint32_t client_id) {
  return queued(tarvo_nd_enqueue_client_reg(client_id, nullptr, nullptr, 0));
}

uint32_t tarvo_pe_discovery_resend(uint32_t client_id, const char *vrf_name) {
  return queued(tarvo_nd_enqueue_resend(client_id, vrf_name));
}
