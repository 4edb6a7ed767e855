#include "engine/worker.h"

#include "db/client_registry.h"
#include "db/nhop_refresh.h"
#include "db/nhop_update.h"
#include "db/vrf_table.h"
#include "engine/log.h"
#include "engine/shared_words.h"
#include "engine/timer_work.h"
#include "engine/work_queue.h"
#include "platform/thread_diag.h"

// Both locks of a round are taken under the name of the thread's entry.
static const char kCaller[] = "tarvo_nd_process_work_req";

// Handles a request that means nothing while discovery is inactive.
static void dispatch_active(const tarvo_nd_work_req_t &request) TARVO_REQUIRES(tarvo_nd_mutex) {
  if (tarvo_nd_is_active() == 0) return;
  switch (request.type) {
    case TARVO_ND_REQ_NHOP_ADD:
    case TARVO_ND_REQ_NHOP_DEL:
      tarvo_nd_handle_nhop_update(request.nhop.table_id, request.nhop.nhop_addr,
                                  request.type == TARVO_ND_REQ_NHOP_ADD);
      return;
    case TARVO_ND_REQ_REFRESH_EXPIRED:
      tarvo_nd_handle_refresh_expired();
      return;
    case TARVO_ND_REQ_CLEAR_EXPIRED:
      tarvo_nd_nhop_sweep();
      return;
    case TARVO_ND_REQ_RIB_RESTART:
      tarvo_nd_handle_rib_restart();
      return;
  }
}

static void dispatch(const tarvo_nd_work_req_t &request) TARVO_REQUIRES(tarvo_nd_mutex) {
  switch (request.type) {
    case TARVO_ND_REQ_NHOP_ADD:
    case TARVO_ND_REQ_NHOP_DEL:
    case TARVO_ND_REQ_REFRESH_EXPIRED:
    case TARVO_ND_REQ_CLEAR_EXPIRED:
    case TARVO_ND_REQ_RIB_RESTART:
      dispatch_active(request);
      return;
    case TARVO_ND_REQ_CLIENT_REG:
      tarvo_nd_handle_client_reg(request.client.client_id, request.client.vrf_name,
                                 request.client.notify, true);
      return;
    case TARVO_ND_REQ_CLIENT_UNREG:
      tarvo_nd_handle_client_reg(request.client.client_id, nullptr, nullptr, false);
      return;
    case TARVO_ND_REQ_TABLE_ADD:
    case TARVO_ND_REQ_TABLE_DEL:
      tarvo_nd_handle_table_update(request.table.table_id, request.table.vrf_name,
                                   request.type == TARVO_ND_REQ_TABLE_ADD);
      return;
    case TARVO_ND_REQ_RESEND:
      tarvo_nd_handle_resend(request.client.client_id, request.client.vrf_name);
      return;
    default:
      tarvo_nd_log_internal("PE discovery invalid request type", static_cast<int>(request.type),
                            "Unknown");
  }
}

void tarvo_nd_work_round() {
  tarvo_nd_work_req_t request;
  if (!tarvo_nd_work_dequeue(&request, kCaller)) return;

  guarded_lock hold(tarvo_nd_mutex, kCaller);
  dispatch(request);
}

void *tarvo_nd_process_work_req(void * /*unused*/) {
  set_thread_name("mpls_vpn", pthread_self());
  pthread_cleanup_push(remove_thread_name, nullptr);
  for (;;) tarvo_nd_work_round();
  pthread_cleanup_pop(0);
  return nullptr;
}
