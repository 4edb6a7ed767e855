// What the agent asks of the system fails: memory at every place where a scenario asks for it, each
// call the n-th time, for every n that the scenario reaches; once, and for good from then on.
// Afterwards the agent must serve the next as if nothing had been.
#include <poll.h>
#include <sys/mman.h>
#include <sys/timerfd.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <new>
#include <regex>

#include "agent/descriptor.h"
#include "agent/json.h"
#include "agent/options.h"
#include "agent/program.h"
#include "agent/start_file.h"
#include "tests/agent/bmp_world.h"

namespace {

enum call { kNone, kAccept, kPoll, kRead, kWrite, kSend, kTimer, kNew };

// At length, the same place in another step of the scenario is another place, and each place fails
// for good too, which takes longer since then nothing is answered: else one in so many.
const bool at_length = getenv("FAULTS_AT_LENGTH") != nullptr;
const uint64_t one_for_good_in = at_length ? 1 : 8;

/// In memory that the agent, a process of its own, shares with the test.
struct injector {
  std::atomic<call> failing{kNone};
  std::atomic<long> left{0};  // the call that fails first is the one that brings it to 0
  std::atomic<long> hits{0};
  std::atomic<int> error{0};
  std::atomic<bool> forever{false};
  std::atomic<uint64_t> step{0}, met{0};
  std::atomic<uint64_t> places[1 << 16]{};

  /// The n-th fails; with `nth` 0, the first at a place where none failed yet.
  void arm(call which, bool for_good, long nth, int how = 0) {
    hits = 0, left = nth, forever = for_good, error = how, failing = which;
  }
  void disarm() { failing = kNone; }
  bool due(call which, uint64_t place = 0) {
    if (failing != which) return false;
    if (hits > 0 && !forever) return false;
    if (hits == 0 && !(left == 0 ? is_new(place) : --left == 0)) return false;
    errno = error;
    return ++hits > 0;
  }
  bool is_new(uint64_t place) {
    for (uint64_t at = place * 0x9e3779b97f4a7c15 >> 48;; at = (at + 1) % (1 << 16)) {
      if (places[at] == place) return false;
      if (uint64_t none = 0; places[at].compare_exchange_strong(none, place))
        return ++met % (forever ? one_for_good_in : 1) == 0;
    }
  }
} &failure = *new (mmap(nullptr, sizeof(injector), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0)) injector;

bool may_fail = false;  // this process's calls

bool fails(call which) { return may_fail && failure.due(which); }

}  // namespace

#define WRAP(result, name, parameters, arguments, failing) \
  result __real_##name parameters;                         \
  result __wrap_##name parameters { return (failing) ? -1 : __real_##name arguments; }

extern "C" {
WRAP(int, accept4, (int fd, sockaddr *from, socklen_t *size, int flags), (fd, from, size, flags),
     fails(kAccept))
// Telling polls too, and is not what the loops have to survive.
WRAP(int, poll, (pollfd * fds, nfds_t count, int timeout), (fds, count, timeout),
     fds->fd != STDERR_FILENO && fails(kPoll))
WRAP(ssize_t, read, (int fd, void *into, size_t size), (fd, into, size), fails(kRead))
WRAP(ssize_t, write, (int fd, const void *from, size_t size), (fd, from, size),
     fd == STDOUT_FILENO && fails(kWrite))
WRAP(ssize_t, send, (int fd, const void *from, size_t size, int flags), (fd, from, size, flags),
     fails(kSend))
WRAP(int, timerfd_create, (int clock, int flags), (clock, flags), fails(kTimer))
}

// Not inline, or the compiler takes the pairs for mismatched. Who calls from how deep in the stack
// is a place, another one in each step of the scenario.
const void *excused[32];
int excuses = 0;
bool excusing = false;

// The destructor of a JSON value allocates, and where it cannot, it ends the process: nothing that
// the agent could survive. Where it does that is found by looking on.
void excuse_json() {
  const agent::json flat = {{"a", 1}, {"b", 2}, {"c", 3}}, row = {1, 2, 3};
  agent::json list = {row, flat, row, flat}, object = {{"a", row}, {"b", flat}, {"c", list}};
  excusing = true;
  list = object = nullptr;
  excusing = false;
}

