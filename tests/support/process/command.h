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

/// A command and what is expected of it.
struct CommandRow {
  std::string command;
  int status = 0;
  std::vector<std::string> parts = {};  ///< of the output; with "!" in front not in it
};

/// Runs the commands. \param before stands in front of each.
inline void ExpectCommands(const std::string& before, const std::vector<CommandRow>& rows) {
  for (const CommandRow& row : rows) {
    const CommandResult run = RunCommand(before + row.command);
    const auto holds = [&](const std::string& part) {
      const bool absent = part[0] == '!';
      return (run.output.find(part.substr(absent ? 1 : 0)) == std::string::npos) == absent;
    };
    EXPECT_TRUE(run.status == row.status && std::all_of(row.parts.begin(), row.parts.end(), holds))
        << row.command << ": " << run.status << "\n"
        << run.output;
  }
}

}  // namespace vyn::test
