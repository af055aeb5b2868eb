#include "platform/net/dialer.h"
#include "platform/rpc/client/client.h"
#include "platform/rpc/client/transport_setting.h"
#include "platform/rpc/server/server.h"
#include "support/command.h"
#include "support/raw_socket.h"
#include "support/test.h"

#include <linux/if_tun.h>

namespace vyn::rpc {
namespace {

using test::RawListener;
using test::RawSocket;
using testing::ElementsAre;
using testing::HasSubstr;

/// Sets the variables for one test and takes them away again.
class RpcTransportSetting : public testing::Test {
 protected:
  RpcTransportSetting() { Clear(); }
  ~RpcTransportSetting() override { Clear(); }
  static void Set(const char* name, const std::string& value) { setenv(name, value.c_str(), 1); }

 private:
  static void Clear() {
    for (const char* name : {"UCX_TLS", "UCX_NET_DEVICES", "UCX_TCP_PORT_RANGE", "UCX_TCP_KEEPINTVL"}) {
      unsetenv(name);
    }
  }
};

int Option(int socket, int level, int name) {
  int value = -1;
  socklen_t size = sizeof(value);
  getsockopt(socket, level, name, &value, &size);
  return value;
}

/// \param status of the outcome. Returns: the connection, if there is one.
net::Descriptor DialHere(std::uint16_t port, net::NetStatus& status) {
  TransportSetting setting;
  net::Descriptor socket;
  EXPECT_TRUE(TransportSetting::FromEnvironment(setting).Ok());
  status = net::Dial("127.0.0.1", port, setting, net::Deadline(RawSocket::kPatience), socket).mStatus;
  return socket;
}

std::int32_t StatusOfACall(const std::string& peer, std::uint16_t port, std::int64_t timeout) {
  Client client(peer, port, {});
  ClientContext context;
  context.mTimeout = timeout;
  Message request{MessageId(1)};
  Message response{MessageId(1)};
  client.SyncCall(&context, &request, &response, nullptr);
  return context.mStatus;
}

TEST_F(RpcTransportSetting, WhatTheVariablesMean) {
  TransportSetting setting;
  EXPECT_TRUE(TransportSetting::FromEnvironment(setting).Ok());
  EXPECT_EQ(setting.mFirstPort, 0);
  EXPECT_EQ(setting.mKeepAliveSeconds, 0);
  Set("UCX_TLS", "tcp");
  Set("UCX_NET_DEVICES", "eth0,,eth1");
  Set("UCX_TCP_PORT_RANGE", "60000-61000");
  EXPECT_TRUE(TransportSetting::FromEnvironment(setting).Ok());
  EXPECT_THAT(setting.mInterfaces, ElementsAre("eth0", "eth1"));
  EXPECT_EQ(setting.mFirstPort, 60000);
  EXPECT_EQ(setting.mLastPort, 61000);

  const std::pair<const char*, int> kIntervals[] = {{"60s", 60}, {"5", 5},   {"2m", 120}, {"1500ms", 2},
                                                    {"inf", 0},  {"", 0},    {"0s", -1},  {"soon", -1},
                                                    {"5h", -1},  {"-5s", -1}};
  for (const auto& [text, seconds] : kIntervals) {
    Set("UCX_TCP_KEEPINTVL", text);
    EXPECT_EQ(TransportSetting::FromEnvironment(setting).Ok(), seconds >= 0) << text;
    EXPECT_EQ(setting.mKeepAliveSeconds, std::max(seconds, 0)) << text;
  }
  Set("UCX_TCP_KEEPINTVL", "");
  for (const char* range : {"70000-70001", "5", "9-8", "0-9", "1-2-3", "1-", "-", "a-b"}) {
    Set("UCX_TCP_PORT_RANGE", range);
    const Outcome outcome = TransportSetting::FromEnvironment(setting);
    EXPECT_EQ(outcome.mStatus, kBadSetting) << range;
    EXPECT_THAT(outcome.mText, HasSubstr(range));
  }
}

TEST_F(RpcTransportSetting, OtherProtocolsAreRefusedAtConnect) {
  RawListener listener;
  for (const char* protocol : {"rc", "rc_v", "TCP", "tcp,self"}) {
    Set("UCX_TLS", protocol);
    EXPECT_EQ(StatusOfACall("127.0.0.1", listener.Port(), 1000), -14);
    EXPECT_THAT(SecuredClient::mLastErrorMessage, HasSubstr("\"" + std::string(protocol) + "\""));
  }
  EXPECT_FALSE(listener.HasCaller(50));
}

TEST_F(RpcTransportSetting, SocketOptionsAndPortRange) {
  RawListener listener;
  RawListener other;
  net::NetStatus status{};
  // Two neighbouring ports that nobody uses at the moment.
  for (int port = 40000 + getpid() % 9000, found = 0; found == 0; port += 2) {
    Set("UCX_TCP_PORT_RANGE", std::to_string(port) + "-" + std::to_string(port + 1));
    const net::Descriptor first = DialHere(listener.Port(), status);
    const net::Descriptor second = DialHere(listener.Port(), status);
    if (first && !second) {
      listener.Accept();  // the connection of a pair of which the other port is in use
    }
    if (first && second) {
      found = port;
      EXPECT_FALSE(DialHere(listener.Port(), status));
      EXPECT_EQ(status, net::NetStatus::kBadSetting);
      EXPECT_TRUE(DialHere(other.Port(), status));  // another peer may be reached from the same ports
      std::vector<int> ports;
      for (int i = 0; i < 2; ++i) {
        RawSocket peer = listener.Accept();
        sockaddr_in address{};
        socklen_t size = sizeof(address);
        getpeername(peer.Descriptor(), reinterpret_cast<sockaddr*>(&address), &size);
        ports.push_back(ntohs(address.sin_port));
      }
      EXPECT_THAT(ports, testing::UnorderedElementsAre(port, port + 1));
    }
  }
  Set("UCX_TCP_PORT_RANGE", "");
  Set("UCX_TCP_KEEPINTVL", "7s");
  const net::Descriptor socket = DialHere(listener.Port(), status);
  EXPECT_EQ(Option(socket.Get(), SOL_SOCKET, SO_KEEPALIVE), 1);
  EXPECT_EQ(Option(socket.Get(), IPPROTO_TCP, TCP_KEEPINTVL), 7);
  EXPECT_EQ(Option(socket.Get(), IPPROTO_TCP, TCP_NODELAY), 1);
  EXPECT_NE(fcntl(socket.Get(), F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_NE(fcntl(socket.Get(), F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(RpcTransportSetting, ASocketIsNeverConnectedWithItself) {
  // The one local port that it may take is the one that nobody listens on: the kernel would join both ends.
  RawListener listener;
  const std::string port = std::to_string(listener.Port());
  listener.Close();
  Set("UCX_TCP_PORT_RANGE", port + "-" + port);
  net::NetStatus status{};
  EXPECT_FALSE(DialHere(listener.Port(), status));
  EXPECT_EQ(status, net::NetStatus::kRefused);
}

/// Runs `work` in a child with a network of its own. \param work returns false when it cannot set that up.
void InOwnNetwork(const std::function<bool()>& work) {
  enum { kGood, kBad, kNotPermitted };
  const pid_t child = fork();
  if (child == 0) {
    const bool ready =
        unshare(CLONE_NEWNET) == 0 && test::RunCommand("ip link set lo up").status == 0 && work();
    _exit(!ready ? kNotPermitted : testing::Test::HasFailure() ? kBad : kGood);
  }
  int status = 0;
  waitpid(child, &status, 0);
  if (WIFEXITED(status) && WEXITSTATUS(status) == kNotPermitted) {
    GTEST_SKIP() << "no network of our own";
  }
  EXPECT_EQ(status, 0);
}

/// A network interface whose packets end in this process.
class Interface {
 public:
  Interface(const std::string& name, const std::string& address)
      : mDescriptor(open("/dev/net/tun", O_RDWR | O_CLOEXEC)) {
    ifreq request{};
    request.ifr_flags = IFF_TUN | IFF_NO_PI;
    name.copy(request.ifr_name, IFNAMSIZ - 1);
    mMade = mDescriptor && ioctl(mDescriptor.Get(), TUNSETIFF, &request) == 0 &&
            test::RunCommand("ip addr add " + address + " dev " + name + " && ip link set " + name + " up")
                    .status == 0;
  }
  bool IsMade() const { return mMade; }
  /// Whether a TCP packet to `peer` has left by it since the last call.
  bool TookPacketTo(const std::string& peer) {
    in_addr expected{};
    inet_pton(AF_INET, peer.c_str(), &expected);
    bool found = false;
    unsigned char packet[2048];
    pollfd entry{mDescriptor.Get(), POLLIN, 0};
    while (poll(&entry, 1, 50) == 1 && read(mDescriptor.Get(), packet, sizeof(packet)) > 0) {
      found = found || (packet[0] >> 4 == 4 && packet[9] == IPPROTO_TCP &&
                        std::memcmp(packet + 16, &expected, 4) == 0);
    }
    return found;
  }

 private:
  net::Descriptor mDescriptor;
  bool mMade = false;
};

TEST_F(RpcTransportSetting, AnAddressWithoutARouteAndOneThatNeverAnswers) {
  InOwnNetwork([] {
    Interface hole("hole", "192.0.2.9/24");
    EXPECT_EQ(StatusOfACall("198.51.100.1", 4000, RawSocket::kPatience), -19);
    EXPECT_EQ(StatusOfACall("192.0.2.1", 4000, 300), -21);
    EXPECT_TRUE(hole.TookPacketTo("192.0.2.1"));
    return hole.IsMade();
  });
}

TEST_F(RpcTransportSetting, ConnectionsLeaveByTheInterfaceThatIsNamed) {
  InOwnNetwork([] {
    Interface one("one", "192.0.2.1/24");
    Interface two("two", "198.51.100.1/24");
    // The peer's own network wins over the order of the list; a list of one is taken as it is.
    const std::string peer = "198.51.100.7";
    for (const auto& [names, status, byOne, byTwo] : {std::tuple{"one,two", -21, false, true},
                                                      {"one", -21, true, false},
                                                      {"rdma0:1", -14, false, false}}) {
      Set("UCX_NET_DEVICES", names);
      EXPECT_EQ(StatusOfACall(peer, 4000, 200), status) << names;
      EXPECT_EQ(one.TookPacketTo(peer), byOne) << names;
      EXPECT_EQ(two.TookPacketTo(peer), byTwo) << names;
    }
    EXPECT_THAT(SecuredClient::mLastErrorMessage, HasSubstr("\"rdma0:1\""));
    // Peers on this host are reached all the same.
    Server server;
    server.Register(MessageId(1), [](const auto& context, const auto& request) {
      Message reply{request->Id()};
      Server::Reply(context, &reply, nullptr);
    });
    EXPECT_TRUE(server.Start("0.0.0.0", 0));
    for (const char* own : {"127.0.0.1", "192.0.2.1", "198.51.100.1"}) {
      EXPECT_EQ(StatusOfACall(own, server.Port(), RawSocket::kPatience), 0) << own;
    }
    return one.IsMade() && two.IsMade();
  });
}

}  // namespace
}  // namespace vyn::rpc
