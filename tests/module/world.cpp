#include "tests/module/world.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <utility>

#include "db/nhop_table.h"
#include "db/vrf_table.h"
#include "engine/shared_words.h"
#include "engine/state.h"
#include "engine/timers.h"
#include "engine/work_request.h"
#include "engine/worker.h"
#include "platform/bag.h"
#include "platform/event.h"
#include "platform/message_log.h"
#include "platform/ods.h"
#include "platform/pool.h"
#include "platform/queue.h"
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

uint32_t host(const char *text) { return ntohl(inet_addr(text)); }

std::string dotted(uint32_t host) {
  const in_addr address = {htonl(host)};
  char buffer[INET_ADDRSTRLEN];
  return inet_ntop(AF_INET, &address, buffer, sizeof buffer);
}

std::string route_text(const tarvo_nd_nhop_info_t &info) {
  return dotted(ntohl(info.prefix)) + "/" + std::to_string(info.prefix_len);
}

std::string hop_text(const tarvo_nd_nhop_info_t &info) {
  return dotted(ntohl(info.nhop_addr)) + " " + route_text(info);
}

void world::note(std::string text) {
  std::lock_guard hold(guard);
  did.push_back(std::move(text));
}

bool world::failing(const char *operation, const char *object) {
  if (object == nullptr || (fail.empty() && !counting)) return false;
  const std::string call = operation + std::string(*object == '\0' ? "" : " ") + object;
  if (counting) calls.push_back(call);
  auto found = fail.find(operation);
  if (found == fail.end()) found = fail.find(call);
  if (found == fail.end()) return false;
  const int nth = ++nth_[found->first];
  if (for_good ? nth < found->second : nth != found->second) return false;
  failed.push_back(call);
  return true;
}

void world::fail_next(const std::string &operation, int nth, int with) {
  nth_.clear();
  failed.clear();
  fail.clear();
  if (!operation.empty()) fail[operation] = nth;
  error = with;
}

texts split(const std::string &text, const std::string &separator) {
  texts parts;
  for (size_t at = 0, end = 0; end != std::string::npos; at = end + separator.size()) {
    end = text.find(separator, at);
    parts.push_back(text.substr(at, end - at));
  }
  return parts;
}

const std::vector<consequence> &consequences() {
  static const std::vector<consequence> kTable = [] {
    std::vector<consequence> all;
    std::ifstream table(FAULT_TABLE);
    for (std::string line; std::getline(table, line);) {
      if (line.starts_with('#')) continue;
      const texts column = split(line, " | ");
      all.push_back({column.at(0), column.at(1), column.at(2),
                     column.at(3) == "-" ? texts() : split(column[3], " & ")});
    }
    return all;
  }();
  return kTable;
}

const consequence *consequence_of(const std::string &call) {
  const auto found = std::ranges::find(consequences(), call, &consequence::call);
  return found == consequences().end() ? nullptr : &*found;
}

static void require(bool holds, const char *what) {
  if (!holds) w.note(std::string("wrong: ") + what);
}

// Once locking or unlocking itself failed, nobody can hold a lock as he should.
static bool locks_failed() {
  return !w.failed.empty() && (w.failed.back().starts_with("pthread_mutex_lock") ||
                               w.failed.back().starts_with("pthread_mutex_unlock"));
}

texts world::take() {
  std::lock_guard hold(guard);
  return std::exchange(did, {});
}

void tell(uint32_t client_id, uint32_t event, const void *data) {
  static const char *const kNames[] = {"?", "ADD", "REMOVE", "END", "RESEND_END"};
  std::string text = "tell " + std::to_string(client_id) + " " + kNames[event];
  if (data == nullptr) text += " null";
  if (event <= TARVO_ND_EVENT_REMOVE)
    text += " " + hop_text(*static_cast<const tarvo_nd_nhop_info_t *>(data));
  w.note(std::move(text));
}

uint32_t world::start() { return tarvo_nd_init(this); }

// Memory that the module has to free, by what it is.
static std::map<const void *, std::string> &kept = *new std::map<const void *, std::string>;

static void *keep(void *memory, const char *what) {
  std::lock_guard hold(w.guard);
  if (memory != nullptr) kept[memory] = what;
  return memory;
}

