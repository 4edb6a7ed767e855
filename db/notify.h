// Notifications: telling clients of next hops. Callbacks run here, on the worker thread with the
// nd mutex held.
#pragma once

#include <cstdint>

#include "db/client_registry.h"
#include "engine/state.h"
#include "tarvo/records.h"

/// Tells ADD (`add`) or REMOVE of a next hop: to the clients of the reference's VRF, or without a
/// reference to the all-VPN clients. Silent while discovery is inactive.
void tarvo_nd_notify_clients(tarvo_nd_nhop_t *nhop, tarvo_nd_nhop_table_t *ref, bool add)
    TARVO_REQUIRES(tarvo_nd_mutex);

/// Tells one client ADD of every reachable next hop (table 0) or of those that the table refers
/// to, whatever the count, in order of address.
void tarvo_nd_client_replay(const tarvo_nd_client_t *client, uint32_t table_id)
    TARVO_REQUIRES(tarvo_nd_mutex);

/// Tells one client END or RESEND_END.
void tarvo_nd_notify_end(const tarvo_nd_client_t *client, uint32_t event)
    TARVO_REQUIRES(tarvo_nd_mutex);
