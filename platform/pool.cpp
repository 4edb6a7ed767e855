// Pools: chunks of equal elements, each chunk with its own list of free ones.
//
// Every element is preceded by one word: the chunk's address while it is handed out, the next free
// element (marked) while it is not; so freeing finds the chunk at once, and freeing twice is
// noticed. Elements come from the pool's current chunk until it is used up. The other chunks are
// on one of three lists: full, partial, empty.
//
// Chunks are mapped one by one, since an allocator keeps what is freed below anything in use. Empty
// ones beyond a reserve go back to the system. The reserve adapts: it grows by one whenever a chunk
// is needed that was given back before, and loses the empty chunks that nobody needed while
// kPeriod chunks ran empty. A pool that breathes therefore settles at keeping what one breath
// needs, while a single burst leaves the least reserve behind. It is never more than kMaxReserve.
//
// A pool is its user's, under the user's lock; only its counters are read by other threads, so they
// are atomic, and written by plain loads and stores. The lock here covers the list of pools.
#include "pool.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <new>

#include "lock_private.h"

#if defined(__SANITIZE_ADDRESS__)
#define POOL_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define POOL_ASAN 1
#endif
#endif
#ifdef POOL_ASAN
#include <sanitizer/asan_interface.h>
#include <sanitizer/lsan_interface.h>
#else
#define __lsan_register_root_region(address, size) ((void)(address), (void)(size))
#define __lsan_unregister_root_region(address, size) ((void)(address), (void)(size))
#define ASAN_POISON_MEMORY_REGION(address, size) ((void)(address), (void)(size))
#define ASAN_UNPOISON_MEMORY_REGION(address, size) ((void)(address), (void)(size))
#endif

namespace {

constexpr unsigned kMinReserve = 2;
constexpr unsigned kMaxReserve = 128;
constexpr unsigned kPeriod = 2 * kMaxReserve;  // longer than a breath that the reserve can cover
constexpr uintptr_t kFreeMark = 1;

// The word before each element.
struct header {
  uintptr_t word;

  void *element() { return this + 1; }
  static header *of(void *element) { return static_cast<header *>(element) - 1; }
};

struct chunk {
  header *free = nullptr;
  unsigned long in_use = 0;
  chunk *previous = nullptr;
  chunk *next = nullptr;

  header *slot(size_t offset) {
    return reinterpret_cast<header *>(reinterpret_cast<char *>(this + 1) + offset);
  }
  void push_free(header *h) {
    h->word = reinterpret_cast<uintptr_t>(free) | kFreeMark;
    free = h;
  }
  header *pop_free() {
    header *h = free;
    free = reinterpret_cast<header *>(h->word & ~kFreeMark);
    h->word = reinterpret_cast<uintptr_t>(this);
    return h;
  }
};

struct chunk_list {
  chunk *first = nullptr;
  unsigned long count = 0;

  void push(chunk *c) {
    c->previous = nullptr;
    c->next = first;
    if (first != nullptr) first->previous = c;
    first = c;
    ++count;
  }
  void remove(chunk *c) {
    (c->previous != nullptr ? c->previous->next : first) = c->next;
    if (c->next != nullptr) c->next->previous = c->previous;
    --count;
  }
  chunk *pop() {
    chunk *c = first;
    if (c != nullptr) remove(c);
    return c;
  }
};

// Written under the pool user's lock, read by anyone.
class counter {
 public:
  uint64_t get() const { return value_.load(std::memory_order_relaxed); }
  void add(int64_t change) { value_.store(get() + change, std::memory_order_relaxed); }

 private:
  std::atomic<uint64_t> value_{0};
};

struct pool {
  chunk *current = nullptr;  // on no list
  counter in_use;
  std::atomic<uint64_t> limit{UINT64_MAX};
  size_t element_size;
  unsigned long flags;

