#include "platform/rpc/client/transport_setting.h"
#include "support/process/command.h"
#include "support/rpc/rpc_calls.h"
#include "support/test.h"

namespace vyn::rpc {
namespace {

using test::RawListener;
using test::RawSocket;

void Set(const char* name, const std::string& value) { setenv(name, value.c_str(), 1); }

std::string CallAt(const std::string& peer, std::uint16_t port, std::int64_t timeout) {
  Client client(peer, port, {});
  return test::Call(client, "x", timeout);
}

TEST(RpcTransportSetting, TheUcxVariablesSetInterfacesPortRangeAndKeepAlive) {
  // The interfaces, the range and the seconds that a value means; nothing for a value that is refused.
  std::istringstream rows(R"(UCX_NET_DEVICES eth0,,eth1 = eth0 eth1 0-0 0
    UCX_NET_DEVICES eth0:1,eth1 = eth0 eth1 0-0 0
    UCX_NET_DEVICES all = 0-0 0
    UCX_TLS tcp = 0-0 0
    UCX_TLS rc =
    UCX_TCP_PORT_RANGE 60000-61000 = 60000-61000 0
    UCX_TCP_PORT_RANGE 70000-70001 =
    UCX_TCP_PORT_RANGE 9-8 =
    UCX_TCP_KEEPINTVL 60s = 0-0 60
    UCX_TCP_KEEPINTVL 2m = 0-0 120
    UCX_TCP_KEEPINTVL 1500ms = 0-0 2
    UCX_TCP_KEEPINTVL inf = 0-0 0
    UCX_TCP_KEEPINTVL 0s =
    UCX_TCP_KEEPINTVL 2h =)");
  std::string name;
  std::string value;
  std::string expected;
  while (rows >> name >> value >> expected && std::getline(rows, expected)) {
    Set(name.c_str(), value);
    TransportSetting setting;
    const RpcOutcome outcome = TransportSetting::FromEnvironment(setting);
    unsetenv(name.c_str());
    EXPECT_EQ(outcome.mStatus, expected.empty() ? kBadSetting : kOk) << name << value;
    std::ostringstream meaning;
    for (const std::string& interface : setting.mInterfaces) {
      meaning << ' ' << interface;
    }
    meaning << ' ' << setting.mFirstPort << '-' << setting.mLastPort << ' ' << setting.mKeepAliveSeconds;
    EXPECT_TRUE(expected.empty() || meaning.str() == expected) << name << value << meaning.str();
  }
  Set("UCX_TLS", "rc");
  EXPECT_EQ(CallAt("127.0.0.1", RawListener().Port(), 1000), "-14");
}

TEST(RpcTransportSetting, TheClientRefusesASocketThatIsConnectedToItself) {
  // The one local port that it may take is the one that nobody listens on: the kernel would join both ends.
  RawListener listener;
  const std::string port = std::to_string(listener.Port());
  listener.Close();
  Set("UCX_TCP_PORT_RANGE", port + "-" + port);
  EXPECT_EQ(CallAt("127.0.0.1", listener.Port(), RawSocket::kPatience), "-19");
}

TEST(RpcTransportSetting, ConnectionsUseTheNamedInterface) {
  const char* interfaces = R"(set -e; ip link set lo up
    for n in 1 2; do
      ip link add near$n type veth peer name far$n
      ip link set far$n up; ip link set near$n up; ip addr add 198.51.10$n.1/24 dev near$n label near$n:1
    done)";
  if (unshare(CLONE_NEWNET) != 0 || test::RunCommand(interfaces).status != 0) {
    GTEST_SKIP() << "no network of our own";
  }
  // The peer's own network wins over the order of the list; a list of one is taken as it is.
  for (const auto& [names, peer, status, interface] :
       {std::tuple{"", "203.0.113.1", "-19", ""},  // there is no route
        {"", "198.51.102.6", "-21", "near2\n"},
        {"near1,near2", "198.51.102.7", "-21", "near2\n"},
        {"near1", "198.51.102.8", "-21", "near1\n"},
        {"rdma0:1", "198.51.102.9", "-14", ""}}) {
    Set("UCX_NET_DEVICES", names);
    EXPECT_EQ(CallAt(peer, 4000, 300), status) << peer;
    // Who looks for a neighbour has chosen the interface.
    EXPECT_EQ(test::RunCommand(std::string("ip neigh show ") + peer + " | cut -d' ' -f3").output, interface);
  }
  // Peers on this host are reached all the same.
  Server server;
  server.Register(MessageId(test::kCallId), test::Echo);
  EXPECT_TRUE(server.Start("0.0.0.0", 0));
  for (const char* own : {"127.0.0.1", "198.51.101.1", "198.51.102.1"}) {
    EXPECT_EQ(CallAt(own, server.Port(), RawSocket::kPatience), "x") << own;
  }
}

}  // namespace
}  // namespace vyn::rpc
