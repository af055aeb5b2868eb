#include "common/rpc/rpc_setter.h"

#include "support/captured_log.h"
#include "support/temp_dir.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <net/if.h>

#include <cstdlib>

namespace vyn::common {
namespace {

constexpr const char* kVariables[] = {"UCX_TLS", "UCX_NET_DEVICES", "UCX_TCP_PORT_RANGE",
                                      "UCX_TCP_KEEPINTVL"};

std::string Variable(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? "(unset)" : value;
}

/// Name, address and prefix length of the loopback interface, as this host has it.
struct Loopback {
  std::string name;
  std::string address;
  int prefix = 0;
};

Loopback FindLoopback() {
  ifaddrs* list = nullptr;
  EXPECT_EQ(getifaddrs(&list), 0);
  Loopback found;
  for (const ifaddrs* entry = list; entry != nullptr && found.name.empty(); entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET ||
        (entry->ifa_flags & IFF_LOOPBACK) == 0) {
      continue;
    }
    const auto& address = reinterpret_cast<const sockaddr_in*>(entry->ifa_addr)->sin_addr;
    const auto& mask = reinterpret_cast<const sockaddr_in*>(entry->ifa_netmask)->sin_addr;
    found = {entry->ifa_name, inet_ntoa(address), __builtin_popcount(mask.s_addr)};
  }
  freeifaddrs(list);
  return found;
}

class RpcSetterTest : public testing::Test {
 protected:
  RpcSetterTest() {
    for (const char* name : kVariables) {
      setenv(name, "inherited", 1);
    }
  }
  void Set(const std::string& name, const std::string& value) {
    mConf->Set("vyn.tessel.rpc.transport." + name, value);
  }

