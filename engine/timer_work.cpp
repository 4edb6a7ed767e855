#include "engine/timer_work.h"

#include "db/nhop_refresh.h"
#include "db/vrf_redist.h"
#include "engine/timers.h"

void tarvo_nd_handle_refresh_expired() {
  tarvo_nd_nhop_mark_all();
  tarvo_nd_vrf_walk_redist(TARVO_ND_REDIST_RESET);
}

void tarvo_nd_handle_rib_restart() {
  tarvo_nd_stop_running_timers();
  tarvo_nd_nhop_mark_all();
  tarvo_nd_vrf_walk_redist(TARVO_ND_REDIST_RESTART);
  // The clear expiry starts the next refresh phase, so the cycle resumes from there.
  tarvo_nd_start_clear_phase();
}
