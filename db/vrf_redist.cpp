#include "db/vrf_redist.h"

#include "tarvo/agent_services.h"

static void switch_on(tarvo_nd_vrf_t *vrf) {
  if (tarvo_rib_ipv4_redist(vrf->table_id, 1) == 0) vrf->flags |= TARVO_ND_VRF_REDIST_ON;
}

static void switch_off(tarvo_nd_vrf_t *vrf) {
  if (tarvo_rib_ipv4_redist(vrf->table_id, 0) == 0) vrf->flags &= ~TARVO_ND_VRF_REDIST_ON;
}

int tarvo_nd_vrf_redist(void *entry, void *action) {
  if (entry == nullptr) return 0;
  auto *vrf = static_cast<tarvo_nd_vrf_t *>(entry);
  const bool on = vrf->flags != 0;
  switch (*static_cast<const tarvo_nd_redist_action *>(action)) {
    case TARVO_ND_REDIST_START:
      if (!on) switch_on(vrf);
      break;
    case TARVO_ND_REDIST_STOP:
      if (on) switch_off(vrf);
      break;
    case TARVO_ND_REDIST_RESET:
      if (on) {
        tarvo_rib_ipv4_redist_reset(vrf->table_id);
      } else {
        switch_on(vrf);
      }
      break;
    case TARVO_ND_REDIST_RESTART:
      // The RIB layer lost its state, so the flag is void even if it refuses now.
      vrf->flags &= ~TARVO_ND_VRF_REDIST_ON;
      switch_on(vrf);
      break;
  }
  return 1;
}

void tarvo_nd_vrf_walk_redist(tarvo_nd_redist_action action) {
  avl_walk(tarvo_nd_vrf_tree, tarvo_nd_vrf_redist, &action);
}
