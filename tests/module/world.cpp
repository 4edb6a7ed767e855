#include "tests/module/world.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <deque>
#include <utility>

#include "db/nhop_table.h"
#include "db/vrf_table.h"
#include "engine/shared_words.h"
#include "engine/state.h"
#include "engine/timers.h"
#include "engine/worker.h"
#include "platform/bag.h"
#include "platform/event.h"
#include "platform/message_log.h"
#include "platform/ods.h"
#include "platform/pool.h"
#include "platform/thread_diag.h"
#include "platform/timer.h"
#include "platform/tree.h"
#include "tarvo/agent_services.h"

// Never destroyed: the worker outlives main().
world &w = *new world;

static std::string format(const char *text, va_list arguments) {
  char buffer[600];
  vsnprintf(buffer, sizeof buffer, text, arguments);
  return buffer;
}

uint32_t addr(const char *text) {
  in_addr a;
  return inet_pton(AF_INET, text, &a) == 1 ? a.s_addr : 0;
}

std::string dotted(uint32_t address) {
  char buffer[INET_ADDRSTRLEN];
  return inet_ntop(AF_INET, &address, buffer, sizeof buffer);
}

void world::note(std::string text) {
  std::lock_guard hold(guard);
  did.push_back(std::move(text));
}

bool world::failing(const char *operation, const char *object) {
  if (fail.empty() && !counting) return false;
  const std::string call = operation + std::string(*object == '\0' ? "" : " ") + object;
  if (counting) ++calls[call];
  const auto found = fail.find(operation);
  if (found == fail.end()) return false;
  const int nth = ++nth_[operation];
  if (for_good ? nth < found->second : nth != found->second) return false;
  failed.push_back(call);
  return true;
}

void world::fail_next(const std::string &operation, int nth, int with) {
  nth_.clear();
  failed.clear();
  fail = {{operation, nth}};
  error = with;
}

// What the module must not do is noted, so that it spoils every expectation.
static void require(bool holds, const char *what) {
  if (!holds) w.note(std::string("wrong: ") + what);
}

// Once locking or unlocking itself failed, nobody can hold a lock as he should.
static bool locks_failed() {
  return !w.failed.empty() && (w.failed.back().starts_with("pthread_mutex_lock") ||
                               w.failed.back().starts_with("pthread_mutex_unlock"));
}

std::vector<std::string> world::take() {
  std::lock_guard hold(guard);
  return std::exchange(did, {});
}

void tell(uint32_t client_id, uint32_t event, const void *data) {
  static const char *const kNames[] = {"?", "ADD", "REMOVE", "END", "RESEND_END"};
  std::string text = "tell " + std::to_string(client_id) + " " + kNames[event];
  if (data == nullptr) text += " null";
  if (event <= TARVO_ND_EVENT_REMOVE) {
    const auto *info = static_cast<const tarvo_nd_nhop_info_t *>(data);
    text += " " + dotted(info->nhop_addr) + " " + dotted(info->prefix) + "/" +
            std::to_string(info->prefix_len);
  }
  w.note(std::move(text));
}

uint32_t world::start() { return tarvo_nd_init(this); }

static std::map<void *, std::string> &named_memory = *new std::map<void *, std::string>;

std::map<std::string, uint64_t> in_use() {
  std::map<std::string, uint64_t> found;
  for (const auto &[memory, name] : named_memory) ++found[name];
  chunk_walk_pools(
      [](const chunk_info_t *info, void *arg) {
        (*static_cast<std::map<std::string, uint64_t> *>(arg))[info->name] += info->in_use;
        return 1;
      },
      &found);
  return found;
}

int32_t nhop_count() TARVO_NO_THREAD_SAFETY_ANALYSIS { return tarvo_nd_nhop_count; }

static bool idle;

bool world::step() {
  idle = false;
  tarvo_nd_work_round();
  return !idle;
}

void world::run() {
  while (step()) continue;
}

void world::client(uint32_t id, const char *vrf) {
  tarvo_pe_discovery_register(id, vrf, tell);
  run();
}

