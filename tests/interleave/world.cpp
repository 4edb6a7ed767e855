#include "tests/interleave/world.h"

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <vector>

#include "db/nhop_table.h"
#include "db/vrf_table.h"
#include "engine/shared_words.h"
#include "engine/timers.h"
#include "engine/work_entry.h"
#include "engine/work_queue.h"
#include "engine/worker.h"
#include "platform/message_log.h"
#include "platform/pool.h"
#include "platform/queue.h"
#include "platform/thread_diag.h"
#include "platform/timer.h"
#include "tarvo/agent_services.h"
#include "tarvo/discovery.h"
#include "tests/interleave/sanitizer.h"
#include "tests/interleave/scheduler.h"

// ------------------------------------------- Pools -------------------------------------------
// What is freed is poisoned and kept until the end of the run, so that a late look shows.

namespace {
struct block {
  char *at;
  size_t size;
  void *pool;  ///< null: it is a pool
};
}  // namespace
static std::vector<block> live, freed;
static const void *workq_pool;

static void *allocate(size_t size, void *pool) {
  live.push_back({static_cast<char *>(calloc(1, size)), size, pool});
  return live.back().at;
}

static void give_back(void *at, const void *pool) {
  for (block &b : live) {
    if (b.at != at) continue;
    require(b.pool == pool, "an element is freed to another pool");
    memset(b.at, 0xdd, b.size);
    poison(b.at, b.size);
    freed.push_back(b);
    b = live.back();
    live.pop_back();
    return;
  }
  fail("what is not in use is freed");
}

static void release_freed() {
  for (const block &b : freed) {
    unpoison(b.at, b.size);
    require(b.at[0] == '\xdd' && memcmp(b.at, b.at + 1, b.size - 1) == 0,
            "freed memory is written");
    free(b.at);
  }
  freed.clear();
}

static void check_pool(const void *pool) {
  require(pool == workq_pool ? workq_held() : nd_held(), "a pool is used without its lock");
}

void *chunk_create(const char *, unsigned long size, unsigned long, unsigned long, unsigned long,
                   unsigned long) {
  void *pool = allocate(sizeof size, nullptr);
  memcpy(pool, &size, sizeof size);
  return pool;
}

void chunk_destroy(void *pool) {
  check_pool(pool);
  for (const block &b : live) require(b.pool != pool, "a pool ends with an element in use");
  give_back(pool, nullptr);
}

void *chunk_malloc(void *pool) {
  check_pool(pool);
  size_t size;
  memcpy(&size, pool, sizeof size);
  return allocate(size, pool);
}

void chunk_free(void *pool, void *element) {
  check_pool(pool);
  give_back(element, pool);
}

// ------------------------------------------- Timers -------------------------------------------

struct mgd_timer_leaf {
  unsigned type;
  bool runs, expired;
};
static mgd_timer_leaf leaves[2];  // refresh, clear
static int leaves_created;

void *mgd_timer_tree_new(sigevent *, int) { return leaves; }
void *mgd_timer_leaf_new(void *, int, unsigned type, int) {
  leaves[leaves_created].type = type;
  return &leaves[leaves_created++];
}

void mgd_timer_leaf_start(mgd_timer_leaf *leaf, const timespec *delay) {
  require(nd_held(), "a timer is started without the lock");
  require(!leaves[0].runs && !leaves[1].runs, "a timer is started while one runs");
  bool known = false;
  for (uint32_t interval : kIntervals) {
    const tarvo_nd_phases phases = tarvo_nd_phases_of(interval);
    known |= delay->tv_sec == (leaf == leaves ? phases.refresh : phases.clear);
  }
  require(known, "a phase of a length that no interval gives");
  *leaf = {leaf->type, true, delay->tv_sec == 0};
}

void mgd_timer_leaf_stop(mgd_timer_leaf *leaf) {
  require(nd_held(), "a timer is stopped without the lock");
  *leaf = {leaf->type, false, false};
}

int mgd_timer_leaf_running(mgd_timer_leaf *leaf) {
  require(nd_held(), "a timer is asked without the lock");
  return leaf->runs;
}

void mgd_timer_leaf_remaining(mgd_timer_leaf *leaf, timespec *left) {
  require(nd_held() && leaf->runs, "the time left of a timer that does not run");
  *left = {leaf->expired ? 0 : 1, 0};
}

