#pragma once

// Real daemons, and drivers and executors as processes of their own, for tests of the whole.

#include "support/fabric/fabric.h"
#include "support/zookeeper/zookeeper_server.h"

namespace vyn::test {

using Words = std::vector<std::string>;

/// A node of a cluster: its home, its configuration and pool, and its daemon when that runs. The end of the
/// object ends the daemon, in order if it can, and removes the pool.
class VyndNode {
 public:
  /// \param metadataPort the one port at which the leader of the cluster listens. \param nodeList who may
  ///        lead.
  VyndNode(int nodeId, const std::string& address, const std::string& zookeeper, int metadataPort,
           const std::string& nodeList)
      : mId(std::to_string(nodeId)), mAddress(address) {
    mFolder.Write(
        "home/conf/vyn.conf",
        "vyn.log.level=INFO\nvyn.zookeeper.session.timeout=10000\nvyn.zookeeper.security.enable=false\n"
        "vyn.tessel.server.swap.path=${VYN_HOME}/swap\nvyn.tessel.rpc.transport.protocol=tcp\n"
        "vyn.tessel.rpc.enableAuthentication=false\nvyn.tessel.rpc.enableAuthorization=false\n"
        "vyn.tessel.rpc.enableTLS=false\nvyn.tessel.rpc.openssl.path=libssl.so.3\n"
        "vyn.tessel.rpc.crypto.path=libcrypto.so.3\nvyn.tessel.meta.node_lists=" +
            nodeList + "\nvyn.zookeeper.server.url=" + zookeeper +
            "\nvyn.tessel.rpc.shuffle_server.port=" + std::to_string(mServerPort.Number()) +
            "\nvyn.tessel.rpc.shuffle_meta.port=" + std::to_string(metadataPort) +
            "\nvyn.tessel.rpc.manager.port=" + std::to_string(mLinkPort.Number()) + "\n");
    std::filesystem::create_directory(mHome + "/logs");
    std::filesystem::create_directory_symlink(VYN_STAGE_DIR "/home/tessel", mHome + "/tessel");
  }

  ~VyndNode() {
    mProcess.Signal(SIGTERM);
    mProcess.Wait();
  }

  const std::string& Home() const { return mHome; }
  const std::string& Pool() const { return mPool.Path(); }
  /// The command line of the daemon.
  std::string Command(const std::string& poolSize = "64M", int applicationTimeout = 60) const {
    return VYN_STAGE_DIR "/bin/vynd --home " + mHome + " --node-id " + mId + " --address " + mAddress +
           " --host-name node-" + mId + " --pool " + Pool() + " --pool-size " + poolSize + " --app-timeout " +
           std::to_string(applicationTimeout);
  }
  /// Starts it and waits until it is ready; throws std::runtime_error with what it said when it is not.
  void Start(const std::string& poolSize = "64M", int applicationTimeout = 60) {
    mProcess = ChildProcess({"sh", "-c", "exec " + Command(poolSize, applicationTimeout)});
    try {
      while (mProcess.Receive(std::chrono::seconds(120)) != "READY") {
      }
    } catch (const std::runtime_error& error) {
      std::string text = error.what();
      for (const std::string& name : NamesIn(mHome + "/logs")) {
        text += "\n" + ReadFile(mHome + "/logs/" + name);
      }
      throw std::runtime_error(text);
    }
  }
  ChildProcess& Process() { return mProcess; }
  /// Objects in the pool.
  std::size_t Objects() const {
    const Words names = NamesIn(Pool());
    // An object stands in a namespace's folder; the pool's own begin with ".".
    const std::regex object(R"([^.][^/]*/[^.].*)");
    return static_cast<std::size_t>(std::count_if(
        names.begin(), names.end(), [&](const std::string& name) { return std::regex_match(name, object); }));
  }
  /// The files in the pool, pulled copies and half-made ones included, and the folders of namespaces.
  Words PoolEntries() const {
    Words entries = NamesIn(Pool());
    std::erase(entries, ".node");
    return entries;
  }
  /// Descriptors and threads of the running daemon.
  std::size_t Descriptors() const { return Count("/fd"); }
  std::size_t Threads() const { return Count("/task"); }

 private:
  std::size_t Count(const std::string& what) const {
    std::error_code gone;
    const std::filesystem::directory_iterator entries("/proc/" + std::to_string(mProcess.Pid()) + what, gone);
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
  }

  TempDir mFolder;
  const std::string mId;
  const std::string mAddress;
  const std::string mHome = mFolder / "home";
  const TempDir mPool{"/dev/shm"};
  ReservedPort mServerPort;
  ReservedPort mLinkPort{20000, 31999};  ///< the record of a node has room for ports below 32768
  ChildProcess mProcess;
};

/// programs/broadcast_client.
class BroadcastClient {
 public:
  /// Initialises it as a driver or an executor of the home; throws when that fails.
  BroadcastClient(const VyndNode& node, bool driver) : BroadcastClient(node.Home(), driver) {}
  BroadcastClient(const std::string& home, bool driver) {
    if (const std::string answer = Do("init " + home + (driver ? " 0" : " 1")); answer != "0") {
      throw std::runtime_error("the client cannot be initialised: " + answer);
    }
  }
  /// Unless the test has killed the process, it ends by itself, so that a hang, a crash or a leak at its end
  /// shows.
  ~BroadcastClient() {
    EXPECT_TRUE(mProcess.Pid() < 0 || mProcess.Wait() == 0) << "a client has not ended in order";
  }
  /// Returns: the answer, a status first.
  std::string Do(const std::string& command) {
    mProcess.Send(command);
    std::string line;
    do {  // what the library prints stands in front of the answer
      line = mProcess.Receive(std::chrono::seconds(120));
    } while (line.rfind("= ", 0) != 0);
    return line.substr(2);
  }
  ChildProcess& Process() { return mProcess; }

 private:
  ChildProcess mProcess{{VYN_TEST_PROGRAM_DIR "/broadcast_client"}};
};

}  // namespace vyn::test
