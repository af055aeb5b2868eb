#include "platform/rpc/client/transport_setting.h"

#include "platform/net/dialer.h"
#include "platform/rpc/client/client.h"
#include "platform/rpc/server/server.h"
#include "support/command.h"
#include "support/raw_socket.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/wait.h>

#include <cstdlib>
#include <cstring>
#include <functional>

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

std::uint16_t LocalPort(int socket) {
  sockaddr_in address{};
  socklen_t size = sizeof(address);
  getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size);
  return ntohs(address.sin_port);
}

Outcome DialHere(std::uint16_t port, net::Descriptor& socket) {
  TransportSetting setting;
  if (Outcome outcome = TransportSetting::FromEnvironment(setting); !outcome.Ok()) {
    return outcome;
  }
  const net::NetOutcome dialed =
      net::Dial("127.0.0.1", port, setting, net::Deadline(RawSocket::kPatience), socket);
  return {dialed.Ok()                                     ? kOk
          : dialed.mStatus == net::NetStatus::kBadSetting ? kBadSetting
                                                          : kConnectionLost,
          dialed.mText};
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
    Client client("127.0.0.1", listener.Port(), {});
    EXPECT_FALSE(client.Connect());
    EXPECT_THAT(SecuredClient::mLastErrorMessage,
                HasSubstr("No engine for the RPC protocol \"" + std::string(protocol) + "\" is present"));
    ClientContext context;
    context.mTimeout = 1000;
    Message message{MessageId(1)};
    EXPECT_FALSE(client.SyncCall(&context, &message, &message, nullptr));
    EXPECT_EQ(context.mStatus, -14);
  }
  EXPECT_FALSE(listener.HasCaller(50));
}

TEST_F(RpcTransportSetting, SocketOptionsAndPortRange) {
  RawListener listener;
  // Two neighbouring ports that nobody uses at the moment.
  std::uint16_t first = 0;
  for (std::uint16_t port = static_cast<std::uint16_t>(40000 + getpid() % 9000); first == 0; port += 2) {
    Set("UCX_TCP_PORT_RANGE", std::to_string(port) + "-" + std::to_string(port + 1));
    net::Descriptor a;
    net::Descriptor b;
    if (DialHere(listener.Port(), a).Ok() && DialHere(listener.Port(), b).Ok()) {
      first = port;
      EXPECT_THAT((std::vector<int>{LocalPort(a.Get()), LocalPort(b.Get())}),
                  testing::UnorderedElementsAre(port, port + 1));
      net::Descriptor c;
      const auto begin = std::chrono::steady_clock::now();
      const Outcome outcome = DialHere(listener.Port(), c);
      EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
      EXPECT_EQ(outcome.mStatus, kBadSetting);
      EXPECT_EQ(outcome.mText, "every local port from " + std::to_string(port) + " to " +
                                   std::to_string(port + 1) + " is in use (UCX_TCP_PORT_RANGE)");
      // Another peer may be reached from the same ports.
      RawListener other;
      EXPECT_TRUE(DialHere(other.Port(), c).Ok());
    }
  }
  Set("UCX_TCP_PORT_RANGE", "");
  Set("UCX_TCP_KEEPINTVL", "7s");
  net::Descriptor socket;
  ASSERT_TRUE(DialHere(listener.Port(), socket).Ok());
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
  net::Descriptor socket;
  const Outcome outcome = DialHere(listener.Port(), socket);
  EXPECT_EQ(outcome.mStatus, kConnectionLost) << outcome.mText;
  EXPECT_FALSE(socket);
}

/// Runs `work` in a child with a network of its own. Returns: its result, or kNotPermitted.
constexpr int kNotPermitted = 99;
int InOwnNetwork(const std::function<int()>& work) {
  const pid_t child = fork();
  if (child == 0) {
    _exit(unshare(CLONE_NEWNET) == 0 ? work() : kNotPermitted);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 98;
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

std::int32_t StatusOfACall(const std::string& peer, std::uint16_t port, std::int64_t timeout) {
  Client client(peer, port, {});
  ClientContext context;
  context.mTimeout = timeout;
  Message request{MessageId(1)};
  Message response{MessageId(1)};
  client.SyncCall(&context, &request, &response, nullptr);
  return context.mStatus;
}

TEST_F(RpcTransportSetting, AnAddressWithoutARouteAndOneThatNeverAnswers) {
  const int result = InOwnNetwork([] {
    Interface hole("hole", "192.0.2.9/24");
    if (!hole.IsMade()) {
      return kNotPermitted;
    }
    EXPECT_EQ(StatusOfACall("198.51.100.1", 4000, RawSocket::kPatience), -19);
    EXPECT_THAT(SecuredClient::mLastErrorMessage, HasSubstr("unreachable"));
    EXPECT_EQ(StatusOfACall("192.0.2.1", 4000, 300), -21);
    EXPECT_TRUE(hole.TookPacketTo("192.0.2.1"));
    return testing::Test::HasFailure() ? 1 : 0;
  });
  if (result == kNotPermitted) {
    GTEST_SKIP() << "no network of our own";
  }
  EXPECT_EQ(result, 0);
}

TEST_F(RpcTransportSetting, ConnectionsLeaveByTheInterfaceThatIsNamed) {
  const int result = InOwnNetwork([] {
    Interface one("one", "192.0.2.1/24");
    Interface two("two", "198.51.100.1/24");
    if (!one.IsMade() || !two.IsMade() || test::RunCommand("ip link set lo up").status != 0) {
      return kNotPermitted;
    }
    const std::string peer = "198.51.100.7";
    const auto dial = [&](const char* names) {
      Set("UCX_NET_DEVICES", names);
      return StatusOfACall(peer, 4000, 200);
    };
    // The peer's own network wins over the order of the list; a list of one is taken as it is.
    EXPECT_EQ(dial("one,two"), -21);
    EXPECT_TRUE(two.TookPacketTo(peer));
    EXPECT_FALSE(one.TookPacketTo(peer));
    EXPECT_EQ(dial("one"), -21);
    EXPECT_TRUE(one.TookPacketTo(peer));
    EXPECT_FALSE(two.TookPacketTo(peer));
    EXPECT_EQ(dial("rdma0:1"), -14);
    EXPECT_THAT(SecuredClient::mLastErrorMessage, HasSubstr("\"rdma0:1\" (UCX_NET_DEVICES)"));
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
    return testing::Test::HasFailure() ? 1 : 0;
  });
  if (result == kNotPermitted) {
    GTEST_SKIP() << "no network of our own";
  }
  EXPECT_EQ(result, 0);
}

}  // namespace
}  // namespace vyn::rpc
