#include "support/child_process.h"

#include "support/temp_dir.h"
#include "support/test.h"
#include "support/wait_until.h"

#include <spawn.h>

namespace vyn::test {

ChildProcess::ChildProcess(const std::vector<std::string>& arguments) {
  std::vector<std::string> whole = {"setpriv", "--pdeathsig", "KILL"};
  whole.insert(whole.end(), arguments.begin(), arguments.end());
  std::vector<char*> pointers;
  for (std::string& argument : whole) {
    pointers.push_back(argument.data());
  }
  pointers.push_back(nullptr);
  int ends[2] = {-1, -1};
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
    throw std::runtime_error(std::string("socketpair: ") + std::strerror(errno));
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, ends[1], 0);
  posix_spawn_file_actions_adddup2(&actions, ends[1], 1);
  const int failed = posix_spawnp(&mPid, pointers[0], &actions, nullptr, pointers.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(ends[1]);
  mSocket = ends[0];
  if (failed != 0) {
    mPid = -1;
    CloseSocket();
    throw std::runtime_error("cannot start " + arguments[0] + ": " + std::strerror(failed));
  }
}

ChildProcess& ChildProcess::operator=(ChildProcess&& other) noexcept {
  if (this != &other) {
    Kill();
    mPid = std::exchange(other.mPid, -1);
    mSocket = std::exchange(other.mSocket, -1);
    mRead = std::move(other.mRead);
  }
  return *this;
}

void ChildProcess::CloseSocket() {
  if (mSocket >= 0) {
    close(std::exchange(mSocket, -1));
  }
}

void ChildProcess::Send(const std::string& line) {
  const std::string text = line + "\n";
  if (send(mSocket, text.data(), text.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(text.size())) {
    throw std::runtime_error("the child takes no input");
  }
}

std::string ChildProcess::Receive(std::chrono::seconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  std::size_t end = 0;
  while ((end = mRead.find('\n')) == std::string::npos) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    pollfd waiting{mSocket, POLLIN, 0};
    char buffer[4096];
    const bool ready = left.count() > 0 && poll(&waiting, 1, static_cast<int>(left.count())) > 0;
    const ssize_t got = ready ? read(mSocket, buffer, sizeof(buffer)) : -1;
    if (got <= 0) {
      throw std::runtime_error(ready ? "the child has ended" : "the child says nothing");
    }
    mRead.append(buffer, static_cast<std::size_t>(got));
  }
  const std::string line = mRead.substr(0, end);
  mRead.erase(0, end + 1);
  return line;
}

void ChildProcess::Signal(int signal) const {
  if (mPid <= 0 || ::kill(mPid, signal) != 0 || signal != SIGSTOP) {
    return;
  }
  WaitUntil([this] {
    std::error_code gone;
    const std::filesystem::directory_iterator threads("/proc/" + std::to_string(mPid) + "/task", gone);
    return std::all_of(begin(threads), end(threads), [](const auto& thread) {
      return ReadFile(thread.path() / "status").find("State:\tT") != std::string::npos;
    });
  });
}

void ChildProcess::Kill() {
  if (mPid > 0) {
    ::kill(mPid, SIGKILL);
    waitpid(std::exchange(mPid, -1), nullptr, 0);
  }
  CloseSocket();
}

int ChildProcess::Wait(std::chrono::seconds limit) {
  int status = -1;
  shutdown(mSocket, SHUT_WR);
  if (!WaitUntil([&] { return mPid <= 0 || waitpid(mPid, &status, WNOHANG) != 0; }, limit)) {
    Kill();
    return -1;
  }
  mPid = -1;
  CloseSocket();
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace vyn::test