std::map<std::string, uint64_t> in_use() {
  std::lock_guard hold(w.guard);
  std::map<std::string, uint64_t> found;
  for (const auto &[memory, what] : kept) ++found[what];
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

ended in_child(const std::function<void()> &part) {
  FILE *const output = tmpfile();
  fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    dup2(fileno(output), STDOUT_FILENO);
    dup2(fileno(output), STDERR_FILENO);
    part();
    exit(testing::Test::HasFailure() ? 1 : 0);  // by exit, where the leak checker does its work
  }
  ended result = {-1, ""};
  waitpid(child, &result.status, 0);
  rewind(output);
  char buffer[4096];
  for (size_t n = 0; (n = fread(buffer, 1, sizeof buffer, output)) > 0;)
    result.output.append(buffer, n);
  fclose(output);
  return result;
}

// ------------------------------------ the agent's services ------------------------------------

static std::pair<uint32_t, int> prefix_of(const std::string &route) {
  const size_t slash = route.find('/');
  return {host(route.substr(0, slash).c_str()), std::stoi(route.substr(slash + 1))};
}

std::string world::route_to(uint32_t host) const {
  std::string best;
  int longest = -1;
  for (const std::string &route : routes) {
    const auto [prefix, length] = prefix_of(route);
    if (length <= longest || uint64_t{host ^ prefix} >> (32 - length) != 0) continue;
    longest = length;
    best = route;
  }
  return best;
}

int tarvo_rib_ipv4_get_prefix_route(tarvo_nd_nhop_info_t *info) {
  w.note("rib route " + dotted(ntohl(info->nhop_addr)));
  const std::string route = w.route_to(ntohl(info->nhop_addr));
  *info = {info->nhop_addr, 1, 1};  // what a failed lookup leaves means nothing
  if (route.empty()) return -1;
  const auto [prefix, length] = prefix_of(route);
  *info = {info->nhop_addr, htonl(prefix), static_cast<uint8_t>(length)};
  return 0;
}

static void report_routes(uint32_t table_id, bool add) {
  for (const uint32_t host : w.rib[table_id])
    tarvo_nd_enqueue_nhop_update(table_id, htonl(host), add ? 5 : 0);
}

int tarvo_rib_ipv4_redist(uint32_t table_id, int on) TARVO_NO_THREAD_SAFETY_ANALYSIS {
  require(on == 0 || on == 1, "neither on nor off");
  require(on == 0 || tarvo_nd_nhop_chunk != nullptr, "reports are asked for without a place");
  w.note((on ? "rib on " : "rib off ") + std::to_string(table_id) +
         (tarvo_nd_is_active() != 0 ? "" : " while inactive"));
  if (w.refused.contains(table_id)) return -1;
  if (on != 0 || w.withdraws) report_routes(table_id, on != 0);
  return 0;
}

// Only a refresh asks again, and what the RIB counted before must not count then.
static bool counts_are_void() TARVO_NO_THREAD_SAFETY_ANALYSIS {
  tarvo_nd_nhop_t *nhop = tarvo_nd_nhop_tree_first();
  const auto *ref = nhop == nullptr ? nullptr : tarvo_nd_nhop_table_first(&nhop->tables);
  return ref == nullptr || ref->ref_count == 0;
}

int tarvo_rib_ipv4_redist_reset(uint32_t table_id) {
  require(counts_are_void(), "the RIB is asked before the marks are set");
  w.note("rib reset " + std::to_string(table_id));
  report_routes(table_id, true);
  return -1;  // not looked at
}

uint32_t rtab_c_tbl_id_ipv4_ucast_dflt() { return 0xe0000000; }

void tarvo_sa_lstrace(uint64_t mask, uint64_t id, const char *text, uint32_t code, ...) {
  errno = 0;  // a trace may well change it
  w.note("lstrace " + std::to_string(mask == 0x100000 && id == 0x10200106001) + " " + text + " " +
         std::to_string(code));
}

void tarvo_sa_debug(uint32_t category, uint32_t level, const char *text, ...) {
  va_list arguments;
  va_start(arguments, text);
  w.note("trace " + std::to_string(category) + "/" + std::to_string(level) + " " +
         format(text, arguments));
  va_end(arguments);
}

#define REGISTERED(name, call, fns_t, table)                 \
  int call(const fns_t *fns) {                               \
    w.note(fns == &table ? "register " name : "register ?"); \
    return -1; /* not looked at */                           \
  }
