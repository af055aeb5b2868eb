#pragma once

// Handles SIGINT, SIGTERM and SIGHUP while a command has something to undo. The first signal lets the next
// CheckInterrupted throw, so that destructors clean up. The second signal ends the process at once.
//
// The thread that runs the command calls both functions.

#include "tools/vynctl/cluster_access.h"

namespace vyn::tools {

struct Interrupted : CommandError {
  explicit Interrupted(int number) : CommandError("interrupted"), signal(number) {}
  int signal;
};

/// Call it before the first step that may have to be undone. From then on the first of these signals does not
/// end the process.
void DeferSignals();

/// Throws Interrupted if a signal has come since DeferSignals. Call it before each system call that may block
/// for long. A signal during such a call makes it fail with EINTR or transfer only a part.
void CheckInterrupted();

}  // namespace vyn::tools
