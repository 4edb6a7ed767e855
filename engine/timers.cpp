#include "engine/timers.h"

#include <ctime>

#include "engine/log.h"
#include "engine/shared_words.h"
#include "engine/work_entry.h"
#include "engine/work_request.h"
#include "platform/timer.h"
#include "tarvo/agent_services.h"
#include "tarvo/discovery.h"

// A leaf's type is the request that its expiry queues.
constexpr unsigned kRefreshLeaf = TARVO_ND_REQ_REFRESH_EXPIRED;
constexpr unsigned kClearLeaf = TARVO_ND_REQ_CLEAR_EXPIRED;

// The tree's handle is set once, before any other thread.
static void *tarvo_nd_timer_tree = nullptr;
static mgd_timer_leaf_t *tarvo_nd_refresh_timer TARVO_GUARDED_BY(tarvo_nd_mutex) = nullptr;
static mgd_timer_leaf_t *tarvo_nd_clear_timer TARVO_GUARDED_BY(tarvo_nd_mutex) = nullptr;

bool tarvo_nd_timer_tree_create(sigevent *event) {
  tarvo_nd_timer_tree = mgd_timer_tree_new(event, 0);
  return tarvo_nd_timer_tree != nullptr;
}

static mgd_timer_leaf_t *leaf_create(unsigned type) {
  return static_cast<mgd_timer_leaf_t *>(mgd_timer_leaf_new(tarvo_nd_timer_tree, 0, type, 0));
}

bool tarvo_nd_refresh_timer_create() TARVO_NO_THREAD_SAFETY_ANALYSIS {
  tarvo_nd_refresh_timer = leaf_create(kRefreshLeaf);
  return tarvo_nd_refresh_timer != nullptr;
}

bool tarvo_nd_clear_timer_create() TARVO_NO_THREAD_SAFETY_ANALYSIS {
  tarvo_nd_clear_timer = leaf_create(kClearLeaf);
  return tarvo_nd_clear_timer != nullptr;
}

// One load of the interval gives both phases: the two stored words can be met torn while the
// setter runs, and a refresh phase of 10 - 29 seconds would last 136 years.
static tarvo_nd_phases current_phases() {
  return tarvo_nd_phases_of(tarvo_nd_get_refresh_interval());
}

static void leaf_start(mgd_timer_leaf_t *leaf, uint32_t seconds) {
  const timespec delay = {static_cast<time_t>(seconds), 0};
  mgd_timer_leaf_start(leaf, &delay);
}

uint32_t tarvo_nd_start_refresh_phase() {
  const uint32_t interval = tarvo_nd_get_refresh_interval();
  leaf_start(tarvo_nd_refresh_timer, tarvo_nd_phases_of(interval).refresh);
  return interval;
}

void tarvo_nd_start_clear_phase() { leaf_start(tarvo_nd_clear_timer, current_phases().clear); }

static void stop_if_running(mgd_timer_leaf_t *leaf) {
  if (mgd_timer_leaf_running(leaf) != 0) mgd_timer_leaf_stop(leaf);
}

void tarvo_nd_stop_running_timers() {
  stop_if_running(tarvo_nd_refresh_timer);
  stop_if_running(tarvo_nd_clear_timer);
}

void tarvo_nd_restart_cycle() {
  tarvo_nd_stop_running_timers();
  tarvo_nd_start_refresh_phase();
}

void tarvo_nd_stop_timers() {
  mgd_timer_leaf_stop(tarvo_nd_refresh_timer);
  mgd_timer_leaf_stop(tarvo_nd_clear_timer);
}

void tarvo_nd_set_rib_refresh_interval(uint32_t interval) {
  // Two phases of zero length would chain without end.
  if (interval == 0) interval = 1;
  tarvo_nd_set_intervals(interval, tarvo_nd_phases_of(interval).clear);
  if (tarvo_nd_is_active() == 0) return;

  guarded_lock hold(tarvo_nd_mutex, "tarvo_nd_set_rib_refresh_interval");
  // Discovery may have ended while we waited for the lock, and then no timer may start.
  if (tarvo_nd_is_active() != 0) tarvo_nd_restart_cycle();
}

static void handle_expiry(mgd_timer_leaf_t *leaf) TARVO_REQUIRES(tarvo_nd_mutex) {
  switch (mgd_timer_leaf_type(leaf)) {
    case kRefreshLeaf:
      tarvo_sa_debug(kDebugCategory, kDebugLevel, "DISC: Refresh interval expired");
      mgd_timer_leaf_stop(leaf);
      tarvo_nd_enqueue_refresh_expired();
      tarvo_nd_start_clear_phase();
      return;
    case kClearLeaf:
      tarvo_sa_debug(kDebugCategory, kDebugLevel, "DISC: Clear interval expired");
      mgd_timer_leaf_stop(leaf);
      tarvo_nd_enqueue_clear_expired();
      tarvo_nd_start_refresh_phase();
      return;
    default:
      // Nobody's: left expired it would be found again for ever.
      mgd_timer_leaf_stop(leaf);
  }
}

int tarvo_nd_timer_handler(void * /*context*/) {
  while (mgd_timer_tree_first_expired(tarvo_nd_timer_tree) != nullptr) {
    guarded_lock hold(tarvo_nd_mutex, "tarvo_nd_timer_handler");
    // While we waited for the lock the leaf may have been stopped, or started afresh by the setter
    // and be far from expired: only what is expired now is handled.
    mgd_timer_leaf_t *leaf = mgd_timer_tree_first_expired(tarvo_nd_timer_tree);
    if (leaf != nullptr) handle_expiry(leaf);
  }
  return 0;
}

static uint32_t whole_seconds_left(mgd_timer_leaf_t *leaf) {
  timespec left = {};
  mgd_timer_leaf_remaining(leaf, &left);
  return static_cast<uint32_t>(left.tv_sec + left.tv_nsec / 1000000000);
}

int32_t tarvo_nd_get_refresh_interval_remaining() {
  constexpr int32_t kInactive = -1;
  if (tarvo_nd_is_active() == 0) return kInactive;

  guarded_lock hold(tarvo_nd_mutex, "tarvo_nd_get_refresh_interval_remaining");
  if (tarvo_nd_is_active() == 0) return kInactive;
  // 32-bit arithmetic: an interval above 2^31 s turns negative, and the caller reports nothing.
  const uint32_t left = mgd_timer_leaf_running(tarvo_nd_refresh_timer) != 0
                            ? current_phases().clear + whole_seconds_left(tarvo_nd_refresh_timer)
                            : whole_seconds_left(tarvo_nd_clear_timer);
  return static_cast<int32_t>(left);
}
