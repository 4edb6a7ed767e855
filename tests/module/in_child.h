// A part of a test in a process of its own: the module starts as it was loaded.
#pragma once

#include <functional>
#include <string>

struct ended {
  int status;  ///< as waitpid tells it; 0: it ran to its end, no expectation failed, no leak
  std::string output;  ///< standard output and error
};

ended in_child(const std::function<void()> &part);