[[gnu::noinline]] bool allocation_fails(const void *caller, const void *stack) {
  if (excusing) excused[excuses++ % 32] = caller;
  if (excusing || std::ranges::find(excused, caller) != std::end(excused)) return false;
  const auto from = reinterpret_cast<uint64_t>(caller), depth = reinterpret_cast<uint64_t>(stack);
  return failure.due(kNew,
                     (from * 31 + depth * 0x10001 + (at_length ? failure.step << 56 : 0)) | 1);
}
[[gnu::noinline]] void *operator new(size_t size) {
  const bool fail =
      may_fail && allocation_fails(__builtin_return_address(0), __builtin_frame_address(0));
  void *const at = fail ? nullptr : malloc(size);
  if (at == nullptr) throw std::bad_alloc();
  return at;
}
// The platform layer's own; its failures are the module's to survive.
[[gnu::noinline]] void *operator new(size_t size, const std::nothrow_t &) noexcept {
  return malloc(size);
}
[[gnu::noinline]] void operator delete(void *at) noexcept { free(at); }
[[gnu::noinline]] void operator delete(void *at, size_t) noexcept { free(at); }

namespace agent {
namespace {

const std::string kPlace = testing::TempDir() + "fault_test_" + std::to_string(getpid());

// ---- The whole agent ----

/// The agent, from outside.
class running_agent {
 public:
  explicit running_agent(const bytes &recorded = "") {
    options_.listen = {"0"};
    options_.control = kPlace + ".socket";
    options_.metrics = "0";
    options_.idle = 2;  // and so listeners that failed are tried again twice a second
    if (!recorded.empty()) options_.replay = kPlace + ".bmp";
    std::ofstream(kPlace + ".bmp", std::ios::binary) << recorded;
    start();
  }
  ~running_agent() {
    end();
    unlink((kPlace + ".bmp").c_str());
  }