  unsigned long count;  // elements of a chunk
  size_t stride;        // bytes from one element to the next
  size_t chunk_bytes;   // whole pages
  chunk_list full, partial, empty;
  unsigned long reserve = kMinReserve;
  unsigned long emptied = 0;   // chunks that ran empty in this period
  unsigned long unneeded = 0;  // the fewest empty chunks that were left when one was taken in it
  unsigned long returned = 0;  // chunks given back and not needed again yet
  counter chunks;

  char *name;
  pool *previous_pool = nullptr;  // list of pools
  pool *next_pool = nullptr;
};

platform::mutex pools_lock;
pool *first_pool TARVO_GUARDED_BY(pools_lock);
pool *last_pool TARVO_GUARDED_BY(pools_lock);

void list_pool(pool *p) {
  platform::hold held(pools_lock);
  p->previous_pool = last_pool;
  (last_pool != nullptr ? last_pool->next_pool : first_pool) = p;
  last_pool = p;
}

void unlist_pool(pool *p) {
  platform::hold held(pools_lock);
  (p->previous_pool != nullptr ? p->previous_pool->next_pool : first_pool) = p->next_pool;
  (p->next_pool != nullptr ? p->next_pool->previous_pool : last_pool) = p->previous_pool;
}

chunk *new_chunk(pool *p) {
  void *memory =
      mmap(nullptr, p->chunk_bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) return nullptr;
  __lsan_register_root_region(memory, p->chunk_bytes);
  auto *c = new (memory) chunk;
  for (unsigned long i = p->count; i-- > 0;) {
    header *h = c->slot(i * p->stride);
    c->push_free(h);
    ASAN_POISON_MEMORY_REGION(h->element(), p->stride - sizeof *h);
  }
  p->chunks.add(1);
  return c;
}

void delete_chunk(pool *p, chunk *c) {
  ASAN_UNPOISON_MEMORY_REGION(c, p->chunk_bytes);
  __lsan_unregister_root_region(c, p->chunk_bytes);
  // With too many mappings the system takes no piece out of one: then its addresses alone are lost.
  if (munmap(c, p->chunk_bytes) != 0) madvise(c, p->chunk_bytes, MADV_DONTNEED);
  p->chunks.add(-1);
}

void delete_chunks(pool *p, chunk_list *list) {
  while (chunk *c = list->pop()) delete_chunk(p, c);
}

chunk *grow(pool *p) {
  if ((p->flags & CHUNK_GROW) == 0 && p->chunks.get() != 0) return nullptr;
  chunk *c = new_chunk(p);
  if (c == nullptr || p->returned == 0) return c;
  --p->returned;
  if (p->reserve < kMaxReserve) ++p->reserve;
  return c;
}

chunk *take_empty(pool *p) {
  chunk *c = p->empty.pop();
  p->unneeded = std::min(p->unneeded, p->empty.count);
  return c;
}

// Replaces the current chunk, which is used up, by one with a free element.
bool renew_current(pool *p) {
  chunk *c = p->partial.pop();
  if (c == nullptr) c = take_empty(p);
  if (c == nullptr) c = grow(p);
  if (c == nullptr) return false;
  if (p->current != nullptr) p->full.push(p->current);
  p->current = c;
  return true;
}

void end_period(pool *p) {
  p->reserve -= std::min(p->unneeded, p->reserve - kMinReserve);
  p->unneeded = kMaxReserve;
  p->emptied = 0;
}

void keep_or_return(pool *p, chunk *c) {
  p->empty.push(c);
  if ((p->flags & CHUNK_TRIM) == 0) return;
  if (++p->emptied == kPeriod) end_period(p);
  while (p->empty.count > p->reserve) {
    delete_chunk(p, p->empty.pop());
    ++p->returned;
  }
}

// `c`, not the current chunk, has got an element back.
void refile(pool *p, chunk *c) {
  if (c->in_use + 1 == p->count)
    p->full.remove(c);
  else if (c->in_use == 0)
    p->partial.remove(c);
  else
    return;

  if (c->in_use == 0)
    keep_or_return(p, c);
  else
    p->partial.push(c);
}

[[noreturn]] void refuse_free(const pool *p, const void *element) {
  fprintf(stderr, "pool \"%s\": element %p is freed, but not in use\n", p->name, element);
  abort();
}

}  // namespace

