#pragma once

// SIGINT, SIGTERM and SIGHUP while a command has something to undo: it ends at the next place where it may end,
// and its destructors clean up. The second signal ends the process at once.

#include "tools/vynctl/session.h"

namespace vyn::tools {

struct Interrupted : CommandError {
  explicit Interrupted(int number) : CommandError("interrupted"), signal(number) {}
  int signal;
};

/// To be called before the first thing that wants undoing. From now on these signals do not end the process.
void DeferSignals();

/// Throws Interrupted when a signal has come since. To be asked before each system call that may wait long: one
/// that a signal cuts short fails with EINTR or has done a part.
void CheckInterrupted();

}  // namespace vyn::tools
