#include <cstring>
#include <ctime>

#include "db/nhop_table.h"
#include "engine/shared_words.h"
#include "engine/timers.h"
#include "engine/work_queue.h"
#include "engine/worker.h"
#include "platform/message_log.h"
#include "platform/queue.h"
#include "platform/timer.h"
#include "tarvo/agent_services.h"
#include "tarvo/discovery.h"
#include "tests/interleave/interleave.h"

// ------------------------ What is wrapped, with what must hold there ------------------------

#define CHECKED(result, name, parameters, arguments, check) \
  extern "C" result __real_##name parameters;               \
  extern "C" result __wrap_##name parameters {              \
    check;                                                  \
    return __real_##name arguments;                         \
  }

static void under_nd() { require(holds(tarvo_nd_mutex), "the database is used without the lock"); }

CHECKED(int32_t, _Z18tarvo_nd_is_activev, (), (), point("active?"))
static void check_flag(int32_t active);
CHECKED(void, _Z19tarvo_nd_set_activei, (int32_t active), (active), check_flag(active))
CHECKED(uint32_t, _Z29tarvo_nd_get_refresh_intervalv, (), (), point("interval?"))
CHECKED(void, _Z22tarvo_nd_set_intervalsjj, (uint32_t refresh, uint32_t clear), (refresh, clear),
        point("set intervals"))

static void check_tree(const wavl_tree_t *tree) TARVO_NO_THREAD_SAFETY_ANALYSIS {
  under_nd();
  require(tree != &tarvo_nd_nhop_tree || tarvo_nd_nhop_chunk != nullptr,
          "a tree is touched whose pool is gone");
  require(tree->cmp == tarvo_nd_nhop_cmp || tree->cmp == tarvo_nd_tableid_cmp,
          "a freed tree is touched");
}

#define CHECKED_TREE(result, name, parameters, arguments) \
  CHECKED(result, name, parameters, arguments, check_tree(tree); require(n == 0, "another order"))
CHECKED_TREE(void *, wavl_search, (wavl_tree_t * tree, const void *key, unsigned long n),
             (tree, key, n))
CHECKED_TREE(void *, wavl_get_first, (wavl_tree_t * tree, unsigned long n), (tree, n))
CHECKED_TREE(void *, wavl_get_next, (wavl_tree_t * tree, const void *key, unsigned long n),
             (tree, key, n))
CHECKED(void *, avl_search, (void *root, const void *key, tree_cmp cmp), (root, key, cmp),
        under_nd())
CHECKED(void *, avl_get_first, (void *root), (root), under_nd())

// To go on is 1, to stop 0.
struct walk {
  int (*visit)(void *, void *);
  void *arg;
};
static int checked_visit(void *node, void *walked) {
  const auto &[visit, arg] = *static_cast<walk *>(walked);
  const int on = visit(node, arg);
  require(on == 0 || on == 1, "a visitor's other result");
  return on;
}
extern "C" int __real_avl_walk(void *, int (*)(void *, void *), void *);
extern "C" int __wrap_avl_walk(void *root, int (*visit)(void *, void *), void *arg) {
  under_nd();
  walk checked = {visit, arg};
  return __real_avl_walk(root, checked_visit, &checked);
}

// A freed element is spoilt, so that a late look at it shows.
static size_t size_of_elements(const void *pool) TARVO_NO_THREAD_SAFETY_ANALYSIS {
  if (pool == tarvo_nd_nhop_chunk) return sizeof(tarvo_nd_nhop_t);
  return pool == tarvo_nd_table_chunk ? sizeof(tarvo_nd_nhop_table_t) : sizeof(tarvo_nd_work_req_t);
}
CHECKED(void, chunk_free, (void *pool, void *element), (pool, element),
        memset(element, 0xdd, size_of_elements(pool)))

static queue_t *workq;
int ends, offered, handled, purged;

static void check_new_queue(queue_t *q, unsigned long zero) {
  require(zero == 0, "another kind of queue");
  if (workq == nullptr) workq = q;
}

static bool is_workq(const queue_t *q) {
  require(holds(q == workq ? tarvo_nd_workq_mutex : tarvo_nd_mutex),
          "a queue is used without its lock");
  return q == workq;
}

CHECKED(void, queue_init, (queue_t * q, unsigned long zero), (q, zero), check_new_queue(q, zero))
CHECKED(void, queue_enqueue, (queue_t * q, void *element), (q, element), offered += is_workq(q))
CHECKED(void *, queue_dequeue, (queue_t * q), (q), handled += is_workq(q) && q->head != nullptr)
CHECKED(void, queue_remqueue, (queue_t * q, void *element, void *previous), (q, element, previous),
        purged += is_workq(q))

// ------------------------------------------- Timers -------------------------------------------

struct mgd_timer_leaf {
  unsigned type;
  bool runs, expired;
  time_t seconds;
};
static mgd_timer_leaf leaves[2];  // refresh, clear
static int leaves_created;

void *mgd_timer_tree_new(sigevent *, int) { return leaves; }
void *mgd_timer_leaf_new(void *, int, unsigned type, int) {
  leaves[leaves_created].type = type;
  return &leaves[leaves_created++];
}