REGISTERED("ods", tarvoDiscoverySetODSFns, tarvo_nd_ods_fns_t, tarvoMplsDiscoveryODSFns)
REGISTERED("ital", tarvo_ital_cb_fn_set, tarvo_nd_ital_fns_t, tarvoMplsDiscoveryItalFns)
REGISTERED("rib", tarvo_rib_cb_fn_set, tarvo_nd_rib_fns_t, tarvoMplsDiscoveryRibFns)
REGISTERED("cfg", tarvo_cfg_cb_fn_set, tarvo_nd_cfg_fns_t, tarvoMplsDiscoveryCfgFns)

// ---------------------------------- faked platform services ----------------------------------

static event_handler handler;

int event_async_attach(void *mgr, unsigned kind, event_handler attached, void *context) {
  errno = w.error;
  require(w.workq_pool != nullptr, "the timer event comes before the queue");
  if (w.failing("attach") || mgr != &w || kind != 128 || context != nullptr) return -1;
  handler = attached;
  return 5;
}

int event_init_sigevent(void *mgr, int code, long zero1, long zero2, sigevent *event) {
  errno = w.error;
  require(zero1 == 0 && zero2 == 0, "another kind of event");
  static const sigevent kZeroed = {};
  require(memcmp(event, &kZeroed, sizeof kZeroed) == 0, "the event is not zeroed");
  event->sigev_value.sival_int = code;
  return w.failing("sigevent") || mgr != &w ? -1 : 0;
}

struct mgd_timer_leaf {
  unsigned type;
  int64_t deadline;  // kStopped: it does not run
};
constexpr int64_t kStopped = INT64_MAX;
static std::deque<mgd_timer_leaf> &leaves = *new std::deque<mgd_timer_leaf>;

static void note_of(const char *what, const mgd_timer_leaf *leaf, const std::string &more = "") {
  const char *name = leaf->type == 7 ? "refresh" : leaf->type == 8 ? "clear" : "other";
  w.note(std::string(what) + name + more);
}

void *mgd_timer_tree_new(sigevent *event, int zero) {
  errno = w.error;
  require(zero == 0, "another kind of timer tree");
  return w.failing("timer_tree") || event->sigev_value.sival_int != 5 ? nullptr : &leaves;
}

void *mgd_timer_leaf_new(void *tree, int zero1, unsigned type, int zero2) {
  errno = w.error;
  require(tree == &leaves && zero1 == 0 && zero2 == 0, "another kind of timer");
  require(type == (leaves.empty() ? 7 : 8), "the timers are made in another order");
  if (w.failing("timer_leaf", type == 7 ? "refresh" : "clear")) return nullptr;
  return &leaves.emplace_back(mgd_timer_leaf{type, kStopped});
}

void mgd_timer_leaf_start(mgd_timer_leaf *leaf, const timespec *delay) {
  std::lock_guard hold(w.guard);
  leaf->deadline = w.now + delay->tv_sec * 1000000000 + delay->tv_nsec;
  note_of("start ", leaf, " " + std::to_string(delay->tv_sec));
}

void mgd_timer_leaf_stop(mgd_timer_leaf *leaf) {
  std::lock_guard hold(w.guard);
  leaf->deadline = kStopped;
  note_of("stop ", leaf);
}

int mgd_timer_leaf_running(mgd_timer_leaf *leaf) {
  std::lock_guard hold(w.guard);
  return leaf->deadline != kStopped;
}

void mgd_timer_leaf_remaining(mgd_timer_leaf *leaf, timespec *left) {
  const int64_t ns = mgd_timer_leaf_running(leaf) ? std::max(leaf->deadline - w.now, 0L) : 0;
  *left = {ns / 1000000000, ns % 1000000000};
}

// At most one runs, but for a stray one.
mgd_timer_leaf *mgd_timer_tree_first_expired(void *) {
  std::lock_guard hold(w.guard);
  const auto due = std::ranges::find_if(leaves, [](auto &l) { return l.deadline <= w.now; });
  return due == leaves.end() ? nullptr : &*due;
}

void add_stray_timer() { leaves.push_back({9, w.now}); }

unsigned mgd_timer_leaf_type(mgd_timer_leaf *leaf) { return leaf->type; }

void world::expire() { require(handler(nullptr) == 0, "the handler's result"); }

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

// One wait at a time, announced before and withdrawn after.
static thread_local const void *waits_for;

static void begin_wait(const void *object) {
  require(object != nullptr && waits_for == nullptr, "a wait is announced for nothing or twice");
  waits_for = object;
}