void *chunk_create(const char *name, unsigned long size, unsigned long count, unsigned long flags,
                   unsigned long, unsigned long) {
  const size_t stride =
      sizeof(header) + (size + sizeof(header) - 1) / sizeof(header) * sizeof(header);
  const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  size_t bytes;
  if (name == nullptr || size == 0 || count == 0 || stride < size ||
      __builtin_mul_overflow(count, stride, &bytes) || bytes > PTRDIFF_MAX - sizeof(chunk) - page) {
    errno = EINVAL;
    return nullptr;
  }

  char *name_copy = strdup(name);
  auto *p = name_copy != nullptr ? new (std::nothrow) pool : nullptr;
  if (p == nullptr) {
    free(name_copy);
    errno = ENOMEM;
    return nullptr;
  }
  p->element_size = size;
  p->flags = flags;
  p->count = count;
  p->stride = stride;
  p->chunk_bytes = (sizeof(chunk) + bytes + page - 1) / page * page;
  p->name = name_copy;
  list_pool(p);
  return p;
}

void chunk_destroy(void *handle) {
  auto *p = static_cast<pool *>(handle);
  if (p == nullptr) return;
  unlist_pool(p);
  if (p->current != nullptr) delete_chunk(p, p->current);
  delete_chunks(p, &p->full);
  delete_chunks(p, &p->partial);
  delete_chunks(p, &p->empty);
  free(p->name);
  delete p;
}

void *chunk_malloc(void *handle) {
  auto *p = static_cast<pool *>(handle);
  if (p->in_use.get() >= p->limit.load(std::memory_order_relaxed)) return nullptr;
  if ((p->current == nullptr || p->current->free == nullptr) && !renew_current(p)) return nullptr;

  chunk *c = p->current;
  void *element = c->pop_free()->element();
  ++c->in_use;
  p->in_use.add(1);
  ASAN_UNPOISON_MEMORY_REGION(element, p->element_size);
  if ((p->flags & CHUNK_ZERO) != 0) memset(element, 0, p->element_size);
  return element;
}

void chunk_free(void *handle, void *element) {
  auto *p = static_cast<pool *>(handle);
  header *h = header::of(element);
  if ((h->word & kFreeMark) != 0) refuse_free(p, element);
  auto *c = reinterpret_cast<chunk *>(h->word);
  c->push_free(h);
  --c->in_use;
  p->in_use.add(-1);
  ASAN_POISON_MEMORY_REGION(element, p->stride - sizeof *h);
  if (c != p->current) refile(p, c);
}

void chunk_set_limit(void *handle, uint64_t elements) {
  static_cast<pool *>(handle)->limit.store(elements == 0 ? UINT64_MAX : elements,
                                           std::memory_order_relaxed);
}

void chunk_walk_pools(int (*visit)(const chunk_info_t *info, void *arg), void *arg) {
  platform::hold held(pools_lock);
  for (const pool *p = first_pool; p != nullptr; p = p->next_pool) {
    const uint64_t limit = p->limit.load(std::memory_order_relaxed);
    const uint64_t chunks = p->chunks.get();
    const chunk_info_t info = {.name = p->name,
                               .element_size = p->element_size,
                               .in_use = p->in_use.get(),
                               .chunks = chunks,
                               .bytes = sizeof *p + strlen(p->name) + 1 + chunks * p->chunk_bytes,
                               .limit = limit == UINT64_MAX ? 0 : limit};
    if (visit(&info, arg) == 0) return;
  }
}
