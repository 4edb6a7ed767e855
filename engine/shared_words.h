// The words that are read without a lock. Only these accessors touch them.
//
// What a reader sees may be out of date the moment it looks: whoever acts on the active flag tests
// it again with the nd mutex held.
#pragma once

#include <cstdint>

/// Non-zero while discovery is active. Any thread; final only with the nd mutex held.
int32_t tarvo_nd_is_active();

/// The worker alone, with the nd mutex held.
void tarvo_nd_set_active(int32_t active);

/// Length of a refresh cycle in seconds, 1 or more.
uint32_t tarvo_nd_get_refresh_interval();

/// Stores both interval words. They are two stores, so a reader may meet a new one beside an old
/// one: whoever needs both computes them from one load of the refresh interval (engine/timers.h).
void tarvo_nd_set_intervals(uint32_t refresh, uint32_t clear);