mgd_timer_leaf *mgd_timer_tree_first_expired(void *) {
  point("first expired");
  for (mgd_timer_leaf &leaf : leaves)
    if (leaf.expired) return &leaf;
  return nullptr;
}

unsigned mgd_timer_leaf_type(mgd_timer_leaf *leaf) {
  require(nd_held(), "a timer is handled without the lock");
  require(leaf->expired, "a timer is handled that did not expire");
  return leaf->type;
}

void expire() {
  for (mgd_timer_leaf &leaf : leaves) leaf.expired = leaf.runs;
  tarvo_nd_timer_handler(nullptr);
}

extern "C" int32_t __real__Z18tarvo_nd_is_activev();

void check_timers() {
  const bool active = __real__Z18tarvo_nd_is_activev() != 0;
  require(leaves[0].runs + leaves[1].runs == active,
          active ? "no timer runs while discovery is active" : "a timer runs while it is inactive");
}

// ------------------------------------------- Words -------------------------------------------

extern "C" int32_t __wrap__Z18tarvo_nd_is_activev() {
  point("active?");
  return __real__Z18tarvo_nd_is_activev();
}
extern "C" void __real__Z19tarvo_nd_set_activei(int32_t active);
extern "C" void __wrap__Z19tarvo_nd_set_activei(int32_t active) {
  point("set active");
  require(nd_held(), "the active flag is set without the lock");
  __real__Z19tarvo_nd_set_activei(active);
}
extern "C" uint32_t __real__Z29tarvo_nd_get_refresh_intervalv();
extern "C" uint32_t __wrap__Z29tarvo_nd_get_refresh_intervalv() {
  point("interval?");
  return __real__Z29tarvo_nd_get_refresh_intervalv();
}
extern "C" void __real__Z22tarvo_nd_set_intervalsjj(uint32_t refresh, uint32_t clear);
extern "C" void __wrap__Z22tarvo_nd_set_intervalsjj(uint32_t refresh, uint32_t clear) {
  point("set intervals");
  __real__Z22tarvo_nd_set_intervalsjj(refresh, clear);
}

// -------------------------------------- Trees and queues --------------------------------------

static bool tree_lives;

static void check_tree(const wavl_tree_t *tree) {
  require(nd_held(), "a tree is used without the lock");
  require(tree != &tarvo_nd_nhop_tree || tree_lives, "a finished tree is touched");
}

#define WRAPPED(result, name, parameters, arguments, check) \
  extern "C" result __real_##name parameters;               \
  extern "C" result __wrap_##name parameters {              \
    check;                                                  \
    return __real_##name arguments;                         \
  }
#define WRAPPED_TREE(result, name, parameters, arguments) \
  WRAPPED(result, name, parameters, arguments, check_tree(tree))
#define WRAPPED_PLAIN(result, name, parameters, arguments) \
  WRAPPED(result, name, parameters, arguments, check_tree(nullptr))

WRAPPED(int, wavl_init, (wavl_tree_t * tree, unsigned long n, unsigned long zero, tree_cmp cmp),
        (tree, n, zero, cmp),
        require(tree != &tarvo_nd_nhop_tree || !tree_lives, "a live tree is initialised");
        tree_lives |= tree == &tarvo_nd_nhop_tree)
WRAPPED(void, wavl_finish, (wavl_tree_t * tree), (tree), check_tree(tree);
        tree_lives &= tree != &tarvo_nd_nhop_tree)
WRAPPED_TREE(void *, wavl_search, (wavl_tree_t * tree, const void *key, unsigned long n),
             (tree, key, n))
WRAPPED_TREE(void *, wavl_get_first, (wavl_tree_t * tree, unsigned long n), (tree, n))
WRAPPED_TREE(void *, wavl_get_next, (wavl_tree_t * tree, const void *key, unsigned long n),
             (tree, key, n))
WRAPPED_TREE(void *, wavl_insert_thread, (wavl_tree_t * tree, unsigned long n, void *node),
             (tree, n, node))
WRAPPED_TREE(void, wavl_delete_thread, (wavl_tree_t * tree, unsigned long n, void *node),
             (tree, n, node))
