// The module's surroundings in a schedule: pools, timers and the agent, each checking on every call
// what must hold there. Standing state: client 1 for all VPNs and client 2 for A; tables 7 (A) and
// 8 (B); 10.0.0.1 by table 7, 10.0.0.2 by both.
#pragma once

#include <cstdint>

constexpr uint32_t kHop1 = 0x0100000a, kHop2 = 0x0200000a;  // network byte order
constexpr uint32_t kIntervals[] = {300, 10, 1};             ///< of start-up, of the setters

void create_world();

/// A client's callback; counts the ENDs that it tells.
void tell(uint32_t client_id, uint32_t event, const void *data);
extern int ends;

/// Work requests so far, by fate; the queue takes what is offered.
extern int offered, handled, purged;

/// The running timer expires, and the event's thread handles it.
void expire();

/// Next hops in the database.
int32_t nhop_count();
