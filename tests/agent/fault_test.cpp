// What the agent asks of the system fails: the n-th time, once and from then on. Afterwards it
// must serve the next router as if nothing had been.
#include <poll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

#include "tests/agent/bmp_world.h"

namespace {

struct injector {
  std::atomic<long> countdown{0};  // the call that fails is the one that brings it to 0
  std::atomic<bool> forever{false};
  std::atomic<int> hits{0};
  int error = 0;

  void arm(long nth, bool for_good) { hits = 0, forever = for_good, countdown = nth; }
  void disarm() { countdown = 0; }
  bool due() {
    if (countdown == 0) return false;
    if (countdown > 1) return --countdown, false;
    if (!forever) countdown = 0;
    return ++hits > 0;
  }
  /// Whether a call of the agent fails; the test's own work.
  bool fails() {
    if (std::this_thread::get_id() == test_thread || !due()) return false;
    errno = error;
    return true;
  }
  static inline const std::thread::id test_thread = std::this_thread::get_id();
} accept_call, poll_call, read_call, timer_call, allocation;

thread_local bool allocation_may_fail = false;

}  // namespace

extern "C" {
int __real_accept4(int, sockaddr *, socklen_t *, int);
int __wrap_accept4(int fd, sockaddr *address, socklen_t *size, int flags) {
  return accept_call.fails() ? -1 : __real_accept4(fd, address, size, flags);
}
int __real_poll(pollfd *, nfds_t, int);
int __wrap_poll(pollfd *fds, nfds_t count, int timeout) {
  // Telling of a session polls too, and is not what the loop has to survive.
  return fds->fd != STDERR_FILENO && poll_call.fails() ? -1 : __real_poll(fds, count, timeout);
}
ssize_t __real_read(int, void *, size_t);
ssize_t __wrap_read(int fd, void *into, size_t size) {
  return read_call.fails() ? -1 : __real_read(fd, into, size);
}
int __real_timerfd_create(int, int);
int __wrap_timerfd_create(int clock, int flags) {
  return timer_call.fails() ? -1 : __real_timerfd_create(clock, flags);
}
}

// Not inline, or the compiler takes the pairs for mismatched.
[[gnu::noinline]] void *operator new(size_t size) {
  void *const at = allocation_may_fail && allocation.due() ? nullptr : malloc(size);
  if (at == nullptr) throw std::bad_alloc();
  return at;
}
[[gnu::noinline]] void operator delete(void *at) noexcept { free(at); }
[[gnu::noinline]] void operator delete(void *at, size_t) noexcept { free(at); }