// The failing operations tell "nd" from "workQ". Other mutexes are the test framework's.
static const char *lock_name(const void *lock) {
  if (lock == &tarvo_nd_workq_mutex.mutex) return "workQ";
  return lock == &tarvo_nd_mutex.mutex || lock == &tarvo_nd_mutex.revival_mutex ? "nd" : nullptr;
}

void ptd_set_mutex_block(void *lock, const char *caller, int line) {
  begin_wait(lock);
  // In no file does a site stand so far up, but the default argument does.
  require(line > 20, "a lock site has another line");
  const char *name = lock_name(&static_cast<guarded_mutex_t *>(lock)->mutex);
  w.note("block " + std::string(name == nullptr ? "?" : name) + " " + caller);
}
void ptd_unset_mutex_block() { waits_for = nullptr; }
void ptd_set_syscall_block_internal(int kind, void *object, long zero1, long zero2) {
  begin_wait(object);
  require(kind == PTD_WAIT_CONDITION && zero1 == 0 && zero2 == 0, "another kind of wait");
}
void ptd_set_syscall_unblock() { waits_for = nullptr; }

// ------------ real services: the linker leads through here, so that they can fail ------------

#define WRAPPED(result, name, object, parameters, failed, made) \
  extern "C" result __real_##name parameters;                   \
  extern "C" result __wrap_##name parameters { return w.failing(#name, object) ? failed : made; }

// Named memory with the sizes it may be asked for.
static const char *known(const char *name, std::initializer_list<unsigned long> numbers) {
  std::string request = name;
  for (unsigned long number : numbers) request += " " + std::to_string(number);
  static const std::set<std::string> kRequests = {
      "PE Discovery workQ Chunk 280 100 513",   "PE Discovery NHop Chunk 136 100 769",
      "PE Discovery Table ID Chunk 32 250 769", "TARVO DISC Client Entry 24 1",
      "TARVO DISC Client Info 296 1",           "TARVO DISC VRF Info 280 1"};
  require(kRequests.contains(request), request.c_str());
  return name;
}

// The work queue's pool is used under its own lock, the others under the nd mutex.
static const char *pool_name(const void *pool) TARVO_NO_THREAD_SAFETY_ANALYSIS {
  if (pool == w.workq_pool) return "PE Discovery workQ Chunk";
  return pool == tarvo_nd_nhop_chunk ? "PE Discovery NHop Chunk" : "PE Discovery Table ID Chunk";
}

static const char *tree_name(const void *tree, bool of_one_order) {
  require(of_one_order, "the trees have one order");
  return tree == &tarvo_nd_nhop_tree ? "next hops" : "references";
}

// Another layer's trees may hold memory until they are finished.
static std::set<const void *> &trees = *new std::set<const void *>;

static int made_tree(const void *tree, int status) {
  if (status == 0) require(trees.insert(tree).second, "a tree is made twice");
  return status;
}
static const char *walkable(const void *tree) {
  require(trees.contains(tree), "no tree is walked");
  return nullptr;
}
static const char *finished(const void *tree) {
  require(trees.erase(tree) == 1, "what is finished is no tree");
  return nullptr;
}

static const char *emptied(const void *pool) {
  require(in_use()[pool_name(pool)] == 0, "a pool goes before its elements");
  require(trees.empty(), "a pool goes before its trees");
  return nullptr;
}

static void *made_pool(void *pool) TARVO_NO_THREAD_SAFETY_ANALYSIS {
  require(w.workq_pool == nullptr || tarvo_nd_table_chunk == nullptr, "a pool is still there");
  if (w.workq_pool == nullptr) w.workq_pool = pool;
  return pool;
}

WRAPPED(void *, chunk_create, known(name, {size, count, flags + x + y}),
        (const char *name, unsigned long size, unsigned long count, unsigned long flags,
         unsigned long x, unsigned long y),
        nullptr, made_pool(__real_chunk_create(name, size, count, flags, x, y)))
WRAPPED(void, chunk_destroy, emptied(pool), (void *pool), void(), __real_chunk_destroy(pool))
WRAPPED(void *, chunk_malloc, pool_name(pool), (void *pool), nullptr, __real_chunk_malloc(pool))
WRAPPED(void *, calloc_named, known(name, {size, n}), (size_t n, size_t size, const char *name),
        nullptr, keep(__real_calloc_named(n, size, name), name))
