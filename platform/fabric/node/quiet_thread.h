#pragma once

// Threads of the node run in somebody else's process: they leave its signals to the threads that it made for
// them. A write to a closed connection is an error to them and not a SIGPIPE.

#include <csignal>
#include <thread>
#include <utility>

namespace vyn::bm {

/// A thread with all signals blocked, as are those that it starts.
template <typename Function>
std::thread QuietThread(Function&& function) {
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

}  // namespace vyn::bm