WRAPPED_PLAIN(void *, avl_search, (void *root, const void *key, tree_cmp cmp), (root, key, cmp))
WRAPPED_PLAIN(void *, avl_insert, (void *root, void *node, tree_cmp cmp), (root, node, cmp))
WRAPPED_PLAIN(void *, avl_delete, (void *root, const void *key, tree_cmp cmp), (root, key, cmp))
WRAPPED_PLAIN(int, avl_walk, (void *root, int (*visit)(void *, void *), void *arg),
              (root, visit, arg))
WRAPPED_PLAIN(void *, avl_get_first, (void *root), (root))
WRAPPED_PLAIN(void *, avl_get_next, (void *node), (node))

static queue_t *workq;
int offered, handled, purged;

static bool is_workq(const queue_t *q) {
  require(q == workq ? workq_held() : nd_held(), "a queue is used without its lock");
  return q == workq;
}

WRAPPED(void, queue_init, (queue_t * q, unsigned long zero), (q, zero),
        if (workq == nullptr) workq = q)
WRAPPED(void, queue_enqueue, (queue_t * q, void *element), (q, element), offered += is_workq(q))
WRAPPED(void *, queue_dequeue, (queue_t * q), (q), handled += is_workq(q) && q->head != nullptr)
WRAPPED(void, queue_remqueue, (queue_t * q, void *element, void *previous), (q, element, previous),
        purged += is_workq(q))

bool work_queued() { return workq->head != nullptr; }

// ----------------------------------- The agent's services -----------------------------------

int ends;

void tell(uint32_t, uint32_t event, const void *data) {
  require(nd_held() && data != nullptr, "a client is told without the lock");
  ends += event == TARVO_ND_EVENT_END;
}

int tarvo_rib_ipv4_get_prefix_route(tarvo_nd_nhop_info_t *info) {
  info->prefix = 10;
  info->prefix_len = 8;
  return 0;
}
int tarvo_rib_ipv4_redist(uint32_t, int) {
  require(nd_held(), "the RIB is asked without the lock");
  return 0;
}
int tarvo_rib_ipv4_redist_reset(uint32_t) { return 0; }
uint32_t rtab_c_tbl_id_ipv4_ucast_dflt() { return 0xe0000000; }
void tarvo_sa_debug(uint32_t, uint32_t, const char *, ...) {}
void tarvo_sa_lstrace(uint64_t, uint64_t, const char *text, uint32_t, ...) { fail(text); }
int tarvoDiscoverySetODSFns(const tarvo_nd_ods_fns_t *) { return 0; }
int tarvo_ital_cb_fn_set(const tarvo_nd_ital_fns_t *) { return 0; }
int tarvo_rib_cb_fn_set(const tarvo_nd_rib_fns_t *) { return 0; }
int tarvo_cfg_cb_fn_set(const tarvo_nd_cfg_fns_t *) { return 0; }
void oxa_errmsg(const oxa_msg_rec_t *message, int, ...) {
  fail(std::string("a message is logged: ") + message->mnemonic);
}
void ptd_set_mutex_block(void *, const char *, int) {}
void ptd_unset_mutex_block() {}
void ptd_set_syscall_block_internal(int, void *, long, long) {}
void ptd_set_syscall_unblock() {}

// ---------------------------------------- Every run ----------------------------------------

int32_t nhop_count() TARVO_NO_THREAD_SAFETY_ANALYSIS { return tarvo_nd_nhop_count; }

void create_world() {
  sigevent event = {};
  require(tarvo_nd_workq_create() && tarvo_nd_timer_tree_create(&event) &&
              tarvo_nd_refresh_timer_create() && tarvo_nd_clear_timer_create(),
          "the world is not created");
  workq_pool = live[0].at;
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
  require(offered == handled + purged, "requests are unaccounted for");
  for (uint32_t client : {1, 2, 3, 4}) tarvo_pe_discovery_unregister(client);
  for (uint32_t table : {7, 8}) tarvo_nd_enqueue_table_update("", table, 0);
  drain();
  tarvo_nd_set_rib_refresh_interval(kIntervals[0]);
  require(tarvo_nd_is_active() == 0 && nhop_count() == 0, "discovery does not end");
  require(live.size() == 1, "an element is left");
  check_timers();
  release_freed();
}
