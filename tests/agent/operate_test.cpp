// What an operator leans on, part by part: the start-up file's check, the control socket, the
// output that nobody reads, progress, the watchdog, and what `explain` says.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <fstream>
#include <functional>
#include <future>
#include <sstream>

#include "agent/control.h"
#include "agent/diagnostics.h"
#include "agent/explain.h"
#include "agent/ledger.h"
#include "agent/output.h"
#include "agent/progress.h"
#include "agent/report_times.h"
#include "agent/service_manager.h"
#include "agent/start_file.h"
#include "agent/text.h"
#include "platform/message_log.h"
#include "tests/agent/unix_socket.h"

namespace agent {
namespace {

using std::chrono::milliseconds;
using strings = std::vector<std::string>;
using testing::IsSubstring;

const std::string kPlace = testing::TempDir() + "operate_test_" + std::to_string(getpid());

// ---- The start-up file ----

/// All errors in a file of these lines: "LINE:COLUMN TEXT".
strings errors_of(const std::string &text) {
  std::ofstream(kPlace) << text;
  std::vector<start_line> lines;
  strings errors;
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
            strings{});
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
      (strings{
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
            strings{"3:65537: the line has more than 65536 characters"});
}

// ---- The control socket ----

/// A client's end.
struct peer {
  explicit peer(const std::string &path) : fd(unix_socket(SOCK_STREAM, connect, path)) {}
  void say(const std::string &text) {
    EXPECT_EQ(send(fd.number, text.data(), text.size(), MSG_NOSIGNAL), ssize_t(text.size()));
  }
  descriptor fd;
};

struct control_world {
  strings run;
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
  /// Serves, and gives all that comes for a client; at the end "END".
  std::string heard(const peer &by) {
    std::string all, part;
    do {
      turn();
      part = received(by.fd, MSG_DONTWAIT);
      all += part;
    } while (part != "" && part != "END");
    return all;
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
  EXPECT_EQ(w.heard(text), "text a\n\n");
  EXPECT_EQ(w.heard(object),
            "\n{} c\n\n{\"schema\":1,\"error\":\"what\",\"column\":3}\n\n"
            "{\"schema\":1,\"error\":\"why\",\"column\":null}\n\n");
  text.say("c\njson # not\ntext\nwrong\nrefused\n" + std::string(70000, 'y') + "\nquit\nnever\n");
  EXPECT_EQ(w.heard(text),
            "text bc\n\n\n\nerror: column 3: what\n\nerror: why\n\n"
            "error: column 65537: the line has more than 65536 characters\n\n\nEND");
  object.say("last");
  shutdown(object.fd.number, SHUT_WR);
  EXPECT_EQ(w.heard(object), "{} last\n\nEND");
}

TEST(Control, BoundsClientsAndWhatTheyDoNotTake) {
  control_world w;
  ASSERT_EQ(w.served.open(kPlace, 0600), "");
  std::vector<peer> peers;
  while (peers.size() <= control::kMaxClients) peers.emplace_back(kPlace);
  EXPECT_EQ(w.heard(peers.back()), "error: 8 clients are connected\n\nEND");

  // Slow: the next line waits until the answer is taken. The others are served meanwhile.
  peers[0].say("big 1000000\nafter\n");
  peers[1].say("quick\n");
  EXPECT_EQ(w.heard(peers[1]), "text quick\n\n");
  EXPECT_EQ(w.run, (strings{"big 1000000", "quick"}));
  EXPECT_EQ(w.heard(peers[0]), std::string(1000000, 'x') + "\ntext after\n\n");

  testing::internal::CaptureStderr();
  peers[2].say("big 40000000\n");
  w.turn();
  EXPECT_PRED_FORMAT2(IsSubstring, "bytes of an answer not taken; closed\n",
                      testing::internal::GetCapturedStderr());
  peers[2] = peer(kPlace);  // the place is free again
  peers[2].say("x\n");
  EXPECT_EQ(w.heard(peers[2]), "text x\n\n");
}

TEST(Control, ReplacesNothingButADeadSocket) {
  const std::string aside = kPlace + ".aside";
  control_world first, second;
  const auto refusal = [&] { return second.served.open(kPlace, 0600).substr(kPlace.size()); };
  ASSERT_EQ(first.served.open(kPlace, 0600), "");
  EXPECT_EQ(refusal(), ": another process listens there");
  rename(kPlace.c_str(), aside.c_str());
  ASSERT_EQ(second.served.open(kPlace, 0600), "");
  first.served.close();  // the name is the second one's by now
  EXPECT_EQ(mode_of(kPlace), 0600u);
  second.served.close();
  EXPECT_EQ(mode_of(kPlace), 0u);
  rename(aside.c_str(), kPlace.c_str());  // the first one's, dead
  EXPECT_EQ(second.served.open(kPlace, 0600), "");
  EXPECT_EQ(unlink(kPlace.c_str()), 0);
  second.served.close();  // without its name

  std::ofstream(aside) << "kept";
  for (const auto &stand_in : {symlink, link}) {
    EXPECT_EQ(stand_in(aside.c_str(), kPlace.c_str()), 0);
    EXPECT_EQ(refusal(), ": exists and is no socket");
    EXPECT_EQ(unlink(kPlace.c_str()), 0);
  }
  unlink(aside.c_str());
  EXPECT_PRED_FORMAT2(IsSubstring, "1 to 107", second.served.open(std::string(108, 'x'), 0600));
}

// ---- Standard error ----

TEST(Diagnostics, DropsAndCountsWhatNobodyReads) {
  const oxa_msg_rec_t message = {0, "%s", nullptr, "A", "B", "C", 0, 5, 0, 0, 0, 0};
  const auto log = [&](const char *text) { oxa_errmsg(&message, 5, text); };
  const auto tell = [](const char *text) { diagnose(text, "head: "); };
  const struct {
    std::function<void(const char *)> say;
    std::string told;
  } rows[] = {{log, " A-B-5-C: heard (3 lines lost)\n"}, {tell, "3 lines lost\nhead: heard\n"}};
  for (const auto &row : rows) {
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_NONBLOCK), 0);
    const descriptor reader(fds[0]), writer(fds[1]), saved(dup(STDERR_FILENO));
    while (write(writer.number, kPlace.data(), 1) == 1) {
    }
    fcntl(writer.number, F_SETFL, 0);  // from here on whoever writes has to wait
    dup2(writer.number, STDERR_FILENO);
    for (int i = 0; i < 3; ++i) row.say("lost");
    std::string told(1 << 20, ' ');
    EXPECT_GT(read(reader.number, told.data(), told.size()), PIPE_BUF);
    row.say("heard");
    row.say("again");
    told.resize(static_cast<size_t>(read(reader.number, told.data(), told.size())));
    dup2(saved.number, STDERR_FILENO);
    EXPECT_PRED_FORMAT2(IsSubstring, row.told, told);
    EXPECT_TRUE(told.ends_with(": again\n")) << told;
  }
}

// ---- Standard output ----

TEST(Output, LosesEventsAtTheBoundAndSaysHowMany) {
  std::promise<void> entered, reader;
  std::string written;
  constexpr uint64_t kLost = 10, kKept = output::kMaxQueued;
  pe_event each;
  each.time += milliseconds(7);
  const auto slow = [&](std::string_view lines) {
    if (written.empty()) {
      entered.set_value();
      reader.get_future().wait();
    }
    written += lines;
    return 0;
  };
  {
    output out(true, slow, [] { FAIL(); });
    out.post(each);
    entered.get_future().wait();  // the writer holds event 1
    for (uint64_t i = 0; i < kKept + kLost; ++i) out.post(each);
    const auto later = std::async(std::launch::async, [&] { reader.set_value(); });
    out.print("result\n");
    out.post(each);
  }
  std::istringstream lines(written);
  const auto expect_line = [&](const std::string &part) {
    std::string line;
    std::getline(lines, line);
    ASSERT_NE(line.find(part), std::string::npos) << line;
  };
  const auto event = [](uint64_t seq) {
    return "\"seq\":" + std::to_string(seq) + ",\"time\":\"1970-01-01T00:00:00.007Z\"";
  };
  for (uint64_t seq = 1; seq <= 1 + kKept; ++seq) expect_line(event(seq));
  expect_line("\"seq\":" + std::to_string(1 + kKept + kLost) +
              ",\"event\":\"LOST\",\"count\":" + std::to_string(kLost) + '}');
  expect_line("result");
  expect_line(event(1 + kKept + kLost + 1));
}

TEST(Output, ClosesAtAnErrorAndKeepsNobodyWaiting) {
  std::promise<void> woken;
  output out(
      false, [](std::string_view) { return ENOSPC; }, [&] { woken.set_value(); });
  out.post({});
  woken.get_future().wait();
  EXPECT_EQ(out.error(), ENOSPC);
  out.print("dropped\n");
  out.flush();
}

// ---- Progress ----

TEST(Progress, RewritesALineOrAddsOneNowAndThen) {
  const struct {
    bool terminal;
    milliseconds period;
    const char *told;
  } rows[] = {
      {true, progress::kTerminalPeriod,
       "\rx: 4,000 routes, 8,000 a second\x1b[K\rx: 8,000 routes, 8,000 a second\x1b[K"
       "\rx: 1,234,567 routes, 1,234,567 a second\x1b[K\n"},
      {false, progress::kLinePeriod,
       "x: 4,000 routes, 800 a second\nx: 8,000 routes, 800 a second\n"
       "x: 1,234,567 routes, 123,456 a second\n"},
  };
  for (const auto &row : rows) {
    progress::time_point now;
    std::string told;
    progress p(
        row.terminal, [&] { return now; }, [&](auto text) { told += text; });
    const auto work = [&](int parts, milliseconds each) {
      p.begin("x", "routes");
      for (int i = 1; i <= parts; ++i) now += each, p.update(uint64_t(i) * 1000);
      p.end(1234567);
      return told;
    };
    EXPECT_EQ(work(4, row.period / 4 - milliseconds(1)), "");
    EXPECT_EQ(work(8, row.period / 4), row.told);
  }
}

// ---- The service manager ----

TEST(ServiceManager, IsWaitedForAndFedOnlyWhileAlive) {
  const descriptor manager = unix_socket(SOCK_DGRAM, bind, '@' + kPlace);
  setenv("NOTIFY_SOCKET", ('@' + kPlace).c_str(), 1);
  std::atomic<int> asked = 0;
  const auto begun = std::chrono::steady_clock::now();
  constexpr milliseconds kLimit{300};
  {
    const watchdog fed(kLimit, [&] { return ++asked >= 3; });
    EXPECT_EQ(received(manager), "WATCHDOG=1");
  }
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

  setenv("WATCHDOG_USEC", "5", 1), setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
  EXPECT_EQ(watchdog_limit().count(), 5);
  setenv("WATCHDOG_PID", "1", 1);
  EXPECT_EQ(watchdog_limit().count(), 0) << "another process's";
  unsetenv("WATCHDOG_USEC"), unsetenv("WATCHDOG_PID");
}

// ---- Explain ----

TEST(Explain, SaysWhatTheNextSweepDoes) {
  constexpr uint64_t kUnknown = ~uint64_t{0};
  const struct {
    bool active;
    uint32_t interval, sweep_in;
    uint64_t count, routes;
    const char *told;  ///< a part of "WORD: TEXT"
  } rows[] = {
      {true, 300, 100, 2, 2, "keeps: keeps it in 100 s: 2 routes report it"},
      {true, 300, 5, 1, 1, "keeps: keeps it in 5 s: 1 route reports it"},
      {true, 300, 12, 0, 0,
       "removes_unless_reported: removes it in 12 s unless reported: no route"},
      {true, 300, 12, 0, 12345,
       "removes_unless_reported: removes it in 12 s unless reported: 12,345 routes report it"},
      {true, 29, 29, 1, 0, "removes: removes it in 29 s: no route reports it"},
      {true, 29, 28, 1, 0, "keeps_once: keeps it in 28 s, the one after it doesn't: no route"},
      {true, 28, 14, 1, 0, "removes: removes it in 14 s: no route reports it"},
      {true, 28, 13, 1, 0, "keeps_once: keeps it in 13 s, the one after it doesn't: no route"},
      {true, 300, 9, kUnknown, 0, "none: has nothing to do: no route of the VRF has this next hop"},
      {true, 300, 9, kUnknown, 1,
       "reported_again: comes in 9 s; discovery doesn't know it (its limit, or memory), the "
       "refresh "
       "before the sweep tries again: 1 route reports it"},
      {false, 300, 0, kUnknown, 1, "none: there is none: discovery is inactive"},
  };
  for (const auto &row : rows) {
    explanation e;
    e.active = row.active;
    e.interval = row.interval;
    e.sweep_in = row.sweep_in;
    e.vrfs = {{"A", row.count, row.routes}};
    if (row.count == kUnknown) e.vrfs[0].count.reset();
    const auto told = json::parse(show_explanation(show_as::object, e))["vrfs"][0];
    EXPECT_PRED_FORMAT2(IsSubstring, row.told,
                        told.value("next_sweep", "") + ": " + told.value("text", ""));
  }
}

TEST(Ledger, GivesTheCommandsThatMakeTheSame) {
  const strings expected = {"vrf add B table 2 import 10.255.1.1:7 4200000002:9",
                            "vrf add A table 1 import 1:1",
                            "route add 1.0.0.0/8",
                            "interval 7",
                            "trace on",
                            "watch 1",
                            "watch 4 B"};
  ledger made;
  EXPECT_EQ(made.commands(), strings{"interval 300"});
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
    uint8_t length;  ///< of the global route; 0: there is none
    const char *text;
  } rows[] = {
      {false, false, "", 0, "discovery is inactive: no client watches; no global route covers it"},
      {true, false, "", 8, "discovery doesn't know it; global route 10.0.0.0/8"},
      {true, true, "", 0, "not reachable: no global route covers it"},
      {true, true, "", 8,
       "not reachable yet: there is the global route 10.0.0.0/8, which its next report brings up"},
      {true, true, "10.0.0.0/8", 8, "reachable through the global route 10.0.0.0/8"},
      {true, true, "10.0.0.0/8", 9,
       "reachable through the global route 10.0.0.0/8; now there is 10.0.0.0/9, which its next "
       "report brings up"},
      {true, true, "10.0.0.0/8", 0,
       "reachable through the global route 10.0.0.0/8; now there is none, which its next report "
       "brings up"},
  };
  for (const auto &row : rows) {
    explanation e;
    e.active = row.active;
    e.known = row.known;
    e.prefix = row.prefix;
    if (row.length != 0) e.global = {0x0a000000, row.length};
    EXPECT_EQ(show_explanation(show_as::table, e),
              std::string("0.0.0.0: ") + row.text + "\nno route has this next hop\n");
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