void world::report(uint32_t table, const char *address, bool add) {
  tarvo_nd_enqueue_nhop_update(table, addr(address), add);
  run();
}

void world::table(uint32_t id, const char *name, bool add) {
  tarvo_nd_enqueue_table_update(name, id, add);
  run();
}

// ------------------------------------ the agent's services ------------------------------------

int tarvo_rib_ipv4_get_prefix_route(tarvo_nd_nhop_info_t *info) {
  int best = -1;
  for (const std::string &route : w.routes) {
    const size_t slash = route.find('/');
    const int length = std::stoi(route.substr(slash + 1));
    const uint32_t prefix = addr(route.substr(0, slash).c_str());
    const uint32_t mask = length == 0 ? 0 : htonl(~0u << (32 - length));
    if ((info->nhop_addr & mask) != prefix || length <= best) continue;
    best = length;
    info->prefix = prefix;
    info->prefix_len = static_cast<uint8_t>(length);
  }
  if (best < 0) *info = {info->nhop_addr, 1, 1};  // what a failed lookup leaves means nothing
  return best >= 0 ? 0 : -1;
}

int tarvo_rib_ipv4_redist(uint32_t table_id, int on) {
  w.note((on ? "rib on " : "rib off ") + std::to_string(table_id) +
         (tarvo_nd_is_active() != 0 ? "" : " while inactive"));
  if (w.refused.count(table_id) != 0) return -1;
  if (on != 0 && w.asked) w.asked(table_id);
  return 0;
}

int tarvo_rib_ipv4_redist_reset(uint32_t table_id) {
  w.note("rib reset " + std::to_string(table_id));
  if (w.asked) w.asked(table_id);
  return -1;  // not looked at
}

uint32_t rtab_c_tbl_id_ipv4_ucast_dflt() { return 0xe0000000; }

void tarvo_sa_lstrace(uint64_t mask, uint64_t id, const char *text, uint32_t code, ...) {
  errno = 0;  // a trace may well change it
  w.note("lstrace " + std::to_string(mask == 0x100000 && id == 0x10200106001) + " " + text + " " +
         std::to_string(code));
}

void tarvo_sa_debug(uint32_t category, uint32_t level, const char *text, ...) {
  if (!w.tracing) return;
  va_list arguments;
  va_start(arguments, text);
  std::lock_guard hold(w.guard);
  w.traces.push_back(std::to_string(category) + "/" + std::to_string(level) + " " +
                     format(text, arguments));
  va_end(arguments);
}

int tarvoDiscoverySetODSFns(const tarvo_nd_ods_fns_t *fns) {
  w.note(fns == &tarvoMplsDiscoveryODSFns ? "register ods" : "?");
  return -1;
}
int tarvo_ital_cb_fn_set(const tarvo_nd_ital_fns_t *fns) {
  w.note(fns == &tarvoMplsDiscoveryItalFns ? "register ital" : "?");
  return -1;
}
int tarvo_rib_cb_fn_set(const tarvo_nd_rib_fns_t *fns) {
  w.note(fns == &tarvoMplsDiscoveryRibFns ? "register rib" : "?");
  return -1;
}
int tarvo_cfg_cb_fn_set(const tarvo_nd_cfg_fns_t *fns) {
  w.note(fns == &tarvoMplsDiscoveryCfgFns ? "register cfg" : "?");
  return -1;
}

// ---------------------------------- faked platform services ----------------------------------

static event_handler handler;

int event_async_attach(void *mgr, unsigned kind, event_handler attached, void *context) {
  errno = w.error;
  if (w.failing("attach") || mgr != &w || kind != 128 || context != nullptr) return -1;
  handler = attached;
  return 5;
}

int event_init_sigevent(void *mgr, int code, long, long, sigevent *event) {
  errno = w.error;
  static const sigevent kZeroed = {};
  require(memcmp(event, &kZeroed, sizeof kZeroed) == 0, "the event is not zeroed");
  event->sigev_value.sival_int = code;
  return w.failing("sigevent") || mgr != &w ? -1 : 0;
}

