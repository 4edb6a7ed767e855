#include "agent/options.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <map>

namespace agent {

namespace {

const std::map<std::string, bmp_view> kViews = {{"loc-rib", bmp_view::loc_rib},
                                                {"post-policy", bmp_view::post_policy},
                                                {"pre-policy", bmp_view::pre_policy}};

/// What is wrong with a file mode, or nothing.
std::string read_mode(const std::string &text, mode_t &mode) {
  const char *end = text.data() + text.size();
  unsigned value = 0;
  const auto [stop, error] = std::from_chars(text.data(), end, value, 8);
  if (error != std::errc() || stop != end || value > 0777)
    return "'" + text + "' is no file mode as 0660";
  mode = value;
  return {};
}

void describe_agent(CLI::App &app, options &into) {
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
  CLI::Option *control = app.add_option("--control", into.control, "Take commands on a UNIX socket")
                             ->type_name("PATH");
  app.add_option_function<std::string>(
         "--control-mode", [&into](const std::string &text) { read_mode(text, into.control_mode); },
         "Who may connect to it: its file mode (0600)")
      ->type_name("OCTAL")
      ->check([](const std::string &text) {
        mode_t ignored;
        return read_mode(text, ignored);
      })
      ->needs(control);
  app.add_option("--metrics", into.metrics, "Show figures to Prometheus, at /metrics over HTTP")
      ->type_name("[ADDRESS:]PORT");
}

void refuse_both(const CLI::Option *one, const CLI::Option *other) {
  if (one->count() > 0 && other->count() > 0)
    throw CLI::ExcludesError(one->get_name(), other->get_name());
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
  app.callback([=] {
    for (const CLI::Option *option : agents) {
      refuse_both(connect, option);
      refuse_both(check, option);
    }
    refuse_both(check, connect);
    refuse_both(check, line);
  });
  app.add_flag("--json", into.json, "One JSON object a line on standard output");
}

}  // namespace

bool read_options(int argc, char **argv, options &into, int &status) {
  CLI::App app("Discovers the remote PE routers of MPLS VPNs from BMP feeds.", "tarvo-agent");
  app.set_version_flag("--version", "tarvo-agent " TARVO_VERSION);
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
    status = app.exit(e) == 0 ? 0 : 2;
    return false;
  }
  return true;
}

}  // namespace agent
