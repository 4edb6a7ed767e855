#include "agent/connect.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstring>
#include <optional>
#include <vector>

#include "agent/command.h"
#include "agent/control.h"
#include "agent/descriptor.h"
#include "agent/json.h"
#include "agent/line_reader.h"
#include "agent/output.h"
#include "agent/program.h"
#include "agent/prompt.h"
#include "agent/text.h"

namespace agent {

namespace {

struct answer {
  std::vector<std::string> lines;
  command_error error;  ///< why the command was refused, if it was
};

class connected {
 public:
  connected(const std::string &path, bool as_json)
      : path_(path), json_(as_json), fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {}

  int fd() const { return fd_.number; }

  /// False: nobody takes commands there, which was told.
  bool open() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    errno = ENAMETOOLONG;
    const bool fits = path_.size() < sizeof address.sun_path;
    if (fits) memcpy(address.sun_path, path_.data(), path_.size());
    if (!fits || connect(fd(), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
      complain(name_ + (errno == ECONNREFUSED ? "no agent listens there" : strerror(errno)));
      return false;
    }
    if (!json_) return true;
    answer got;
    if (!ask("json", got)) return false;
    if (!got.error.text.empty()) complain(name_ + got.error.text);
    return got.error.text.empty();
  }

  /// False: the connection is at its end, which was told; or a signal came.
  bool ask(std::string line, answer &to) {
    std::ranges::replace(line, '\n', ' ');
    line += '\n';
    for (std::string_view rest = line; !rest.empty();) {
      const ssize_t sent = send(fd(), rest.data(), rest.size(), MSG_NOSIGNAL);
      if (sent < 0) break;  // there may be a last word to read
      rest.remove_prefix(static_cast<size_t>(sent));
    }
    for (bool more = true; more;) {
      while (const auto got = in_.next()) {
        if (got->empty()) return settle(to);
        to.lines.push_back(*got);
      }
      if (!await_answer()) return false;
      more = in_.read_some();
    }
    complain(name_ + "the agent closed the connection");
    return false;
  }

  /// Questions are given up once a signal can be read from this descriptor.
  void give_up_by(int signals) { signals_ = signals; }

  /// The names that the agent knows, for completion.
  std::vector<std::string> vrf_names() {
    answer shown;
    std::vector<std::string> names;
    if (!ask("show vrfs", shown) || !shown.error.text.empty()) return names;
    if (shown.lines.empty()) return names;
    if (!shown.lines.front().starts_with('{')) {
      for (size_t i = 1; i < shown.lines.size(); ++i)
        names.push_back(shown.lines[i].substr(0, shown.lines[i].find(' ')));
      return names;
    }
    const json object = json::parse(shown.lines.front(), nullptr, false);
    if (!object.is_object()) return names;
    for (const json &vrf : object.value("vrfs", json::array()))
      names.push_back(vrf.value("vrf", std::string()));
    return names;
  }

 private:
  /// False: a signal came first.
  bool await_answer() const {
    std::array<pollfd, 2> fds{{{signals_, POLLIN, 0}, {fd(), POLLIN, 0}}};
    while (poll(fds.data(), fds.size(), -1) < 0) {
    }
    return fds[0].revents == 0;
  }

  /// Takes an error out of the lines; its object stays among them.
  bool settle(answer &of) const {
    if (of.lines.empty()) return true;
    constexpr std::string_view kError = "error: ";
    std::string_view first = of.lines.front();
    if (first.starts_with(kError)) {  // also before the agent knows of the other form
      first.remove_prefix(kError.size());
      of.error = read_error(first);
      of.lines.clear();
    } else if (first.starts_with('{')) {
      const json object = json::parse(first, nullptr, false);
      if (!object.is_object()) return true;
      const json column = object.value("column", json());
      of.error = {column.is_number() ? column.get<size_t>() : 0,
                  object.value("error", std::string())};
    }
    return true;
  }