namespace agent {
namespace {

const struct {
  injector &failing;
  int error;
  const char *told;  ///< once, however often it fails
} kFailures[] = {
    {accept_call, EINTR, ""},
    {accept_call, ECONNABORTED, ""},
    {accept_call, EMFILE, "accept: Too many open files"},
    {accept_call, ENOMEM, "accept: Cannot allocate memory; trying again"},
    {accept_call, EINVAL, "accept: Invalid argument; trying again"},
    {read_call, EINTR, ""},
    {read_call, EIO, "read: Input/output error"},
    {read_call, ECONNRESET, "read: Connection reset by peer"},
    {poll_call, EINTR, ""},
    {poll_call, ENOMEM, "poll: Cannot allocate memory; trying again"},
};

bool repeats_a_line(const std::string &text) {
  std::istringstream lines(text);
  std::set<std::string> seen;
  for (std::string line; std::getline(lines, line);)
    if (!seen.insert(line).second) return true;
  return false;
}

TEST(Faults, OfSystemCallsAreToldAndSurvived) {
  constexpr std::chrono::milliseconds kIdle{400};  // and so a tick of 100
  for (const auto &row : kFailures)
    for (long nth = 1; nth <= 3; ++nth)
      for (const bool forever : {false, true}) {
        SCOPED_TRACE(std::string(row.told) + ' ' + strerror(row.error) + std::to_string(nth));
        station_world w(kIdle);
        const uint16_t port = w.listening_port();
        testing::internal::CaptureStderr();
        row.failing.error = row.error;
        row.failing.arm(nth, forever);
        const auto start = std::chrono::steady_clock::now();
        {
          // Every router gives a connection to accept, bytes to read, and turns of the loop.
          std::list<router> routers;
          while (row.failing.hits < (forever ? 3 : 1)) {
            if (routers.size() < 20) routers.emplace_back(port);
            routers.back().try_send(kGood);
            w.shown();
          }
          row.failing.disarm();
        }
        // What is tried again is not tried all the time: a tick or a pause lies between.
        const bool retried = forever && bytes(row.told).ends_with("trying again");
        EXPECT_TRUE(!retried || std::chrono::steady_clock::now() - start >= kIdle / 4);
        EXPECT_TRUE(w.comes_to(""));
        router next(port);
        next.send(kGood);
        EXPECT_TRUE(w.comes_to(" A1*1"));
        const std::string said =
            std::regex_replace(testing::internal::GetCapturedStderr(),
                               std::regex(".*: (connected|ended, \\d+ messages)\n"), "");
        EXPECT_EQ(said.empty(), *row.told == 0) << said;
        EXPECT_NE(said.find(row.told), bytes::npos) << said;
        // Each session tells of its end; what the station tries again is told once. A full table
        // of descriptors that ends meanwhile is told in two ways, each once.
        EXPECT_TRUE(&row.failing == &read_call || !repeats_a_line(said)) << said;
      }
}

TEST(Faults, OfTheTimerRefuseToListen) {
  station_world w;
  timer_call.error = EMFILE;
  timer_call.arm(1, false);
  testing::internal::CaptureStderr();
  EXPECT_EQ(w.station.listen("0"), "timerfd_create: Too many open files");
  testing::internal::GetCapturedStderr();
  w.listening_port();
}

// Every allocation of a session and its RIB, in order: the session ends with one line or does
// without; the RIB stays whole, and the router's next session brings everything.
TEST(Faults, OfAllocationsLeaveTheRibWhole) {
  bytes many;
  for (uint32_t i = 0; i < 1200; ++i) many += vpn(32, 0x0b000000 + i);
  // With a doubling of the buckets.
  const bytes stream = kStream + up(0, 0, kPre) + tell(many, kPre, kHop2, kTargetB);
  const auto memory_after = [&stream](rib_world &w) {
    bmp_session again(w.routes, bmp_view::pre_policy, kind::connection, "r", [](const auto &) {});
    EXPECT_TRUE(again.feed(span_of(stream)));
    EXPECT_EQ(w.learned(), " A1*2 B2*1201 B3*1 C2*1 10.9.0.0/16");
    again.finish("");
    w.routes.settle();
    return w.routes.memory();
  };
  rib_world untroubled;
  memory_after(untroubled);
  const size_t right = memory_after(untroubled);  // as for the second session of a RIB
  for (const bool forever : {false, true}) {
    long nth = 0;
    do {
      world w(kPreView);
      w.said.reserve(100);
      allocation.arm(++nth, forever);
      allocation_may_fail = true;
      const bool goes_on = w.feed(stream);
      w.session.finish("");
      allocation_may_fail = false;
      allocation.disarm();
      EXPECT_EQ(w.learned(), "");
      EXPECT_EQ(w.routes.paths(), 0u);
      EXPECT_TRUE(goes_on || w.session.stream_error().starts_with("out of memory"));
      EXPECT_TRUE(forever || goes_on || w.said.back() == "r: " + w.session.stream_error());

      ASSERT_EQ(memory_after(w), right) << "allocation " << nth;
    } while (allocation.hits > 0);
    EXPECT_GT(nth, 50) << "as many are reached";
    if (!forever) RecordProperty("allocations", static_cast<int>(nth - 1));
  }
}

// ---- A router that keeps the station waiting ----

TEST(BmpStation, ClosesARouterThatOwesAMessage) {
  station_world w(std::chrono::milliseconds(200));
  const uint16_t port = w.listening_port();
  router quiet(port), silent(port), begun(port), slow(port);
  quiet.send(kInitiation + kGood);
  testing::internal::CaptureStderr();
  begun.send(kInitiation + kGood + kGood.substr(0, 1));
  slow.send(bmp(6, zeros(1 << 19)).substr(0, 6));
  while (slow.try_send("x")) w.shown();
  EXPECT_TRUE(silent.closed());
  EXPECT_TRUE(begun.closed());
  const std::string said = testing::internal::GetCapturedStderr();
  EXPECT_EQ(count(said, "no complete message for "), 3u) << said;
  quiet.send(tell(kTwo));
  EXPECT_TRUE(w.comes_to(" A1*2"));
}

}  // namespace
}  // namespace agent
