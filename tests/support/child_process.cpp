#include "support/child_process.h"

#include "support/temp_dir.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <thread>
#include <utility>

namespace vyn::test {

namespace {

int Left(std::chrono::steady_clock::time_point deadline) {
  const auto left =
      std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
  return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

void CloseDescriptor(int& descriptor) {
  if (descriptor >= 0) {
    close(descriptor);
    descriptor = -1;
  }
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& arguments, const std::string& output) {
  std::vector<std::string> whole = {"setpriv", "--pdeathsig", "KILL"};
  whole.insert(whole.end(), arguments.begin(), arguments.end());
  std::vector<char*> pointers;
  for (std::string& argument : whole) {
    pointers.push_back(argument.data());
  }
  pointers.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  int toChild[2] = {-1, -1};
  int fromChild[2] = {-1, -1};
  if (output.empty()) {
    if (pipe2(toChild, O_CLOEXEC) != 0 || pipe2(fromChild, O_CLOEXEC) != 0) {
      throw std::runtime_error(std::string("pipe2: ") + std::strerror(errno));
    }
    posix_spawn_file_actions_adddup2(&actions, toChild[0], 0);
    posix_spawn_file_actions_adddup2(&actions, fromChild[1], 1);
  } else {
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
  }
  const int failed = posix_spawnp(&mPid, pointers[0], &actions, nullptr, pointers.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  CloseDescriptor(toChild[0]);
  CloseDescriptor(fromChild[1]);
  mInput = toChild[1];
  mOutput = fromChild[0];
  if (failed != 0) {
    mPid = -1;
    CloseDescriptor(mInput);
    CloseDescriptor(mOutput);
    throw std::runtime_error("cannot start " + arguments[0] + ": " + std::strerror(failed));
  }
}

ChildProcess::~ChildProcess() { Kill(); }

ChildProcess::ChildProcess(ChildProcess&& other) noexcept { *this = std::move(other); }

ChildProcess& ChildProcess::operator=(ChildProcess&& other) noexcept {
  if (this != &other) {
    Kill();
    mPid = std::exchange(other.mPid, -1);
    mInput = std::exchange(other.mInput, -1);
    mOutput = std::exchange(other.mOutput, -1);
    mRead = std::move(other.mRead);
  }
  return *this;
}

void ChildProcess::Send(const std::string& line) {
  const std::string text = line + "\n";
  // A dead child must not end the test program.
  signal(SIGPIPE, SIG_IGN);
  if (write(mInput, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    throw std::runtime_error("the child takes no input");
  }
}

std::string ChildProcess::Receive(std::chrono::seconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  for (;;) {
    const auto end = mRead.find('\n');
    if (end != std::string::npos) {
      const std::string line = mRead.substr(0, end);
      mRead.erase(0, end + 1);
      return line;
    }
    pollfd waiting{mOutput, POLLIN, 0};
    char buffer[4096];
    const ssize_t got = poll(&waiting, 1, Left(deadline)) > 0 ? read(mOutput, buffer, sizeof(buffer)) : -1;
    if (got <= 0) {
      throw std::runtime_error(got == 0 ? "the child has ended" : "the child says nothing");
    }
    mRead.append(buffer, static_cast<std::size_t>(got));
  }
}

void ChildProcess::Signal(int signal) const {
  if (mPid > 0) {
    ::kill(mPid, signal);
  }
  if (signal != SIGSTOP || mPid <= 0) {
    return;
  }
  // It takes a moment: the process stands still when the system says so.
  const std::string status = "/proc/" + std::to_string(mPid) + "/status";
  for (int i = 0; i < 30000 && ReadFile(status).find("State:\tT") == std::string::npos; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

void ChildProcess::Kill() {
  if (mPid > 0) {
    ::kill(mPid, SIGKILL);
    waitpid(mPid, nullptr, 0);
    mPid = -1;
  }
  CloseDescriptor(mInput);
  CloseDescriptor(mOutput);
}

int ChildProcess::Wait(std::chrono::seconds limit) {
  CloseDescriptor(mInput);
  const auto deadline = std::chrono::steady_clock::now() + limit;
  int status = 0;
  while (mPid > 0 && waitpid(mPid, &status, WNOHANG) == 0) {
    if (Left(deadline) == 0) {
      Kill();
      return -1;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  mPid = -1;
  CloseDescriptor(mOutput);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace vyn::test
