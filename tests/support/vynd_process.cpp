#include "support/vynd_process.h"

#include "support/fabric.h"
#include "support/test.h"

namespace vyn::test {

namespace {

namespace fs = std::filesystem;

/// Generous: under the sanitizers, on a busy machine.
constexpr std::chrono::seconds kLimit{120};

std::vector<std::string> With(std::vector<std::string> prefix, const std::vector<std::string>& command) {
  prefix.insert(prefix.end(), command.begin(), command.end());
  return prefix;
}

}  // namespace

VyndNode::VyndNode(int nodeId, const std::string& address, const std::string& zookeeper, int metadataPort,
                   const std::string& nodeList, std::vector<std::string> prefix)
    : mNodeId(nodeId), mAddress(address), mPrefix(std::move(prefix)) {
  mFolder.Write("home/conf/vyn.conf",
                "vyn.log.level=INFO\nvyn.zookeeper.server.url=" + zookeeper +
                    "\nvyn.zookeeper.session.timeout=10000\nvyn.zookeeper.security.enable=false"
                    "\nvyn.tessel.meta.node_lists=" +
                    nodeList +
                    "\nvyn.tessel.server.swap.path=${VYN_HOME}/swap\nvyn.tessel.rpc.shuffle_server.port=" +
                    std::to_string(mServerPort.Number()) +
                    "\nvyn.tessel.rpc.shuffle_meta.port=" + std::to_string(metadataPort) +
                    "\nvyn.tessel.rpc.manager.port=" + std::to_string(mLinkPort.Number()) +
                    "\nvyn.tessel.rpc.transport.protocol=tcp\nvyn.tessel.rpc.enableAuthentication=false"
                    "\nvyn.tessel.rpc.enableAuthorization=false\nvyn.tessel.rpc.enableTLS=false"
                    "\nvyn.tessel.rpc.openssl.path=libssl.so.3\nvyn.tessel.rpc.crypto.path=libcrypto.so.3\n");
  fs::create_directory(mHome + "/logs");
  fs::create_directory_symlink(VYN_STAGE_DIR "/home/tessel", mHome + "/tessel");
}

std::vector<std::string> VyndNode::Command(const std::string& poolSize, int applicationTimeout) const {
  return With(mPrefix,
              {VYN_STAGE_DIR "/bin/vynd", "--home", mHome, "--node-id", std::to_string(mNodeId), "--address",
               mAddress, "--host-name", "node-" + std::to_string(mNodeId), "--pool", Pool(), "--pool-size",
               poolSize, "--app-timeout", std::to_string(applicationTimeout)});
}

void VyndNode::Start(const std::string& poolSize, int applicationTimeout) {
  mProcess = ChildProcess(Command(poolSize, applicationTimeout));
  std::string said;
  try {
    for (std::string line; (line = mProcess.Receive(kLimit)) != "READY";) {
      said += line + "\n";
    }
  } catch (const std::runtime_error& error) {
    throw std::runtime_error(std::string(error.what()) + "\n" + said + Log());
  }
}

std::size_t VyndNode::Objects() const {
  const std::vector<std::string> names = NamesIn(Pool());
  return static_cast<std::size_t>(std::count_if(names.begin(), names.end(), [](const std::string& name) {
    const auto slash =
        name.find('/');  // an object stands in a namespace's folder; the pool's own begin with "."
    return name[0] != '.' && slash != std::string::npos && name[slash + 1] != '.';
  }));
}

std::vector<std::string> VyndNode::PoolEntries() const {
  std::vector<std::string> entries = NamesIn(Pool());
  std::erase(entries, ".node");
  return entries;
}

std::size_t VyndNode::Count(const std::string& what) {
  std::error_code error;
  const fs::directory_iterator entries("/proc/" + std::to_string(mProcess.Pid()) + "/" + what, error);
  return error ? 0 : static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

std::string VyndNode::Log() const {
  std::string text;
  for (const std::string& name : NamesIn(mHome + "/logs")) {
    text += ReadFile(mHome + "/logs/" + name);
  }
  return text;
}

BroadcastClient::BroadcastClient(const std::string& home, bool driver, const std::vector<std::string>& prefix)
    : mProcess(With(prefix, {VYN_TEST_PROGRAM_DIR "/broadcast_client"})) {
  const std::string answer = Do("init " + home + (driver ? " 0" : " 1"));
  if (answer != "0") {
    throw std::runtime_error("the client cannot be initialised: " + answer);
  }
}

std::string BroadcastClient::Do(const std::string& command) {
  mProcess.Send(command);
  std::string said;
  try {
    for (;;) {
      const std::string line = mProcess.Receive(kLimit);
      if (line.rfind("= ", 0) == 0) {
        return line.substr(2);
      }
      said += line + "\n";
    }
  } catch (const std::runtime_error& error) {
    throw std::runtime_error(command + ": " + error.what() + "\n" + said);
  }
}

}  // namespace vyn::test
