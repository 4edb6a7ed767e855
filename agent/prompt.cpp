#include "agent/prompt.h"

#include <editline/readline.h>
#include <unistd.h>

#include <algorithm>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace agent {

namespace {

constexpr char kPrompt[] = "tarvo> ";

/// What libedit's callbacks, which carry no context, work with.
struct {
  const prompt::completer *complete = nullptr;
  std::vector<std::string> words;
  bool line_done = false;
  std::optional<std::string> line;
} shared;

void on_line(char *text) {
  shared.line_done = true;
  if (text == nullptr) return;
  shared.line = text;
  if (*text != '\0') add_history(text);
  free(text);
}

char *next_word(const char *, int state) {
  if (state == 0) std::reverse(shared.words.begin(), shared.words.end());
  if (shared.words.empty()) return nullptr;
  char *word = strdup(shared.words.back().c_str());
  shared.words.pop_back();
  return word;
}

char **on_tab(const char *text, int, int end) {
  rl_attempted_completion_over = 1;  // no file names
  shared.words = (*shared.complete)(std::string_view(rl_line_buffer, static_cast<size_t>(end)));
  return rl_completion_matches(text, next_word);
}

}  // namespace

prompt::prompt(completer complete) : complete_(std::move(complete)) {
  shared.complete = &complete_;
  rl_readline_name = "tarvo-agent";
  rl_catch_signals = 0;
  rl_attempted_completion_function = on_tab;
  using_history();
  stifle_history(kHistory);
}

prompt::~prompt() { hide(); }

bool prompt::possible() { return isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0; }

void prompt::show() {
  scoped_lock held(lock_);
  if (std::exchange(shown_, true)) return;
  rl_callback_handler_install(kPrompt, on_line);
}

void prompt::hide() {
  scoped_lock held(lock_);
  remove(false);
}

bool prompt::shown() const {
  scoped_lock held(lock_);
  return shown_;
}

void prompt::remove(bool line_ended) {
  if (!std::exchange(shown_, false)) return;
  rl_callback_handler_remove();
  if (line_ended) return;
  putchar('\n');
  fflush(stdout);
}

bool prompt::read_key(std::optional<std::string> &line) {
  scoped_lock held(lock_);
  rl_callback_read_char();
  if (!std::exchange(shared.line_done, false)) return false;
  line = std::exchange(shared.line, std::nullopt);
  remove(line.has_value());
  return true;
}

int prompt::print_above(const std::function<int()> &print) {
  scoped_lock held(lock_);
  if (!shown_) return print();

  // The line typed so far may have wrapped: go up to the row where the prompt begins.
  int rows = 0, columns = 0;
  rl_get_screen_size(&rows, &columns);
  const int cursor = static_cast<int>(sizeof kPrompt) - 1 + rl_point;
  if (columns > 0 && cursor >= columns) printf("\x1b[%dA", cursor / columns);
  printf("\r\x1b[J");
  fflush(stdout);
  const int error = print();
  rl_forced_update_display();
  return error;
}

}  // namespace agent
