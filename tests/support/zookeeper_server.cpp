#include "support/zookeeper_server.h"

#include "support/raw_socket.h"
#include "support/test.h"

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
  // Bound but not listening: nobody is given the port, and a listener with the same option may share it.
  const int on = 1;
  setsockopt(mSocket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  std::random_device random;
  sockaddr_in address{};
  socklen_t length = sizeof(address);
  int tries = 20;
  do {
    address = RawSocket::Loopback(static_cast<std::uint16_t>(
        first + static_cast<int>(random() % static_cast<unsigned>(last - first + 1))));
  } while (bind(mSocket, reinterpret_cast<sockaddr*>(&address), length) != 0 && --tries > 0);
  if (tries == 0 || getsockname(mSocket, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    throw std::runtime_error("no free port");
  }
  mNumber = ntohs(address.sin_port);
}

ReservedPort::~ReservedPort() { close(mSocket); }

ZookeeperServer::ZookeeperServer(int longestSession) : ZookeeperServer(0, "", longestSession) {
  WaitUntilServing();
}

void ZookeeperServer::WaitUntilServing() const {
  if (!WaitUntil([this] { return !Mode().empty(); })) {
    throw std::runtime_error("the ZooKeeper server does not serve: " + ReadFile(mFolder / "server.log"));
  }
}

ZookeeperServer::ZookeeperServer(int id, const std::string& ensemble, int longestSession)
    : mAlone(ensemble.empty()) {
  mFolder.Write("data/myid", std::to_string(id));
  mFolder.Write("zoo.cfg",
                "tickTime=200\nminSessionTimeout=400\nmaxClientCnxns=0\ninitLimit=100\nsyncLimit=50\n"
                "4lw.commands.whitelist=srvr\nclientPortAddress=127.0.0.1\ndataDir=" +
                    (mFolder / "data") + "\nmaxSessionTimeout=" + std::to_string(longestSession) +
                    "\nclientPort=" + std::to_string(mPort.Number()) + "\n" + ensemble);
  Start();
}

void ZookeeperServer::Start() {
  std::filesystem::remove(mFolder / "server.log");
  mProcess = ChildProcess({"sh", "-c", "exec \"$@\" >" + mFolder / "server.log" + " 2>&1", "sh", "java",
                           "-Xmx128m", "-XX:+UseSerialGC", "-XX:TieredStopAtLevel=1", "-Xshare:auto",
                           "-Dzookeeper.admin.enableServer=false", "-Dzookeeper.forceSync=no",
                           "-Dzookeeper.digest.enabled=false", "-cp",
                           "/usr/share/java/zookeeper.jar:/usr/share/java/slf4j-simple.jar",
                           "org.apache.zookeeper.server.quorum.QuorumPeerMain", mFolder / "zoo.cfg"});
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

std::string ZookeeperServer::NewRoot() { return MakeRoot(Address()); }

ZookeeperEnsemble::ZookeeperEnsemble() {
  std::string lines;
  for (int id = 1; id <= 3; ++id) {
    std::string ports;
    for (int i = 0; i < 2; ++i) {
      mPorts.push_back(std::make_unique<ReservedPort>());
      ports += ":" + std::to_string(mPorts.back()->Number());
    }
    lines += "server." + std::to_string(id) + "=127.0.0.1" + ports + "\n";
  }
  for (int id = 1; id <= 3; ++id) {
    mServers.push_back(std::make_unique<ZookeeperServer>(id, lines));
  }
  WaitUntilComplete();
}

void ZookeeperEnsemble::WaitUntilComplete() {
  const auto complete = [this] {
    std::vector<std::string> modes;
    for (const auto& server : mServers) {
      modes.push_back(server->Mode());
    }
    std::sort(modes.begin(), modes.end());
    return modes == std::vector<std::string>{"follower", "follower", "leader"};
  };
  if (!WaitUntil(complete)) {
    throw std::runtime_error("the ZooKeeper servers find no leader");
  }
}

bool ZookeeperEnsemble::HasLeader() const {
  return std::any_of(mServers.begin(), mServers.end(),
                     [](const auto& server) { return server->Mode() == "leader"; });
}

ZookeeperServer& ZookeeperEnsemble::Leader() {
  for (const auto& server : mServers) {
    if (server->Mode() == "leader") {
      return *server;
    }
  }
  throw std::runtime_error("no ZooKeeper server leads");
}

std::string ZookeeperEnsemble::NewRoot() {
  std::string servers;
  for (const auto& server : mServers) {
    servers += (servers.empty() ? "" : ",") + server->Address();
  }
  return MakeRoot(servers);
}

void ExpireSession(int port, const clientid_t& session) {
  const auto number = [](std::int64_t value, int width) {  // big-endian
    std::string bytes;
    for (int shift = width * 8 - 8; shift >= 0; shift -= 8) {
      bytes += static_cast<char>(static_cast<std::uint64_t>(value) >> shift & 0xff);
    }
    return bytes;
  };
  // Length; protocol, last transaction seen, time-out, session, password, whether read-only would do.
  const std::string take = number(45, 4) + number(0, 4) + number(0, 8) + number(10000, 4) +
                           number(session.client_id, 8) + number(sizeof(session.passwd), 4) +
                           std::string(session.passwd, sizeof(session.passwd)) + '\0';
  // Length; number and type of the request.
  const std::string end = number(8, 4) + number(1, 4) + number(-11, 4);
  // What the session's own client asks for after this makes the server drop its connection, and the client
  // comes back to hear of the end. Without it the client would notice at its next ping.
  {
    RawSocket connection = RawSocket::Connect(static_cast<std::uint16_t>(port));
    connection.Send(take);
    connection.Receive(41);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  // In one write: the own client may take the session back at any time. It is gone when a time-out of 0 is
  // granted.
  const auto gone = [&] {
    RawSocket connection = RawSocket::Connect(static_cast<std::uint16_t>(port));
    connection.Send(take + end);
    const std::string answer = connection.Receive(41 + 20);
    return answer.size() >= 12 && answer.substr(8, 4) == number(0, 4);
  };
  if (!WaitUntil(gone)) {
    throw std::runtime_error("the session does not let itself be closed");
  }
}

}  // namespace vyn::test