struct mgd_timer_leaf {
  unsigned type;
  bool running;
  int64_t deadline;
};
static std::deque<mgd_timer_leaf> &leaves = *new std::deque<mgd_timer_leaf>;
static std::recursive_mutex timers;

static std::string name_of(const mgd_timer_leaf *leaf) {
  return leaf->type == 7 ? "refresh" : leaf->type == 8 ? "clear" : "other";
}

void *mgd_timer_tree_new(sigevent *event, int) {
  errno = w.error;
  return w.failing("timer_tree") || event->sigev_value.sival_int != 5 ? nullptr : &leaves;
}

void *mgd_timer_leaf_new(void *, int, unsigned type, int) {
  errno = w.error;
  if (w.failing("timer_leaf", type == 7 ? "refresh" : "clear")) return nullptr;
  leaves.push_back({type, false, 0});
  return &leaves.back();
}

void mgd_timer_leaf_start(mgd_timer_leaf *leaf, const timespec *delay) {
  std::lock_guard hold(timers);
  require(tarvo_nd_mutex.mutex.__data.__owner != 0 || locks_failed(),
          "a timer is started without the lock");
  for (const mgd_timer_leaf &other : leaves)
    require(!other.running || &other == leaf, "two timers run");
  leaf->running = true;
  leaf->deadline = w.now + delay->tv_sec * 1000000000 + delay->tv_nsec;
  w.note("start " + name_of(leaf) + " " + std::to_string(delay->tv_sec));
}

void mgd_timer_leaf_stop(mgd_timer_leaf *leaf) {
  std::lock_guard hold(timers);
  leaf->running = false;
  w.note("stop " + name_of(leaf));
}

int mgd_timer_leaf_running(mgd_timer_leaf *leaf) {
  std::lock_guard hold(timers);
  return leaf->running;
}

void mgd_timer_leaf_remaining(mgd_timer_leaf *leaf, timespec *left) {
  std::lock_guard hold(timers);
  const int64_t ns = leaf->running ? std::max<int64_t>(leaf->deadline - w.now, 0) : 0;
  *left = {ns / 1000000000, ns % 1000000000};
}

static mgd_timer_leaf *next_due() {
  std::lock_guard hold(timers);
  mgd_timer_leaf *first = nullptr;
  for (mgd_timer_leaf &leaf : leaves)
    if (leaf.running && (first == nullptr || leaf.deadline < first->deadline)) first = &leaf;
  return first;
}

mgd_timer_leaf *mgd_timer_tree_first_expired(void *) {
  std::lock_guard hold(timers);
  mgd_timer_leaf *due = next_due();
  return due != nullptr && due->deadline <= w.now ? due : nullptr;
}

void add_stray_timer() { leaves.push_back({9, true, w.now}); }

unsigned mgd_timer_leaf_type(mgd_timer_leaf *leaf) { return leaf->type; }

void world::expire() { handler(nullptr); }

void world::pass(double seconds) {
  const int64_t end = now + static_cast<int64_t>(seconds * 1e9);
  for (const mgd_timer_leaf *due = next_due(); due != nullptr && due->deadline <= end;
       due = next_due()) {
    now = std::max(now.load(), due->deadline);
    expire();
    run();
  }
  now = end;
}

void oxa_errmsg(const oxa_msg_rec_t *message, int severity, ...) {
  va_list arguments;
  va_start(arguments, severity);
  w.note("log " + std::to_string(severity) + " " + message->mnemonic + " " +
         format(message->format, arguments));
  va_end(arguments);
}

