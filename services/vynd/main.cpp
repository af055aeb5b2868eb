// vynd: the node daemon of Vyn broadcast.

#include "common/util/clock.h"
#include "services/vynd/daemon.h"
#include "services/vynd/supervisor.h"

#include <pthread.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <mutex>
#include <thread>

namespace {

/// Of the hard end, which is none of an orderly one or of a refused start.
constexpr int kHardEnd = 3;
/// From the signal to the end, whatever ZooKeeper, which may not answer, is asked for meanwhile. Nothing is
/// lost by the hard end: the pool and the records are whole at every moment.
constexpr auto kEndLimit = std::chrono::milliseconds(4500);

/// What the thread of the signals tells the main thread. Lives as long as the process.
struct Ending {
  std::mutex mutex;
  std::condition_variable changed;
  bool wanted = false;  ///< guarded by mutex
};

void AwaitSignal(Ending& ending, sigset_t signals) {
  int received = 0;
  sigwait(&signals, &received);
  {
    std::lock_guard lock(ending.mutex);
    ending.wanted = true;
  }
  ending.changed.notify_all();
  vyn::common::SleepFor(kEndLimit);
  std::fprintf(stderr, "vynd: the orderly end took too long, leaving without it\n");
  _exit(kHardEnd);
}

}  // namespace

int main(int argc, char** argv) {
  using namespace vyn::services;
  Options options;
  int exitCode = 0;
  if (!ReadOptions(argc, argv, options, exitCode)) {
    return exitCode;
  }
  // Every thread inherits the mask: the signals of the end come to AwaitSignal and to nothing else.
  signal(SIGPIPE, SIG_IGN);
  sigset_t endings;
  sigemptyset(&endings);
  sigaddset(&endings, SIGTERM);
  sigaddset(&endings, SIGINT);
  pthread_sigmask(SIG_BLOCK, &endings, nullptr);
  static Ending& ending = *new Ending;
  std::thread(AwaitSignal, std::ref(ending), endings).detach();

  Daemon daemon(options);
  std::vector<std::string> errors;
  const auto stopping = [] {
    std::lock_guard lock(ending.mutex);
    return ending.wanted;
  };
  if (!daemon.Start(errors, stopping)) {
    for (const std::string& error : errors) {
      std::fprintf(stderr, "vynd: %s\n", error.c_str());
    }
    return stopping() ? 0 : 1;
  }
  if (!stopping()) {
    std::printf("READY\n");
    std::fflush(stdout);
    TellSupervisor("READY=1");
  }
  {
    std::unique_lock lock(ending.mutex);
    ending.changed.wait(lock, [] { return ending.wanted; });
  }
  TellSupervisor("STOPPING=1");
  daemon.Stop();
  return 0;
}
