// Work requests: every change to the discovery database travels as one of these records.
#pragma once

#include <cstddef>
#include <cstdint>

#include "engine/vrf_name.h"
#include "tarvo/records.h"

enum tarvo_nd_req_type : uint32_t {
  TARVO_ND_REQ_NHOP_ADD = 1,
  TARVO_ND_REQ_NHOP_DEL = 2,
  TARVO_ND_REQ_CLIENT_REG = 3,
  TARVO_ND_REQ_CLIENT_UNREG = 4,
  TARVO_ND_REQ_TABLE_ADD = 5,
  TARVO_ND_REQ_TABLE_DEL = 6,
  TARVO_ND_REQ_REFRESH_EXPIRED = 7,
  TARVO_ND_REQ_CLEAR_EXPIRED = 8,
  TARVO_ND_REQ_RIB_RESTART = 9,
  TARVO_ND_REQ_RESEND = 10,
};

/// One request. Its producer zero-fills it, sets `type` and the body of that type, and hands it to
/// tarvo_nd_work_enqueue, which copies it.
struct tarvo_nd_work_req_t {
  void *link;     ///< the queue's, while queued
  uint32_t type;  ///< tarvo_nd_req_type; not checked before the dispatch
  union {
    struct {
      uint32_t table_id;
      uint32_t nhop_addr;  ///< network byte order
    } nhop;                ///< types 1, 2
    struct {
      uint32_t client_id;
      vrf_name_t vrf_name;        ///< empty: all VPNs
      tarvo_nd_notify_fn notify;  ///< type 3 only
    } client;                     ///< types 3, 4, 10
    struct {
      uint32_t table_id;
      vrf_name_t vrf_name;
    } table;  ///< types 5, 6
  };
};

static_assert(sizeof(tarvo_nd_work_req_t) == 280, "element size of the work queue's pool");
static_assert(offsetof(tarvo_nd_work_req_t, link) == 0, "queue calls take the record's address");
static_assert(offsetof(tarvo_nd_work_req_t, type) == 8);
static_assert(offsetof(tarvo_nd_work_req_t, nhop.table_id) == 16);
static_assert(offsetof(tarvo_nd_work_req_t, nhop.nhop_addr) == 20);
static_assert(offsetof(tarvo_nd_work_req_t, client.client_id) == 16);
static_assert(offsetof(tarvo_nd_work_req_t, client.vrf_name) == 20);
static_assert(offsetof(tarvo_nd_work_req_t, client.notify) == 272);
static_assert(offsetof(tarvo_nd_work_req_t, table.table_id) == 16);
static_assert(offsetof(tarvo_nd_work_req_t, table.vrf_name) == 20);
