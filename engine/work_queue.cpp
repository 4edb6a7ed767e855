#include "engine/work_queue.h"

#include <cstring>

#include "engine/log.h"
#include "platform/pool.h"
#include "platform/queue.h"
#include "platform/thread_diag.h"

static void *tarvo_nd_workq_chunk TARVO_GUARDED_BY(tarvo_nd_workq_mutex) = nullptr;
static queue_t tarvo_nd_workq TARVO_GUARDED_BY(tarvo_nd_workq_mutex);
static pthread_cond_t tarvo_nd_workq_cond = PTHREAD_COND_INITIALIZER;

constexpr unsigned long kPoolFlags = CHUNK_GROW | CHUNK_TRIM;
static_assert(kPoolFlags == 0x201);

bool tarvo_nd_workq_create() TARVO_NO_THREAD_SAFETY_ANALYSIS {
  queue_init(&tarvo_nd_workq, 0);
  tarvo_nd_workq_chunk =
      chunk_create("PE Discovery workQ Chunk", sizeof(tarvo_nd_work_req_t), 100, kPoolFlags, 0, 0);
  return tarvo_nd_workq_chunk != nullptr;
}

static bool append(const tarvo_nd_work_req_t *request) TARVO_EXCLUDES(tarvo_nd_workq_mutex) {
  guarded_lock hold(tarvo_nd_workq_mutex, "tarvo_nd_work_enqueue");
  void *element = chunk_malloc(tarvo_nd_workq_chunk);
  if (element == nullptr) {
    tarvo_nd_log_err_mem("During mallocing route update information");
    return false;
  }
  memcpy(element, request, sizeof *request);
  queue_enqueue(&tarvo_nd_workq, element);
  return true;
}

int tarvo_nd_work_enqueue(const tarvo_nd_work_req_t *request) {
  if (request == nullptr) {
    tarvo_nd_log_internal("During enqueuing NHop", 0, "invalid request");
    return 0;
  }
  if (!append(request)) return 0;

  // Signal after the unlock: a worker woken earlier would only block on the lock we hold.
  const int error = pthread_cond_signal(&tarvo_nd_workq_cond);
  if (error != 0) tarvo_nd_log_internal("Failed to awake a thread waiting for workQ", error);
  return 1;
}

static void wait_for_work() TARVO_REQUIRES(tarvo_nd_workq_mutex) {
  ptd_set_syscall_block_internal(PTD_WAIT_CONDITION, &tarvo_nd_workq_cond, 0, 0);
  const int error = pthread_cond_wait(&tarvo_nd_workq_cond, &tarvo_nd_workq_mutex.mutex);
  ptd_set_syscall_unblock();
  if (error != 0) tarvo_nd_log_internal("Cannot wait for nd req, error", error);
}

bool tarvo_nd_work_dequeue(tarvo_nd_work_req_t *request, const char *caller) {
  guarded_lock hold(tarvo_nd_workq_mutex, caller);
  void *element = queue_dequeue(&tarvo_nd_workq);
  if (element == nullptr) {
    wait_for_work();
    return false;
  }
  memcpy(request, element, sizeof *request);
  chunk_free(tarvo_nd_workq_chunk, element);
  return true;
}

static bool is_nhop_update_of(const tarvo_nd_work_req_t *request, uint32_t table_id) {
  return (request->type == TARVO_ND_REQ_NHOP_ADD || request->type == TARVO_ND_REQ_NHOP_DEL) &&
         request->nhop.table_id == table_id;
}

void tarvo_nd_del_nhop_update_from_work_req(uint32_t table_id) {
  guarded_lock hold(tarvo_nd_workq_mutex, "tarvo_nd_del_nhop_update_from_work_req");
  void *kept = nullptr;
  void *element = tarvo_nd_workq.head;
  while (element != nullptr) {
    if (is_nhop_update_of(static_cast<tarvo_nd_work_req_t *>(element), table_id)) {
      queue_remqueue(&tarvo_nd_workq, element, kept);
      chunk_free(tarvo_nd_workq_chunk, element);
    } else {
      kept = element;
    }
    element = kept == nullptr ? tarvo_nd_workq.head : queue_get_next(kept);
  }
}