void mgd_timer_leaf_start(mgd_timer_leaf *leaf, const timespec *delay) {
  under_nd();
  require(!leaves[0].runs && !leaves[1].runs, "a timer is started while one runs");
  const auto gives = [&](uint32_t interval) {
    const tarvo_nd_phases phases = tarvo_nd_phases_of(interval);
    return delay->tv_sec == (leaf == leaves ? phases.refresh : phases.clear);
  };
  require(gives(kIntervals[0]) || gives(kIntervals[1]) || gives(kIntervals[2]),
          "a phase of a length that no interval gives");
  *leaf = {leaf->type, true, delay->tv_sec == 0, delay->tv_sec};
}

void mgd_timer_leaf_stop(mgd_timer_leaf *leaf) {
  under_nd();
  *leaf = {leaf->type, false, false, 0};
}

int mgd_timer_leaf_running(mgd_timer_leaf *leaf) {
  under_nd();
  return leaf->runs;
}

void mgd_timer_leaf_remaining(mgd_timer_leaf *leaf, timespec *left) {
  under_nd();
  require(leaf->runs, "the time left of a timer that does not run");
  *left = {leaf->expired ? 0 : 1, 0};
}

mgd_timer_leaf *mgd_timer_tree_first_expired(void *) {
  point("first expired?");
  for (mgd_timer_leaf &leaf : leaves)
    if (leaf.expired) return &leaf;
  return nullptr;
}

unsigned mgd_timer_leaf_type(mgd_timer_leaf *leaf) {
  under_nd();
  require(leaf->expired, "a timer is handled that did not expire");
  return leaf->type;
}

void expire() {
  for (mgd_timer_leaf &leaf : leaves) leaf.expired = leaf.runs;
  tarvo_nd_timer_handler(nullptr);
}

static void check_flag(int32_t active) {
  under_nd();
  require(active == 0 || leaves[0].runs, "the flag comes before the timer");
  point("set active");
}

void check_timers() {
  const int active = __real__Z18tarvo_nd_is_activev();
  const int run = leaves[0].runs + leaves[1].runs;
  require(run >= active, "no timer runs while discovery is active");
  require(run <= active, "a timer runs while discovery is inactive");
}

// Once every setter is through.
static void check_phase() {
  const auto phases = tarvo_nd_phases_of(__real__Z29tarvo_nd_get_refresh_intervalv());
  require(!leaves[0].runs || leaves[0].seconds == phases.refresh, "an interval is not taken up");
  require(!leaves[1].runs || leaves[1].seconds == phases.clear, "an interval is not taken up");
}

// ----------------------------------- The agent's services -----------------------------------

void tell(uint32_t, uint32_t event, const void *) {
  under_nd();
  ends += event == TARVO_ND_EVENT_END;
}

int tarvo_rib_ipv4_get_prefix_route(tarvo_nd_nhop_info_t *info) {
  *info = {info->nhop_addr, 10, 8};
  return 0;
}
int tarvo_rib_ipv4_redist(uint32_t, int) { return 0; }
int tarvo_rib_ipv4_redist_reset(uint32_t) { return 0; }
uint32_t rtab_c_tbl_id_ipv4_ucast_dflt() { return 0; }
void tarvo_sa_debug(uint32_t, uint32_t, const char *, ...) {}
void tarvo_sa_lstrace(uint64_t, uint64_t, const char *text, uint32_t, ...) { fail(text); }
int tarvoDiscoverySetODSFns(const tarvo_nd_ods_fns_t *) { return 0; }
int tarvo_ital_cb_fn_set(const tarvo_nd_ital_fns_t *) { return 0; }
int tarvo_rib_cb_fn_set(const tarvo_nd_rib_fns_t *) { return 0; }
int tarvo_cfg_cb_fn_set(const tarvo_nd_cfg_fns_t *) { return 0; }
void oxa_errmsg(const oxa_msg_rec_t *, int, ...) { fail("a message is logged"); }

// ---------------------------------------- Every run ----------------------------------------

bool work_queued() { return workq->head != nullptr; }

int32_t nhop_count() TARVO_NO_THREAD_SAFETY_ANALYSIS { return tarvo_nd_nhop_count; }

void create_world() {
  sigevent event = {};
  const bool created = tarvo_nd_workq_create() && tarvo_nd_timer_tree_create(&event) &&
                       tarvo_nd_refresh_timer_create() && tarvo_nd_clear_timer_create();
  require(created, "the world is not created");
}

static void drain() {
  while (work_queued()) tarvo_nd_work_round();
}

void begin_run() {
  tarvo_pe_discovery_register(1, nullptr, tell);
  tarvo_pe_discovery_register(2, "A", tell);
  tarvo_nd_enqueue_table_update("A", 7, 1);
  tarvo_nd_enqueue_table_update("B", 8, 1);
  tarvo_nd_enqueue_nhop_update(7, kHop1, 1);
  tarvo_nd_enqueue_nhop_update(7, kHop2, 1);
  tarvo_nd_enqueue_nhop_update(8, kHop2, 1);
  drain();
  ends = offered = handled = purged = 0;
}

void end_run() {
  drain();
  check_phase();
  require(offered == handled + purged, "requests are unaccounted for");
  for (uint32_t client : {4, 3, 2, 1}) tarvo_pe_discovery_unregister(client);
  for (uint32_t table : {7, 8}) tarvo_nd_enqueue_table_update("", table, 0);
  drain();
  tarvo_nd_set_rib_refresh_interval(kIntervals[0]);
  require(tarvo_nd_is_active() == 0 && nhop_count() == 0, "discovery does not end");
  check_timers();
}