  /// Reads "column 3: TEXT", or TEXT alone.
  static command_error read_error(std::string_view text) {
    constexpr std::string_view kColumn = "column ", kEnd = ": ";
    size_t column = 0;
    const char *const last = text.data() + text.size();
    if (!text.starts_with(kColumn)) return {0, std::string(text)};
    const auto [stop, wrong] = std::from_chars(text.data() + kColumn.size(), last, column);
    const std::string_view rest(stop, static_cast<size_t>(last - stop));
    if (wrong != std::errc() || !rest.starts_with(kEnd)) return {0, std::string(text)};
    return {column, std::string(rest.substr(kEnd.size()))};
  }

  const std::string path_;
  const std::string name_ = "control socket " + path_ + ": ";
  const bool json_;
  const descriptor fd_;
  int signals_ = -1;
  line_reader in_{fd_.number, 2 * control::kMaxUnsent};  // the agent keeps no longer line for us
};

class session {
 public:
  explicit session(const options &given) : given_(given), agent_(given.connect, given.json) {}

  int run() {
    if (!agent_.open()) return 1;
    if (given_.commands.empty() && prompt::possible()) return at_prompt();
    for (const std::string &line : given_.commands)
      if (!run_line("--command '" + printable(line) + "'", 0, line)) break;
    if (given_.commands.empty()) run_input();
    return failed_ ? 1 : 0;
  }

 private:
  /// False: no further line is run.
  bool run_line(const std::string &source, size_t number, const std::string &line) {
    answer got;
    if (!agent_.ask(line, got)) {
      failed_ = true;
      return false;
    }
    const bool refused = !got.error.text.empty();
    if (refused) complain(place_text(source, number, got.error.column) + got.error.text);
    failed_ |= refused;
    std::string text;
    for (const std::string &each : got.lines) text += each + '\n';
    const int error = write_to(STDOUT_FILENO)(text);
    if (error != 0 && error != EPIPE) complain(std::string("standard output: ") + strerror(error));
    failed_ |= error != 0 && error != EPIPE;
    return error == 0 && !is_quit(line);
  }

  static bool is_quit(const std::string &line) {
    const auto parsed = parse_command(line);
    const auto *c = std::get_if<command>(&parsed);
    return c != nullptr && c->what == verb::quit;
  }

  void run_input() {
    // A line that is cut there is still too long for the agent, who says so.
    line_reader input(STDIN_FILENO, line_reader::kMaxLine + 1);
    for (bool more = true; more;) {
      more = input.read_some();
      while (const auto line = input.next()) {
        if (!run_line("standard input", input.number(), *line)) return;
      }
    }
  }

  int at_prompt() {
    prompt terminal(
        [this](std::string_view line) { return complete_command(line, agent_.vrf_names()); });
    // While the prompt is there the terminal is not in its ordinary mode, which a signal must give
    // back; while a command runs the signal just ends the process.
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGINT);
    sigaddset(&ending, SIGTERM);
    const descriptor signals(signalfd(-1, &ending, SFD_CLOEXEC));
    agent_.give_up_by(signals.number);
    for (bool going_on = true; going_on;) {
      sigprocmask(SIG_BLOCK, &ending, nullptr);
      terminal.show();
      const auto line = read_line(terminal, signals.number);
      terminal.hide();
      sigprocmask(SIG_UNBLOCK, &ending, nullptr);
      if (!line) break;
      going_on = run_line(given_.connect, 0, *line);
      if (!going_on && !is_quit(*line)) return 1;
    }
    return 0;  // a person saw the errors
  }

  /// Nothing: the end of input, a signal, or the agent has ended.
  std::optional<std::string> read_line(prompt &terminal, int signals) {
    std::array<pollfd, 3> fds{
        {{signals, POLLIN, 0}, {agent_.fd(), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}}};
    for (;;) {
      if (poll(fds.data(), fds.size(), -1) < 0) continue;
      if (fds[0].revents != 0) return std::nullopt;
      if (fds[1].revents != 0) return "";  // asking finds the connection closed, and tells
      std::optional<std::string> line;
      if (terminal.read_key(line)) return line;
    }
  }

  const options &given_;
  connected agent_;
  bool failed_ = false;
};

}  // namespace

int run_connected(const options &given) { return session(given).run(); }

}  // namespace agent
