// The prompt on a terminal: line editing, history, completion; and lines printed above it.
//
// The main thread reads keys while the output's writer prints, so the lock covers libedit and the
// terminal; it is held for one key or one print. A command runs with the prompt taken away, and
// the terminal in its ordinary mode. libedit keeps the last lines typed, kHistory of them.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/mutex.h"

namespace agent {

class prompt {
 public:
  static constexpr int kHistory = 500;

  /// Gives the words that may stand at the end of a line, on the thread that calls read_key().
  using completer = std::function<std::vector<std::string>(std::string_view line)>;

  /// One object a process: libedit's callbacks carry no context.
  explicit prompt(completer complete);
  /// Takes the prompt away.
  ~prompt();
  prompt(const prompt &) = delete;
  prompt &operator=(const prompt &) = delete;

  /// Whether a person sits at both ends.
  static bool possible();

  void show() TARVO_EXCLUDES(lock_);
  /// What follows begins a line.
  void hide() TARVO_EXCLUDES(lock_);
  bool shown() const TARVO_EXCLUDES(lock_);

  /// Reads the key that standard input has. True: a line is complete (the prompt is away), or
  /// standard input is at its end (`line` is empty).
  bool read_key(std::optional<std::string> &line) TARVO_EXCLUDES(lock_);

  /// Runs `print` with the cursor where the prompt begins, and puts the prompt below. Returns what
  /// `print` does. Any thread.
  int print_above(const std::function<int()> &print) TARVO_EXCLUDES(lock_);

 private:
  void remove(bool line_ended) TARVO_REQUIRES(lock_);

  completer complete_;
  mutable mutex lock_;
  bool shown_ TARVO_GUARDED_BY(lock_) = false;
};

}  // namespace agent
