// Start-up: builds what the module needs, step by step, and then makes it known to the agent. The
// first failure returns its code; nothing is undone and no callback table is registered.
#include <pthread.h>

#include <cerrno>
#include <csignal>

#include "engine/log.h"
#include "engine/timers.h"
#include "engine/work_queue.h"
#include "engine/worker.h"
#include "platform/event.h"
#include "tarvo/agent_services.h"
#include "tarvo/discovery.h"

// Traces a failed step and returns its code. The error number comes as an argument, since the
// trace itself may change errno.
static uint32_t step_failed(const char *step, int error, uint32_t code) {
  constexpr uint64_t kTraceMask = 0x100000;
  constexpr uint64_t kTraceId = 0x10200106001;
  tarvo_sa_lstrace(kTraceMask, kTraceId, step, static_cast<uint32_t>(error));
  return code;
}

static uint32_t sys_failed(const char *step) {
  const int error = errno;
  return step_failed(step, error, TARVO_ND_ERR_SYS | static_cast<uint32_t>(error));
}

static uint32_t timer_failed(const char *step) {
  return step_failed(step, errno, TARVO_ND_ERR_TIMER);
}

static uint32_t create_timers(void *event_mgr) {
  const int event_code =
      event_async_attach(event_mgr, EVENT_COALESCE, tarvo_nd_timer_handler, nullptr);
  if (event_code == -1) return sys_failed("attach timer handler");

  sigevent event = {};
  static_assert(sizeof event == 64, "as the event manager fills it");
  if (event_init_sigevent(event_mgr, event_code, 0, 0, &event) != 0)
    return sys_failed("define timer event");

  if (!tarvo_nd_timer_tree_create(&event)) return timer_failed("create timer tree");
  if (!tarvo_nd_refresh_timer_create()) return timer_failed("create refresh timer leaf");
  if (!tarvo_nd_clear_timer_create()) return timer_failed("create clear timer leaf");
  return TARVO_ND_OK;
}

// In the calling thread, so that the worker inherits them blocked.
static void block_realtime_signals() {
  sigset_t set;
  tarvo_nd_require_ok(sigemptyset(&set), 488, "rc == 0");
  tarvo_nd_require_ok(sigaddset(&set, SIGRTMIN + 6), 490, "rc == 0");
  tarvo_nd_require_ok(sigaddset(&set, SIGRTMIN + 10), 494, "rc ==0");
  tarvo_nd_require_ok(pthread_sigmask(SIG_BLOCK, &set, nullptr), 496, "rc == 0");
}

static uint32_t start_worker() {
  pthread_t worker;
  const int error = pthread_create(&worker, nullptr, tarvo_nd_process_work_req, nullptr);
  if (error == 0) return TARVO_ND_OK;
  return step_failed("create PE discovery thread", error,
                     TARVO_ND_ERR_THREAD | static_cast<uint32_t>(error));
}

static void register_callback_tables() {
  tarvoDiscoverySetODSFns(&tarvoMplsDiscoveryODSFns);
  tarvo_ital_cb_fn_set(&tarvoMplsDiscoveryItalFns);
  tarvo_rib_cb_fn_set(&tarvoMplsDiscoveryRibFns);
  tarvo_cfg_cb_fn_set(&tarvoMplsDiscoveryCfgFns);
}

uint32_t tarvo_nd_init(void *event_mgr) {
  if (!tarvo_nd_workq_create()) {
    tarvo_nd_log_err_mem("During mallocing workQ Chunk");
    return TARVO_ND_ERR_NOMEM;
  }
  if (const uint32_t code = create_timers(event_mgr); code != TARVO_ND_OK) return code;
  block_realtime_signals();
  if (const uint32_t code = start_worker(); code != TARVO_ND_OK) return code;
  register_callback_tables();
  return TARVO_ND_OK;
}