WRAPPED(void *, avl_insert, root == &tarvo_nd_vrf_tree ? "VRFs" : "client groups",
        (void *root, void *node, tree_cmp cmp), nullptr, __real_avl_insert(root, node, cmp))
WRAPPED(int, wavl_init, tree_name(tree, n == 1 && zero == 0),
        (wavl_tree_t * tree, unsigned long n, unsigned long zero, tree_cmp cmp), 12,
        made_tree(tree, __real_wavl_init(tree, n, zero, cmp)))
WRAPPED(void, wavl_finish, finished(tree), (wavl_tree_t * tree), void(), __real_wavl_finish(tree))
WRAPPED(void *, wavl_insert_thread, tree_name(tree, n == 0),
        (wavl_tree_t * tree, unsigned long n, void *node), nullptr,
        __real_wavl_insert_thread(tree, n, node))
WRAPPED(void *, wavl_get_first, walkable(tree), (wavl_tree_t * tree, unsigned long n), nullptr,
        __real_wavl_get_first(tree, n))
WRAPPED(int, sigemptyset, "", (sigset_t * set), 1, __real_sigemptyset(set))
WRAPPED(int, sigaddset, n == SIGRTMIN + 6 ? "6" : "10", (sigset_t * set, int n), 1,
        __real_sigaddset(set, n))
WRAPPED(int, pthread_sigmask, "", (int how, const sigset_t *set, sigset_t *old), 1,
        __real_pthread_sigmask(how, set, old))
WRAPPED(int, rmx_wait_on_revival_condvar, "", (void *lock), w.error,
        __real_rmx_wait_on_revival_condvar(lock))
static const char *announced(const pthread_mutex_t *m) {
  const bool locks = m == &tarvo_nd_mutex.mutex || m == &tarvo_nd_workq_mutex.mutex;
  require(!locks || waits_for == m, "a lock blocks unannounced");
  return lock_name(m);
}
WRAPPED(int, pthread_mutex_lock, announced(m), (pthread_mutex_t * m), w.error,
        __real_pthread_mutex_lock(m))
WRAPPED(int, pthread_mutex_unlock, lock_name(m), (pthread_mutex_t * m), w.error,
        __real_pthread_mutex_unlock(m))
WRAPPED(int, pthread_mutex_trylock, lock_name(m), (pthread_mutex_t * m), w.error,
        __real_pthread_mutex_trylock(m))
WRAPPED(int, pthread_mutex_timedlock, lock_name(m), (pthread_mutex_t * m, const timespec *until),
        w.error, __real_pthread_mutex_timedlock(m, until))

// What is locked for the rest of its life shows in what the process tells.
extern "C" void __real_flockfile(FILE *file);
extern "C" void __wrap_flockfile(FILE *file) {
  __real_flockfile(file);
  fputs("locked: ", file);
}

static const char *signalled(const pthread_cond_t *cond) {
  const bool revival = cond == &tarvo_nd_mutex.revival_cond;
  require(!revival || tarvo_nd_mutex.revival_pending != 0, "a revival is over before its signal");
  require(w.threaded || revival || tarvo_nd_workq_mutex.mutex.__data.__owner == 0 || locks_failed(),
          "the worker is woken under the lock");
  return "";
}
WRAPPED(int, pthread_cond_signal, signalled(cond), (pthread_cond_t * cond), w.error,
        __real_pthread_cond_signal(cond))

extern "C" int __real_pthread_cond_wait(pthread_cond_t *, pthread_mutex_t *);
extern "C" int __wrap_pthread_cond_wait(pthread_cond_t *cond, pthread_mutex_t *mutex) {
  if (w.threaded) return __real_pthread_cond_wait(cond, mutex);
  require(waits_for == cond, "a wait that was not announced");
  idle = true;
  return w.failing("pthread_cond_wait") ? w.error : 0;
}

extern "C" int __real_pthread_create(pthread_t *, const pthread_attr_t *, void *(*)(void *),
                                     void *);
extern "C" int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attributes,
                                     void *(*entry)(void *), void *argument) {
  if (entry != tarvo_nd_process_work_req)
    return __real_pthread_create(thread, attributes, entry, argument);
  sigset_t blocked;
  __real_pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
  require(sigismember(&blocked, SIGRTMIN + 10) == 1, "the worker takes the signals");
  if (w.failing("pthread_create") || attributes != nullptr || argument != nullptr) return w.error;
  if (!w.threaded) return 0;
  const int result = __real_pthread_create(thread, attributes, entry, argument);
  w.worker = *thread;
  return result;
}

