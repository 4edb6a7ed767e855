// What an operator leans on, part by part: the start-up file's check, the control socket, progress,
// the watchdog, and what `explain` says.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <atomic>
#include <chrono>
#include <fstream>

#include "agent/control.h"
#include "agent/explain.h"
#include "agent/ledger.h"
#include "agent/progress.h"
#include "agent/report_times.h"
#include "agent/service_manager.h"
#include "agent/start_file.h"

namespace agent {
namespace {

const std::string kPlace = testing::TempDir() + "operate_test_" + std::to_string(getpid());

// ---- The start-up file ----

/// All errors in a file of these lines: "LINE:COLUMN TEXT".
std::vector<std::string> errors_of(const std::string &text) {
  std::ofstream(kPlace) << text;
  std::vector<start_line> lines;
  std::vector<std::string> errors;
  const bool good = read_start_file(kPlace, lines, [&](const std::string &error) {
    errors.push_back(error.substr(kPlace.size() + 1));
  });
  EXPECT_EQ(good, errors.empty());
  unlink(kPlace.c_str());
  return errors;
}

TEST(StartFile, TellsEveryErrorWithoutRunning) {
  EXPECT_EQ(errors_of("vrf add A table 1 import 1:1\nroute add 1.0.0.0/8\nwatch 1 A\nresend 1 A\n"
                      "resend 1\ninterval 5\nshow state\nshow nexthops A\nexplain 1.2.3.4 A\n"
                      "unwatch 1\r\nwatch 1\nroute del 1.0.0.0/8\n\r\nvrf del A\nwatch 2 NOT-YET\n"
                      "vrf add A table 1 import 1:1\nquit\nvrf del B\nwatch 1\n"),
            std::vector<std::string>{});
  EXPECT_EQ(
      errors_of("vrf add A table 1 import 1:1\n"
                "vrf add  A table 2 import 1:1\n"
                "vrf add B table 1 import 1:1\n"
                "vrf add B table 0 import 1:1\n"
                "vrf add B table 3758096384 import 1:1\n"
                "vrf del B\nexplain 1.2.3.4 B\nshow nexthops B # none\n"
                "route del 1.0.0.0/8\n\troute add 1.0.0.0/8\nroute add 1.0.0.0/8\n"
                "show state\nunwatch 1\nresend 1\nvrf add C table 3 import 1:1 1:1\n"
                "watch 1 A\nwatch 1\nresend 1 B\nshow nexthop 1.2.3.4\nshow it\n"
                "quit\nwatch x"),
      (std::vector<std::string>{
          "2:10: VRF 'A' exists already", "3:17: table 1 is in use by VRF 'A'",
          "4:17: table 0 stands for all tables", "5:17: table 3758096384 is the default table",
          "6:9: no VRF 'B'", "7:17: no VRF 'B'", "8:15: no VRF 'B'",
          "9:11: route 1.0.0.0/8 was not added here", "11:11: route 1.0.0.0/8 was added already",
          "12:1: discovery is inactive: no client watches", "13:9: client 1 does not watch",
          "14:8: client 1 does not watch", "15:30: route target 1:1 comes twice",
          "17:7: client 1 watches already", "18:10: client 1 watches 'A', not 'B'",
          "19:14: no next hop is known before routers are listened to",
          "20:6: expected 'vrfs', 'nexthops', 'nexthop', 'prefix', 'state', 'sessions', 'pools' or "
          "'config', not 'it'",
          "22:7: expected a number from 0 to 4294967294, not 'x'"}));
  // An endless line would be read for ever.
  EXPECT_EQ(errors_of("help\n" + std::string(65536, '#') + "\r\n#" + std::string(65536, '#') +
                      "\nwatch x"),
            std::vector<std::string>{"3:65537: the line has more than 65536 characters"});
}

// ---- The control socket ----

/// A client's end.
struct peer {
  explicit peer(const std::string &path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(connect(fd.number, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
  }
  void say(const std::string &text) {
    EXPECT_EQ(send(fd.number, text.data(), text.size(), MSG_NOSIGNAL), ssize_t(text.size()));
  }
  /// What has come, up to `most` bytes; "END" at the end, "" when there is nothing.
  std::string heard(size_t most = 1 << 20) {
    std::string text(most, '\0');
    const ssize_t size = recv(fd.number, text.data(), most, MSG_DONTWAIT);
    if (size < 0) return errno == ECONNRESET ? "END" : "";
    return size == 0 ? "END" : text.substr(0, size_t(size));
  }
  descriptor fd{socket(AF_UNIX, SOCK_STREAM, 0)};
};

struct control_world {
  std::vector<std::string> run;
  control served{[this](const std::string &line, show_as as) -> control::answer {
    run.push_back(line);
    if (line.starts_with("big ")) return {std::string(std::stoul(line.substr(4)), 'x'), {}, false};
    if (line == "quit") return {"", {}, true};
    if (line == "wrong") return {"", {3, "what"}, false};
    if (line == "refused") return {"", {0, "why"}, false};
    return {(as == show_as::object ? "{} " : "text ") + line + "\n", {}, false};
  }};

  /// Serves until nothing is to be done.
  void turn() {
    for (;;) {
      std::vector<pollfd> polled;
      served.add_polled(polled);
      if (poll(polled.data(), polled.size(), 0) == 0) return;
      served.serve(polled);
    }
  }
};

mode_t mode_of(const std::string &path) {
  struct stat found {};
  return lstat(path.c_str(), &found) == 0 ? found.st_mode & 07777 : 0;
}

TEST(Control, AnswersEachClientInItsForm) {
  control_world w;
  ASSERT_EQ(w.served.open(kPlace, 0640), "");
  EXPECT_EQ(mode_of(kPlace), 0640u);
  peer text(kPlace), object(kPlace);
  text.say("a\r\nb");
  object.say("json\nc\nwrong\nrefused\n");
  w.turn();
  EXPECT_EQ(text.heard(), "text a\n\n");
  EXPECT_EQ(object.heard(),
            "\n{} c\n\n{\"schema\":1,\"error\":\"what\",\"column\":3}\n\n"
            "{\"schema\":1,\"error\":\"why\",\"column\":null}\n\n");
  text.say("c\njson # not\ntext\nwrong\nrefused\n" + std::string(70000, 'y') + "\nquit\nnever\n");
  w.turn();
  EXPECT_EQ(text.heard(),
            "text bc\n\n\n\nerror: column 3: what\n\nerror: why\n\n"
            "error: column 65537: the line has more than 65536 characters\n\n\n");
  EXPECT_EQ(text.heard(), "END");
  object.say("last");
  shutdown(object.fd.number, SHUT_WR);
  w.turn();
  EXPECT_EQ(object.heard(), "{} last\n\n");
  EXPECT_EQ(object.heard(), "END");
  EXPECT_EQ(w.run.back(), "last");
}

TEST(Control, BoundsClientsAndWhatTheyDoNotTake) {
  control_world w;
  ASSERT_EQ(w.served.open(kPlace, 0600), "");
  std::vector<std::unique_ptr<peer>> peers;
  for (size_t i = 0; i <= control::kMaxClients; ++i) {
    peers.push_back(std::make_unique<peer>(kPlace));
    w.turn();
  }
  EXPECT_EQ(peers.back()->heard(), "error: 8 clients are connected\n\n");
  EXPECT_EQ(peers.back()->heard(), "END");

  // Slow: the next line waits until the answer is taken. The others are served meanwhile.
  peers[0]->say("big 1000000\nafter\n");
  w.turn();
  EXPECT_EQ(w.run, (std::vector<std::string>{"big 1000000"}));
  peers[1]->say("quick\n");
  w.turn();
  EXPECT_EQ(peers[1]->heard(), "text quick\n\n");
  std::string taken;
  for (std::string part; (part = peers[0]->heard()) != "";) taken += part, w.turn();
  EXPECT_EQ(taken, std::string(1000000, 'x') + "\ntext after\n\n");

  testing::internal::CaptureStderr();
  peers[2]->say("big 40000000\n");
  w.turn();
  const std::string told = testing::internal::GetCapturedStderr();
  EXPECT_NE(told.find("bytes of an answer not taken; closed\n"), std::string::npos) << told;
  peers[3].reset();  // its place is free again
  w.turn();
  peer late(kPlace);
  late.say("x\n");
  w.turn();
  EXPECT_EQ(late.heard(), "text x\n\n");
}

TEST(Control, ReplacesNothingButADeadSocket) {
  const auto refusal = [](control &of) { return of.open(kPlace, 0600).substr(kPlace.size()); };
  auto first = std::make_unique<control_world>();
  control_world second;
  ASSERT_EQ(first->served.open(kPlace, 0600), "");
  EXPECT_EQ(refusal(second.served), ": another process listens there");
  const std::string aside = kPlace + ".aside";
  rename(kPlace.c_str(), aside.c_str());
  ASSERT_EQ(second.served.open(kPlace, 0600), "");
  rename(kPlace.c_str(), (aside + "2").c_str());
  rename(aside.c_str(), kPlace.c_str());
  second.served.close();  // the name is the first one's by now
  EXPECT_EQ(mode_of(kPlace), 0600u);
  rename((aside + "2").c_str(), kPlace.c_str());  // a dead one
  control_world third;
  EXPECT_EQ(third.served.open(kPlace, 0600), "");
  third.served.close();
  EXPECT_EQ(mode_of(kPlace), 0u);

  std::ofstream(kPlace) << "kept";
  EXPECT_EQ(refusal(third.served), ": exists and is no socket");
  rename(kPlace.c_str(), aside.c_str());
  EXPECT_EQ(symlink(aside.c_str(), kPlace.c_str()), 0);
  EXPECT_EQ(refusal(third.served), ": exists and is no socket");
  EXPECT_NE(mode_of(kPlace), 0u);
  unlink(kPlace.c_str()), unlink(aside.c_str());
  EXPECT_NE(third.served.open(std::string(108, 'x'), 0600).find("1 to 107"), std::string::npos);
}

// ---- Progress ----

TEST(Progress, RewritesALineOrAddsOneNowAndThen) {
  using std::chrono::milliseconds;
  for (const bool terminal : {true, false}) {
    progress::time_point now;
    std::vector<std::string> shown;
    progress p(
        terminal, [&] { return now; }, [&](auto text) { shown.emplace_back(text); });
    const auto work = [&](int parts, milliseconds each) {
      shown.clear();
      p.begin("x", "routes");
      for (int i = 1; i <= parts; ++i) now += each, p.update(uint64_t(i) * 1000);
      p.end(1234567);
      return shown;
    };
    const milliseconds period = terminal ? progress::kTerminalPeriod : progress::kLinePeriod;
    EXPECT_EQ(work(4, period / 4 - milliseconds(1)), std::vector<std::string>{});
    const std::string before = terminal ? "\r" : "", after = terminal ? "\x1b[K" : "\n";
    std::vector<std::string> expected;
    for (const char *text : terminal ? std::vector{"4,000 routes, 8,000", "8,000 routes, 8,000",
                                                   "1,234,567 routes, 1,234,567"}
                                     : std::vector{"4,000 routes, 800", "8,000 routes, 800",
                                                   "1,234,567 routes, 123,456"})
      expected.push_back(before + "x: " + text + " a second" + after);
    if (terminal) expected.push_back("\n");
    EXPECT_EQ(work(8, period / 4), expected);
  }
}

// ---- The service manager ----

TEST(ServiceManager, IsWaitedForAndFedOnlyWhileAlive) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  // A name outside the file system.
  const size_t length = kPlace.copy(address.sun_path + 1, sizeof address.sun_path - 2);
  const descriptor manager(socket(AF_UNIX, SOCK_DGRAM, 0));
  ASSERT_EQ(bind(manager.number, reinterpret_cast<sockaddr *>(&address),
                 socklen_t(offsetof(sockaddr_un, sun_path) + 1 + length)),
            0);
  setenv("NOTIFY_SOCKET", ('@' + kPlace).c_str(), 1);
  const timeval patience{5, 0};
  setsockopt(manager.number, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  std::atomic<int> asked = 0;
  const auto begun = std::chrono::steady_clock::now();
  constexpr std::chrono::milliseconds kLimit{300};
  char text[20] = "";
  {
    watchdog fed(kLimit, [&] { return ++asked >= 3; });
    recv(manager.number, text, sizeof text, 0);
  }
  EXPECT_EQ(std::string(text, 10), "WATCHDOG=1");
  EXPECT_GE(asked, 3);
  EXPECT_LT(std::chrono::steady_clock::now() - begun, 4 * kLimit) << "three times in the limit";

  // The socket fills up: whoever says that he is ready waits for room, so long.
  std::chrono::nanoseconds waited{};
  for (int i = 0; i < 5000 && waited < kLimit / 4; ++i) {
    const auto before = std::chrono::steady_clock::now();
    notify_service("READY=1", kLimit / 2);
    waited = std::chrono::steady_clock::now() - before;
  }
  EXPECT_GE(waited, kLimit / 4);
  unsetenv("NOTIFY_SOCKET");

  for (const auto &[limit, process, expected] :
       {std::tuple{"5", std::to_string(getpid()), 5}, {"5", std::string("1"), 0}}) {
    setenv("WATCHDOG_USEC", limit, 1), setenv("WATCHDOG_PID", process.c_str(), 1);
    EXPECT_EQ(watchdog_limit().count(), expected);
  }
  unsetenv("WATCHDOG_USEC"), unsetenv("WATCHDOG_PID");
}

// ---- Explain ----

TEST(Explain, SaysWhatTheNextSweepDoes) {
  constexpr uint64_t kUnknown = ~uint64_t{0};
  const struct {
    bool active;
    uint32_t interval, sweep_in;
    uint64_t count, routes;
    const char *word, *text;
  } rows[] = {
      {true, 300, 100, 2, 2, "keeps", "keeps it in 100 s: 2 routes report it"},
      {true, 300, 5, 1, 1, "keeps", "keeps it in 5 s: 1 route reports it"},
      {true, 300, 12, 0, 0, "removes_unless_reported",
       "removes it in 12 s unless reported: no route reports it"},
      {true, 300, 12, 0, 12345, "removes_unless_reported",
       "removes it in 12 s unless reported: 12,345 routes report it"},
      {true, 300, 29, 1, 0, "removes", "removes it in 29 s: no route reports it"},
      {true, 300, 28, 1, 0, "keeps_once",
       "keeps it in 28 s, the one after it doesn't: no route reports it"},
      {true, 20, 10, 1, 0, "removes", "removes it in 10 s: no route reports it"},
      {true, 20, 9, 1, 0, "keeps_once",
       "keeps it in 9 s, the one after it doesn't: no route reports it"},
      {true, 300, 9, kUnknown, 0, "none",
       "has nothing to do: no route of the VRF has this next hop"},
      {true, 300, 9, kUnknown, 1, "reported_again",
       "comes in 9 s; discovery doesn't know it (its limit, or memory), the refresh before the "
       "sweep tries again: 1 route reports it"},
      {false, 300, 0, kUnknown, 1, "none", "there is none: discovery is inactive"},
  };
  for (const auto &row : rows) {
    explanation e;
    e.active = row.active;
    e.interval = row.interval;
    e.sweep_in = row.sweep_in;
    explained_vrf vrf{"A", row.count, row.routes};
    if (row.count == kUnknown) vrf.count.reset();
    e.vrfs = {vrf};
    const auto text = show_explanation(show_as::table, e);
    EXPECT_NE(text.find(std::string("  ") + row.text + '\n'), std::string::npos) << row.text << "\n"
                                                                                 << text;
    const auto object = json::parse(show_explanation(show_as::object, e))["vrfs"][0];
    EXPECT_EQ(object["next_sweep"], row.word) << row.text;
  }
}

TEST(Ledger, GivesTheCommandsThatMakeTheSame) {
  const std::vector<std::string> expected = {"vrf add B table 2 import 10.255.1.1:7 4200000002:9",
                                             "vrf add A table 1 import 1:1",
                                             "route add 1.0.0.0/8",
                                             "interval 7",
                                             "trace on",
                                             "watch 1",
                                             "watch 4 B"};
  ledger made;
  EXPECT_EQ(made.commands(), std::vector<std::string>{"interval 300"});
  const auto enter = [&](auto lines) {
    for (const auto &line : lines) made.enter(std::get<command>(parse_command(line)));
  };
  enter(expected);
  enter(std::vector{"watch 3", "unwatch 3", "route add 0.0.0.0/0", "route del 0.0.0.0/0",
                    "trace off", "trace on", "vrf add C table 3 import 1:1", "vrf del C"});
  EXPECT_EQ(made.commands(), expected);
  EXPECT_EQ(made.interval(), 7u);
}

TEST(Explain, SaysWhyItIsReachableOrNot) {
  const struct {
    bool active, known;
    const char *prefix;
    std::optional<covering_route> global;
    const char *text;
  } rows[] = {
      {false, false, "", {}, "discovery is inactive: no client watches; no global route covers it"},
      {true, false, "", {{0x0a000000, 8}}, "discovery doesn't know it; global route 10.0.0.0/8"},
      {true, true, "", {}, "not reachable: no global route covers it"},
      {true,
       true,
       "",
       {{0x0a000000, 8}},
       "not reachable yet: there is the global route 10.0.0.0/8, which its next report brings up"},
      {true,
       true,
       "10.0.0.0/8",
       {{0x0a000000, 8}},
       "reachable through the global route 10.0.0.0/8"},
      {true,
       true,
       "10.0.0.0/8",
       {{0x0a000000, 9}},
       "reachable through the global route 10.0.0.0/8; now there is 10.0.0.0/9, which its next "
       "report brings up"},
      {true,
       true,
       "10.0.0.0/8",
       {},
       "reachable through the global route 10.0.0.0/8; now there is none, which its next report "
       "brings up"},
  };
  for (const auto &row : rows) {
    explanation e;
    e.active = row.active;
    e.known = row.known;
    e.prefix = row.prefix;
    e.global = row.global;
    EXPECT_EQ(json::parse(show_explanation(show_as::object, e))["text"], row.text);
  }
}

TEST(ReportTimes, ForgetsTheOldestOfALine) {
  report_times times;
  EXPECT_EQ(times.last(0), std::nullopt);
  constexpr uint32_t kHops = 40960;  // ten times what there is room for
  for (uint32_t i = 1; i <= kHops; ++i) times.note(i, i);
  uint32_t kept = 0, young = 0;
  for (uint32_t i = 1; i <= kHops; ++i) {
    const auto last = times.last(i);
    EXPECT_TRUE(!last || *last == i);
    kept += last.has_value();
    young += last.has_value() && i > kHops - kHops / 5;
  }
  EXPECT_EQ(kept, 4096u);
  EXPECT_GT(young, kept - kept / 50) << "of the last fifth: nearly all that is kept";
  times.note(7, kHops + 1);
  times.note(7, kHops + 2);
  EXPECT_EQ(times.last(7), kHops + 2);
}

}  // namespace
}  // namespace agent
