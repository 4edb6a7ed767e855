#include "db/client_registry.h"

#include <cstdlib>

#include "db/activation.h"
#include "db/notify.h"
#include "db/vrf_table.h"
#include "engine/log.h"
#include "engine/shared_words.h"
#include "platform/named_alloc.h"

queue_t tarvo_nd_clients;
static void *tarvo_nd_client_groups TARVO_GUARDED_BY(tarvo_nd_mutex) = nullptr;
static int32_t tarvo_nd_client_count TARVO_GUARDED_BY(tarvo_nd_mutex) = 0;

static int tarvo_nd_client_group_cmp(const void *a, const void *b) {
  if (a == nullptr || b == nullptr) return TREE_EQUAL;
  const int order =
      tarvo_nd_vrf_name_compare(static_cast<const tarvo_nd_client_group_t *>(a)->vrf_name,
                                static_cast<const tarvo_nd_client_group_t *>(b)->vrf_name);
  if (order < 0) return TREE_BEFORE;
  return order == 0 ? TREE_EQUAL : TREE_AFTER;
}

tarvo_nd_client_group_t *tarvo_nd_client_group_find(const char *vrf_name) {
  if (vrf_name == nullptr) return nullptr;
  tarvo_nd_client_group_t key = {};
  tarvo_nd_vrf_name_copy(key.vrf_name, vrf_name);
  return static_cast<tarvo_nd_client_group_t *>(
      avl_search(tarvo_nd_client_groups, &key, tarvo_nd_client_group_cmp));
}

static int tarvo_nd_client_group_delete(const char *vrf_name) TARVO_REQUIRES(tarvo_nd_mutex) {
  if (vrf_name == nullptr) return 0;
  tarvo_nd_client_group_t key = {};
  tarvo_nd_vrf_name_copy(key.vrf_name, vrf_name);
  free(avl_delete(&tarvo_nd_client_groups, &key, tarvo_nd_client_group_cmp));
  return 1;
}

static tarvo_nd_client_t *find_client(const queue_t *clients, uint32_t client_id) {
  for (void *link = clients->head; link != nullptr; link = queue_get_next(link)) {
    auto *client = static_cast<tarvo_nd_client_t *>(link);
    if (client->client_id == client_id) return client;
  }
  return nullptr;
}

// The table of a VRF name is looked up for each replay, since it may have come later than the
// client, or be another one by now.
static void replay(const tarvo_nd_client_t *client, const char *vrf_name)
    TARVO_REQUIRES(tarvo_nd_mutex) {
  if (vrf_name[0] == '\0') {
    tarvo_nd_client_replay(client, 0);
    return;
  }
  const uint32_t table_id = tarvo_nd_vrf_name2tableid(vrf_name);
  if (table_id != 0) tarvo_nd_client_replay(client, table_id);
}

// The group of a name, made when there is none; null without memory. The record is allocated
// before the search, so that a registration under memory pressure fails alike for every name.
static tarvo_nd_client_group_t *find_or_create_group(const char *vrf_name)
    TARVO_REQUIRES(tarvo_nd_mutex) {
  auto *group = static_cast<tarvo_nd_client_group_t *>(
      calloc_named(1, sizeof(tarvo_nd_client_group_t), "TARVO DISC Client Info"));
  if (group == nullptr) {
    tarvo_nd_log_err_mem("During mallocing client information");
    return nullptr;
  }
  tarvo_nd_vrf_name_copy(group->vrf_name, vrf_name);
  auto *existing = static_cast<tarvo_nd_client_group_t *>(
      avl_search(tarvo_nd_client_groups, group, tarvo_nd_client_group_cmp));
  if (existing != nullptr) {
    free(group);
    return existing;
  }
  queue_init(&group->clients, 0);
  if (avl_insert(&tarvo_nd_client_groups, group, tarvo_nd_client_group_cmp) == nullptr) {
    free(group);
    return nullptr;
  }
  return group;
}

static tarvo_nd_client_t *create_client(uint32_t client_id, const char *vrf_name,
                                        tarvo_nd_notify_fn notify) TARVO_REQUIRES(tarvo_nd_mutex) {
  auto *client = static_cast<tarvo_nd_client_t *>(
      calloc_named(1, sizeof(tarvo_nd_client_t), "TARVO DISC Client Entry"));
  if (client == nullptr) {
    tarvo_nd_log_err_mem("During mallocing client entry");
    return nullptr;
  }
  client->client_id = client_id;
  client->notify = notify;

  queue_t *clients = &tarvo_nd_clients;
  if (vrf_name[0] != '\0') {
    tarvo_nd_client_group_t *group = find_or_create_group(vrf_name);
    if (group == nullptr) {
      free(client);
      return nullptr;
    }
    clients = &group->clients;
  }
  queue_enqueue(clients, client);
  ++tarvo_nd_client_count;
  return client;
}

static void register_client(uint32_t client_id, const char *vrf_name, tarvo_nd_notify_fn notify)
    TARVO_REQUIRES(tarvo_nd_mutex) {
  const tarvo_nd_client_t *client = create_client(client_id, vrf_name, notify);
  if (client == nullptr) return;
  if (tarvo_nd_is_active() == 0) {
    tarvo_nd_activate();  // the table is empty then: nothing to replay
  } else {
    replay(client, vrf_name);
  }
  tarvo_nd_notify_end(client, TARVO_ND_EVENT_END);
}

// Removes the first registration of the ID from a queue.
static bool remove_client(queue_t *clients, uint32_t client_id) TARVO_REQUIRES(tarvo_nd_mutex) {
  tarvo_nd_client_t *client = find_client(clients, client_id);
  if (client == nullptr) return false;
  queue_unqueue(clients, client);
  free(client);
  --tarvo_nd_client_count;
  return true;
}

// A callback of avl_walk over the groups. Deleting the visited group is safe, since the walk ends
// with it.
static int tarvo_nd_client_group_remove_client(void *node, void *arg)
    TARVO_REQUIRES(tarvo_nd_mutex) {
  auto *group = static_cast<tarvo_nd_client_group_t *>(node);
  if (!remove_client(&group->clients, *static_cast<const uint32_t *>(arg))) return 1;
  if (group->clients.head == nullptr) tarvo_nd_client_group_delete(group->vrf_name);
  return 0;
}

static void unregister_client(uint32_t client_id) TARVO_REQUIRES(tarvo_nd_mutex) {
  if (!remove_client(&tarvo_nd_clients, client_id))
    avl_walk(tarvo_nd_client_groups, tarvo_nd_client_group_remove_client, &client_id);
  if (tarvo_nd_is_active() != 0 && tarvo_nd_client_count <= 0) tarvo_nd_deactivate();
}

void tarvo_nd_handle_client_reg(uint32_t client_id, const char *vrf_name, tarvo_nd_notify_fn notify,
                                bool reg) {
  if (reg) {
    register_client(client_id, vrf_name, notify);
  } else {
    unregister_client(client_id);
  }
}

void tarvo_nd_handle_resend(uint32_t client_id, const char *vrf_name) {
  const queue_t *clients = &tarvo_nd_clients;
  if (vrf_name[0] != '\0') {
    const tarvo_nd_client_group_t *group = tarvo_nd_client_group_find(vrf_name);
    if (group == nullptr) return;
    clients = &group->clients;
  }
  const tarvo_nd_client_t *client = find_client(clients, client_id);
  if (client == nullptr) return;
  replay(client, vrf_name);
  tarvo_nd_notify_end(client, TARVO_ND_EVENT_RESEND_END);
}
