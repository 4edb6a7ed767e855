#include "tests/module/in_child.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

ended in_child(const std::function<void()> &part) {
  FILE *const output = tmpfile();
  fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    dup2(fileno(output), STDOUT_FILENO);
    dup2(fileno(output), STDERR_FILENO);
    part();
    exit(testing::Test::HasFailure() ? 1 : 0);  // by exit, where the leak checker does its work
  }
  ended result = {-1, ""};
  waitpid(child, &result.status, 0);
  rewind(output);
  char buffer[4096];
  for (size_t n = 0; (n = fread(buffer, 1, sizeof buffer, output)) > 0;)
    result.output.append(buffer, n);
  fclose(output);
  return result;
}