void set_thread_name(const char *name, pthread_t thread) {
  require(pthread_equal(thread, pthread_self()), "another thread is named");
  w.note(std::string("name ") + name);
}
void remove_thread_name(void *unused) {
  require(unused == nullptr, "an argument for remove_thread_name");
  w.note("unname");
}
void ptd_set_mutex_block(void *lock, const char *caller, int line) {
  require(line > 1, "a lock site has no line");
  const bool workq = lock == &tarvo_nd_workq_mutex;
  w.note(std::string(lock == &tarvo_nd_mutex ? "block nd "
                     : workq                 ? "block workQ "
                                             : "? ") +
         caller);
}
void ptd_unset_mutex_block() { w.note("unblock"); }
void ptd_set_syscall_block_internal(int kind, void *object, long, long) {
  require(object != nullptr, "a wait for nothing");
  std::lock_guard hold(w.guard);
  w.waits.push_back("wait " + std::to_string(kind));
}
void ptd_set_syscall_unblock() {
  std::lock_guard hold(w.guard);
  w.waits.push_back("waited");
}

// ------------ real services: the linker leads through here, so that they can fail ------------

#define WRAPPED(result, name, object, parameters, arguments, failed)    \
  extern "C" result __real_##name parameters;                           \
  extern "C" result __wrap_##name parameters {                          \
    return w.failing(#name, object) ? failed : __real_##name arguments; \
  }

// Named memory with the sizes it may be asked for.
static const char *known(const char *name, std::initializer_list<unsigned long> numbers) {
  std::string request = name;
  for (unsigned long number : numbers) request += " " + std::to_string(number);
  static const std::set<std::string> kRequests = {
      "PE Discovery workQ Chunk 280 100 513",   "PE Discovery NHop Chunk 136 100 769",
      "PE Discovery Table ID Chunk 32 250 769", "TARVO DISC Client Entry 24 1",
      "TARVO DISC Client Info 296 1",           "TARVO DISC VRF Info 280 1"};
  require(kRequests.count(request) != 0, request.c_str());
  return name;
}

// The work queue's pool is used under its own lock, the others under the nd mutex.
static const char *pool_name(const void *pool) TARVO_NO_THREAD_SAFETY_ANALYSIS {
  if (pool == w.workq_pool) return "PE Discovery workQ Chunk";
  return pool == tarvo_nd_nhop_chunk ? "PE Discovery NHop Chunk" : "PE Discovery Table ID Chunk";
}

static const char *tree_name(const void *tree) {
  return tree == &tarvo_nd_nhop_tree ? "next hops" : "references";
}

static const char *root_name(const void *root) TARVO_NO_THREAD_SAFETY_ANALYSIS {
  return root == &tarvo_nd_vrf_tree ? "VRFs" : "client groups";
}

extern "C" void *__real_chunk_create(const char *, unsigned long, unsigned long, unsigned long,
                                     unsigned long, unsigned long);
extern "C" void *__wrap_chunk_create(const char *name, unsigned long size, unsigned long count,
                                     unsigned long flags, unsigned long x, unsigned long y) {
  known(name, {size, count, flags + x + y});
  if (w.failing("chunk_create", name)) return nullptr;
  void *pool = __real_chunk_create(name, size, count, flags, x, y);
  if (w.workq_pool == nullptr) w.workq_pool = pool;
  return pool;
}
WRAPPED(void *, chunk_malloc, pool_name(pool), (void *pool), (pool), nullptr)
WRAPPED(void *, avl_insert, root_name(root), (void *root, void *node, tree_cmp c), (root, node, c),
        nullptr)
WRAPPED(void *, wavl_insert_thread, tree_name(t), (wavl_tree_t * t, unsigned long n, void *node),
        (t, n, node), nullptr)
WRAPPED(int, sigemptyset, "", (sigset_t * s), (s), 1)
WRAPPED(int, sigaddset, n == SIGRTMIN + 6 ? "6" : "10", (sigset_t * s, int n), (s, n), 1)
WRAPPED(int, pthread_sigmask, "", (int how, const sigset_t *s, sigset_t *o), (how, s, o), 1)

extern "C" void *__real_calloc_named(size_t, size_t, const char *);
extern "C" void *__wrap_calloc_named(size_t n, size_t size, const char *name) {
  if (w.failing("calloc_named", name)) return nullptr;
  void *memory = __real_calloc_named(n, size, known(name, {size, n}));
  std::lock_guard hold(w.guard);
  named_memory[memory] = name;
  return memory;
}