  bool await_ready() {
    given_up_ = false;
    if (port_ != 0) return true;
    static const std::regex kPorts("metrics on .*:(\\d+)\\n[^]*listening on .*:(\\d+)\\n");
    std::smatch ports;
    while (!std::regex_search(told, ports, kPorts))
      if (!more(err_, told)) return false;
    metrics_ = static_cast<uint16_t>(std::stoi(ports[1]));
    port_ = static_cast<uint16_t>(std::stoi(ports[2]));
    return true;
  }
  uint16_t port() const { return port_; }
  size_t descriptors() const { return open_descriptors(std::to_string(pid_)); }
  /// The exit status; -1: it crashed.
  int end(int by = SIGTERM) {
    if (pid_ == 0) return -1;
    int status = 0;
    kill(pid_, by);
    while (more(err_, told)) {
    }
    waitpid(std::exchange(pid_, 0), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  /// The answer of the control socket; "closed" where there is none.
  std::string ask(const std::string &line) {
    ++failure.step;
    if (given_up_) return "";
    if (control_.number < 0) control_ = connected();
    const std::string text = line + '\n';
    ::send(control_.number, text.data(), text.size(), MSG_NOSIGNAL);
    std::string answer;
    while (answer != "\n" && !answer.ends_with("\n\n"))
      if (!more(control_, answer)) {
        given_up_ = failure.failing != kNone && failure.failing != kNew && !at_end_;
        return control_ = {}, "closed";
      }
    return answer;
  }
  /// What is written when a line comes on standard input.
  std::string type(const std::string &line) {
    ++failure.step;
    if (!types || given_up_) return "";
    std::string written;
    const std::string text = line + "\n# end\n";
    [[maybe_unused]] const ssize_t typed = write(in_.number, text.data(), text.size());
    while (written.find("> # end\n") == bytes::npos) {
      pollfd both[] = {{out_.number, POLLIN, 0}, {err_.number, POLLIN, 0}};
      if (!await([&](int ms) { return poll(both, 2, ms) > 0; })) return "closed";
      if (both[1].revents != 0 && more(err_, told))
        types = told.find("standard input is at its end") == bytes::npos;
      if (!types || (both[0].revents != 0 && !more(out_, written))) return "closed";
    }
    return written;
  }
  /// Whether the metrics' server answers.
  bool page() {
    ++failure.step;
    router client(metrics_);
    return client.try_send("GET /metrics HTTP/1.0\r\n\r\n") && !client.closed();
  }
  /// A router that sends what is no BMP is closed; all routers before it have been read by then.
  bool refuses_garbage() {
    ++failure.step;
    router broken(port_);
    broken.try_send("no BMP");
    return await([&](int ms) { return broken.closed(ms); });
  }
  /// What it told since the last look.
  std::string look() {
    while (poll_for(err_, 0) && more(err_, told)) {
    }
    return std::exchange(told, "");
  }
  std::string told;
  bool types = true;

 private:
  /// Whether it comes, tried for so many milliseconds each time. Once calls fail for good, nothing
  /// need come.
  static bool await(auto comes) {
    constexpr int kEach = 50, kTries = 400;
    for (int i = 0; i < kTries; ++i) {
      const bool hopeless = failure.failing != kNone && failure.forever && failure.hits > 0;
      if (comes(kEach)) return true;
      if (hopeless) return false;
    }
    return false;
  }
  static bool poll_for(const descriptor &fd, int milliseconds) {
    pollfd one{fd.number, POLLIN, 0};
    return poll(&one, 1, milliseconds) == 1;
  }
  /// False: the end, or nothing comes.
  bool more(const descriptor &fd, std::string &into) {
    char chunk[4096];
    at_end_ = await([&](int ms) { return poll_for(fd, ms); });
    if (!at_end_) return false;
    const ssize_t size = read(fd.number, chunk, sizeof chunk);
    if (size > 0) into.append(chunk, static_cast<size_t>(size));
    return size > 0;
  }
  descriptor connected() const {
    descriptor fd(socket(AF_UNIX, SOCK_STREAM, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    options_.control.copy(address.sun_path, sizeof address.sun_path - 1);
    connect(fd.number, reinterpret_cast<sockaddr *>(&address), sizeof address);
    return fd;
  }
  void start() {
    signal(SIGPIPE, SIG_IGN);
    int in[2], out[2], err[2];
    EXPECT_EQ(pipe(in) + pipe(out) + pipe(err), 0);
    pid_ = fork();
    if (pid_ == 0) {
      dup2(in[0], 0), dup2(out[1], 1), dup2(err[1], 2);
      for (const int *both : {in, out, err}) close(both[0]), close(both[1]);
      may_fail = true;
      excuse_json();
      exit(run_agent(options_, {}));  // where the leak checker does its work
    }
    close(in[0]), close(out[1]), close(err[1]);
    in_ = descriptor(in[1]), out_ = descriptor(out[0]), err_ = descriptor(err[0]);
  }

  options options_;
  pid_t pid_ = 0;
  uint16_t port_ = 0, metrics_ = 0;
  bool at_end_ = false;    // nothing came since the other end closed
  bool given_up_ = false;  // calls fail for good, and nothing comes
  descriptor in_, out_, err_, control_;
};

/// A text without times, ports and widths of columns.
std::string lasting(const std::string &text) {
  static const std::regex kTimes("[0-9-]{10}T[0-9:.]{12}Z|127\\.0\\.0\\.1:\\d+|\\d+ s\\b|(  |--)+");
  return std::regex_replace(text, kTimes, " ");
}

const char *const kBegin[] = {"vrf add A table 65 import 65000:1",
                              "vrf add B table 66 import 10.255.1.1:7 65000:2",
                              "route add 10.255.0.0/16", "watch 1", "watch 2 A"};
const char *const kMiddle[] = {
    "resend 2",      "rib restart",   "show vrfs",  "show nexthops",           "show nexthops A",
    "show config",   "show sessions", "show pools", "show nexthop 10.255.2.2", "explain 10.255.1.1",
    "wrong",         "help",          "show state", "show prefix 10.255.1.1",  "json",
    "show nexthops", "text"};
const char *const kEnd[] = {
    "unwatch 2",  "unwatch 1",    "vrf del A", "vrf del B", "route del 10.255.0.0/16",
    "interval 5", "interval 300", "trace on",  "trace off", "show vrfs",
    "show config"};

/// Commands of all kinds, a router that comes and goes, and what was answered and told of it.
std::string play(running_agent &agent) {
  failure.step = 0;
  std::string text;
  const auto ask = [&](const auto &lines) {
    for (const std::string line : lines) {
      const std::string answer = agent.ask(line);
      const bool varies = line == "show state" || line == "show sessions" || line == "show pools";
      text += line + '\n' + (varies ? answer.substr(0, 5) + '\n' : lasting(answer));
    }
  };
  ask(kBegin);
  {
    router good(agent.port());
    good.try_send(kInitiation + tell(vpn(32, 1)) + kToB +
                  tell(many_routes(1200), kLoc, kHop2, kTargetB) + learn(kNextHop, kNine));
    text += agent.refuses_garbage() ? "" : "garbage taken\n";
    ask(kMiddle);
    text += lasting(agent.type("resend 1"));
    text += agent.page() ? "" : "no page\n";
  }
  text += agent.refuses_garbage() ? "" : "garbage taken\n";
  ask(kEnd);
  return text + lasting(agent.type("help"));
}

/// Takes away what commands made, in whatever state they are, and plays again.
std::string play_again(running_agent &agent) {
  if (!agent.refuses_garbage()) return "garbage taken";
  for (const char *line : kEnd)
    if (agent.ask(line) == "closed") return "closed";
  agent.type("");
  return play(agent);
}

TEST(AgentFaults, OfAllocations) {
  running_agent agent;
  ASSERT_TRUE(agent.await_ready()) << agent.told;
  play(agent);
  const std::string right = play(agent);
  ASSERT_EQ(right.find("closed"), bytes::npos) << right;
  ASSERT_EQ(play(agent), right);
  const size_t descriptors = agent.descriptors();
  for (const bool forever : {false, true}) {
    for (auto &place : failure.places) place = 0;
    for (int places = 0;; ++places) {
      agent.look();
      failure.arm(kNew, forever, 0, ENOMEM);
      const std::string got = play(agent);
      failure.disarm();
      if (failure.hits == 0) {
        RecordProperty(forever ? "for good" : "once", places);
        EXPECT_GT(places, forever ? 30 : 300);
        break;
      }
      const std::string told = agent.look();
      ASSERT_EQ(play_again(agent), right) << told << got << agent.look();
    }
  }
  EXPECT_TRUE(comes([&] { return agent.descriptors() <= descriptors; })) << agent.descriptors();
  EXPECT_EQ(agent.end(), 1) << "lines were lost; " << agent.told;
}

const struct {
  call which;
  int error;
  const char *told;  ///< once by a thread, however often it fails; null: told or not, by who it is
                     ///< that fails
  int status = -1;   ///< with which the agent ends; -1: it goes on
} kFailures[] = {{kAccept, EINTR, ""},
                 {kAccept, ECONNABORTED, ""},
                 {kAccept, EMFILE, "accept: Too many open files"},
                 {kAccept, ENOMEM, "accept: Cannot allocate memory"},
                 {kAccept, EINVAL, "accept: Invalid argument"},
                 {kPoll, EINTR, ""},
                 {kPoll, ENOMEM, "poll: Cannot allocate memory; trying again"},
                 {kRead, EINTR, ""},
                 {kRead, EIO, nullptr},
                 {kRead, ECONNRESET, nullptr},
                 {kWrite, EINTR, ""},
                 {kWrite, EAGAIN, ""},
                 {kWrite, ENOSPC, "standard output: No space left on device", 1},
                 {kWrite, EPIPE, "", 0},
                 {kSend, EINTR, ""},
                 {kSend, EAGAIN, ""},
                 {kSend, EPIPE, ""},
                 {kTimer, EMFILE, "timerfd_create: Too many open files", 1}};

/// What it told but that routers came and went.
std::string faults_of(const std::string &told) {
  static const std::regex kUsual(
      ".*((listening on|metrics on|: ended|BMP version|ended by|at its end|after 0 bytes).*"
      "|connected)\n");
  return std::regex_replace(told, kUsual, "");
}

/// The n-th call fails in one run of an agent; false: the scenario makes fewer.
bool fail_nth(const auto &row, bool forever, long nth, const std::string &right) {
  const bytes recorded = tell(many_routes(1200), kLoc, kHop3, kTargetC);
  failure.arm(row.which, forever, nth, row.error);
  running_agent agent(recorded + recorded + recorded + recorded);
  if (agent.await_ready()) play(agent);
  failure.disarm();
  if (failure.hits == 0) return false;
  const bool goes_on = row.status < 0;
  if (goes_on) {
    EXPECT_TRUE(agent.await_ready());
    agent.types = false;
    EXPECT_EQ(play_again(agent), right);
  }
  const int status = agent.end(goes_on ? SIGTERM : 0);
  EXPECT_TRUE(goes_on ? status == 0 || status == 1 : status == row.status) << status << agent.told;
  const std::string faults = faults_of(agent.told);
  if (row.told == nullptr) return true;
  EXPECT_EQ(faults.empty(), *row.told == 0) << faults;
  EXPECT_NE(faults.find(row.told), bytes::npos) << faults;
  EXPECT_TRUE(faults.empty() || count(faults, row.told) <= 2) << "once for each thread: " << faults;
  return true;
}

TEST(AgentFaults, OfSystemCalls) {
  std::string right;
  {
    running_agent agent;
    ASSERT_TRUE(agent.await_ready());
    agent.types = false;
    right = play(agent);
  }
  for (const auto &row : kFailures)
    for (const bool forever : {false, true}) {
      SCOPED_TRACE(std::to_string(row.which) + strerror(row.error) + (forever ? " for good" : ""));
      const long step = at_length ? 1 : row.which == kPoll ? 8 : CALL_STEP;
      long nth = 1;
      while (!HasFailure() && fail_nth(row, forever, nth, right)) nth += step;
      EXPECT_GT(nth, 1) << "none is reached";
      if (HasFailure()) FAIL() << "call " << nth;
      RecordProperty("call" + std::to_string(row.which) + "error" + std::to_string(row.error),
                     int(nth - 1));
    }
}

// ---- A session ----

// Every allocation of a session and its RIB, in order: the session ends with one line or does
// without; the RIB stays whole, and the router's next session brings everything.
TEST(Faults, OfAllocationsLeaveTheRibWhole) {
  // With a doubling of the buckets.
  const bytes stream = kDoubtful + up(0, 0, kPre) + tell(many_routes(1200), kPre, kHop2, kTargetB);
  const std::string all = " A1*1 B2*1201 B3*1 C2*1 C3*2 10.9.0.0/16";
  const auto memory_after = [&](rib_world &w) {
    bmp_session again(w.routes, bmp_view::pre_policy, kind::connection, "r", [](const auto &) {});
    EXPECT_TRUE(again.feed(span_of(stream)));
    EXPECT_EQ(w.learned(), all);
    again.finish("");
    return w.routes.memory();
  };
  may_fail = true;
  rib_world untroubled;
  memory_after(untroubled);
  const size_t right = memory_after(untroubled);  // as for the second session of a RIB
  for (const bool forever : {false, true}) {
    long nth = 0;
    do {
      world w(kPreView);
      w.said.reserve(100);
      failure.arm(kNew, forever, ++nth);
      const bool goes_on = w.feed(stream);
      failure.disarm();
      EXPECT_TRUE(!goes_on || w.learned() == all) << "allocation " << nth;
      failure.failing = kNew;
      w.session.finish("");
      failure.disarm();
      EXPECT_EQ(w.learned(), "");
      EXPECT_EQ(w.routes.paths(), 0u);
      EXPECT_TRUE(goes_on || w.session.stream_error().starts_with("out of memory"));
      EXPECT_TRUE(forever || goes_on || w.said.back() == "r: " + w.session.stream_error());

      ASSERT_EQ(memory_after(w), right) << "allocation " << nth;
    } while (failure.hits > 0);
    EXPECT_GT(nth, 50) << "as many are reached";
    if (!forever) RecordProperty("allocations", static_cast<int>(nth - 1));
  }
  may_fail = false;
}

// ---- A router that keeps the station waiting ----

TEST(BmpStation, ClosesARouterThatOwesAMessage) {
  station_world w(std::chrono::milliseconds(200));
  const uint16_t port = w.listening_port();
  router quiet(port), silent(port), begun(port), slow(port);
  quiet.send(kInitiation);  // without a peer
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
