#include "agent/options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <map>
#include <utility>

#include "agent/endpoint.h"
#include "agent/program.h"

namespace agent {

namespace {

// ---- Values: a reader gives what is wrong, or nothing. ----

std::string read_view(const std::string &text, bmp_view &view) {
  static const std::map<std::string, bmp_view> kViews = {{"loc-rib", bmp_view::loc_rib},
                                                         {"post-policy", bmp_view::post_policy},
                                                         {"pre-policy", bmp_view::pre_policy}};
  const auto found = kViews.find(text);
  if (found == kViews.end()) return "'" + text + "' is not loc-rib, post-policy or pre-policy";
  view = found->second;
  return {};
}

std::string read_seconds(const std::string &text, uint32_t &seconds) {
  const char *end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, seconds);
  if (error == std::errc() && stop == end) return {};
  return "'" + text + "' is no number of seconds from 0 to 4294967295";
}

std::string read_mode(const std::string &text, mode_t &mode) {
  const char *end = text.data() + text.size();
  unsigned value = 0;
  const auto [stop, error] = std::from_chars(text.data(), end, value, 8);
  if (error != std::errc() || stop != end || value > 0777)
    return "'" + text + "' is no file mode as 0660";
  mode = value;
  return {};
}

std::string check_endpoint(const std::string &text) {
  sockaddr_in ignored;
  return parse_endpoint(text, ignored);
}

/// An option with a value that is refused while the command line is read.
template <typename T>
CLI::Option *add_read(CLI::App &app, const char *name,
                      std::string (*read)(const std::string &text, T &value), T &into,
                      const char *help) {
  return app
      .add_option_function<std::string>(
          name, [read, &into](const std::string &text) { read(text, into); }, help)
      ->check([read](const std::string &text) {
        T ignored;
        return read(text, ignored);
      });
}

void describe_agent(CLI::App &app, options &into) {
  app.add_option("--config", into.config, "Start-up file: commands, run before all else")
      ->type_name("FILE");
  app.add_option("--replay", into.replay, "Read a recorded BMP stream")->type_name("FILE");
  app.add_option("--listen", into.listen, "Accept BMP routers (repeatable)")
      ->type_name("[ADDRESS:]PORT")
      ->allow_extra_args(false)
      ->check(check_endpoint);
  add_read(app, "--view", read_view, into.view,
           "The view of its routes to learn from a router (loc-rib if not given)")
      ->type_name("loc-rib|post-policy|pre-policy");
  add_read(app, "--idle", read_seconds, into.idle,
           "Close a router that owes a message for so long (300; 0: never)")
      ->type_name("SECONDS");
  CLI::Option *control = app.add_option("--control", into.control, "Take commands on a UNIX socket")
                             ->type_name("PATH");
  add_read(app, "--control-mode", read_mode, into.control_mode,
           "Who may connect to it: its file mode (0600)")
      ->type_name("OCTAL")
      ->needs(control);
  app.add_option("--metrics", into.metrics, "Show figures to Prometheus, at /metrics over HTTP")
      ->type_name("[ADDRESS:]PORT")
      ->check(check_endpoint);
}

void refuse_both(const CLI::Option *one, const CLI::Option *other) {
  if (one->count() > 0 && other->count() > 0)
    throw CLI::ValidationError(one->get_name(), "can't go with " + other->get_name());
}

/// Each of these does its one job and runs no agent.
void describe_others(CLI::App &app, options &into) {
  const std::vector<CLI::Option *> agents = app.get_options([](const CLI::Option *option) {
    return option->get_name() != "--help" && option->get_name() != "--version";
  });
  CLI::Option *connect =
      app.add_option("--connect", into.connect, "Give commands to the agent with this socket")
          ->type_name("PATH");
  CLI::Option *check = app.add_option("--check-config", into.check_config,
                                      "Check a start-up file, tell all errors, run nothing")
                           ->type_name("FILE");
  CLI::Option *line = app.add_option("--command", into.commands,
                                     "Run a command, before standard input (repeatable)")
                          ->type_name("LINE")
                          ->allow_extra_args(false);
  const std::vector<const CLI::Option *> all = std::as_const(app).get_options();
  app.callback([=] {
    for (const CLI::Option *option : all)
      if (option->count() > 1 && option->get_expected_max() == 1)
        throw CLI::ValidationError(option->get_name(), "given twice");
    for (const CLI::Option *option : agents) {
      refuse_both(connect, option);
      refuse_both(check, option);
    }
    refuse_both(check, connect);
    refuse_both(check, line);
  });
  app.add_flag("--json", into.json, "One JSON object a line on standard output")
      ->disable_flag_override();
}

}  // namespace

// The library's own words for these are about counts and conversions.
static std::string plain_text(const CLI::ParseError &e) {
  std::string text = e.what();
  const size_t flag_with_value = text.find(" was given a disallowed flag override");
  if (flag_with_value != text.npos)
    return "--" + text.substr(0, flag_with_value) + " takes no value; --help tells more";
  if (e.get_exit_code() == static_cast<int>(CLI::ExitCodes::ArgumentMismatch))
    text = text.substr(0, text.find(':')) + ": its value is missing";
  return text + "; --help tells more";
}

bool read_options(int argc, char **argv, options &into, int &status) {
  CLI::App app("Discovers the remote PE routers of MPLS VPNs from BMP feeds.", "tarvo-agent");
  app.set_version_flag("--version", "tarvo-agent " TARVO_VERSION);
  // Or the library would refuse the second one, in its own words.
  app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  describe_agent(app, into);
  describe_others(app, into);
  // As when a script's variable is not set; without its file each would do something else.
  for (const char *name : {"--config", "--check-config", "--replay", "--control", "--connect"})
    app.get_option(name)->check(
        [](const std::string &path) { return path.empty() ? "no name" : ""; });
  app.footer(
      "Commands come from --config, then --command, then standard input; `help` lists them.\n"
      "With --listen, --control or --metrics the agent runs until a signal or `quit`; else it\n"
      "ends with its commands.\n"
      "--connect runs the commands of --command, or else those of standard input.\n"
      "Exit status: 0; 1 when anything was refused or failed; 2 for a wrong command line.");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &e) {
    status = e.get_exit_code() == 0 ? app.exit(e) : 2;
    if (status != 0) complain(plain_text(e));
    return false;
  }
  return true;
}

}  // namespace agent
