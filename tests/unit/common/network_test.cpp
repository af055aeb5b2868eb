// Subnets, interfaces, and the environment by which the transport takes its settings.

#include "common/rpc/network.h"

#include "common/rpc/rpc_setter.h"
#include "support/process/command.h"
#include "support/temp_dir.h"
#include "support/test.h"

namespace vyn::common {
namespace {

using testing::ElementsAre;
using Texts = std::vector<std::string>;

TEST(NetworkTest, SubnetsAreParsedAndMatched) {
  const auto read = [](const std::string& text) {
    std::set<unsigned int> subnets;
    EXPECT_EQ(GetSubnets(text, subnets), 0U);
    std::set<std::string> texts;
    for (const unsigned int subnet : subnets) {
      texts.insert(inet_ntoa(in_addr{subnet}));
    }
    return texts;
  };
  EXPECT_THAT(read(" 10.1.2.3 / 9 ,192.168.2.77/32,255.255.255.255/1"),
              ElementsAre("10.0.0.0", "128.0.0.0", "192.168.2.77"));
  for (const char* bad :
       {"10.0.0.1", "10.0.0.1/", "/24", "10.0.0/24", "host/24", "10.0.0.1/0", "10.0.0.1/024", "10.0.0.1/33",
        "10.0.0.1/+8", "10.0.0.1/2a", "10.0.0.1/24/8", "::1/64"}) {
    EXPECT_THAT(read(std::string(bad) + ",127.0.0.1/8"), ElementsAre("127.0.0.0")) << bad;
  }
}

/// A loopback interface has this name and network on every Linux host.
const std::string kLoopback = "lo";
const std::string kFilter = "127.0.0.1/8";

class RpcSetterTest : public testing::Test {
 protected:
  /// The devices that the settings, keys and values in turn, lead to.
  std::string Resolved(const std::map<std::string, std::string>& settings) {
    for (const auto& [name, value] : settings) {
      mConf->Set("vyn.tessel.rpc.transport." + name, value);
    }
    std::string devices;
    RpcSetter::ResolveDeviceName(devices, mConf);
    return devices;
  }
  Ref<Configuration> mConf{new Configuration};
};

TEST_F(RpcSetterTest, TheSetterSetsTheUcxVariablesFromProtocolAndDevices) {
  const std::vector<const char*> names{"UCX_TLS", "UCX_NET_DEVICES", "UCX_TCP_PORT_RANGE",
                                       "UCX_TCP_KEEPINTVL"};
  const std::tuple<std::string, std::string, std::string, Texts> rows[] = {
      // "-": as inherited
      {"tcp", "eth7", "60s", {"tcp", "eth7", "60000-61000", "60s"}},
      {"tcp", "", "", {"tcp", "-", "60000-61000", "-"}},
      {"rc", "rdma0:2", "60s", {"rc", "rdma0:2", "-", "-"}}};
  mConf->Set("vyn.tessel.rpc.transport.tcp.port.range", "60000-61000");
  for (const auto& [protocol, devices, interval, expected] : rows) {
    for (const char* name : names) {
      setenv(name, "-", 1);
    }
    mConf->Set("vyn.ucx.tcp.keepintvl", interval);
    // Given devices win over the filter.
    Resolved({{"protocol", protocol}, {"devices", devices}, {"ipfilter", devices.empty() ? "" : kFilter}});
    RpcSetter::DefaultSetting(mConf);
    Texts values;
    std::ranges::transform(names, std::back_inserter(values), [](const char* name) { return getenv(name); });
    EXPECT_EQ(values, expected);
  }
}

TEST_F(RpcSetterTest, RdmaDevicesAreMatchedByTheirInterfaces) {
  const test::TempDir tree;
  tree.Write("rdma0/device/net/" + kLoopback, "");
  tree.Write("rdma1/device/net/other", "");
  tree.Write("rdma2/ports", "");  // has no interfaces at all
  for (const auto& [path, devices] : {std::pair{"/", "rdma0:1"}, {"/gone/", ""}}) {
    EXPECT_EQ(Resolved({{"protocol", "rc"}, {"ipfilter", kFilter}, {"devices.path", tree.Path() + path}}),
              devices);
  }
}

TEST_F(RpcSetterTest, TheFilterFindsRealInterfaces) {
  std::set<std::string> addresses;
  EXPECT_EQ(GetNodeIPSet(addresses), 0U);
  EXPECT_THAT(addresses, testing::Contains("127.0.0.1"));
  const std::string bad = "nonsense, 203.0.113.7/0 ,203.0.113.7/33,/8,x/8, ";
  const std::string blanks(1024 - kFilter.size(), ' ');
  for (const std::string& filter : {kFilter, bad + kFilter, blanks + kFilter}) {
    EXPECT_EQ(Resolved({{"protocol", "tcp"}, {"ipfilter", filter}}), kLoopback) << filter;
  }
  const std::string labelled = "198.51.100.1/24";
  if (unshare(CLONE_NEWNET) == 0 &&
      test::RunCommand("ip link set lo up && ip addr add " + labelled + " dev lo label lo:1").status == 0) {
    EXPECT_EQ(Resolved({{"ipfilter", labelled}}), kLoopback);
  }
  // The second is inside the loopback's network, but the interface's mask decides.
  for (const std::string& filter :
       {std::string("203.0.113.7/32"), std::string("127.5.0.1/24"), blanks + " " + kFilter}) {
    EXPECT_EQ(Resolved({{"ipfilter", filter}}), "") << filter;
  }
}

}  // namespace
}  // namespace vyn::common
