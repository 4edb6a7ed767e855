// The agent as its operator sees it: the built program, its lines, its exit status.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

namespace {

using nlohmann::json;
using strings = std::vector<std::string>;

const std::string kExample = EXAMPLES "/two-vpns";

/// The agent as a child with pipes for its standard descriptors.
class child {
 public:
  explicit child(const strings &arguments) {
    std::array<std::array<int, 2>, 3> pipes;
    for (auto &p : pipes) EXPECT_EQ(pipe2(p.data(), O_CLOEXEC), 0);
    pid_ = fork();
    if (pid_ == 0) {
      dup2(pipes[0][0], 0);
      dup2(pipes[1][1], 1);
      dup2(pipes[2][1], 2);
      std::vector<char *> argv{const_cast<char *>(AGENT)};
      for (const std::string &a : arguments) argv.push_back(const_cast<char *>(a.c_str()));
      argv.push_back(nullptr);
      execv(AGENT, argv.data());
      _exit(127);
    }
    close(pipes[0][0]);
    close(pipes[1][1]);
    close(pipes[2][1]);
    in_ = pipes[0][1];
    out_ = fdopen(pipes[1][0], "r");
    err_ = fdopen(pipes[2][0], "r");
  }
  ~child() {
    if (pid_ > 0) kill(pid_, SIGKILL), wait_end();
    fclose(out_);
    fclose(err_);
  }

