#include "engine/shared_words.h"

#include <atomic>

static std::atomic<int32_t> tarvo_nd_active{0};
static std::atomic<uint32_t> tarvo_nd_refresh_interval{300};
static std::atomic<uint32_t> tarvo_nd_clear_interval{29};
static_assert(std::atomic<uint32_t>::is_always_lock_free && sizeof(tarvo_nd_active) == 4,
              "single words, stored and loaded whole");

int32_t tarvo_nd_is_active() { return tarvo_nd_active.load(); }

void tarvo_nd_set_active(int32_t active) { tarvo_nd_active.store(active); }

uint32_t tarvo_nd_get_refresh_interval() { return tarvo_nd_refresh_interval.load(); }

void tarvo_nd_set_intervals(uint32_t refresh, uint32_t clear) {
  tarvo_nd_refresh_interval.store(refresh);
  tarvo_nd_clear_interval.store(clear);
}
