// tarvo-platform-check: says which services of a platform layer keep the contract of platform/*.h.
//
// Every case has a process of its own, which loads the library, finds the service's calls in it and
// runs that one case. So a layer that crashes, hangs or writes where it must not fails a case and
// no more. What the process has to tell, it leaves in memory that it shares with this one.
#include <dlfcn.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include "contract.h"

// A pool without memory is a case, also under sanitizers.
#define SANITIZER_OPTIONS extern "C" __attribute__((visibility("default"))) const char *
SANITIZER_OPTIONS __asan_default_options() { return "allocator_may_return_null=1"; }
SANITIZER_OPTIONS __tsan_default_options() { return "allocator_may_return_null=1"; }

namespace contract {
namespace {

struct call {
  const char *name;
  void (*set)(void *symbol);
};
struct service {
  std::string name;
  std::vector<call> calls;
};
#define SERVICE(name, calls) {#name, {calls}},
#define CALL(name) {#name, [](void *symbol) { name = reinterpret_cast<decltype(name)>(symbol); }},
const service kServices[] = {
#include "services.def"
};

struct {
  std::string library = PLATFORM_LIBRARY;
  std::vector<std::string> services;
  int time_limit = 60;
  bool list = false;
} options;

constexpr size_t kReportSize = 4096;
char *report;

void say(const std::string &text) {
  const size_t used = strlen(report);
  snprintf(report + used, kReportSize - used, "%s", text.c_str());
}

// Sets the service's calls. Says which the library lacks, or why it can't be loaded.
void find_calls(const service &s) {
  void *handle = dlopen(options.library.c_str(), RTLD_NOW);
  if (handle == nullptr) return say(dlerror());
  for (const call &c : s.calls) {
    void *symbol = dlsym(handle, c.name);
    if (symbol == nullptr) say(std::string(" ") + c.name);
    c.set(symbol);
  }
}

// Keeps a case's first failure, on one line.
struct first_failure : testing::EmptyTestEventListener {
  void OnTestPartResult(const testing::TestPartResult &result) override {
    if (!result.failed() || *report != 0) return;
    const std::string path = result.file_name() != nullptr ? result.file_name() : "";
    std::string text = path.substr(path.rfind('/') + 1) + ":" +
                       std::to_string(result.line_number()) + ": " + result.message();
    std::replace(text.begin(), text.end(), '\n', ' ');
    say(text.substr(0, 400));
  }
};

void run_case(const std::string &name) {
  testing::GTEST_FLAG(filter) = name;
  auto &listeners = testing::UnitTest::GetInstance()->listeners();
  delete listeners.Release(listeners.default_result_printer());
  listeners.Append(new first_failure);
  if (RUN_ALL_TESTS() != 0 && *report == 0) say("failed");
}

// Runs `body` in a child. Returns what it said, or else how it ended; empty when all is well.
template <typename body_t>
std::string in_child(const body_t &body) {
  fflush(stdout);
  *report = 0;
  const pid_t child = fork();
  if (child < 0) return "no process can be started";
  if (child == 0) {
    setpgid(0, 0);
    body();
    exit(0);
  }
  setpgid(child, child);
  struct pollfd end = {static_cast<int>(syscall(SYS_pidfd_open, child, 0)), POLLIN, 0};
  const bool in_time = poll(&end, 1, options.time_limit * 1000) == 1;
  close(end.fd);
  kill(-child, SIGKILL);  // and whatever it started
  int status = 0;
  waitpid(child, &status, 0);
  if (!in_time) return "not done after " + std::to_string(options.time_limit) + " seconds";
  if (WIFSIGNALED(status)) return std::string("ended by: ") + strsignal(WTERMSIG(status));
  return status == 0 || *report != 0 ? report : "ended with code " + std::to_string(status >> 8);
}

std::vector<std::string> cases_of(const service &s) {
  std::vector<std::string> names;
  const auto &tests = *testing::UnitTest::GetInstance();
  for (int i = 0; i < tests.total_test_suite_count(); ++i) {
    const testing::TestSuite &suite = *tests.GetTestSuite(i);
    for (int j = 0; suite.name() == s.name && j < suite.total_test_count(); ++j)
      names.push_back(suite.GetTestInfo(j)->name());
  }
  return names;
}

bool holds(const service &s) {
  const auto cases = cases_of(s);
  std::string failures;
  size_t failed = 0;
  for (const std::string &name : cases) {
    const std::string why = in_child([&] { find_calls(s), run_case(s.name + "." + name); });
    if (why.empty()) continue;
    ++failed;
    failures += "    " + name + ": " + why + "\n";
  }
  const bool all = failed == 0 && !cases.empty();
  const std::string of = all ? "" : std::to_string(failed) + " of ";
  printf("%-12s %s   (%s%zu cases)\n%s", s.name.c_str(), all ? "holds" : "FAILS", of.c_str(),
         cases.size(), failures.c_str());
  return all;
}

// 0 when all services hold, 1 when one does not, 2 when the library can't be loaded.
int check(const std::vector<service> &services) {
  const std::string trouble = in_child([] { find_calls({}); });
  if (!trouble.empty()) return fprintf(stderr, "%s\n", trouble.c_str()), 2;
  std::vector<std::string> lacks;
  for (const service &s : services) {
    lacks.push_back(in_child([&s] { find_calls(s); }));
    if (!lacks.back().empty()) printf("%-12s lacks%s\n", s.name.c_str(), lacks.back().c_str());
  }
  int failed = 0;
  for (size_t i = 0; i < services.size(); ++i) {
    if (!lacks[i].empty()) printf("%-12s FAILS   (calls are missing)\n", services[i].name.c_str());
    failed |= !lacks[i].empty() || !holds(services[i]);
  }
  return failed;
}

int list() {
  for (const service &s : kServices) {
    printf("%s:", s.name.c_str());
    for (const call &c : s.calls) printf(" %s", c.name);
    printf("\n");
  }
  return 0;
}

int run(int argc, char **argv) {
  std::set<std::string> names;
  for (const service &s : kServices) names.insert(s.name);
  CLI::App app(
      "Says which services of a platform layer keep the contract of its headers.\n"
      "Exit code: 0 all hold, 1 a service fails, 2 nothing was checked.");
  app.add_option("LIBRARY", options.library, "the layer: a path, or what the loader finds by name")
      ->capture_default_str();
  app.add_option("SERVICE", options.services, "services to check; all, if none is given")
      ->check(CLI::IsMember(names));
  app.add_option("--time-limit", options.time_limit, "seconds for each case")
      ->check(CLI::Range(1, 86400))
      ->capture_default_str();
  app.add_flag("--list", options.list, "list the services with their calls");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &e) {
    return app.exit(e) == 0 ? 0 : 2;
  }
  if (options.list) return list();
  // A file in this folder comes before one that the loader finds.
  if (access(("./" + options.library).c_str(), F_OK) == 0) options.library.insert(0, "./");
  std::vector<service> services;
  const auto &chosen = options.services;
  for (const service &s : kServices)
    if (chosen.empty() || std::count(chosen.begin(), chosen.end(), s.name)) services.push_back(s);
  return check(services);
}

}  // namespace
}  // namespace contract

int main(int argc, char **argv) {
  void *shared = mmap(nullptr, contract::kReportSize, PROT_READ | PROT_WRITE,
                      MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (shared == MAP_FAILED) return perror("mmap"), 2;
  contract::report = static_cast<char *>(shared);
  testing::InitGoogleTest();
  return contract::run(argc, argv);
}
