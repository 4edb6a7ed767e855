// The main thread reads the recording, then commands; those of the control socket it runs
// meanwhile. Beside it there are the event manager's thread, the RIB's, the output's writer, and
// the module's own; the metrics' server and the watchdog's when asked for. All but the module's end
// before the main thread does; the module has no shutdown, so it is left without clients, and its
// event manager stays.
#include "agent/program.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <new>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "agent/agent_services.h"
#include "agent/bmp_station.h"
#include "agent/clients.h"
#include "agent/command.h"
#include "agent/control.h"
#include "agent/diagnostics.h"
#include "agent/fence.h"
#include "agent/global_table.h"
#include "agent/interpreter.h"
#include "agent/line_reader.h"
#include "agent/metrics.h"
#include "agent/metrics_server.h"
#include "agent/output.h"
#include "agent/progress.h"
#include "agent/prompt.h"
#include "agent/redistribution.h"
#include "agent/rib.h"
#include "agent/rib_thread.h"
#include "agent/service_manager.h"
#include "agent/text.h"
#include "platform/event.h"
#include "platform/thread_diag.h"
#include "tarvo/discovery.h"
#include "tarvo/oper_records.h"

namespace agent {

namespace {

// ---- Ending: a signal or a closed output wakes the main thread ----

int wake_fd = -1;
volatile sig_atomic_t signalled = 0;  ///< which one came

constexpr std::pair<int, const char *> kEnding[] = {
    {SIGHUP, "SIGHUP"}, {SIGINT, "SIGINT"}, {SIGTERM, "SIGTERM"}};

void wake_main() {
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = write(wake_fd, &one, sizeof one);
}

void on_signal(int number) {
  const int saved = errno;
  signalled = number;
  wake_main();
  errno = saved;
}

/// The second signal ends the process at once: the first may be waiting for a reader of standard
/// output who stopped reading. Who ignores SIGHUP, as nohup does, means to outlive the terminal.
void end_on_signals() {
  struct sigaction action {};
  action.sa_handler = on_signal;
  action.sa_flags = static_cast<int>(SA_RESETHAND | SA_RESTART);
  struct sigaction before {};
  for (const auto &[number, name] : kEnding) {
    sigaction(number, nullptr, &before);
    if (number != SIGHUP || before.sa_handler != SIG_IGN) sigaction(number, &action, nullptr);
  }
}

/// A line on standard error, whose reader must not keep the agent from its work.
void tell_error(std::string_view text) noexcept { diagnose(text, "tarvo-agent: "); }

void tell_signal() {
  for (const auto &[number, name] : kEnding)
    if (signalled == number) tell_error(std::string("ended by ") + name);
}

/// Tells what a start-up code other than 0 means.
bool succeeded(const char *otherwise, uint32_t code) {
  if (code != 0) tell_error(std::string(otherwise) + ": " + code_text(code));
  return code == 0;
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
        commands_({routes_, loop_, global_, station_, watchers_, reports_}),
        control_([this](const std::string &line, show_as as) { return answer_to(line, as); }),
        metrics_([this] {
          return metrics_page({routes_, loop_, station_, out_});
        }) {
    loop_.tell_progress_to(dumps_);
    polled_.reserve(kControl + 1 + control::kMaxClients);  // waiting never allocates
  }

  /// The exit status.
  int run(const std::vector<start_line> &config) {
    if (!start_module() || !run_config(config)) return 1;
    if (!ended()) run_input();
    tell_signal();
    notify_service("STOPPING=1");
    watchdog_.reset();
    control_.close();
    metrics_.close();
    watchers_.unwatch_all();
    out_.flush();
    const int error = out_.error();
    if (error != 0 && error != EPIPE) {  // a reader who left had enough: no failure
      tell_error(std::string("standard output: ") + strerror(error));
      failed_ = true;
    }
    return failed_ ? 1 : 0;
  }

 private:
  bool start_module() {
    void *events = start_event_manager();
    if (events == nullptr) {
      tell_error(std::string("event manager: ") + strerror(errno));
      return false;
    }
    install_services(reports_, global_);
    if (!succeeded("the module did not start", tarvo_nd_init(events))) return false;
    return succeeded("the operational records were not registered",
                     bag_register_all_manageability_tarvo_oper_bags(nullptr));
  }

  bool run_config(const std::vector<start_line> &config) {
    for (const start_line &line : config) {
      if (ended()) return true;
      const std::string error = tell(options_.config, line.number, run_command(line.what, form()));
      quit_ |= line.what.what == verb::quit;
      if (error.empty()) continue;
      out_.flush();
      tell_error(error);
      watchers_.unwatch_all();
      return false;
    }
    return true;
  }

  /// For who looks at the agent. False: something can't be listened on, which was told.
  bool open_to_operators() {
    std::string error;
    if (!options_.control.empty()) error = control_.open(options_.control, options_.control_mode);
    if (!error.empty()) error = "control socket " + error;
    if (error.empty() && !options_.metrics.empty()) error = metrics_.listen(options_.metrics);
    note(error);
    return error.empty();
  }

  bool open_to_routers() {
    std::string error;
    for (const std::string &address : options_.listen)
      if (error.empty()) error = station_.listen(address);
    note(error);
    return error.empty();
  }

  void tell_ready() {
    notify_service("READY=1\nSTATUS=" + std::to_string(commands_.vrf_names().size()) + " VRFs");
    const auto limit = watchdog_limit();
    if (limit.count() > 0) watchdog_.emplace(limit, [this] { return pace_.module_answers(); });
  }

  void replay() {
    notify_service("STATUS=reading " + printable(options_.replay));
    const std::string error =
        station_.replay(options_.replay, &replay_, [this](int fd) { return await_input(fd); });
    if (out_.closed()) return;  // a reader who left had enough of the recording too
    note(error);
    loop_.settle();
  }

  void run_input() {
    end_on_signals();  // until here there is nothing that a signal should not just end
    if (!open_to_operators()) return;
    if (!options_.replay.empty()) replay();
    if (ended() || !open_to_routers()) return;
    tell_ready();
    for (const std::string &line : options_.commands) {
      if (ended()) return;
      surviving("--command", [&] { run_line("--command '" + printable(line) + "'", 0, line); });
    }
    if (prompt::possible()) {
      prompt_loop();
    } else {
      pipe_loop();
    }
  }

  bool ended() const { return quit_ || signalled != 0 || out_.closed(); }

  void note(const std::string &error) {
    if (error.empty()) return;
    failed_ = true;
    out_.flush();
    tell_error(error);
  }

  progress progress_line() {
    return {isatty(STDERR_FILENO) != 0, std::chrono::steady_clock::now,
            [this](std::string_view text) {
              if (!terminal_.shown()) show_status(text);
            }};
  }

  show_as form() const { return out_.json() ? show_as::object : show_as::table; }

  control::answer run_command(const command &c, show_as as) {
    control::answer got;
    got.error = commands_.run(c, as, got.lines);
    got.leave = c.what == verb::quit;
    return got;
  }

  control::answer answer_to(const std::string &line, show_as as) {
    try {
      const auto parsed = parse_command(line);
      if (const auto *error = std::get_if<command_error>(&parsed)) return {"", *error, false};
      return run_command(std::get<command>(parsed), as);
    } catch (const std::bad_alloc &) {
      return {"", {0, kNoMemory}, false};
    }
  }

  /// Prints an answer; an empty string, or what is wrong and where.
  std::string tell(const std::string &source, size_t number, control::answer got) {
    const bool refused = !got.error.text.empty();
    if (refused && out_.json()) got.lines += show_refusal(show_as::object, got.error);
    if (!got.lines.empty()) out_.print(std::move(got.lines));
    return refused ? place_text(source, number, got.error.column) + got.error.text : "";
  }

  std::string execute(const std::string &source, size_t number, const std::string &line) {
    control::answer got = answer_to(line, form());
    quit_ |= got.leave;
    return tell(source, number, std::move(got));
  }

  /// The line is shown before what it prints, so that the output reads like a dialogue.
  void run_line(const std::string &source, size_t number, const std::string &line) {
    if (!options_.json) {
      std::string shown = line;
      std::ranges::replace(shown, '\t', ' ');
      out_.print("> " + printable(shown) + '\n');
    }
    note(execute(source, number, line));
  }

  /// Handles a line; where there is no memory for it, it is lost, and the agent goes on.
  template <typename Handle>
  void surviving(const char *source, Handle handle) {
    try {
      handle();
    } catch (const std::bad_alloc &) {
      failed_ = true;
      char line[80];
      snprintf(line, sizeof line, "tarvo-agent: %s: out of memory; a line was lost", source);
      diagnose(line);
    }
  }

  /// Waits until `fd` can be read (-1: never), and serves the control socket meanwhile; false: the
  /// agent is to end.
  bool await_input(int fd) {
    while (!ended()) {
      polled_.assign({{wake_fd, POLLIN, 0}, {fd, POLLIN, 0}});
      if (control_.is_open()) control_.add_polled(polled_);
      if (poll_or_tell(polled_, -1, told_poll_) == 0) continue;
      if (polled_[kWake].revents != 0) return false;
      if (control_.is_open()) control_.serve(std::span(polled_).subspan(kControl));
      if (polled_[kInput].revents != 0) return true;
    }
    return false;
  }

  /// With nobody to listen to, the agent ends with its commands.
  void await_end() {
    if (ended()) return;
    if (options_.listen.empty() && !control_.is_open() && !metrics_.is_open()) return;
    tell_error("standard input is at its end; listening until a signal or quit");
    await_input(-1);
  }

  void run_input_line(const line_reader &input, const std::string &line) {
    if (!input.too_long()) return run_line("standard input", input.number(), line);
    const command_error error{line_reader::kMaxLine + 1, line_reader::too_long_text()};
    note(tell("standard input", input.number(), {"", error, false}));
  }

  void run_input_lines(line_reader &input) {
    for (bool more = true; more && !ended();)
      surviving("standard input", [&] {
        const auto line = input.next();
        more = line.has_value();
        if (more) run_input_line(input, *line);
      });
  }

  void pipe_loop() {
    line_reader input(STDIN_FILENO);
    while (await_input(STDIN_FILENO)) {
      const bool more = input.read_some();
      run_input_lines(input);
      if (!more) return await_end();
    }
  }

  void prompt_loop() {
    terminal_.show();
    while (await_input(STDIN_FILENO)) {
      std::optional<std::string> line;
      if (!terminal_.read_key(line)) continue;
      if (!line) return await_end();
      // A person sees the error and corrects it: no reason to call the run a failure.
      surviving("standard input", [&] {
        const std::string error = execute("standard input", 0, *line);
        if (!error.empty()) tell_error(error);
      });
      if (!ended()) terminal_.show();
    }
    terminal_.hide();
  }

  // Places in what is polled.
  static constexpr size_t kWake = 0, kInput = 1, kControl = 2;

  const options &options_;
  bool failed_ = false;
  bool quit_ = false;
  bool told_poll_ = false;
  std::vector<pollfd> polled_;

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
  control control_;
  metrics_server metrics_;
  std::optional<watchdog> watchdog_;
  // A dump that the control socket asks for comes in the middle of the replay.
  progress replay_ = progress_line(), dumps_ = progress_line();
};

}  // namespace

void complain(std::string_view text) {
  fprintf(stderr, "tarvo-agent: %.*s\n", static_cast<int>(text.size()), text.data());
}

int run_agent(const options &given, const std::vector<start_line> &config) {
  wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wake_fd < 0) {
    complain(std::string("eventfd: ") + strerror(errno));
    return 1;
  }
  try {
    // Never destroyed: the module's worker outlives main() and may still call the agent's services.
    static agent_program &program = *new agent_program(given);
    return program.run(config);
  } catch (const std::bad_alloc &) {
    complain("out of memory");
  } catch (const std::system_error &failed) {  // no thread to start with
    complain(std::string("a thread: ") + failed.what());
  }
  return 1;
}

}  // namespace agent
