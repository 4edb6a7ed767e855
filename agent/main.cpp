// tarvo-agent: runs the discovery module on a BMP feed, and clients on the module.
//
// The main thread reads and runs commands. Beside it there are the event manager's thread, the
// RIB's, the output's writer, and the module's own. All but the module's end before main returns;
// the module has no shutdown, so it is left without clients, and its event manager stays.
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "agent/agent_services.h"
#include "agent/bmp_station.h"
#include "agent/clients.h"
#include "agent/command.h"
#include "agent/diagnostics.h"
#include "agent/fence.h"
#include "agent/global_table.h"
#include "agent/interpreter.h"
#include "agent/line_reader.h"
#include "agent/output.h"
#include "agent/prompt.h"
#include "agent/redistribution.h"
#include "agent/rib.h"
#include "agent/rib_thread.h"
#include "agent/text.h"
#include "platform/bag.h"
#include "platform/event.h"
#include "platform/thread_diag.h"
#include "tarvo/discovery.h"
#include "tarvo/oper_records.h"

namespace agent {
namespace {

struct options {
  std::string config;
  std::string replay;
  std::vector<std::string> listen;
  std::vector<std::string> commands;
  bmp_view view = bmp_view::loc_rib;
  bool json = false;
  uint32_t idle = bmp_station::kIdle.count();
};

void complain(const std::string &text) { fprintf(stderr, "tarvo-agent: %s\n", text.c_str()); }

// ---- The start-up file ----

struct config_line {
  size_t number;
  command what;
};

/// False: the file can't be read or a line is wrong; each wrong line was told.
bool read_config(const std::string &path, std::vector<config_line> &lines) {
  std::ifstream file(path);
  std::string text;
  bool good = file.is_open();
  for (size_t number = 1; std::getline(file, text); ++number) {
    const auto parsed = parse_command(text);
    if (const auto *error = std::get_if<command_error>(&parsed)) {
      complain(path + ':' + std::to_string(number) + ':' + std::to_string(error->column) + ": " +
               error->text);
      good = false;
    } else {
      lines.push_back({number, std::get<command>(parsed)});
    }
  }
  if (!file.is_open() || file.bad()) {
    complain(path + ": " + strerror(errno));
    return false;
  }
  return good;
}

// ---- Ending: a signal or a closed output wakes the main thread ----

int wake_fd = -1;
volatile sig_atomic_t signalled = 0;

void wake_main() {
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = write(wake_fd, &one, sizeof one);
}

void on_signal(int) {
  const int saved = errno;
  signalled = 1;
  wake_main();
  errno = saved;
}

/// The second signal ends the process at once: the first may be waiting for a reader of standard
/// output who stopped reading.
void end_on_signals() {
  struct sigaction action {};
  action.sa_handler = on_signal;
  action.sa_flags = static_cast<int>(SA_RESETHAND | SA_RESTART);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

/// Tells what a start-up code other than 0 means.
bool succeeded(const char *otherwise, uint32_t code) {
  if (code != 0) complain(std::string(otherwise) + ": " + code_text(code));
  return code == 0;
}

/// Descriptors 0 to 2 that came closed would be taken by the first ones that the agent opens.
void occupy_standard_descriptors() {
  int fd = open("/dev/null", O_RDWR);
  while (fd >= 0 && fd <= STDERR_FILENO) fd = open("/dev/null", O_RDWR);
  if (fd >= 0) close(fd);
}

// ---- The event manager on its own thread ----

/// It is dispatched until the process ends. Null with errno set when there is none.
void *start_event_manager() {
  void *mgr = event_mgr_create();
  if (mgr == nullptr) return nullptr;
  std::thread([mgr] {
    set_thread_name("events", pthread_self());
    event_mgr_dispatch(mgr);
  }).detach();
  return mgr;
}

// ---- The agent ----

class agent_program {
 public:
  explicit agent_program(const options &from)
      : options_(from),
        terminal_([this](std::string_view line) {
          return complete_command(line, commands_.vrf_names());
        }),
        out_(
            from.json,
            [this, to_stdout = write_to(STDOUT_FILENO)](std::string_view lines) {
              return terminal_.print_above([&] { return to_stdout(lines); });
            },
            wake_main),
        reports_(pace_),
        routes_(global_, reports_),
        loop_(routes_, reports_, pace_),
        station_(routes_, loop_, from.view, std::chrono::seconds(from.idle)),
        watchers_(loop_, pace_, out_),
        commands_({routes_, loop_, global_, station_, watchers_, out_}) {}

  /// The exit status.
  int run(const std::vector<config_line> &config) {
    if (!start_module() || !run_config(config)) return 1;
    if (!ended()) run_input();
    watchers_.unwatch_all();
    out_.flush();
    const int error = out_.error();
    if (error != 0 && error != EPIPE) {  // a reader who left had enough: no failure
      complain(std::string("standard output: ") + strerror(error));
      failed_ = true;
    }
    return failed_ ? 1 : 0;
  }

 private:
  bool start_module() {
    void *events = start_event_manager();
    if (events == nullptr) {
      complain(std::string("event manager: ") + strerror(errno));
      return false;
    }
    install_services(reports_, global_);
    if (!succeeded("the module did not start", tarvo_nd_init(events))) return false;
    if (!succeeded("the operational records were not registered",
                   bag_register_all_manageability_tarvo_oper_bags(nullptr))) {
      return false;
    }
    complain(std::to_string(bag_registered_count()) + " operational records registered");
    return true;
  }

  bool run_config(const std::vector<config_line> &config) {
    for (const config_line &line : config) {
      if (ended()) return true;
      const std::string error = commands_.run(line.what);
      if (error.empty()) continue;
      out_.flush();
      complain(options_.config + ':' + std::to_string(line.number) + ": " + error);
      watchers_.unwatch_all();
      return false;
    }
    return true;
  }

  void run_input() {
    if (!options_.replay.empty()) {
      note(station_.replay(options_.replay));
      loop_.settle();
    }
    end_on_signals();  // until here there is nothing that a signal should not just end
    for (const std::string &address : options_.listen) {
      const std::string error = station_.listen(address);
      note(error);
      if (!error.empty()) return;
    }
    for (const std::string &line : options_.commands) {
      if (ended()) return;
      run_line("--command '" + line + "'", line);
    }
    if (prompt::possible()) {
      prompt_loop();
    } else {
      pipe_loop();
    }
  }

  bool ended() const { return commands_.quit() || signalled != 0 || out_.closed(); }

  void note(const std::string &error) {
    if (error.empty()) return;
    failed_ = true;
    out_.flush();
    complain(error);
  }

  /// An empty string, or what is wrong and where.
  std::string execute(const std::string &where, const std::string &line) {
    try {
      const auto parsed = parse_command(line);
      if (const auto *error = std::get_if<command_error>(&parsed)) {
        return where + ':' + std::to_string(error->column) + ": " + error->text;
      }
      const std::string refused = commands_.run(std::get<command>(parsed));
      return refused.empty() ? refused : where + ": " + refused;
    } catch (const std::bad_alloc &) {
      return where + ": out of memory";
    }
  }

  /// The line is shown before what it prints, so that the output reads like a dialogue.
  void run_line(const std::string &where, const std::string &line) {
    if (!options_.json) out_.print("> " + printable(line) + '\n');
    note(execute(where, line));
  }

  /// Waits for standard input; false: the agent is to end.
  bool await_input(bool input_open) {
    std::array<pollfd, 2> fds{{{wake_fd, POLLIN, 0}, {input_open ? STDIN_FILENO : -1, POLLIN, 0}}};
    while (!ended()) {
      if (poll_or_tell(fds, -1, told_poll_) == 0) continue;
      if (fds[0].revents != 0) return false;
      if (fds[1].revents != 0) return true;
    }
    return false;
  }

  /// Without a router to listen to, the agent ends with its commands.
  void await_end() {
    if (options_.listen.empty()) return;
    complain("standard input is at its end; listening until SIGINT or SIGTERM");
    await_input(false);
  }

  void pipe_loop() {
    line_reader input(STDIN_FILENO);
    while (await_input(true)) {
      const bool more = input.read_some();
      while (const auto line = input.next()) {
        if (ended()) return;
        const std::string where = "standard input:" + std::to_string(input.number());
        if (input.too_long()) {
          note(where + ": the line has more than " + std::to_string(line_reader::kMaxLine) +
               " characters");
        } else {
          run_line(where, *line);
        }
      }
      if (!more) return await_end();
    }
  }

  void prompt_loop() {
    terminal_.show();
    while (await_input(true)) {
      std::optional<std::string> line;
      if (!terminal_.read_key(line)) continue;
      if (!line) return await_end();
      // A person sees the error and corrects it: no reason to call the run a failure.
      const std::string error = execute("standard input", *line);
      if (!error.empty()) complain(error);
      if (!ended()) terminal_.show();
    }
    terminal_.hide();
  }

  const options &options_;
  bool failed_ = false;
  bool told_poll_ = false;

  // In the order they need each other.
  prompt terminal_;
  output out_;
  fence pace_;
  global_table global_;
  redistribution reports_;
  rib routes_;
  rib_thread loop_;
  bmp_station station_;
  clients watchers_;
  interpreter commands_;
};

const std::map<std::string, bmp_view> kViews = {{"loc-rib", bmp_view::loc_rib},
                                                {"post-policy", bmp_view::post_policy},
                                                {"pre-policy", bmp_view::pre_policy}};

void describe(CLI::App &app, options &into) {
  app.set_version_flag("--version", "tarvo-agent " TARVO_VERSION);
  app.add_option("--config", into.config, "Start-up file: commands, run before all else")
      ->type_name("FILE");
  app.add_option("--replay", into.replay, "Read a recorded BMP stream")->type_name("FILE");
  app.add_option("--listen", into.listen, "Accept BMP routers (repeatable)")
      ->type_name("[ADDRESS:]PORT")
      ->allow_extra_args(false);
  app.add_option_function<std::string>(
         "--view", [&into](const std::string &name) { into.view = kViews.at(name); },
         "The view of its routes to learn from a router (loc-rib if not given)")
      ->check(CLI::IsMember(&kViews).description("loc-rib|post-policy|pre-policy"));
  app.add_option("--idle", into.idle,
                 "Close a router that owes a message for so long (300; 0: never)")
      ->type_name("SECONDS");
  app.add_option("--command", into.commands, "Run a command, before standard input (repeatable)")
      ->type_name("LINE")
      ->allow_extra_args(false);
  app.add_flag("--json", into.json, "One JSON object a line on standard output");
  app.footer(
      "Commands come from --config, then --command, then standard input; `help` lists them.\n"
      "With --listen the agent runs until a signal or `quit`; else it ends with its commands.");
}

}  // namespace
}  // namespace agent

int main(int argc, char **argv) {
  using namespace agent;
  occupy_standard_descriptors();
  signal(SIGPIPE, SIG_IGN);

  options given;
  CLI::App app("Discovers the remote PE routers of MPLS VPNs from BMP feeds.", "tarvo-agent");
  describe(app, given);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &e) {
    return app.exit(e) == 0 ? 0 : 2;
  }

  std::vector<config_line> config;
  if (!given.config.empty() && !read_config(given.config, config)) return 1;

  wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wake_fd < 0) {
    complain(std::string("eventfd: ") + strerror(errno));
    return 1;
  }
  // Never destroyed: the module's worker outlives main() and may still call the agent's services.
  static agent_program &program = *new agent_program(given);
  return program.run(config);
}