// A request is zero but for its type and what the type uses, so a reader of any body is safe.
static void check_unused(const tarvo_nd_work_req_t &request) {
  static constexpr size_t kUsed[] = {264, 8, 8, 264, 4, 264, 264, 0, 0, 0, 264};
  const auto *body = reinterpret_cast<const char *>(&request.nhop);
  const size_t used = request.type < std::size(kUsed) ? kUsed[request.type] : 0;
  const auto is_set = [](char byte) { return byte != 0; };
  require(std::find_if(body + used, body + 264, is_set) == body + 264,
          "a request holds what its type does not use");
}

static void *handled(void *request) {
  if (request == nullptr) return nullptr;
  check_unused(*static_cast<tarvo_nd_work_req_t *>(request));
  ++w.handled;
  return request;
}
WRAPPED(void *, queue_dequeue, nullptr, (queue_t * q), nullptr, handled(__real_queue_dequeue(q)))

// Of the module's queues, only the work queue is purged.
extern "C" void __real_queue_remqueue(queue_t *q, void *element, void *previous);
extern "C" void __wrap_queue_remqueue(queue_t *q, void *element, void *previous) {
  ++w.purged;
  __real_queue_remqueue(q, element, previous);
}

// ------------------------------ the store and the encoder ------------------------------

// They are never called under the nd mutex. The tests hand a list's path on as its `more`.
static const char *outside(bool as_it_should) {
  require(tarvo_nd_mutex.mutex.__data.__owner != gettid() || locks_failed(),
          "the store is called under the lock");
  require(as_it_should, "the store is called with other arguments");
  return "";
}

static uint32_t failure() { return static_cast<uint32_t>(w.error); }

// What the call left behind is to be freed when it succeeded.
static uint32_t kept_as(const char *what, void *const *place, uint32_t status) {
  if (status == 0) keep(*place, what);
  return status;
}

// What a failed call leaves is not looked at.
static uint32_t spoilt(void **place) {
  *place = place;
  return failure();
}

WRAPPED(uint32_t, ods_list_create, outside(*list == nullptr && path == more),
        (void **list, ods_path_t *path, void *more), spoilt(list),
        kept_as("list", list, __real_ods_list_create(list, path, more)))
WRAPPED(uint32_t, ods_datalist_create, outside(*list == nullptr && path == more),
        (void **list, ods_path_t *path, void *more), spoilt(list),
        kept_as("data list", list, __real_ods_datalist_create(list, path, more)))
WRAPPED(uint32_t, ods_list_add, outside(rank == ODS_RANK_LAST && flags == 0),
        (void *list, const char *key, uint32_t rank, uint32_t flags), failure(),
        __real_ods_list_add(list, key, rank, flags))
WRAPPED(uint32_t, ods_datalist_add, outside(type == 7 && flags == 0),
        (void *list, const char *key, uint32_t type, uint32_t flags, const void *buffer,
         uint32_t length),
        failure(), __real_ods_datalist_add(list, key, type, flags, buffer, length))
WRAPPED(uint32_t, bag_encode, outside(*buffer == nullptr && *length == 0),
        (void **buffer, uint32_t *length, const void *native, const void *record), spoilt(buffer),
        kept_as("record", buffer, __real_bag_encode(buffer, length, native, record)))

static const char *freed(const void *memory) {
  std::lock_guard hold(w.guard);
  kept.erase(memory);
  return nullptr;
}

static const char *freed_list(const void *list, const char *what) {
  std::lock_guard hold(w.guard);
  require(list == nullptr || kept[list] == what, "another list's free");
  return freed(list);
}

WRAPPED(void, free, freed(memory), (void *memory), void(), __real_free(memory))
WRAPPED(void, ods_list_free, freed_list(list, "list"), (void *list), void(),
        __real_ods_list_free(list))
WRAPPED(void, ods_datalist_free, freed_list(list, "data list"), (void *list), void(),
        __real_ods_datalist_free(list))
WRAPPED(uint32_t, bag_register_start, outside(registry == &w), (void *registry), failure(),
        __real_bag_register_start(registry))
WRAPPED(uint32_t, bag_register, "", (const void *record), failure(), __real_bag_register(record))
WRAPPED(uint32_t, bag_register_end, "", (), failure(), __real_bag_register_end())