  Ref<Configuration> mConf{new Configuration};
  test::CapturedLog mLog;
  Loopback mLoopback = FindLoopback();
  std::string mFilter = mLoopback.address + "/" + std::to_string(mLoopback.prefix);
};

TEST_F(RpcSetterTest, WithoutAConfigurationNothingChanges) {
  RpcSetter::DefaultSetting(nullptr);
  std::string devices = "as before";
  RpcSetter::ResolveDeviceName(devices, nullptr);
  EXPECT_EQ(devices, "as before");
  EXPECT_EQ(mLog.Texts(4), (std::vector<std::string>{"Param mConf is nullptr.", "Param mConf is nullptr."}));
  for (const char* name : kVariables) {
    EXPECT_EQ(Variable(name), "inherited");
  }
}

TEST_F(RpcSetterTest, TheVariablesFollowProtocolAndDevices) {
  const struct {
    const char* protocol;
    const char* devices;
    const char* portRange;
    const char* interval;
    const char* expected[4];
  } cases[] = {
      {"tcp", "eth7", "60000-61000", "60s", {"tcp", "eth7", "60000-61000", "60s"}},
      {"tcp", "", "", "", {"tcp", "inherited", "", "inherited"}},
      {"rc", "rdma0:2", "60000-61000", "60s", {"rc", "rdma0:2", "inherited", "inherited"}},
      {"TCP", "", "60000-61000", "60s", {"TCP", "inherited", "inherited", "inherited"}},
      {"", "", "60000-61000", "60s", {"", "inherited", "inherited", "inherited"}},
  };
  for (const auto& c : cases) {
    for (const char* name : kVariables) {
      setenv(name, "inherited", 1);
    }
    mLog.Clear();
    Set("protocol", c.protocol);
    Set("devices", c.devices);
    Set("tcp.port.range", c.portRange);
    mConf->Set("vyn.ucx.tcp.keepintvl", c.interval);
    Set("ipfilter", *c.devices != '\0' ? mFilter : "");  // given devices win over the filter
    RpcSetter::DefaultSetting(mConf);
    for (int i = 0; i < 4; ++i) {
      EXPECT_EQ(Variable(kVariables[i]), c.expected[i]) << c.protocol << " " << kVariables[i];
    }
    EXPECT_EQ(mLog.Has(3, "rpcNetDevices is empty."), *c.devices == '\0');
    EXPECT_EQ(mLog.Has(2, std::string("rpcNetDevices is ") + c.devices), *c.devices != '\0');
    EXPECT_EQ(mLog.Lines().size(), 1U);
  }
}

TEST_F(RpcSetterTest, TheFilterFindsRealInterfaces) {
  ASSERT_FALSE(mLoopback.name.empty());
  const std::string none = "No interfaces  found for config: vyn.tessel.rpc.transport.ipfilter: ";
  // Inside the loopback's own network, but not that network: the interface's mask decides.
  const std::string inside = "127.5.0.1/24";
  const struct {
    std::string filter;
    std::string devices;
    std::vector<std::string> warnings;
  } cases[] = {
      {mFilter, mLoopback.name, {}},
      {"nonsense, 203.0.113.7/0 ,203.0.113.7/33,/8,x/8, " + mFilter, mLoopback.name, {}},
      {inside, "", {none + inside}},
      {"203.0.113.7/32", "", {none + "203.0.113.7/32"}},
      {"10.0.0.1/0",
       "",
       {"Ip mask '10.0.0.1/0' is invalid, should be something like '192.168.2.1/24'", none + "10.0.0.1/0"}},
      {"", "", {}},
      {std::string(1024 - mFilter.size(), ' ') + mFilter, mLoopback.name, {}},
      {std::string(1025 - mFilter.size(), ' ') + mFilter, "", {}},
  };
  Set("protocol", "tcp");
  for (const auto& c : cases) {
    mLog.Clear();
    Set("ipfilter", c.filter);
    std::string devices;
    RpcSetter::ResolveDeviceName(devices, mConf);
    EXPECT_EQ(devices, c.devices) << c.filter;
    EXPECT_EQ(mLog.Texts(3), c.warnings) << c.filter;
  }
  mLog.Clear();
  std::vector<std::string> names;
  RpcSetter::ResolveIfnames("", names);
  EXPECT_EQ(mLog.Texts(3).front(), "vyn.tessel.rpc.transport.ipfilter entry  is not set");
  EXPECT_EQ(mLog.Texts(3).back(), none);
}

TEST_F(RpcSetterTest, RdmaDevicesAreMatchedByTheirInterfaces) {
  test::TempDir tree;
  const std::string lo = mLoopback.name;
  tree.Write("rdma0/device/net/" + lo, "");
  tree.Write("rdma1/device/net/other", "");
  tree.Write("rdma2/ports", "");  // has no interfaces at all
  Set("protocol", "rc");
  Set("ipfilter", mFilter);
  Set("devices.path", tree.Path() + "/");
  std::string devices;
  RpcSetter::ResolveDeviceName(devices, mConf);
  EXPECT_EQ(devices, "rdma0:1");
  EXPECT_EQ(mLog.Texts(3), std::vector<std::string>{"Failed to open :  " + tree / "rdma2/device/net"});

  // Two interfaces of one device: listed for each.
  tree.Write("rdma0/device/net/eth1", "");
  std::vector<std::string> matched;
  std::vector<std::string> devicesOfTree = {"rdma0"};
  std::vector<std::string> names = {"eth1", lo, lo};
  std::string path = tree.Path() + "/";
  RpcSetter::GetMatchedDeivces(devicesOfTree, names, matched, path);
  EXPECT_EQ(matched, (std::vector<std::string>{"rdma0:1", "rdma0:1"}));

  mLog.Clear();
  devices.clear();
  const std::string gone = tree / "gone/";
  Set("devices.path", gone);
  RpcSetter::ResolveDeviceName(devices, mConf);
  EXPECT_EQ(devices, "");
  EXPECT_EQ(mLog.Texts(3), (std::vector<std::string>{"The specified path " + gone + " does not exist",
                                                     "failed to open path " + gone +
                                                         " Please check  read permission or existence."}));
}

TEST_F(RpcSetterTest, NoSeparatorStandsInFrontWhileTheListIsEmpty) {
  std::string out;
  RpcSetter::JoinVectors(out, {"", "", "a", "", "b"}, ",");
  EXPECT_EQ(out, "a,,b");
  RpcSetter::JoinVectors(out, {"c"}, ",");
  EXPECT_EQ(out, "a,,b,c");
}

}  // namespace
}  // namespace vyn::common