  void type(const std::string &text) {
    EXPECT_EQ(write(in_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  void end_input() { close(in_); }
  void signal(int number) { kill(pid_, number); }
  std::string out_line() { return line(out_); }
  std::string err_line() { return line(err_); }
  std::string out_rest() { return rest(out_); }
  std::string err_rest() { return rest(err_); }
  /// Its exit status, or -1 when it did not exit.
  int wait_end() {
    int status = 0;
    waitpid(std::exchange(pid_, -1), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  static std::string line(FILE *from) {
    std::string text;
    for (int c; (c = getc(from)) != EOF && c != '\n';) text += static_cast<char>(c);
    return text;
  }
  static std::string rest(FILE *from) {
    std::string text;
    for (int c; (c = getc(from)) != EOF;) text += static_cast<char>(c);
    return text;
  }

  pid_t pid_ = -1;
  int in_ = -1;
  FILE *out_ = nullptr;
  FILE *err_ = nullptr;
};

/// "ADD 1 10.255.1.1 10.255.1.1/32": an event without its number and time.
std::string event_of(const json &line) {
  std::string text = line["event"].get<std::string>() + ' ' + line["client"].dump();
  if (line.contains("nexthop")) {
    text += ' ' + line["nexthop"].get<std::string>() + ' ' + line["prefix"].get<std::string>();
  }
  return text + (line["vrf"].is_null() ? "" : ' ' + line["vrf"].get<std::string>());
}

TEST(Agent, TellsTheStoryOfTheExample) {
  child agent({"--json", "--config", kExample + ".conf", "--replay", kExample + ".bmp",
               "--command=show vrfs", "--command=route del 10.255.5.5/32", "--command=rib restart",
               "--command=show nexthops", "--command=show nexthops CUST-B",
               "--command=show sessions"});
  agent.type("resend 2\nshow pools\nhelp");
  agent.end_input();

  strings events;
  std::map<std::string, json> shows;
  uint64_t seq = 0;
  for (std::istringstream lines(agent.out_rest()); !lines.eof();) {
    std::string text;
    if (!std::getline(lines, text)) break;
    const json line = json::parse(text);
    EXPECT_EQ(line["schema"], 1);
    if (line.contains("show")) {
      const std::string vrf = line.value("vrf", json()).is_string() ? " of a VRF" : "";
      shows[line["show"].get<std::string>() + vrf] = line;
      continue;
    }
    EXPECT_EQ(line["seq"], ++seq);
    EXPECT_EQ(line["time"].get<std::string>().size(),
              std::string("2026-11-24T19:30:00.123Z").size());
    events.push_back(event_of(line));
  }
  EXPECT_EQ(agent.err_rest(), "");
  EXPECT_EQ(agent.wait_end(), 0);

  EXPECT_EQ(events, (strings{
                        "END 1",
                        "END 2 CUST-A",
                        "ADD 1 10.255.1.1 10.255.1.1/32",
                        "ADD 2 10.255.1.1 10.255.1.1/32 CUST-A",
                        "ADD 1 10.255.2.2 10.255.2.0/24",
                        "ADD 2 10.255.2.2 10.255.2.0/24 CUST-A",
                        "ADD 1 10.255.3.3 10.255.3.3/32",
                        "ADD 2 10.255.3.3 10.255.3.3/32 CUST-A",
                        "ADD 1 10.255.4.4 10.255.4.4/32",
                        "ADD 1 10.255.5.5 10.255.5.5/32",
                        "REMOVE 1 10.255.4.4 10.255.4.4/32",
                        "REMOVE 1 10.255.5.5 10.255.5.5/32",
                        "ADD 2 10.255.1.1 10.255.1.1/32 CUST-A",
                        "ADD 2 10.255.2.2 10.255.2.0/24 CUST-A",
                        "ADD 2 10.255.3.3 10.255.3.3/32 CUST-A",
                        "RESEND_END 2 CUST-A",
                    }));
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
  EXPECT_EQ(shows["nexthops of a VRF"]["nexthops"].size(), 3u);
  EXPECT_EQ(shows["sessions"]["sessions"][0]["malformed"], json::object());
  EXPECT_FALSE(shows["pools"]["pools"].empty());
  EXPECT_FALSE(shows["help"]["help"].empty());
}

const struct {
  strings arguments;
  std::string input;
  int status;
  const char *error;  ///< a part of standard error
} kRefusals[] = {
    {{"--view", "best"}, "", 2, "best not in"},
    {{"--config", "/nonexistent"}, "", 1, "/nonexistent: No such file"},
    {{"--replay", "/nonexistent"}, "", 1, "/nonexistent: No such file"},
    {{"--replay", "/nonexistent", "--listen", "127.0.0.1:0"}, "vrf del A\nquit", 1, "no VRF 'A'"},
    {{}, std::string("route add 10.0.0.0\0x/8", 22), 1, "expected a prefix"},
    {{"--listen", "127.0.0.1:x"}, "", 1, "127.0.0.1:x"},
    {{"--command", "watch"}, "\nquit", 1, "--command 'watch':6: expected a number"},
    {{}, "watch 1\nwatch 1\nquit", 1, "standard input:2: client 1 watches already"},
    {{}, "vrf del A", 1, "no VRF 'A'"},
    {{}, "vrf add A table 0 import 1:1", 1, "table 0"},
    {{}, "vrf add A table 3758096384 import 1:1", 1, "the default table"},
    {{}, "vrf add A table 1 import 1:1\nvrf add A table 2 import 1:1", 1, "'A' exists already"},
    {{}, "vrf add A table 1 import 1:1\nvrf add B table 1 import 1:1", 1, "in use by VRF 'A'"},
    {{}, "watch 4294967295", 1, "the agent's own"},
    {{}, "unwatch 1", 1, "does not watch"},
    {{}, "watch 1 A\nresend 1 B", 1, "watches 'A', not 'B'"},
    {{}, "route add 1.0.0.0/8\nroute add 1.0.0.0/8", 1, "added already"},
    {{}, "route del 1.0.0.0/8", 1, "not added here"},
    {{}, "show nexthops A", 1, "no VRF 'A'"},
    {{}, std::string(70000, 'x') + "\nquit", 1, "standard input:1: the line has more than"},
};

TEST(Agent, RefusesAndGoesOn) {
  for (const auto &row : kRefusals) {
    child agent(row.arguments);
    agent.type(row.input);
    agent.end_input();
    const std::string out = agent.out_rest(), error = agent.err_rest();
    EXPECT_NE(error.find(row.error), std::string::npos) << row.error << "\n" << error;
    EXPECT_EQ(agent.wait_end(), row.status) << row.error;
    EXPECT_TRUE(!row.input.ends_with("\nquit") || out.find("> quit") != std::string::npos);
  }
}

TEST(Agent, BadStartUpFileStopsTheStart) {
  const std::string path = testing::TempDir() + "agent_test_" + std::to_string(getpid()) + ".conf";
  const struct {
    const char *text;
    strings errors;
  } rows[] = {
      {"watch 1\nvrf ad A\n\nwatch x\n", {path + ":2:5: expected", path + ":4:7: expected"}},
      {"# twice\nroute add 1.0.0.0/8\nroute add 1.0.0.0/8\n", {path + ":3: route 1.0.0.0/8"}},
  };
  for (const auto &row : rows) {
    std::ofstream(path) << row.text;
    child agent({"--config", path, "--command", "help"});
    agent.end_input();
    const std::string error = agent.err_rest();
    for (const std::string &e : row.errors) EXPECT_NE(error.find(e), std::string::npos) << error;
    EXPECT_EQ(agent.out_rest(), "");  // nothing ran
    EXPECT_EQ(agent.wait_end(), 1);
  }
  unlink(path.c_str());
}

int connect_to(const std::string &port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(std::stoi(port)));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
  return fd;
}

TEST(Agent, LearnsFromARouterUntilItIsGone) {
  child agent({"--json", "--config", kExample + ".conf", "--listen", "0"});
  agent.end_input();
  const std::string listening = agent.err_line();
  const int router = connect_to(listening.substr(listening.rfind(':') + 1));
  std::ostringstream stream;
  stream << std::ifstream(kExample + ".bmp").rdbuf();
  ASSERT_EQ(write(router, stream.str().data(), stream.str().size()),
            static_cast<ssize_t>(stream.str().size()));

  strings events;
  const auto read_until = [&](const std::string &last) {
    while (events.empty() || events.back() != last) {
      const std::string line = agent.out_line();
      ASSERT_NE(line, "") << "no " << last;
      events.push_back(event_of(json::parse(line)));
    }
  };
  read_until("REMOVE 1 10.255.4.4 10.255.4.4/32");
  close(router);
  events.clear();
  for (int removed = 0; removed < 7; ++removed) {  // four PEs for client 1, three for client 2
    events.push_back(event_of(json::parse(agent.out_line())));
    EXPECT_TRUE(events.back().starts_with("REMOVE")) << events.back();
  }
  agent.signal(SIGTERM);
  EXPECT_EQ(agent.out_rest(), "");
  EXPECT_EQ(agent.wait_end(), 0);
}

TEST(Agent, EndsWhenItsReaderLeaves) {
  std::array<int, 2> unread;
  ASSERT_EQ(pipe2(unread.data(), O_CLOEXEC), 0);
  close(unread[0]);
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(unread[1], 1);
    execl(AGENT, AGENT, "--listen", "0", "--command", "help", nullptr);
    _exit(127);
  }
  close(unread[1]);
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
