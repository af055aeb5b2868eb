#pragma once

// Threads of the node run in a process that belongs to its user: they must not receive the process's signals.
// With SIGPIPE blocked, a write to a closed connection is an error.

#include <csignal>
#include <thread>
#include <utility>

namespace vyn::fabric {

/// A thread with all signals blocked, as are those that it starts.
template <typename Function>
std::thread ThreadWithoutSignals(Function&& function) {
  sigset_t all;
  sigset_t old;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &old);
  struct Restore {
    const sigset_t& mask;
    ~Restore() { ::pthread_sigmask(SIG_SETMASK, &mask, nullptr); }
  } restore{old};
  return std::thread(std::forward<Function>(function));
}

}  // namespace vyn::fabric
