// The agent as its operator sees it: the built program, its lines, its exit status.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <pty.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>

namespace {

using nlohmann::json;
using strings = std::vector<std::string>;

const std::string kExample = EXAMPLES "/two-vpns";
const std::string kStart = "--json --config " + kExample + ".conf ";

/// The agent with its input in a file; its output and its errors are read as one.
class child {
 public:
  explicit child(const std::string &arguments, const std::string &input = "") {
    std::ofstream(input_) << input;
    const std::string shell = "echo $$; exec '" AGENT "' " + arguments + " 2>&1 <" + input_;
    lines_ = popen(shell.c_str(), "r");
    pid_ = std::stoi(line());
  }
  ~child() {
    if (lines_ != nullptr) kill(pid_, SIGKILL), end();
    unlink(input_.c_str());
  }
  std::string line(char last = '\n') {
    std::string text;
    for (int c; (c = getc(lines_)) != EOF && c != last;) text += static_cast<char>(c);
    return text;
  }
  std::string rest() { return line('\0'); }
  void terminate(int by = SIGTERM) { kill(pid_, by); }
  /// Stops reading, and gives the exit status.
  int end() {
    const int status = pclose(std::exchange(lines_, nullptr));
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  static inline int count_ = 0;
  const std::string input_ = testing::TempDir() + "agent_test_" + std::to_string(getpid()) + '_' +
                             std::to_string(++count_);
  FILE *lines_ = nullptr;
  pid_t pid_ = 0;
};

/// "ADD 1 10.255.1.1 10.255.1.1/32": an event without its number and time.
std::string event_of(const json &line) {
  std::string text = line["event"].get<std::string>() + ' ' + line["client"].dump();
  if (line.contains("nexthop"))
    text += ' ' + line["nexthop"].get<std::string>() + ' ' + line["prefix"].get<std::string>();
  return text + (line["vrf"].is_null() ? "" : ' ' + line["vrf"].get<std::string>());
}

TEST(Agent, TellsTheStoryOfTheExample) {
  child agent(kStart + "--replay " + kExample +
                  ".bmp --command='show vrfs' --command='route del 10.255.5.5/32'"
                  " --command='rib restart' --command='show nexthops'"
                  " --command='show nexthops CUST-B' --command='show nexthop 10.255.1.1'"
                  " --command='show prefix 10.255.2.2' --command='show sessions'",
              "resend 2\nshow pools\nhelp\nshow config\nunwatch 1\nunwatch 2\nshow vrfs");
  strings events;
  std::map<std::string, json> shows;
  uint64_t seq = 0;
  std::istringstream lines(agent.rest());
  for (std::string text; std::getline(lines, text);) {
    const json line = json::parse(text);
    EXPECT_EQ(line["schema"], 1);
    if (line.contains("show")) {
      const std::string vrf = line.value("vrf", json()).is_string() ? " of a VRF" : "";
      const auto &shown = *shows.emplace(line["show"].get<std::string>() + vrf, line).first;
      EXPECT_EQ(shown.second, line) << "also while nobody watches";
      continue;
    }
    EXPECT_EQ(line["seq"], ++seq);
    EXPECT_EQ(line["time"].get<std::string>().size(), strlen("2026-11-24T19:30:00.123Z"));
    events.push_back(event_of(line));
  }
  EXPECT_EQ(agent.end(), 0);

  EXPECT_EQ(events,
            (strings{"END 1", "END 2 CUST-A", "ADD 1 10.255.1.1 10.255.1.1/32",
                     "ADD 2 10.255.1.1 10.255.1.1/32 CUST-A", "ADD 1 10.255.2.2 10.255.2.0/24",
                     "ADD 2 10.255.2.2 10.255.2.0/24 CUST-A", "ADD 1 10.255.3.3 10.255.3.3/32",
                     "ADD 2 10.255.3.3 10.255.3.3/32 CUST-A", "ADD 1 10.255.4.4 10.255.4.4/32",
                     "ADD 1 10.255.5.5 10.255.5.5/32", "REMOVE 1 10.255.4.4 10.255.4.4/32",
                     "REMOVE 1 10.255.5.5 10.255.5.5/32", "ADD 2 10.255.1.1 10.255.1.1/32 CUST-A",
                     "ADD 2 10.255.2.2 10.255.2.0/24 CUST-A",
                     "ADD 2 10.255.3.3 10.255.3.3/32 CUST-A", "RESEND_END 2 CUST-A"}));
  EXPECT_EQ(shows["vrfs"]["vrfs"], json::parse(R"([
      {"vrf":"CUST-A","table":101,"import":["65000:1"],"routes":5,"nexthops":3},
      {"vrf":"CUST-B","table":102,"import":["10.255.1.1:7","4200000002:9"],
       "routes":3,"nexthops":3}])"));
  EXPECT_EQ(shows["nexthops"]["nexthops"], json::parse(R"([
      {"nexthop":"10.255.1.1","reachable":true,"prefix":"10.255.1.1/32",
       "vrfs":[{"vrf":"CUST-A","routes":2},{"vrf":"CUST-B","routes":1}]},
      {"nexthop":"10.255.2.2","reachable":true,"prefix":"10.255.2.0/24",
       "vrfs":[{"vrf":"CUST-A","routes":2}]},
      {"nexthop":"10.255.3.3","reachable":true,"prefix":"10.255.3.3/32",
       "vrfs":[{"vrf":"CUST-A","routes":1},{"vrf":"CUST-B","routes":1}]},
      {"nexthop":"10.255.5.5","reachable":false,"prefix":null,
       "vrfs":[{"vrf":"CUST-B","routes":1}]}])"));
  EXPECT_EQ(shows["nexthops of a VRF"]["nexthops"][1], json::parse(R"(
      {"nexthop":"10.255.3.3","reachable":true,"prefix":"10.255.3.3/32",
       "vrfs":[{"vrf":"CUST-B","routes":1}]})"));
  EXPECT_EQ(shows["nexthops of a VRF"]["nexthops"].size(), 3u);
  EXPECT_EQ(shows["nexthop"], json::parse(R"({"schema":1,"show":"nexthop","nexthop":"10.255.1.1",
      "vrfs":[{"vrf":"CUST-A","routes":2},{"vrf":"CUST-B","routes":1}]})"));
  EXPECT_EQ(shows["prefix"], json::parse(R"({"schema":1,"show":"prefix","nexthop":"10.255.2.2",
      "record":{"TargetAddress":"10.255.2.0","TargetMask":24}})"));
  EXPECT_EQ(shows["sessions"]["sessions"][0]["malformed"], json::object());
  EXPECT_EQ(shows["config"]["commands"].size(), 9u);
  EXPECT_FALSE(shows["pools"]["pools"].empty());
  EXPECT_FALSE(shows["help"]["help"].empty());
}

const std::string kConfig = testing::TempDir() + "agent_test_" + std::to_string(getpid()) + ".conf";
const std::string kConfigured = "--command help --config " + kConfig;
const std::string kReplay = "--config " + kExample + ".conf --replay " + kExample + ".bmp";
const char *const kTwoWrong = "watch 1\nvrf ad A\n\nwatch x\n";

const struct {
  std::string arguments, input;
  int status;
  std::string error;       ///< a part of what is told
  const char *start = "";  ///< the start-up file; when it is wrong, nothing runs
} kRefusals[] = {
    {"--view best", "", 2, "tarvo-agent: --view: 'best' is not loc-rib"},
    {"--config /nonexistent", "", 1, "/nonexistent: No such file"},
    {"--replay /nonexistent", "", 1, "/nonexistent: No such file"},
    {"--replay /nonexistent --listen 0", "vrf del A\nquit", 1, "no VRF 'A'"},
    {"", std::string("route add 10.0.0.0\0x/8", 22), 1, "expected a prefix"},
    {"--listen 127.0.0.1:x", "", 2,
     "tarvo-agent: --listen: 'x' is no port from 0 to 65535; --help"},
    {"--idle -1", "", 2, "tarvo-agent: --idle: '-1' is no number of seconds"},
    {"--config a --config b", "", 2, "tarvo-agent: --config: given twice"},
    {"--json=x", "", 2, "tarvo-agent: a flag takes no value: --json = x"},
    {"--replay", "", 2, "tarvo-agent: --replay: its value is missing"},
    {"--command watch", "\nquit", 1, "--command 'watch': column 6: expected a number"},
    {"", "watch 1\nwatch 1\nquit", 1, "standard input:2:7: client 1 watches already"},
    {"", "vrf del A", 1, "no VRF 'A'"},
    {"", "watch 1 A\nresend 1 B", 1, "watches 'A', not 'B'"},
    {"", "route del 1.0.0.0/8", 1, "not added here"},
    {"", "show nexthops A", 1, "no VRF 'A'"},
    {"", "show nexthops", 1, "standard input:1:1: discovery is inactive: no client watches"},
    {"--json", "watch 1\nshow it", 1, R"({"schema":1,"error":"expected 'vrfs',)"},
    {"--json", "watch 1 A", 0, R"({"schema":1,"note":"no VRF 'A' yet"})"},
    {"", "watch 1 A", 0, "\nno VRF 'A' yet\n"},
    {"", "show state", 1, "discovery is inactive: no client watches"},
    {"", "show prefix 10.1.2.3", 1, "discovery is inactive: no client watches"},
    {"", "watch 1\nshow nexthops", 0, "NEXT HOP  COVERING PREFIX  VRF  ROUTES\n"},
    {"", "watch 1\nshow prefix 10.1.2.3", 1, "no next hop 10.1.2.3"},
    {kReplay, "show prefix 10.255.2.2", 0, "> show prefix 10.255.2.2\n10.255.2.0/24\n"},
    {kReplay, "show nexthop 10.255.1.1", 0, "\nVRF     ROUTES\nCUST-A       2\nCUST-B       1\n"},
    {"", std::string(70000, 'x') + "\nquit", 1, "standard input:1:65537: the line has more than"},
    {kConfigured, "", 1, kConfig + ":2:5: expected", kTwoWrong},
    {kConfigured, "", 1, kConfig + ":4:7: expected", kTwoWrong},
    {kConfigured, "", 1, kConfig + ":2:11: route 1.0.0.0/8",
     "route add 1.0.0.0/8\nroute add 1.0.0.0/8"},
    {"--check-config " + kConfig, "", 1, kConfig + ":4:7: expected", kTwoWrong},
    {"--check-config " + kConfig, "", 0, "", "watch 1\nquit\nwatch 1"},
    {"--check-config " + kConfig, "", 0, kConfig + ":2:9: note: no line adds VRF 'B'",
     "watch 1 A\nwatch 2 B\nvrf add A table 1 import 1:1"},
    {"--check-config " + kConfig + " --listen 0", "", 2, "can't go with"},
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
  for (const auto &row : kRefusals) {
    std::ofstream(kConfig) << row.start;
    child agent(row.arguments, row.input);
    const std::string told = agent.rest();
    EXPECT_NE(told.find(row.error), std::string::npos) << row.error << "\n" << told;
    EXPECT_EQ(agent.end(), row.status) << row.error;
    EXPECT_TRUE(!row.input.ends_with("\nquit") || told.find("> quit") != std::string::npos);
    EXPECT_TRUE(*row.start == 0 || told.find("> help") == std::string::npos) << told;
  }
  unlink(kConfig.c_str());
}

TEST(Agent, LearnsFromARouterUntilItIsGone) {
  child agent(kStart + "--listen 0");
  const auto read_until = [&](const std::string &part) {
    std::string line;
    do line = agent.line();
    while (!line.empty() && line.find(part) == std::string::npos);
    EXPECT_NE(line, "") << "no " << part;
    return line;
  };
  const std::string listening = read_until("listening on ");
  read_until("standard input is at its end");
  const std::string port = listening.substr(listening.rfind(':') + 1);
  const std::string shell = "cat " + kExample + ".bmp - >/dev/tcp/127.0.0.1/" + port;
  FILE *router = popen(("exec bash -c '" + shell + "'").c_str(), "w");
  read_until(": connected");
  read_until("\"REMOVE\"");
  pclose(router);
  strings last;
  for (int i = 0; i < 8; ++i) last.push_back(agent.line());
  const auto removes = [](const std::string &line) { return line.find("REMOVE") != line.npos; };
  EXPECT_EQ(std::ranges::count_if(last, removes), 7) << "four PEs of client 1, three of client 2";
  const auto told = std::ranges::find_if_not(last, removes);
  EXPECT_TRUE(told != last.end() && told->ends_with(": ended, 48 messages"));
  agent.terminate(SIGHUP);
  EXPECT_EQ(agent.rest(), "tarvo-agent: ended by SIGHUP\n");
  EXPECT_EQ(agent.end(), 0);
}

// More than a pipe holds: the agent is still writing when nobody reads any more.
TEST(Agent, EndsWhenItsReaderLeaves) {
  std::string input;
  for (int i = 0; i < 1000; ++i) input += "help\n";
  EXPECT_EQ(child("--listen 0", input).end(), 0);
}

/// Reads the agent's output up to the line that holds `part`, and gives what follows it.
std::string after(child &agent, const std::string &part) {
  for (std::string line; !(line = agent.line()).empty();)
    if (const size_t at = line.find(part); at != std::string::npos)
      return line.substr(at + part.size());
  ADD_FAILURE() << "no " << part;
  return {};
}

std::string read_file(const std::string &path) {
  std::stringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

TEST(Agent, TakesCommandsOnItsControlSocket) {
  const std::string socket = kConfig + ".sock", connect = "--connect " + socket + ' ';
  child agent(kReplay + " --control " + socket);
  after(agent, "standard input is at its end");
  std::string import, listed;
  for (int i = 0; import.size() < 40000; ++i) {
    const std::string target = "1:" + std::to_string(i);
    import += ' ' + target, listed += '"' + target + "\",";
  }
  listed.pop_back();
  const struct {
    std::string arguments, input, told;
    int status;
  } rows[] = {
      {"--json --command quit --command 'show it'", "", "", 0},
      {"--json", "vrf add C table 9 import" + import + "\nshow vrfs\nvrf del C",
       R"({"schema":1,"show":"vrfs","vrfs":[)"
       R"({"vrf":"CUST-A","table":101,"import":["65000:1"],"routes":5,"nexthops":3},)"
       R"({"vrf":"CUST-B","table":102,"import":["10.255.1.1:7","4200000002:9"],"routes":3,"nexthops":3},)"
       R"({"vrf":"C","table":9,"import":[)" +
           listed + "],\"routes\":0,\"nexthops\":0}]}\n",
       0},
      {"--command 'show prefix 10.255.2.2'", "", "10.255.2.0/24\n", 0},
      {"", "unwatch 2\n# nothing\nunwatch 2\nshow nexthop 10.255.2.2\nquit\nshow it",
       "tarvo-agent: standard input:3:9: client 2 does not watch\nVRF     ROUTES\nCUST-A       2\n",
       1},
      {"--json --command 'show it' --command 'show prefix 10.255.2.2'", "",
       "tarvo-agent: --command 'show it': column 6: expected 'vrfs', 'nexthops', 'nexthop', "
       "'prefix', 'state', 'sessions', 'pools' or 'config', not 'it'\n"
       R"({"schema":1,"error":"expected 'vrfs', 'nexthops', 'nexthop', 'prefix', 'state', )"
       R"('sessions', 'pools' or 'config', not 'it'","column":6})"
       "\n"
       "{\"schema\":1,\"show\":\"prefix\",\"nexthop\":\"10.255.2.2\",\"record\":"
       "{\"TargetMask\":24,\"TargetAddress\":\"10.255.2.0\"}}\n",
       1},
      {"--command 'explain 10.255.2.2 CUST-B'", "",
       "10.255.2.2: reachable through the global route 10.255.2.0/24; last reported * s ago\n"
       "VRF     COUNT  ROUTES  THE NEXT SWEEP\n"
       "CUST-B      -       0  has nothing to do: no route of the VRF has this next hop\n"
       "RD         PREFIX       TARGETS  IMPORTED BY      SESSION" +
           std::string(kExample.size() + 7, ' ') + "PEER     VIEW\n" +
           "65000:102  10.1.3.0/24  65000:1  CUST-A(65000:1)  " + kExample +
           ".bmp (GoBGP)  loc-rib  loc-rib\n"
           "65000:102  10.1.4.0/24  65000:1  CUST-A(65000:1)  " +
           kExample + ".bmp (GoBGP)  loc-rib  loc-rib\n",
       0},
  };
  for (const auto &row : rows) {
    child client(connect + row.arguments, row.input);
    const std::string told =
        std::regex_replace(client.rest(), std::regex(R"(\d+ s ago)"), "* s ago");
    EXPECT_EQ(told, row.told) << row.arguments;
    EXPECT_EQ(client.end(), row.status) << row.arguments;
  }
  EXPECT_EQ(child(connect, "route del 10.255.1.1/32\nrib restart").end(), 0);
  EXPECT_NE(after(agent, "client 1     REMOVE      10.255.1.1"), "")
      << "an event of the agent's own";
  agent.terminate();
  agent.rest();
  EXPECT_EQ(agent.end(), 0);
  EXPECT_NE(access(socket.c_str(), F_OK), 0);
}

/// The program with a terminal at its ends.
class terminal {
 public:
  explicit terminal(const std::string &arguments) {
    pid_ = forkpty(&fd_, nullptr, nullptr, nullptr);
    if (pid_ != 0) return;
    setenv("TERM", "xterm", 1);
    execl("/bin/sh", "sh", "-c", ("exec '" AGENT "' " + arguments).c_str(), nullptr);
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
  const std::string socket = kConfig + ".sock";
  child agent(kReplay + " --control " + socket);
  after(agent, "standard input is at its end");
  const struct {
    std::string arguments, key;
    int status;
  } rows[] = {
      {"--connect " + socket, "\x04", 0},
      {"--connect " + socket, "\x03", -SIGINT},
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
}

std::string ask_http(const std::string &port, const std::string &request) {
  const std::string shell =
      "exec 3<>/dev/tcp/127.0.0.1/" + port + "; printf '" + request +
      " HTTP/1.1\\r\\nHost: a\\r\\nConnection: close\\r\\n\\r\\n' >&3; cat <&3";
  FILE *answer = popen(("exec bash -c \"" + shell + '"').c_str(), "r");
  std::string text;
  for (int c; (c = getc(answer)) != EOF;) text += static_cast<char>(c);
  pclose(answer);
  return text;
}

// The page has the metrics that docs/metrics.md describes, and no others.
TEST(Agent, ShowsItsMetricsAndNothingElse) {
  child agent(kReplay + " --metrics 0 --command 'route del 10.255.3.3/32' --command 'rib restart'");
  const std::string port = after(agent, "metrics on 127.0.0.1:");
  after(agent, "standard input is at its end");
  child idle("--metrics 0");
  const std::string other = after(idle, "metrics on 127.0.0.1:");
  const std::string inactive = ask_http(other, "GET /metrics");
  EXPECT_NE(inactive.find("\ntarvo_discovery_active 0\n"), std::string::npos) << inactive;
  EXPECT_EQ(inactive.find("tarvo_vrf_pes{"), std::string::npos);
  const sockaddr_in to{AF_INET, htons(uint16_t(std::stoi(other))), {htonl(INADDR_LOOPBACK)}, {}};
  const timeval patience{5, 0};
  int last = -1;
  for (int i = 0; i < 17; ++i) {  // one too many; they end with the test
    last = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    setsockopt(last, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    EXPECT_EQ(connect(last, reinterpret_cast<const sockaddr *>(&to), sizeof to), 0);
  }
  char byte;
  EXPECT_TRUE(read(last, &byte, 1) == 0 || errno == ECONNRESET);
  for (const char *refused : {"POST /metrics", "PUT /metrics"})
    EXPECT_TRUE(ask_http(port, refused).starts_with("HTTP/1.1 405 "));
  EXPECT_TRUE(ask_http(port, "GET /").starts_with("HTTP/1.1 404 "));
  const std::string head = ask_http(port, "HEAD /metrics"), page = ask_http(port, "GET /metrics");
  EXPECT_TRUE(head.starts_with("HTTP/1.1 200 ") && head.ends_with("\r\n\r\n")) << head;
  for (const char *line :
       {"tarvo_discovery_active 1", "tarvo_vrf_pes{vrf=\"CUST-A\"} 3",
        "tarvo_vrf_reachable_pes{vrf=\"CUST-B\"} 2", "tarvo_vrf_routes{vrf=\"CUST-A\"} 5",
        "tarvo_bmp_messages_total 48", "tarvo_bmp_sessions_opened_total 1", "tarvo_rib_paths 8",
        "tarvo_notifications_total 13", "tarvo_requests_queued 0",
        "tarvo_notifications_lost_total 0"})
    EXPECT_NE(page.find(std::string("\n") + line + '\n'), std::string::npos) << line << page;

  EXPECT_EQ(page.find("tarvo_pool_bytes{pool=\"PE Discovery workQ Chunk\"} 0\n"),
            std::string::npos);

  std::istringstream lines(page);
  std::string described, text;
  std::map<std::string, std::string> help, label;
  strings order;
  while (std::getline(lines, text)) {
    std::istringstream words(text);
    std::string mark, kind, name, rest;
    if (text.starts_with("# ")) {
      words >> mark >> kind >> name >> std::ws, std::getline(words, rest);
      if (kind == "HELP") order.push_back(name), help[name] = rest;
      if (kind == "TYPE") help[name] = rest + " | $ | " + help[name];
    } else if (const size_t brace = text.find('{'); brace != std::string::npos) {
      label[text.substr(0, brace)] = text.substr(brace + 1, text.find('=') - brace - 1);
    }
  }
  label["tarvo_bmp_malformed_total"] = "kind";  // there are none
  for (const std::string &name : order) {
    std::string row = "| `" + name + "` | " + help[name] + " |\n";
    described += row.replace(row.find('$'), 1, label[name]);
  }
  const std::string docs = read_file(EXAMPLES "/../docs/metrics.md");
  EXPECT_EQ(docs.substr(docs.find("|---|---|---|---|\n") + 18), described);
}

TEST(Agent, CanBeLookedAtWhileItReplays) {
  const std::string recording = kConfig + ".bmp", socket = kConfig + ".sock";
  ASSERT_EQ(mkfifo(recording.c_str(), 0600), 0);
  for (const bool whole : {true, false}) {
    child agent("--config " + kExample + ".conf --replay " + recording + " --control " + socket +
                " --metrics 0");
    const std::string port = after(agent, "metrics on 127.0.0.1:");
    if (whole) {
      std::ofstream writer(recording);
      writer << read_file(kExample + ".bmp") << std::flush;
      const std::string shown = child("--json --connect " + socket, "show sessions").rest();
      EXPECT_NE(shown.find("\"messages\":48,"), std::string::npos) << shown;
      EXPECT_NE(ask_http(port, "GET /metrics").find("\ntarvo_bmp_messages_total 48\n"),
                std::string::npos);
      writer.close();
      after(agent, "standard input is at its end");
    }
    agent.terminate();
    const std::string told = agent.rest();
    EXPECT_EQ(told.find(recording + ": not read to its end") == std::string::npos, whole) << told;
    EXPECT_EQ(agent.end(), whole ? 0 : 1);
    EXPECT_NE(access(socket.c_str(), F_OK), 0);
  }
  unlink(recording.c_str());
}

// All that is told to a service manager: ready once it listens, fed whether or not anybody watches.
TEST(Agent, TellsItsServiceManager) {
  const std::string path = kConfig + ".notify";
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  const int manager = socket(AF_UNIX, SOCK_DGRAM, 0);
  ASSERT_EQ(bind(manager, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
  const auto told = [manager] {
    char text[200];
    const ssize_t size = recv(manager, text, sizeof text, 0);
    return std::string(text, size > 0 ? size_t(size) : 0);
  };
  setenv("NOTIFY_SOCKET", path.c_str(), 1), setenv("WATCHDOG_USEC", "30000", 1);
  for (const std::string &start : {kReplay + " --listen 0", std::string("--listen 0")}) {
    child agent(start);
    if (start != "--listen 0") {
      EXPECT_EQ(told(), "STATUS=reading " + kExample + ".bmp");
    }
    EXPECT_TRUE(told().starts_with("READY=1\nSTATUS=")) << start;
    for (int fed = 0; fed < 3; ++fed) EXPECT_EQ(told(), "WATCHDOG=1");
    after(agent, "standard input is at its end");
    agent.terminate();
    std::string last = told();
    while (last == "WATCHDOG=1") last = told();
    EXPECT_EQ(last, "STOPPING=1");
    agent.rest();
    EXPECT_EQ(agent.end(), 0);
  }
  unsetenv("NOTIFY_SOCKET"), unsetenv("WATCHDOG_USEC");
  close(manager);
  unlink(path.c_str());
}

/// What begins these lines, after their marks and up to where a part of `until` begins, sorted.
strings heads(const std::string &text, const std::string &mark, const strings &untils) {
  strings found;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (!line.starts_with(mark)) continue;
    line.erase(0, mark.size());
    for (const std::string &until : untils) line = line.substr(0, line.find(until));
    found.push_back(line);
  }
  std::sort(found.begin(), found.end());
  return found;
}

TEST(Agent, ManualPageHasTheOptionsAndCommandsThatThereAre) {
  const std::string page = read_file(EXAMPLES "/../docs/tarvo-agent.8");
  const std::string help = child("--help").rest();
  strings options = heads(help, "  --", {" "}), commands;
  EXPECT_GT(options.size(), 10u);
  strings described = heads(page, ".It Fl -", {" "});
  EXPECT_EQ(described, options);
  child agent("--json --command help");
  const json shown = json::parse(agent.line());
  for (const json &form : shown["help"]) commands.push_back(form["syntax"]);
  std::sort(commands.begin(), commands.end());
  EXPECT_EQ(heads(page, ".It Cm ", {}), commands);
}

}  // namespace
