// Next-hop table: one entry per remote PE address, with one counted reference per routing table
// that reported it.
//
// It exists while discovery is active (db/activation.h). The worker changes it; the queries read
// it. Both hold the nd mutex. Entries and references come from pools; entries are bounded by
// TARVO_ND_MAX_NHOPS, references by entries times tables.
#pragma once

#include <cstdint>

#include "engine/state.h"
#include "platform/tree.h"
#include "tarvo/records.h"

extern wavl_tree_t tarvo_nd_nhop_tree TARVO_GUARDED_BY(tarvo_nd_mutex);
extern int32_t tarvo_nd_nhop_count TARVO_GUARDED_BY(tarvo_nd_mutex);
extern int32_t tarvo_nd_nhop_limit_logged TARVO_GUARDED_BY(tarvo_nd_mutex);
/// Both pools are null while discovery is inactive.
extern void *tarvo_nd_nhop_chunk TARVO_GUARDED_BY(tarvo_nd_mutex);
extern void *tarvo_nd_table_chunk TARVO_GUARDED_BY(tarvo_nd_mutex);

/// By address as a number: 10.0.0.9 before 10.0.0.10.
int tarvo_nd_nhop_cmp(const void *a, const void *b);
/// By table ID. For every record whose table ID follows its node: references, and the VRF table's.
int tarvo_nd_tableid_cmp(const void *a, const void *b);

/// The entry of an address (network byte order), or null.
tarvo_nd_nhop_t *tarvo_nd_nhop_lookup(uint32_t nhop_addr) TARVO_REQUIRES(tarvo_nd_mutex);
tarvo_nd_nhop_t *tarvo_nd_nhop_tree_first() TARVO_REQUIRES(tarvo_nd_mutex);
/// The entry after `nhop`, which may be a zeroed key record with an address that is not in the
/// table; null for null.
tarvo_nd_nhop_t *tarvo_nd_nhop_tree_next(const tarvo_nd_nhop_t *nhop)
    TARVO_REQUIRES(tarvo_nd_mutex);

/// The references of one entry; null for a null tree or reference.
tarvo_nd_nhop_table_t *tarvo_nd_nhop_table_lookup(wavl_tree_t *tables, uint32_t table_id)
    TARVO_REQUIRES(tarvo_nd_mutex);
tarvo_nd_nhop_table_t *tarvo_nd_nhop_table_first(wavl_tree_t *tables)
    TARVO_REQUIRES(tarvo_nd_mutex);
/// As tarvo_nd_nhop_tree_next, `ref` may be a key record.
tarvo_nd_nhop_table_t *tarvo_nd_nhop_table_next(wavl_tree_t *tables,
                                                const tarvo_nd_nhop_table_t *ref)
    TARVO_REQUIRES(tarvo_nd_mutex);
bool tarvo_nd_nhop_table_empty(wavl_tree_t *tables) TARVO_REQUIRES(tarvo_nd_mutex);

/// Copies `info` and `flags` into a caller's record, nothing else.
void tarvo_nd_nhop_copy(tarvo_nd_nhop_t *to, const tarvo_nd_nhop_t *nhop)
    TARVO_REQUIRES(tarvo_nd_mutex);

/// Looks up the route that covers the record's address and sets prefix, length and the reachable
/// flag by it. Also for a scratch record. Null is ignored.
void tarvo_nd_nhop_resolve(tarvo_nd_nhop_t *nhop) TARVO_REQUIRES(tarvo_nd_mutex);

/// Tells the all-VPN clients, then the clients of each referenced table in order of table ID.
void tarvo_nd_nhop_notify_all(tarvo_nd_nhop_t *nhop, bool add) TARVO_REQUIRES(tarvo_nd_mutex);

/// Removes one reference; the table's clients are told when the next hop is reachable. Null is
/// ignored, as either argument.
void tarvo_nd_nhop_table_delete(tarvo_nd_nhop_table_t *ref, tarvo_nd_nhop_t *nhop)
    TARVO_REQUIRES(tarvo_nd_mutex);
void tarvo_nd_nhop_table_delete_all(tarvo_nd_nhop_t *nhop) TARVO_REQUIRES(tarvo_nd_mutex);

/// Removes an entry with its references; the all-VPN clients are told last. Null is ignored.
void tarvo_nd_nhop_delete(tarvo_nd_nhop_t *nhop) TARVO_REQUIRES(tarvo_nd_mutex);

/// Releases an entry that is not in the tree (any more). Null is ignored.
void tarvo_nd_nhop_free(tarvo_nd_nhop_t *nhop) TARVO_REQUIRES(tarvo_nd_mutex);
