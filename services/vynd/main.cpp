// The program vynd, the node daemon of Vyn broadcast: reads the command line, runs Daemon until SIGTERM or
// SIGINT. On SIGHUP it reloads.

#include "common/util/clock.h"
#include "platform/sync/mutex.h"
#include "services/common/standard_streams.h"
#include "services/vynd/daemon.h"
#include "services/vynd/supervisor.h"

#include <pthread.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <thread>
#include <utility>

namespace {

/// The exit code when Daemon::Stop did not finish within kStopLimit. An orderly stop gives 0, a failed start
/// 1.
constexpr int kStopTimedOut = 3;
/// The time from the signal to the end of the process. Daemon::Stop may block because ZooKeeper does not
/// answer. An _exit loses nothing: the pool and the records in ZooKeeper are consistent at every moment.
constexpr auto kStopLimit = std::chrono::milliseconds(4500);

/// The requests of the signal thread to the main thread. Lives as long as the process.
struct Requests {
  vyn::sync::Mutex mutex;
  vyn::sync::Condition changed;
  bool stop VYN_GUARDED_BY(mutex) = false;
  bool reload VYN_GUARDED_BY(mutex) = false;
};

void AwaitSignal(Requests& requests, sigset_t signals) {
  int received = SIGHUP;
  while (received == SIGHUP) {
    sigwait(&signals, &received);
    vyn::sync::MutexLock lock(requests.mutex);
    (received == SIGHUP ? requests.reload : requests.stop) = true;
    requests.changed.NotifyAll();
  }
  vyn::common::SleepFor(kStopLimit);
  std::fprintf(stderr, "vynd: the orderly stop took too long, exiting without it\n");
  _exit(kStopTimedOut);
}

}  // namespace

int main(int argc, char** argv) {
  using namespace vyn::services;
  OccupyStandardStreams();
  Options options;
  int exitCode = 0;
  if (!ReadOptions(argc, argv, options, exitCode)) {
    return EndOutput("vynd", exitCode);
  }
  // Block the signals before any thread starts. All threads inherit the mask, so only AwaitSignal gets them.
  for (const int ignored : {SIGPIPE, SIGUSR1, SIGUSR2}) {
    signal(ignored, SIG_IGN);
  }
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  static Requests& requests = *new Requests;
  std::thread(AwaitSignal, std::ref(requests), signals).detach();

  Daemon daemon(options);
  std::vector<std::string> errors;
  const auto stopping = [] {
    vyn::sync::MutexLock lock(requests.mutex);
    return requests.stop;
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
    NotifySupervisor("READY=1");
  }
  while (!stopping()) {
    bool reload = false;
    {
      vyn::sync::MutexLock lock(requests.mutex);
      requests.changed.Wait(lock,
                            []() VYN_REQUIRES(requests.mutex) { return requests.stop || requests.reload; });
      std::swap(reload, requests.reload);
    }
    if (reload && !stopping()) {
      daemon.Reload();
    }
  }
  NotifySupervisor("STOPPING=1");
  daemon.Stop();
  return 0;
}
