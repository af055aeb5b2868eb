#include "support/zookeeper_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <random>
#include <stdexcept>
#include <thread>

namespace vyn::test {

namespace {

sockaddr_in Loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  return address;
}

/// A connection with a loopback port.
class Connection {
 public:
  explicit Connection(int port) : mSocket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const timeval patience{10, 0};
    setsockopt(mSocket, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
    const sockaddr_in address = Loopback(port);
    mStanding = connect(mSocket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
  }
  ~Connection() { close(mSocket); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  void Send(const std::string& bytes) {
    mStanding = mStanding &&
                send(mSocket, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
  }
  /// Returns: `size` bytes, fewer when the peer closes or falls silent.
  std::string Receive(std::size_t size) {
    std::string bytes;
    char buffer[1024];
    while (mStanding && bytes.size() < size) {
      const ssize_t got = recv(mSocket, buffer, std::min(sizeof(buffer), size - bytes.size()), 0);
      mStanding = got > 0;
      bytes.append(buffer, static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    }
    return bytes;
  }

 private:
  int mSocket;
  bool mStanding;
};

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
    address = Loopback(first + static_cast<int>(random() % static_cast<unsigned int>(last - first + 1)));
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
  mProcess = ChildProcess(
      {"java", "-Xmx128m", "-XX:+UseSerialGC", "-XX:TieredStopAtLevel=1", "-Xshare:auto",
       "-Dzookeeper.admin.enableServer=false", "-Dzookeeper.forceSync=no", "-Dzookeeper.digest.enabled=false",
       "-cp", "/usr/share/java/zookeeper.jar:/usr/share/java/slf4j-simple.jar",
       "org.apache.zookeeper.server.quorum.QuorumPeerMain", mFolder / "zoo.cfg"},
      mFolder / "server.log");
}

std::string ZookeeperServer::Mode() const {
  // A server that is asked while it starts has been seen to stop in the midst of it, and to answer nobody any
  // more. This is among the last that it says of its start.
  if (mAlone && ReadFile(mFolder / "server.log").find("ContainerManager") == std::string::npos) {
    return "";
  }
  Connection connection(mPort.Number());
  connection.Send("srvr");
  const std::string answer = connection.Receive(std::string::npos);
  const std::string mark = "Mode: ";
  const auto begin = answer.find(mark);
  return begin == std::string::npos
             ? ""
             : answer.substr(begin + mark.size(), answer.find('\n', begin) - begin - mark.size());
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
  const auto frame = [](const std::vector<std::pair<std::int64_t, int>>& fields, const std::string& end) {
    std::string body;
    for (const auto& [value, width] : fields) {
      for (int shift = width * 8 - 8; shift >= 0; shift -= 8) {
        body += static_cast<char>(static_cast<std::uint64_t>(value) >> shift & 0xff);
      }
    }
    body += end;
    return std::string(3, '\0') + static_cast<char>(body.size()) + body;
  };
  // Protocol, last transaction seen, time-out, session, password, whether read-only would do.
  const std::string take = frame({{0, 4}, {0, 8}, {10000, 4}, {session.client_id, 8}, {16, 4}},
                                 std::string(session.passwd, sizeof(session.passwd)) + '\0');
  // Number and type of the request.
  const std::string end = frame({{1, 4}, {-11, 4}}, "");
  // What the session's own client asks for after this makes the server drop its connection, and the client
  // comes back to hear of the end. Without it the client would notice at its next ping.
  {
    Connection connection(port);
    connection.Send(take);
    connection.Receive(41);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  // In one write: the own client may take the session back at any time. It is gone when a time-out of 0 is
  // granted.
  const auto gone = [&] {
    Connection connection(port);
    connection.Send(take + end);
    const std::string answer = connection.Receive(41 + 20);
    return answer.size() >= 12 && answer.substr(8, 4) == std::string(4, '\0');
  };
  if (!WaitUntil(gone)) {
    throw std::runtime_error("the session does not let itself be closed");
  }
}

}  // namespace vyn::test
