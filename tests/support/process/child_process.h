#pragma once

// A child process whose standard input and output this process reads and writes. It dies with its parent, and
// with this object.

#include "support/net/raw_socket.h"
#include "support/wait_until.h"

namespace vyn::test {

class ChildProcess {
 public:
  ChildProcess() = default;
  /// Starts `arguments[0]`, looked up in PATH.
  explicit ChildProcess(const std::vector<std::string>& arguments) {
    std::vector<const char*> words = {"setpriv", "--pdeathsig", "KILL"};
    for (const std::string& argument : arguments) {
      words.push_back(argument.c_str());
    }
    words.push_back(nullptr);
    int ends[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0 || (mPid = fork()) < 0) {
      throw std::runtime_error("cannot start " + arguments[0] + ": " + std::strerror(errno));
    }
    if (mPid == 0) {
      dup2(ends[1], STDIN_FILENO);
      dup2(ends[1], STDOUT_FILENO);
      execvp(words[0], const_cast<char**>(words.data()));
      _exit(127);
    }
    close(ends[1]);
    mSocket = RawSocket(ends[0]);
  }
  ~ChildProcess() { Kill(); }
  ChildProcess(ChildProcess&& other) noexcept { *this = std::move(other); }
  ChildProcess& operator=(ChildProcess&& other) noexcept {
    std::swap(mPid, other.mPid);
    std::swap(mSocket, other.mSocket);
    std::swap(mRead, other.mRead);
    return *this;
  }

  /// Sends a line to the child.
  void Send(const std::string& line) {
    if (!mSocket.Send(line + "\n")) {
      throw std::runtime_error("the child takes no input");
    }
  }
  /// Returns: the next line of the child; throws std::runtime_error at its end or when the limit has passed.
  std::string Receive(std::chrono::seconds limit = std::chrono::seconds(60)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    std::size_t end = 0;
    while ((end = mRead.find('\n')) == std::string::npos) {
      const auto left =
          std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      char buffer[4096];
      const bool ready = left.count() > 0 && mSocket.Readable(static_cast<int>(left.count()));
      const ssize_t got = ready ? read(mSocket.Descriptor(), buffer, sizeof(buffer)) : -1;
      if (got <= 0) {
        throw std::runtime_error(ready ? "the child has ended" : "the child says nothing");
      }
      mRead.append(buffer, static_cast<std::size_t>(got));
    }
    const std::string line = mRead.substr(0, end);
    mRead.erase(0, end + 1);
    return line;
  }
  /// Send and Receive.
  std::string Ask(const std::string& line) {
    Send(line);
    return Receive();
  }

  /// Sends a signal. Behind SIGSTOP it waits until every thread of the child stands still.
  void Signal(int signal) const {
    if (mPid <= 0 || ::kill(mPid, signal) != 0 || signal != SIGSTOP) {
      return;
    }
    WaitUntil([this] {
      siginfo_t info{};
      return waitid(P_PID, static_cast<id_t>(mPid), &info, WSTOPPED | WEXITED | WNOHANG | WNOWAIT) != 0 ||
             info.si_pid != 0;
    });
  }
  /// Kills the child, if it runs, and waits for its end.
  void Kill() {
    if (mPid > 0) {
      ::kill(mPid, SIGKILL);
      waitpid(std::exchange(mPid, -1), nullptr, 0);
    }
    mSocket.Close();
  }
  /// Closes its input, lets it go on when it stands still, and waits for its end. Returns: its exit code, -1
  /// when a signal ended it or it had to be killed.
  int Wait(std::chrono::seconds limit = std::chrono::seconds(60)) {
    int status = -1;
    Signal(SIGCONT);
    shutdown(mSocket.Descriptor(), SHUT_WR);
    if (mPid > 0 && WaitUntil([&] { return waitpid(mPid, &status, WNOHANG) != 0; }, limit)) {
      mPid = -1;
    }
    Kill();
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  pid_t Pid() const { return mPid; }

 private:
  pid_t mPid = -1;
  RawSocket mSocket;  ///< the other end is the child's input and output
  std::string mRead;
};

}  // namespace vyn::test
