#include "tools/vynctl/interruption.h"

#include <pthread.h>
#include <unistd.h>

#include <csignal>

namespace vyn::tools {

namespace {

volatile std::sig_atomic_t gSignal = 0;
/// The one that works. The SDK has threads beside it, and the kernel gives a signal to any of them.
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
  struct sigaction action {};  // no SA_RESTART: what waits is to look
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
