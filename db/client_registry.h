// Client registry: who is told of next hops. Clients without a VRF name stand in one queue, the
// others in a group per VRF name.
//
// The worker alone uses it, with the nd mutex held. Bounded by the registrations that monitoring
// operations make.
#pragma once

#include <cstddef>
#include <cstdint>

#include "engine/state.h"
#include "engine/vrf_name.h"
#include "platform/queue.h"
#include "platform/tree.h"
#include "tarvo/records.h"

/// One registration. The queue it stands in tells the VRF name.
struct tarvo_nd_client_t {
  void *link;
  uint32_t client_id;  ///< may occur more than once
  tarvo_nd_notify_fn notify;
};

/// The clients of one VRF name, in order of registration; never empty.
struct tarvo_nd_client_group_t {
  avl_node_t node;
  vrf_name_t vrf_name;
  queue_t clients;
};

static_assert(offsetof(tarvo_nd_client_t, link) == 0, "queue calls take the record's address");
static_assert(offsetof(tarvo_nd_client_t, client_id) == 8);
static_assert(offsetof(tarvo_nd_client_t, notify) == 16);
static_assert(sizeof(tarvo_nd_client_t) == 24);
static_assert(offsetof(tarvo_nd_client_group_t, node) == 0, "tree calls cast node to record");
static_assert(offsetof(tarvo_nd_client_group_t, vrf_name) == 24);
static_assert(offsetof(tarvo_nd_client_group_t, clients) == 272);
static_assert(sizeof(tarvo_nd_client_group_t) == 296);

/// Clients of all VPNs, in order of registration.
extern queue_t tarvo_nd_clients TARVO_GUARDED_BY(tarvo_nd_mutex);

/// The group of a VRF name, cut like a registration's; null for null or when there is none.
tarvo_nd_client_group_t *tarvo_nd_client_group_find(const char *vrf_name)
    TARVO_REQUIRES(tarvo_nd_mutex);

/// A client registers (`reg`), or a registration of `client_id` ends; then name and callback are
/// null. Switches discovery on with the first client and off with the last.
void tarvo_nd_handle_client_reg(uint32_t client_id, const char *vrf_name, tarvo_nd_notify_fn notify,
                                bool reg) TARVO_REQUIRES(tarvo_nd_mutex);

/// A client registered under that name (empty: all VPNs) asks for what it watches.
void tarvo_nd_handle_resend(uint32_t client_id, const char *vrf_name)
    TARVO_REQUIRES(tarvo_nd_mutex);