extern "C" void __real_free(void *);
extern "C" void __wrap_free(void *memory) {
  {
    std::lock_guard hold(w.guard);
    named_memory.erase(memory);
  }
  __real_free(memory);
}

extern "C" int __real_pthread_cond_signal(pthread_cond_t *);
extern "C" int __wrap_pthread_cond_signal(pthread_cond_t *cond) {
  const bool revival = cond == &tarvo_nd_mutex.revival_cond;
  require(!revival || tarvo_nd_mutex.revival_pending != 0, "a revival is over before its signal");
  require(w.threaded || revival || tarvo_nd_workq_mutex.mutex.__data.__owner == 0 || locks_failed(),
          "the worker is woken under the lock");
  return w.failing("pthread_cond_signal") ? w.error : __real_pthread_cond_signal(cond);
}

extern "C" int __real_rmx_wait_on_revival_condvar(void *lock);
extern "C" int __wrap_rmx_wait_on_revival_condvar(void *lock) {
  if (w.failing("rmx_wait_on_revival_condvar")) return w.error;
  return w.pass_revival_wait ? 0 : __real_rmx_wait_on_revival_condvar(lock);
}

// The test framework's own mutexes come through here too; only the module's fail.
static bool fails(const char *operation, const pthread_mutex_t *mutex) {
  const bool ours = mutex == &tarvo_nd_mutex.mutex || mutex == &tarvo_nd_mutex.revival_mutex ||
                    mutex == &tarvo_nd_workq_mutex.mutex;
  return ours && w.failing(operation, mutex == &tarvo_nd_workq_mutex.mutex ? "workQ" : "nd");
}

// The next-hop tree lives from its initialisation to its finish; nobody looks at it in between.
static std::atomic<bool> tree_lives;

static void check_lives(wavl_tree_t *tree) {
  require(tree != &tarvo_nd_nhop_tree || tree_lives, "a finished tree is touched");
}

extern "C" int __real_wavl_init(wavl_tree_t *, unsigned long, unsigned long, tree_cmp);
extern "C" int __wrap_wavl_init(wavl_tree_t *tree, unsigned long threads, unsigned long zero,
                                tree_cmp cmp) {
  if (w.failing("wavl_init", tree_name(tree))) return 12;
  require(tree != &tarvo_nd_nhop_tree || !tree_lives.exchange(true), "a live tree is initialised");
  return __real_wavl_init(tree, threads, zero, cmp);
}

extern "C" void __real_wavl_finish(wavl_tree_t *);
extern "C" void __wrap_wavl_finish(wavl_tree_t *tree) {
  if (tree == &tarvo_nd_nhop_tree) tree_lives = false;
  __real_wavl_finish(tree);
}

#define WRAPPED_TREE(name, parameters, arguments) \
  extern "C" void *__real_##name parameters;      \
  extern "C" void *__wrap_##name parameters {     \
    check_lives(tree);                            \
    return __real_##name arguments;               \
  }
WRAPPED_TREE(wavl_search, (wavl_tree_t * tree, const void *key, unsigned long n), (tree, key, n))
WRAPPED_TREE(wavl_get_first, (wavl_tree_t * tree, unsigned long n), (tree, n))
WRAPPED_TREE(wavl_get_next, (wavl_tree_t * tree, const void *key, unsigned long n), (tree, key, n))

// The store and the encoder: never under the nd mutex, all that they do is noted.
static void outside(const std::string &text) {
  require(tarvo_nd_mutex.mutex.__data.__owner != gettid() || locks_failed(),
          "the store is called under the lock");
  w.note(text);
}

#define WRAPPED_OUTSIDE(name, parameters, arguments, text)                              \
  extern "C" uint32_t __real_##name parameters;                                         \
  extern "C" uint32_t __wrap_##name parameters {                                        \
    outside(text);                                                                      \
    return w.failing(#name) ? static_cast<uint32_t>(w.error) : __real_##name arguments; \
  }
