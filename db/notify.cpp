#include "db/notify.h"

#include "db/nhop_table.h"
#include "engine/log.h"
#include "engine/shared_words.h"
#include "platform/inet_text.h"
#include "tarvo/agent_services.h"
#include "tarvo/discovery.h"

static void notify(const tarvo_nd_client_t *client, const tarvo_nd_nhop_info_t *info, bool add) {
  client->notify(client->client_id, add ? TARVO_ND_EVENT_ADD : TARVO_ND_EVENT_REMOVE, info);

  char nhop[INET_ADDRSTRLEN];
  char prefix[INET_ADDRSTRLEN];
  tarvo_sa_debug(
      kDebugCategory, kDebugLevel, "DISC: Notify client %u of %s (%s %s/%u)", client->client_id,
      add ? "ADD" : "REMOVE", inet_ntoa_r({info->nhop_addr}, nhop, sizeof nhop),
      inet_ntoa_r({info->prefix}, prefix, sizeof prefix), static_cast<unsigned>(info->prefix_len));
}

void tarvo_nd_notify_end(const tarvo_nd_client_t *client, uint32_t event) {
  // The event carries nothing, but a client may count on a pointer.
  static const tarvo_nd_nhop_info_t kNothing = {};
  client->notify(client->client_id, event, &kNothing);
  tarvo_sa_debug(kDebugCategory, kDebugLevel, "DISC: Notify client %u of %s", client->client_id,
                 event == TARVO_ND_EVENT_END ? "END" : "RESEND_END");
}

// The clients that watch the table of a reference, or null when nobody does.
static queue_t *clients_of(const tarvo_nd_nhop_table_t *ref) TARVO_REQUIRES(tarvo_nd_mutex) {
  tarvo_nd_client_group_t *group =
      tarvo_nd_client_group_find(tarvo_nd_tableid2vrf_name(ref->table_id));
  return group == nullptr ? nullptr : &group->clients;
}

void tarvo_nd_notify_clients(tarvo_nd_nhop_t *nhop, tarvo_nd_nhop_table_t *ref, bool add) {
  if (tarvo_nd_is_active() == 0) return;
  const queue_t *clients = ref == nullptr ? &tarvo_nd_clients : clients_of(ref);
  if (clients == nullptr) return;
  for (void *client = clients->head; client != nullptr; client = queue_get_next(client))
    notify(static_cast<const tarvo_nd_client_t *>(client), &nhop->info, add);
}

void tarvo_nd_client_replay(const tarvo_nd_client_t *client, uint32_t table_id) {
  // Without discovery there is no tree to walk.
  if (tarvo_nd_is_active() == 0) return;
  for (tarvo_nd_nhop_t *nhop = tarvo_nd_nhop_tree_first(); nhop != nullptr;
       nhop = tarvo_nd_nhop_tree_next(nhop)) {
    if ((nhop->flags & TARVO_ND_NHOP_REACHABLE) == 0) continue;
    if (table_id != 0 && tarvo_nd_nhop_table_lookup(&nhop->tables, table_id) == nullptr) continue;
    notify(client, &nhop->info, true);
  }
}
