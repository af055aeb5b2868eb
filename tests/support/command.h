#pragma once

#include "support/test.h"

// Runs a shell command and waits for its end.

namespace vyn::test {

struct CommandResult {
  int status;          ///< exit status; -1 when a signal ended it
  std::string output;  ///< standard output and standard error
};

inline CommandResult RunCommand(const std::string& command) {
  std::FILE* pipe = ::popen(("exec 2>&1; " + command).c_str(), "r");
  if (pipe == nullptr) {
    throw std::runtime_error("popen failed for " + command);
  }
  CommandResult result{-1, ""};
  char buffer[4096];
  for (std::size_t got; (got = std::fread(buffer, 1, sizeof(buffer), pipe)) > 0;) {
    result.output.append(buffer, got);
  }
  const int status = ::pclose(pipe);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

}  // namespace vyn::test