#define WRAPPED_CREATE(name, text)                                               \
  extern "C" uint32_t __real_##name(void **list, ods_path_t *path, void *more);  \
  extern "C" uint32_t __wrap_##name(void **list, ods_path_t *path, void *more) { \
    /* The tests hand the path on as the further arguments. */                   \
    outside(*list == nullptr && path == more ? text : "?");                      \
    if (!w.failing(#name)) return __real_##name(list, path, more);               \
    *list = list; /* what a failed call leaves is not looked at */               \
    return static_cast<uint32_t>(w.error);                                       \
  }
#define WRAPPED_VOID(name, parameters, arguments, text) \
  extern "C" void __real_##name parameters;             \
  extern "C" void __wrap_##name parameters {            \
    outside(text);                                      \
    __real_##name arguments;                            \
  }

WRAPPED_CREATE(ods_list_create, "list")
WRAPPED_CREATE(ods_datalist_create, "datalist")
WRAPPED_OUTSIDE(ods_list_add, (void *list, const char *key, uint32_t rank, uint32_t flags),
                (list, key, rank, flags),
                rank == 0xffffffff && flags == 0 ? std::string("add ") + key : "?")
WRAPPED_OUTSIDE(ods_datalist_add,
                (void *list, const char *key, uint32_t type, uint32_t flags, const void *buffer,
                 uint32_t length),
                (list, key, type, flags, buffer, length),
                type == 7 && flags == 0 ? std::string("add ") + key : "?")
WRAPPED_OUTSIDE(bag_encode, (void **buffer, uint32_t *length, const void *native, const void *d),
                (buffer, length, native, d), *buffer == nullptr && *length == 0 ? "encode" : "?")
WRAPPED_OUTSIDE(bag_register_start, (void *registry), (registry), registry == &w ? "open" : "?")
WRAPPED_OUTSIDE(bag_register, (const void *d), (d),
                std::string("register ") + static_cast<const bag_descriptor_t *>(d)->name)
WRAPPED_OUTSIDE(bag_register_end, (), (), "close")
WRAPPED_VOID(bag_register_abort, (), (), "abort")
WRAPPED_VOID(ods_list_set_more_flag, (void *list), (list), "more")
WRAPPED_VOID(ods_list_free, (void *list), (list), "free")
WRAPPED_VOID(ods_datalist_free, (void *list), (list), "free data")

#define WRAPPED_MUTEX(name, parameters, arguments)                  \
  extern "C" int __real_##name parameters;                          \
  extern "C" int __wrap_##name parameters {                         \
    return fails(#name, mutex) ? w.error : __real_##name arguments; \
  }
WRAPPED_MUTEX(pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex))
WRAPPED_MUTEX(pthread_mutex_unlock, (pthread_mutex_t * mutex), (mutex))
WRAPPED_MUTEX(pthread_mutex_trylock, (pthread_mutex_t * mutex), (mutex))
WRAPPED_MUTEX(pthread_mutex_timedlock, (pthread_mutex_t * mutex, const timespec *until),
              (mutex, until))

extern "C" int __real_pthread_cond_wait(pthread_cond_t *, pthread_mutex_t *);
extern "C" int __wrap_pthread_cond_wait(pthread_cond_t *cond, pthread_mutex_t *mutex) {
  if (w.threaded) return __real_pthread_cond_wait(cond, mutex);
  idle = true;
  return w.failing("pthread_cond_wait") ? w.error : 0;
}

extern "C" int __real_pthread_create(pthread_t *, const pthread_attr_t *, void *(*)(void *),
                                     void *);
extern "C" int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attributes,
                                     void *(*entry)(void *), void *argument) {
  if (entry != tarvo_nd_process_work_req)
    return __real_pthread_create(thread, attributes, entry, argument);
  if (w.failing("pthread_create") || attributes != nullptr || argument != nullptr) return w.error;
  if (!w.threaded) return 0;
  const int result = __real_pthread_create(thread, attributes, entry, argument);
  w.worker = *thread;
  return result;
}
