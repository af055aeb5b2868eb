#pragma once

// Real ZooKeeper servers on free loopback ports, with their data in temporary folders. They die with the test
// program.

#include "support/net/raw_socket.h"
#include "support/process/child_process.h"
#include "support/temp_dir.h"
#include "support/test.h"
#include "support/wait_until.h"
#include "support/zookeeper/raw_zookeeper.h"

namespace vyn::test {

/// A loopback port that is nobody else's for the life of this object. A server that sets SO_REUSEADDR can
/// listen on it, and listen again after a restart.
class ReservedPort {
 public:
  /// \param first of the ports to choose from at random, to `last`; without them the system gives one.
  explicit ReservedPort(int first = 0, int last = 0);
  int Number() const { return mNumber; }

 private:
  RawSocket mSocket;  ///< bound but not listening
  int mNumber = 0;
};

/// One server. Its members throw std::runtime_error when the server does not do what they ask for.
class ZookeeperServer {
 public:
  /// Starts a standalone server and waits until it serves.
  /// \param longestSession the longest session time-out that a client is granted, in milliseconds.
  explicit ZookeeperServer(int longestSession = 60000) : ZookeeperServer(longestSession, 0, "") {
    WaitUntilServing();
  }
  /// \param ensemble lines of the configuration that make it a member; it is started but not waited for.
  ZookeeperServer(int longestSession, int id, const std::string& ensemble);

  int Port() const { return mPort.Number(); }
  std::string Address() const { return "127.0.0.1:" + std::to_string(Port()); }
  /// Returns: a connection string with a new, empty root of its own.
  std::string NewRoot() const;
  /// Starts it, or starts it again with its data.
  void Start();
  void WaitUntilServing() const;
  /// SIGKILL.
  void Kill() { mProcess.Kill(); }
  void Freeze() { mProcess.Signal(SIGSTOP); }
  void Thaw() { mProcess.Signal(SIGCONT); }
  /// Returns: "standalone", "leader", "follower", or the empty text while it does not serve.
  std::string Mode() const;

 private:
  const bool mAlone;
  TempDir mFolder{"/dev/shm"};  // a slow disk would stall the server for longer than a session lives
  ReservedPort mPort;
  ChildProcess mProcess;
};

/// Three servers.
class ZookeeperEnsemble {
 public:
  /// Starts all and waits until they have a leader and two followers.
  ZookeeperEnsemble();

  std::string NewRoot() const;
  /// Waits until one leads. Returns: it.
  ZookeeperServer& Leader();
  void WaitUntilComplete() const;

 private:
  ReservedPort mPorts[6];
  std::vector<std::unique_ptr<ZookeeperServer>> mServers;
};

}  // namespace vyn::test
