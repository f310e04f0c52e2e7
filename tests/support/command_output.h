#pragma once

#include <sys/wait.h>

#include <cstdio>
#include <string>

namespace corvane::test {

struct CommandOutput {
  int status = -1;     // the exit status, -1 when the command did not exit
  std::string output;  // standard output and standard error together
};

// Runs a shell command line and takes all it prints.
inline CommandOutput RunCommand(const std::string& command) {
  CommandOutput result;
  FILE* pipe = popen((command + " 2>&1").c_str(), "r");
  if (pipe == nullptr) return result;
  char chunk[65536];
  for (size_t n; (n = fread(chunk, 1, sizeof chunk, pipe)) > 0;) result.output.append(chunk, n);
  const int status = pclose(pipe);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

}  // namespace corvane::test
