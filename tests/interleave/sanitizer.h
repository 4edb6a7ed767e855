// What AddressSanitizer must be told of fibers and of memory that is not to be touched; nothing
// without it.
#pragma once

#include <cstddef>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TARVO_ASAN
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) && !defined(TARVO_ASAN)
#define TARVO_ASAN
#endif

struct fiber_stack {
  char *bottom = nullptr;
  size_t size = 0;
  void *fake = nullptr;
};

#ifdef TARVO_ASAN
#include <sanitizer/asan_interface.h>
#include <sanitizer/common_interface_defs.h>

inline void switch_begins(fiber_stack &from, const fiber_stack &to) {
  __sanitizer_start_switch_fiber(&from.fake, to.bottom, to.size);
}
inline void switch_ended(const fiber_stack &to) {
  __sanitizer_finish_switch_fiber(to.fake, nullptr, nullptr);
}
inline void first_switch_ended(fiber_stack &from) {
  const void *bottom = nullptr;
  __sanitizer_finish_switch_fiber(nullptr, &bottom, &from.size);
  from.bottom = static_cast<char *>(const_cast<void *>(bottom));
}
inline void on_sanitizer_report(void (*callback)()) { __sanitizer_set_death_callback(callback); }
inline void poison(void *at, size_t size) { __asan_poison_memory_region(at, size); }
inline void unpoison(void *at, size_t size) { __asan_unpoison_memory_region(at, size); }
#else
inline void switch_begins(fiber_stack &, const fiber_stack &) {}
inline void switch_ended(const fiber_stack &) {}
inline void first_switch_ended(fiber_stack &) {}
inline void on_sanitizer_report(void (*)()) {}
inline void poison(void *, size_t) {}
inline void unpoison(void *, size_t) {}
#endif
