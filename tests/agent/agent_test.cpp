// The agent as its operator sees it: the built program, its lines, its exit status.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>

#include "tests/agent/unix_socket.h"

namespace {

using nlohmann::json;
using testing::IsSubstring;
using strings = std::vector<std::string>;

const std::string kPlace = testing::TempDir() + "agent_test_" + std::to_string(getpid());
const std::string kConfig = kPlace + ".conf", kSocket = kPlace + ".sock";
const std::string kRoot = EXAMPLES "/..";
const std::string kRun = "cd '" EXAMPLES "'; exec '" AGENT "' ";
const std::string kReplay = "--config two-vpns.conf --replay two-vpns.bmp";

std::string read_to(FILE *from, char last) {
  std::string text;
  for (int c; (c = getc(from)) != EOF && c != last;) text += static_cast<char>(c);
  return text;
}

/// The agent with its input in a file; its output and its errors are read as one.
class child {
 public:
  explicit child(const std::string &arguments, const std::string &input = "") {
    std::ofstream(input_) << input;
    lines_ = popen(("echo $$; " + kRun + "2>&1 <" + input_ + ' ' + arguments).c_str(), "r");
    pid_ = std::stoi(line());
  }
  ~child() {
    if (lines_ != nullptr) end(SIGKILL);
    unlink(input_.c_str());
  }
  std::string line() { return read_to(lines_, '\n'); }
  std::string rest() { return read_to(lines_, '\0'); }
  /// Reads up to the line that holds `part`, and gives what follows it.
  std::string after(const std::string &part) {
    for (std::string text; !(text = line()).empty();)
      if (const size_t at = text.find(part); at != text.npos) return text.substr(at + part.size());
    ADD_FAILURE() << "no " << part;
    return {};
  }
  void signal(int number) { kill(pid_, number); }
  /// Stops reading, and gives the exit status.
  int end(int by = 0) {
    if (by != 0) signal(by);
    const int status = pclose(std::exchange(lines_, nullptr));
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  static inline int count_ = 0;
  const std::string input_ = kPlace + '_' + std::to_string(++count_);
  FILE *lines_ = nullptr;
  pid_t pid_ = 0;
};

std::string read_file(const std::string &path) {
  std::stringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

/// Every time of day as in README, which is one that is always the same.
std::string timeless(const std::string &text) {
  static const std::regex kTime("[0-9-]{10}T[0-9:.]{12}Z");
  return std::regex_replace(text, kTime, "2026-11-24T21:36:39.986Z");
}

/// What script/run's command line prints with more arguments, or with other input.
std::string example(const std::string &more = "") {
  const std::string script = read_file(kRoot + "/script/run");
  const size_t arguments = script.find(" --config ");
  FILE *agent =
      popen(("cd '" + kRoot + "'; exec '" AGENT "'" +
             script.substr(arguments, script.find_last_not_of('\n') + 1 - arguments) + more)
                .c_str(),
            "r");
  const std::string told = timeless(read_to(agent, '\0'));
  EXPECT_EQ(pclose(agent), 0) << told;
  return told;
}

TEST(Agent, PrintsTheExampleAsItIsShown) {
  const std::string told = example();
  EXPECT_EQ(told, timeless(read_file(EXAMPLES "/two-vpns.out")));

  // README leaves out lines in the middle.
  const std::string readme = timeless(read_file(kRoot + "/README.md"));
  const size_t first = readme.find("```\n2026-") + 4, dots = readme.find("\n...\n", first) + 1;
  EXPECT_PRED_FORMAT2(IsSubstring, readme.substr(first, dots - first), told);
  const std::string last = readme.substr(dots + 4, readme.find("```", dots) - dots - 4);
  EXPECT_TRUE(told.ends_with(last)) << last;
}

TEST(Agent, TellsTheStoryOfTheExampleInJson) {
  std::ofstream(kConfig) << "resend 2\nshow nexthops CUST-B\nshow nexthop 10.255.1.1\nshow config\n"
                            "unwatch 1\nunwatch 2\nshow vrfs\n";
  EXPECT_EQ(example(" --json <" + kConfig), read_file(TESTS "/two-vpns.jsonl"));
  unlink(kConfig.c_str());
}

const std::string kConfigured = "--command help --config " + kConfig;
const std::string kCutStream = "--replay /dev/stdin --command 'show sessions'";
const std::string kCut = read_file(EXAMPLES "/two-vpns.bmp").substr(0, 4000);
const std::string kFull = kPlace + ".full";  // a pipe that nobody reads
const std::string kCheck = "--check-config " + kConfig;
const char *const kTwoWrong = "watch 1\nvrf ad A\n\nwatch x\n";

const struct {
  std::string arguments, input;
  int status;
  std::string told;        ///< a part of it
  const char *start = "";  ///< the start-up file; when it is wrong, nothing runs
} kRefusals[] = {
    {"--view best", "", 2, "tarvo-agent: --view: 'best' is not loc-rib"},
    {"--config /nonexistent", "", 1, "/nonexistent: No such file"},
    {"--replay /nonexistent --listen 0", "quit", 1, "/nonexistent: No such file"},
    {"--listen 127.0.0.1:x", "", 2, "--listen: 'x' is no port from 0 to 65535; --help"},
    {"--idle -1", "", 2, "tarvo-agent: --idle: '-1' is no number of seconds"},
    {"--config a --config b", "", 2, "tarvo-agent: --config: given twice"},
    {"--json=3", "", 2, "tarvo-agent: --json takes no value; --help"},
    {"--replay", "", 2, "tarvo-agent: --replay: its value is missing"},
    {"--command watch", "quit", 1, "--command 'watch': column 6: expected a number"},
    {"", "watch 1\nwatch 1\nquit", 1, "standard input:2:7: client 1 watches already"},
    {"", std::string(70000, 'x') + "\nquit", 1, "standard input:1:65537: the line has more than"},
    {"--json", "show nexthops", 1, R"({"schema":1,"error":"discovery is inactive: no client)"},
    {"", "watch 1 A", 0, "\nno VRF 'A' yet\n"},
    {"", "vrf add \xc3\xa9 table 10 import 1:1\nshow\tvrfs", 0,
     "> show vrfs\nVRF  TABLE  IMPORT  ROUTES  NEXT HOPS\n\xc3\xa9       10  1:1          0        "
     "  0\n"},
    {"", "help", 0,
     "\nquit                                   end the agent; on a control socket, the"},
    {"", "watch 1\ninterval 199\nshow state", 0, "VALUE\nRefreshRemaining  19"},
    {"", "watch 1\ntrace on\nrib restart\ntrace off\nrib restart\nquit", 0,
     "\ntrace: DISC: Notify client 4294967295 of RESEND_END\n> trace off\n> rib restart\n> quit\n"},
    {kCutStream, kCut, 1,
     "ROUTER      SYSTEM  STATE  PEERS  VIEWS                           MESSAGES  ROUTES READ  "
     "SKIPPED"
     "         MALFORMED        LAST ERROR\n"
     "/dev/stdin  GoBGP   ended      6  loc-rib post-policy pre-policy        28            7  "
     "other_views=15  bmp-truncated=1  the stream ends within the message at byte 3937, after 63 "
     "bytes "
     "of it\n"},
    {kCutStream + " --json", kCut, 1,
     R"("up":false,"peers":6,"views":["loc-rib","post-policy","pre-policy"],"messages":28,)"
     R"("routes_read":7,"skipped":{"other_views":15,"ipv6_nexthop":0,"vrf_unicast":0,"over_limit":0,)"
     R"("rib_full":0},"malformed":{"bmp-truncated":1},"last_error":"the stream ends within the mes)"},
    {kReplay, "show pools", 0, "\nPE Discovery NHop Chunk               136       4       1 "},
    {kReplay + " --json", "show pools", 0,
     R"({"pool":"PE Discovery NHop Chunk","element_size":136,"in_use":4,"chunks":1,"bytes":)"},
    {"2>" + kFull, "x\nquit", 1, "> x\n> quit\n"},
    {"", "watch 1\nshow nexthops", 0, "NEXT HOP  COVERING PREFIX  VRF  ROUTES\n"},
    {"", "watch 1\nshow prefix 10.1.2.3", 1, "input:2:13: no next hop 10.1.2.3"},
    {kConfigured, "", 1, kConfig + ":4:7: expected", kTwoWrong},
    {kCheck, "", 1, kConfig + ":4:7: expected", kTwoWrong},
    {kCheck, "", 0, kConfig + ":3:9: note: no line adds VRF 'B'",
     "watch 1\nwatch 2 A\nwatch 3 B\nvrf add A table 1 import 1:1"},
    {kCheck + " --listen 0", "", 2, "can't go with"},
    {"--check-config /", "", 1, "/: Is a directory"},
    {"--check-config ''", "", 2, "--check-config: no name"},
    {"--connect /nonexistent", "", 1, "control socket /nonexistent: No such file"},
    {"--connect " + std::string(200, 'x'), "", 1, "File name too long"},
    {"--control /nonexistent/x", "", 1, "control socket /nonexistent/x: No such file"},
    {"--control x --control-mode 0888", "", 2, "'0888' is no file mode"},
    {"--control-mode 0600", "", 2, "requires --control"},
    {"--metrics 127.0.0.1:x", "", 2, "--metrics: 'x' is no port"},
    {"--metrics 192.0.2.1:0", "", 1, "metrics on 192.0.2.1:0: "},
};

TEST(Agent, RefusesAndGoesOn) {
  ASSERT_EQ(mkfifo(kFull.c_str(), 0600), 0);
  const agent::descriptor full(open(kFull.c_str(), O_RDWR | O_NONBLOCK));
  while (write(full.number, kPlace.data(), 1) == 1) {
  }
  for (const auto &row : kRefusals) {
    std::ofstream(kConfig) << row.start;
    child agent(row.arguments, row.input);
    const std::string told = agent.rest();
    EXPECT_PRED_FORMAT2(IsSubstring, row.told, told);
    EXPECT_EQ(agent.end(), row.status) << row.told;
    EXPECT_TRUE(!row.input.ends_with("quit") || told.find("> quit") != told.npos) << told;
    EXPECT_TRUE(*row.start == 0 || told.find("> help") == told.npos) << told;
  }
  unlink(kConfig.c_str());
  unlink(kFull.c_str());
}

/// What the pattern's group matches, line by line, sorted.
strings all_of(const std::string &text, const char *pattern) {
  const std::regex each(pattern, std::regex::multiline);
  strings found{std::sregex_token_iterator(text.begin(), text.end(), each, 1), {}};
  std::sort(found.begin(), found.end());
  return found;
}

TEST(Agent, LearnsFromARouterUntilItIsGone) {
  child agent("--json --config two-vpns.conf --listen 0");
  const std::string port = agent.after("listening on 127.0.0.1:");
  agent.after("standard input is at its end");
  const std::string shell = "cat " EXAMPLES "/two-vpns.bmp - >/dev/tcp/127.0.0.1/" + port;
  FILE *router = popen(("exec bash -c '" + shell + "'").c_str(), "w");
  agent.after(": connected");
  agent.after("\"REMOVE\"");
  pclose(router);
  std::string last;
  for (int i = 0; i < 8; ++i) last += agent.line() + '\n';
  EXPECT_EQ(all_of(last, "(REMOVE)").size(), 7u) << "four PEs of client 1, three of client 2";
  EXPECT_PRED_FORMAT2(IsSubstring, ": ended, 48 messages\n", last);
  agent.signal(SIGHUP);
  EXPECT_EQ(agent.rest(), "tarvo-agent: ended by SIGHUP\n");
  EXPECT_EQ(agent.end(), 0);
}

// More than a pipe holds: the agent is still writing when nobody reads any more.
TEST(Agent, EndsWhenItsReaderLeaves) {
  std::string input;
  for (int i = 0; i < 1000; ++i) input += "help\n";
  EXPECT_EQ(child("--listen 0", input).end(), 0);
}

TEST(Agent, TakesCommandsOnItsControlSocket) {
  const std::string connect = "--connect " + kSocket + ' ';
  child agent(kReplay + " --control " + kSocket);
  agent.after("standard input is at its end");
  std::string imports;
  for (int i = 0; imports.size() < 40000; ++i) imports += " 1:" + std::to_string(i);
  const std::string added = "vrf add C table 9 import" + imports;
  EXPECT_PRED_FORMAT2(IsSubstring, " 9 " + imports + "       0          0\n",
                      child(connect, added + "\nshow vrfs\nvrf del C").rest());
  const struct {
    std::string arguments, input;
    int status;
    std::string told;
  } rows[] = {
      {"--json --command quit --command 'show it'", "", 0, ""},
      {"--command 'show prefix 10.255.2.2'", "", 0, "10.255.2.0/24\n"},
      {"", "unwatch 2\n# nothing\nunwatch 2\nshow nexthop 10.255.2.2\nquit\nshow it", 1,
       "tarvo-agent: standard input:3:9: client 2 does not watch\nVRF     ROUTES\nCUST-A       "
       "2\n"},
      {"--json --command 'vrf' --command 'show prefix 10.255.2.2'", "", 1,
       "tarvo-agent: --command 'vrf': column 4: expected 'add' or 'del' at the end\n"
       R"({"schema":1,"error":"expected 'add' or 'del' at the end","column":4})"
       "\n"
       R"({"schema":1,"show":"prefix","nexthop":"10.255.2.2",)"
       R"("record":{"TargetMask":24,"TargetAddress":"10.255.2.0"}})"
       "\n"},
      {"--command 'explain 10.255.2.2 CUST-B'", "", 0,
       "10.255.2.2: reachable through the global route 10.255.2.0/24; last reported * s ago\n"
       "VRF     COUNT  ROUTES  THE NEXT SWEEP\n"
       "CUST-B      -       0  has nothing to do: no route of the VRF has this next hop\n"
       "RD         PREFIX       TARGETS  IMPORTED BY      SESSION               PEER     VIEW\n"
       "65000:102  10.1.3.0/24  65000:1  CUST-A(65000:1)  two-vpns.bmp (GoBGP)  loc-rib  loc-rib\n"
       "65000:102  10.1.4.0/24  65000:1  CUST-A(65000:1)  two-vpns.bmp (GoBGP)  loc-rib  "
       "loc-rib\n"},
  };
  for (const auto &row : rows) {
    child client(connect + row.arguments, row.input);
    const std::string told = client.rest();
    EXPECT_EQ(std::regex_replace(told, std::regex(R"(\d+ s ago)"), "* s ago"), row.told);
    EXPECT_EQ(client.end(), row.status) << row.arguments;
  }
  EXPECT_EQ(child(connect, "route del 10.255.1.1/32\nrib restart").end(), 0);
  agent.after("client 1     REMOVE      10.255.1.1");
  EXPECT_EQ(agent.end(SIGTERM), 0);
}

/// The program with a terminal at its ends.
class terminal {
 public:
  explicit terminal(const std::string &arguments) {
    pid_ = forkpty(&fd_, nullptr, nullptr, nullptr);
    if (pid_ != 0) return;
    setenv("TERM", "xterm", 1);
    execl("/bin/sh", "sh", "-c", (kRun + arguments).c_str(), nullptr);
    _exit(127);
  }
  void type(const std::string &keys) {
    EXPECT_EQ(write(fd_, keys.data(), keys.size()), ssize_t(keys.size()));
  }
  /// Reads on to the end of `part`, or of all.
  std::string until(const std::string &part) {
    std::string text;
    pollfd more{fd_, POLLIN, 0};
    for (char c; !text.ends_with(part) && poll(&more, 1, 10000) == 1 && read(fd_, &c, 1) == 1;)
      text += c;
    return text;
  }
  /// Hangs up, and gives the exit status, or the signal below 0.
  int end() {
    close(fd_);
    int status = 0;
    waitpid(pid_, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

 private:
  int fd_ = -1;
  pid_t pid_ = 0;
};

TEST(Agent, PromptsOnATerminal) {
  child agent(kReplay + " --control " + kSocket);
  agent.after("standard input is at its end");
  const struct {
    std::string arguments, key;
    int status;
  } rows[] = {
      {"--connect " + kSocket, "\x04", 0},
      {"--connect " + kSocket, "\x03", -SIGINT},
      {kReplay, "\x04", 0},
      {kReplay, "\x03", 0},
  };
  const std::string answer = "10.255.3.3  10.255.3.3/32    CUST-A       1\r\n";
  for (const auto &row : rows) {
    terminal person(row.arguments);
    person.until("tarvo> ");
    for (const char *keys : {"sho\tnexthops C\tA\r", "\x1b[A\r"}) {  // completion; history
      person.type(keys);
      EXPECT_TRUE(person.until(answer).ends_with(answer)) << keys;
      person.until("tarvo> ");
    }
    person.type(row.key);
    EXPECT_TRUE(person.until("no such text").ends_with("\r\n")) << row.arguments;
    EXPECT_EQ(person.end(), row.status) << row.arguments;
  }
  EXPECT_EQ(agent.end(SIGTERM), 0);
}

/// What bash prints, which can connect by itself.
std::string bash(const std::string &script) {
  FILE *told = popen(("exec bash -c '" + script + "'").c_str(), "r");
  const std::string text = read_to(told, '\0');
  pclose(told);
  return text;
}

std::string ask_http(const std::string &port, const std::string &request) {
  return bash("exec 3<>/dev/tcp/127.0.0.1/" + port + "; printf \"" + request +
              " HTTP/1.1\\r\\nHost: a\\r\\nConnection: close\\r\\n\\r\\n\" >&3; cat <&3");
}

// The page has the metrics that docs/metrics.md describes, and no others.
TEST(Agent, ShowsItsMetricsAndNothingElse) {
  child agent(kReplay + " --metrics 0 --command 'route del 10.255.3.3/32' --command 'rib restart'");
  const std::string port = agent.after("metrics on 127.0.0.1:");
  agent.after("standard input is at its end");
  EXPECT_TRUE(ask_http(port, "POST /metrics").starts_with("HTTP/1.1 405 "));
  EXPECT_TRUE(ask_http(port, "GET /").starts_with("HTTP/1.1 404 "));
  const std::string head = ask_http(port, "HEAD /metrics");
  EXPECT_TRUE(head.starts_with("HTTP/1.1 200 ") && head.ends_with("\r\n\r\n")) << head;
  std::string page = ask_http(port, "GET /metrics");
  for (const char *line :
       {"tarvo_discovery_active 1", "tarvo_vrf_pes{vrf=\"CUST-A\"} 3",
        "tarvo_vrf_reachable_pes{vrf=\"CUST-B\"} 2", "tarvo_vrf_routes{vrf=\"CUST-A\"} 5",
        "tarvo_bmp_messages_total 48", "tarvo_bmp_sessions_opened_total 1", "tarvo_rib_paths 8",
        "tarvo_notifications_total 13", "tarvo_requests_queued 0",
        "tarvo_notifications_lost_total 0"})
    EXPECT_PRED_FORMAT2(IsSubstring, std::string("\n") + line + '\n', page);
  EXPECT_EQ(page.find("tarvo_pool_bytes{pool=\"PE Discovery workQ Chunk\"} 0\n"), page.npos);

  // Nothing was malformed, so that its label is on no line yet.
  const std::string none = "# TYPE tarvo_bmp_malformed_total counter\n";
  const size_t at = page.find(none + '#');
  ASSERT_NE(at, page.npos) << page;
  page.insert(at + none.size(), "tarvo_bmp_malformed_total{kind=");
  const std::regex metric("# HELP (\\S+) (.*)\n# TYPE \\S+ (\\S+)\n(\\S+\\{(\\w+)=)?");
  const std::string docs = read_file(kRoot + "/docs/metrics.md");
  EXPECT_EQ(docs.substr(docs.find("|---|---|---|---|\n") + 18),
            std::regex_replace(page, metric, "| `$1` | $3 | $5 | $2 |\n",
                               std::regex_constants::format_no_copy));
}

TEST(Agent, BoundsItsMetricsConnections) {
  child agent("--metrics 0");
  const std::string port = agent.after("metrics on 127.0.0.1:");
  const std::string inactive = ask_http(port, "GET /metrics");
  EXPECT_PRED_FORMAT2(IsSubstring, "\ntarvo_discovery_active 0\n", inactive);
  EXPECT_PRED_FORMAT2(testing::IsNotSubstring, "tarvo_vrf_pes{", inactive);
  // One too many is closed at once: the status is not that of a time-out.
  EXPECT_EQ(bash("for i in {1..17}; do exec {to}<>/dev/tcp/127.0.0.1/" + port +
                 "; done; read -t 5 -u $to; echo $?"),
            "1\n");
}

TEST(Agent, CanBeLookedAtWhileItReplays) {
  const std::string recording = kPlace + ".bmp";
  ASSERT_EQ(mkfifo(recording.c_str(), 0600), 0);
  for (const bool whole : {true, false}) {
    child agent("--config two-vpns.conf --replay " + recording + " --metrics 0 --control " +
                kSocket);
    const std::string port = agent.after("metrics on 127.0.0.1:");
    if (whole) {
      std::ofstream writer(recording);
      writer << read_file(EXAMPLES "/two-vpns.bmp") << std::flush;
      EXPECT_PRED_FORMAT2(IsSubstring, "\"messages\":48,",
                          child("--json --connect " + kSocket, "show sessions").rest());
      EXPECT_PRED_FORMAT2(IsSubstring, "\ntarvo_bmp_messages_total 48\n",
                          ask_http(port, "GET /metrics"));
      writer.close();
      agent.after("standard input is at its end");
    }
    agent.signal(SIGTERM);
    const std::string told = agent.rest();
    EXPECT_EQ(told.find(recording + ": not read to its end") == told.npos, whole) << told;
    EXPECT_EQ(agent.end(), whole ? 0 : 1);
    EXPECT_NE(access(kSocket.c_str(), F_OK), 0);
  }
  unlink(recording.c_str());
}

// All that is told to a service manager: ready once it listens, fed whether or not anybody watches.
TEST(Agent, TellsItsServiceManager) {
  setenv("WATCHDOG_USEC", "30000", 1);
  for (const std::string &start : {kReplay + " --listen 0", std::string("--listen 0")}) {
    const bool replays = start.starts_with(kReplay);
    const std::string name = (replays ? "" : "@") + kPlace + ".notify";
    const agent::descriptor manager = agent::unix_socket(SOCK_DGRAM, bind, name);
    setenv("NOTIFY_SOCKET", name.c_str(), 1);
    child agent(start);
    if (replays) {
      EXPECT_EQ(received(manager), "STATUS=reading two-vpns.bmp");
    }
    EXPECT_TRUE(received(manager).starts_with("READY=1\nSTATUS=")) << start;
    for (int fed = 0; fed < 3; ++fed) EXPECT_EQ(received(manager), "WATCHDOG=1");
    agent.after("standard input is at its end");
    agent.signal(SIGTERM);
    std::string last = "WATCHDOG=1";
    while (last == "WATCHDOG=1") last = received(manager);
    EXPECT_EQ(last, "STOPPING=1");
    EXPECT_EQ(agent.end(), 0);
    unlink(name.c_str());
  }
  unsetenv("NOTIFY_SOCKET"), unsetenv("WATCHDOG_USEC");
}

TEST(Agent, ManualPageHasTheOptionsAndCommandsThatThereAre) {
  const std::string page = read_file(kRoot + "/docs/tarvo-agent.8");
  const strings options = all_of(child("--help").rest(), "^  --([a-z-]+)");
  EXPECT_GT(options.size(), 10u);
  EXPECT_EQ(all_of(page, "^\\.It Fl -([a-z-]+)"), options);
  const json help = json::parse(child("--json --command help").rest());
  strings commands;
  for (const json &form : help["help"]) {
    commands.push_back(form["syntax"]);
    EXPECT_NE(form["help"], "") << form;
  }
  std::sort(commands.begin(), commands.end());
  EXPECT_EQ(all_of(page, "^\\.It Cm (.*)$"), commands);
}

}  // namespace
