#pragma once

// The node runs in a process of somebody else, who handles that process's signals: the node's threads block
// them. With SIGPIPE blocked, a write to a closed connection fails with EPIPE and does not end the process.
// Any thread may call the function.

#include <csignal>
#include <thread>
#include <utility>

namespace vyn::fabric {

/// Starts a thread with all signals blocked. The threads that it starts inherit that.
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
