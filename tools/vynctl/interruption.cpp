#include "tools/vynctl/interruption.h"

#include <pthread.h>
#include <unistd.h>

#include <csignal>

namespace vyn::tools {

namespace {

volatile std::sig_atomic_t gSignal = 0;
/// The thread that runs the command. The kernel may deliver a signal to one of the SDK's threads instead.
pthread_t gWorker;

void OnSignal(int number) {
  if (gSignal != 0) {
    _exit(128 + number);
  }
  gSignal = number;
  pthread_kill(gWorker, SIGUSR1);
}

}  // namespace

void DeferSignals() {
  gWorker = pthread_self();
  struct sigaction action {};  // without SA_RESTART, so that a blocked system call returns EINTR
  action.sa_handler = [](int) {};
  sigaction(SIGUSR1, &action, nullptr);
  action.sa_handler = &OnSignal;
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    sigaction(number, &action, nullptr);
  }
}

void CheckInterrupted() {
  if (gSignal != 0) {
    throw Interrupted(gSignal);
  }
}

}  // namespace vyn::tools
