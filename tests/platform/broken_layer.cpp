// Four services gone wrong, each in its own way.
#include <stdlib.h>
#include <unistd.h>

#include "platform/named_alloc.h"
#include "platform/pool.h"
#include "platform/thread_diag.h"

void chunk_set_limit(void *, uint64_t) {}
void *calloc_named(size_t, size_t, const char *) { abort(); }
void set_thread_name(const char *, pthread_t) { pause(); }
extern "C" void queue_unqueue() {}  // hidden, so the library lacks it
