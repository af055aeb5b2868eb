#include "support/vynd_process.h"

#include "support/fabric.h"

#include <filesystem>
#include <stdexcept>

namespace vyn::test {

namespace {

namespace fs = std::filesystem;

/// Generous: under the sanitizers, on a busy machine.
constexpr std::chrono::seconds kLimit{120};

std::string MakePool() {
  std::string name = "/dev/shm/vyn-test-XXXXXX";
  if (::mkdtemp(name.data()) == nullptr) {
    throw std::runtime_error("mkdtemp failed for " + name);
  }
  return name;
}

std::vector<std::string> With(std::vector<std::string> prefix, const std::vector<std::string>& command) {
  prefix.insert(prefix.end(), command.begin(), command.end());
  return prefix;
}

}  // namespace

VyndNode::VyndNode(int nodeId, const std::string& address, const std::string& zookeeper, int metadataPort,
                   const std::string& nodeList, std::vector<std::string> prefix)
    : mNodeId(nodeId),
      mAddress(address),
      mPrefix(std::move(prefix)),
      mHome(mFolder / "home"),
      mPool(MakePool()) {
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

VyndNode::~VyndNode() {
  mProcess.Kill();
  std::error_code ignored;
  fs::remove_all(mPool, ignored);
}

std::vector<std::string> VyndNode::Command(const std::string& poolSize, int applicationTimeout) const {
  return With(mPrefix, {VYN_STAGE_DIR "/bin/vynd", "--home", mHome, "--node-id", std::to_string(mNodeId),
                        "--address", mAddress, "--host-name", "node-" + std::to_string(mNodeId), "--pool",
                        mPool, "--pool-size", poolSize, "--app-timeout", std::to_string(applicationTimeout)});
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
  std::size_t count = 0;
  std::error_code error;
  for (fs::directory_iterator folder(mPool, error), end; folder != end; folder.increment(error)) {
    if (!folder->is_directory(error) || folder->path().filename().string().front() == '.') {
      continue;
    }
    for (fs::directory_iterator file(folder->path(), error); file != end; file.increment(error)) {
      count += file->path().filename().string().front() == '.'
                   ? 0
                   : 1;  // an object; the others are the pool's own
    }
  }
  return count;
}

std::vector<std::string> VyndNode::PoolEntries() const {
  std::vector<std::string> entries = NamesIn(mPool);
  std::erase(entries, ".node");
  return entries;
}

std::size_t VyndNode::Count(const std::string& what) {
  std::size_t count = 0;
  std::error_code error;
  const std::string folder = "/proc/" + std::to_string(mProcess.Pid()) + "/" + what;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
    ++count;
  }
  return count;
}

std::string VyndNode::Log() const {
  std::string text;
  std::error_code error;
  for (fs::recursive_directory_iterator file(mHome + "/logs", error), end; !error && file != end;
       file.increment(error)) {
    if (file->is_regular_file(error)) {
      text += ReadFile(file->path());
    }
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
