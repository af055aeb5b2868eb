#include "support/zookeeper/zookeeper_server.h"

namespace vyn::test {

namespace {

std::string MakeRoot(const std::string& servers) {
  static std::atomic<int> counter{0};
  const std::string root = "/root-" + std::to_string(++counter);
  RawZookeeper(servers).Create(root);
  return servers + root;
}

}  // namespace

ReservedPort::ReservedPort(int first, int last) : mSocket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  // Nobody else is given a bound port, and a listener with the same option may share it.
  const int on = 1;
  setsockopt(mSocket.Descriptor(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  std::random_device random;
  sockaddr_in address{};
  socklen_t length = sizeof(address);
  auto* any = reinterpret_cast<sockaddr*>(&address);
  do {
    address =
        RawSocket::Loopback(static_cast<std::uint16_t>(std::uniform_int_distribution<>(first, last)(random)));
  } while (bind(mSocket.Descriptor(), any, length) != 0);
  getsockname(mSocket.Descriptor(), any, &length);
  mNumber = ntohs(address.sin_port);
}

ZookeeperServer::ZookeeperServer(int longestSession, int id, const std::string& ensemble)
    : mAlone(ensemble.empty()) {
  mFolder.Write("data/myid", std::to_string(id));
  mFolder.Write("zoo.cfg",
                "tickTime=200\nminSessionTimeout=400\nmaxClientCnxns=0\ninitLimit=100\nsyncLimit=50\n"
                "4lw.commands.whitelist=srvr\nclientPortAddress=127.0.0.1\ndataDir=" +
                    (mFolder / "data") + "\nmaxSessionTimeout=" + std::to_string(longestSession) +
                    "\nclientPort=" + std::to_string(Port()) + "\n" + ensemble);
  Start();
}

void ZookeeperServer::Start() {
  std::filesystem::remove(mFolder / "server.log");
  mProcess = ChildProcess({"sh", "-c", "exec \"$@\" >" + mFolder / "server.log" + " 2>&1", "sh", "java",
                           "-Xmx128m", "-XX:+UseSerialGC", "-XX:TieredStopAtLevel=1", "-Xshare:auto",
                           "-Dzookeeper.admin.enableServer=false", "-Dzookeeper.forceSync=no",
                           "-Dzookeeper.digest.enabled=false", "-Dzookeeper.preAllocSize=1024", "-cp",
                           "/usr/share/java/zookeeper.jar:/usr/share/java/slf4j-simple.jar",
                           "org.apache.zookeeper.server.quorum.QuorumPeerMain", mFolder / "zoo.cfg"});
}

void ZookeeperServer::WaitUntilServing() const {
  if (!WaitUntil([this] { return !Mode().empty(); })) {
    throw std::runtime_error("the ZooKeeper server does not serve: " + ReadFile(mFolder / "server.log"));
  }
}

std::string ZookeeperServer::Mode() const {
  // A server that is asked while it starts has been seen to stop in the midst of it, and to answer nobody any
  // more. This is among the last that it says of its start.
  if (mAlone && ReadFile(mFolder / "server.log").find("ContainerManager") == std::string::npos) {
    return "";
  }
  try {
    RawSocket connection = RawSocket::Connect(static_cast<std::uint16_t>(Port()));
    connection.Send("srvr");
    const std::string answer = connection.Receive(4096);
    std::smatch mode;
    return std::regex_search(answer, mode, std::regex("Mode: (.*)")) ? mode[1].str() : "";
  } catch (const std::runtime_error&) {
    return "";
  }
}

std::string ZookeeperServer::NewRoot() const { return MakeRoot(Address()); }

ZookeeperEnsemble::ZookeeperEnsemble() {
  std::ostringstream lines;
  for (int id = 0; id < 3; ++id) {
    lines << "server." << id + 1 << "=127.0.0.1:" << mPorts[id].Number() << ":" << mPorts[id + 3].Number()
          << "\n";
  }
  for (int id = 1; id <= 3; ++id) {
    mServers.push_back(std::make_unique<ZookeeperServer>(60000, id, lines.str()));
  }
  WaitUntilComplete();
}

void ZookeeperEnsemble::WaitUntilComplete() const {
  for (const auto& server : mServers) {
    server->WaitUntilServing();
  }
}

ZookeeperServer& ZookeeperEnsemble::Leader() {
  std::size_t at = 0;
  WaitUntil([&] { return mServers[at = (at + 1) % 3]->Mode() == "leader"; });
  return *mServers[at];
}

std::string ZookeeperEnsemble::NewRoot() const {
  return MakeRoot(mServers[0]->Address() + "," + mServers[1]->Address() + "," + mServers[2]->Address());
}

}  // namespace vyn::test
