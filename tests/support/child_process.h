#pragma once

// A child process whose standard input and output this process reads and writes. It dies with its parent, and
// with this object.

#include "support/test.h"

#include <signal.h>

namespace vyn::test {

class ChildProcess {
 public:
  ChildProcess() = default;
  /// Starts `arguments[0]`, looked up in PATH. Throws std::runtime_error when it cannot be started.
  explicit ChildProcess(const std::vector<std::string>& arguments);
  ~ChildProcess() { Kill(); }
  ChildProcess(ChildProcess&& other) noexcept { *this = std::move(other); }
  ChildProcess& operator=(ChildProcess&& other) noexcept;

  /// Sends a line to the child.
  void Send(const std::string& line);
  /// Returns: the next line of the child; throws std::runtime_error at its end or when the limit has passed.
  std::string Receive(std::chrono::seconds limit = std::chrono::seconds(60));
  /// Send and Receive.
  std::string Ask(const std::string& line) {
    Send(line);
    return Receive();
  }

  /// Sends a signal. Behind SIGSTOP it waits until every thread of the child stands still.
  void Signal(int signal) const;
  /// Kills the child, if it runs, and waits for its end.
  void Kill();
  /// Closes its input and waits for its end. Returns: its exit code, -1 when a signal ended it or it had to
  /// be killed.
  int Wait(std::chrono::seconds limit = std::chrono::seconds(60));
  pid_t Pid() const { return mPid; }

 private:
  void CloseSocket();

  pid_t mPid = -1;
  int mSocket = -1;  ///< the other end is the child's input and output
  std::string mRead;
};

}  // namespace vyn::test
