// The agent as its operator sees it: the built program, its lines, its exit status.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
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
  void terminate() { kill(pid_, SIGTERM); }
  /// Stops reading, and gives the exit status.
  int end() {
    const int status = pclose(std::exchange(lines_, nullptr));
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  const std::string input_ = testing::TempDir() + "agent_test_" + std::to_string(getpid());
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
              "resend 2\nshow pools\nhelp\nunwatch 1\nunwatch 2\nshow vrfs");
  EXPECT_EQ(agent.line(), "tarvo-agent: 26 operational records registered");
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
    {"--view best", "", 2, "best not in"},
    {"--config /nonexistent", "", 1, "/nonexistent: No such file"},
    {"--replay /nonexistent", "", 1, "/nonexistent: No such file"},
    {"--replay /nonexistent --listen 0", "vrf del A\nquit", 1, "no VRF 'A'"},
    {"", std::string("route add 10.0.0.0\0x/8", 22), 1, "expected a prefix"},
    {"--listen 127.0.0.1:x", "", 1, "127.0.0.1:x"},
    {"--command watch", "\nquit", 1, "--command 'watch':6: expected a number"},
    {"", "watch 1\nwatch 1\nquit", 1, "standard input:2: client 1 watches already"},
    {"", "vrf del A", 1, "no VRF 'A'"},
    {"", "vrf add A table 0 import 1:1", 1, "table 0"},
    {"", "vrf add A table 3758096384 import 1:1", 1, "the default table"},
    {"", "vrf add A table 1 import 1:1\nvrf add A table 2 import 1:1", 1, "'A' exists already"},
    {"", "vrf add A table 1 import 1:1\nvrf add B table 1 import 1:1", 1, "in use by VRF 'A'"},
    {"", "watch 4294967295", 1, "the agent's own"},
    {"", "unwatch 1", 1, "does not watch"},
    {"", "watch 1 A\nresend 1 B", 1, "watches 'A', not 'B'"},
    {"", "route add 1.0.0.0/8\nroute add 1.0.0.0/8", 1, "added already"},
    {"", "route del 1.0.0.0/8", 1, "not added here"},
    {"", "show nexthops A", 1, "no VRF 'A'"},
    {"", "show nexthops", 0, "discovery is inactive"},
    {"--json", "show nexthops", 0, R"("vrf":null,"nexthops":[]})"},
    {"", "show state", 1, "discovery is inactive: no client watches"},
    {"", "show prefix 10.1.2.3", 1, "discovery is inactive: no client watches"},
    {"", "watch 1\nshow nexthops", 0, "NEXT HOP  COVERING PREFIX  VRF  ROUTES\n"},
    {"", "watch 1\nshow prefix 10.1.2.3", 1, "no next hop 10.1.2.3"},
    {kReplay, "show prefix 10.255.2.2", 0, "\nTargetMask     24\nTargetAddress  10.255.2.0\n"},
    {kReplay, "show nexthop 10.255.1.1", 0, "\nVRF     ROUTES\nCUST-A       2\nCUST-B       1\n"},
    {"", std::string(70000, 'x') + "\nquit", 1, "standard input:1: the line has more than"},
    {kConfigured, "", 1, kConfig + ":2:5: expected", kTwoWrong},
    {kConfigured, "", 1, kConfig + ":4:7: expected", kTwoWrong},
    {kConfigured, "", 1, kConfig + ":2: route 1.0.0.0/8",
     "route add 1.0.0.0/8\nroute add 1.0.0.0/8"},
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
  read_until("\"REMOVE\"");
  pclose(router);
  for (int removed = 0; removed < 7; ++removed)  // four PEs for client 1, three for client 2
    EXPECT_TRUE(event_of(json::parse(agent.line())).starts_with("REMOVE"));
  agent.terminate();
  EXPECT_EQ(agent.rest(), "");
  EXPECT_EQ(agent.end(), 0);
}

// More than a pipe holds: the agent is still writing when nobody reads any more.
TEST(Agent, EndsWhenItsReaderLeaves) {
  std::string input;
  for (int i = 0; i < 1000; ++i) input += "help\n";
  EXPECT_EQ(child("--listen 0", input).end(), 0);
}

}  // namespace
