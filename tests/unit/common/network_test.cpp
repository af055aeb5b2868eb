// Addresses, interfaces, and the environment by which the transport takes its settings.

#include "common/rpc/network.h"

#include "common/rpc/rpc_setter.h"
#include "support/captured_log.h"
#include "support/temp_dir.h"
#include "support/test.h"

namespace vyn::common {
namespace {

using testing::Contains;
using testing::ElementsAre;

/// The networks of a list, as text.
std::set<std::string> Subnets(const std::string& text) {
  std::set<unsigned int> subnets;
  EXPECT_EQ(GetSubnets(text, subnets), text.empty() ? 1U : 0U) << text;
  std::set<std::string> texts;
  for (const unsigned int subnet : subnets) {
    texts.insert(inet_ntoa(in_addr{subnet}));
  }
  return texts;
}

TEST(NetworkTest, Subnets) {
  EXPECT_THAT(Subnets(" 10.1.2.3 / 9 ,192.168.2.77/32"), ElementsAre("10.0.0.0", "192.168.2.77"));
  EXPECT_THAT(Subnets("255.255.255.255/1"), ElementsAre("128.0.0.0"));
  EXPECT_THAT(Subnets(""), ElementsAre());
  for (const char* entry : {"10.0.0.1", "10.0.0.1/", "/24", "10.0.0/24", "host/24", "10.0.0.1/0",
                            "10.0.0.1/024", "10.0.0.1/33", "10.0.0.1/-1", "10.0.0.1/+8", "10.0.0.1/2a",
                            "10.0.0.1/24/8", "10.0.0.1/99999999999999999999999999", "::1/64"}) {
    EXPECT_THAT(Subnets(std::string(entry) + ",127.0.0.1/8"), ElementsAre("127.0.0.0")) << entry;
  }
}

TEST(NetworkTest, SplitsAddressAndPort) {
  const std::pair<unsigned int, std::vector<const char*>> texts[] = {
      {0, {"10.0.0.1:32767", ":1"}},
      {2000013, {"h:32768", "h:0", "h:-1"}},
      {2000039, {"10.0.0.1", "h:", "h:00", "h:1:2", "h:99999999999999999999"}}};
  for (const auto& [status, list] : texts) {
    for (const std::string text : list) {
      const auto colon = text.find(':');
      std::string ip = "old";
      short port = -1;
      EXPECT_EQ(SplitIpAndPort(text, ip, port), status) << text;
      EXPECT_EQ(ip, colon == std::string::npos ? "old" : text.substr(0, colon));
      EXPECT_EQ(port, status == 0 ? std::stoi(text.substr(colon + 1)) : -1) << text;
    }
  }
}

/// A loopback interface has this name and network on every Linux host.
const std::string kLoopback = "lo";
const std::string kFilter = "127.0.0.1/8";

class RpcSetterTest : public testing::Test {
 protected:
  void Set(const std::string& name, const std::string& value) {
    mConf->Set("vyn.tessel.rpc.transport." + name, value);
  }
  std::string Resolved() {
    std::string devices;
    RpcSetter::ResolveDeviceName(devices, mConf);
    return devices;
  }
  Ref<Configuration> mConf{new Configuration};
};

TEST_F(RpcSetterTest, TheVariablesFollowProtocolAndDevices) {
  struct Row {
    const char* protocol;
    const char* devices;
    const char* portRange;
    const char* interval;
    std::vector<std::string> expected;  ///< "-": as inherited
  };
  for (const Row& row :
       std::vector<Row>{{"tcp", "eth7", "60000-61000", "60s", {"tcp", "eth7", "60000-61000", "60s"}},
                        {"tcp", "", "", "", {"tcp", "-", "", "-"}},
                        {"rc", "rdma0:2", "60000-61000", "60s", {"rc", "rdma0:2", "-", "-"}},
                        {"TCP", "", "60000-61000", "60s", {"TCP", "-", "-", "-"}},
                        {nullptr, "", "", "", {"-", "-", "-", "-"}}}) {  // without a configuration
    const std::vector<const char*> names{"UCX_TLS", "UCX_NET_DEVICES", "UCX_TCP_PORT_RANGE",
                                         "UCX_TCP_KEEPINTVL"};
    for (const char* name : names) {
      setenv(name, "-", 1);
    }
    if (row.protocol != nullptr) {
      Set("protocol", row.protocol);
    }
    Set("devices", row.devices);
    Set("tcp.port.range", row.portRange);
    mConf->Set("vyn.ucx.tcp.keepintvl", row.interval);
    Set("ipfilter", *row.devices != '\0' ? kFilter : "");  // given devices win over the filter
    RpcSetter::DefaultSetting(row.protocol == nullptr ? nullptr : mConf);
    std::vector<std::string> values;
    std::ranges::transform(names, std::back_inserter(values), [](const char* name) { return getenv(name); });
    EXPECT_EQ(values, row.expected);
  }
  std::string devices = "as before";
  RpcSetter::ResolveDeviceName(devices, nullptr);
  RpcSetter::JoinVectors(devices, {}, ",");
  EXPECT_EQ(devices, "as before");
}

TEST_F(RpcSetterTest, TheFilterFindsRealInterfaces) {
  std::set<std::string> addresses;
  EXPECT_EQ(GetNodeIPSet(addresses), 0U);
  EXPECT_THAT(addresses, Contains("127.0.0.1"));
  Set("protocol", "tcp");
  for (const auto& [filter, devices, warnings] :
       std::vector<std::tuple<std::string, std::string, std::size_t>>{
           {kFilter, kLoopback, 0},
           {"nonsense, 203.0.113.7/0 ,203.0.113.7/33,/8,x/8, " + kFilter, kLoopback, 0},
           {"127.5.0.1/24", "", 1},  // inside the loopback's network, but the interface's mask decides
           {"203.0.113.7/32", "", 1},
           {"10.0.0.1/0", "", 2},
           {"", "", 0},
           {std::string(1024 - kFilter.size(), ' ') + kFilter, kLoopback, 0},
           {std::string(1025 - kFilter.size(), ' ') + kFilter, "", 0}}) {
    const test::CapturedLog log;
    Set("ipfilter", filter);
    EXPECT_EQ(Resolved(), devices) << filter;
    EXPECT_EQ(log.Texts(3).size(), warnings) << filter;
  }
  std::vector<std::string> names{"kept"};
  RpcSetter::ResolveIfnames("", names);
  EXPECT_THAT(names, ElementsAre("kept"));
}

TEST_F(RpcSetterTest, RdmaDevicesAreMatchedByTheirInterfaces) {
  const test::TempDir tree;
  tree.Write("rdma0/device/net/" + kLoopback, "");
  tree.Write("rdma1/device/net/other", "");
  tree.Write("rdma2/ports", "");  // has no interfaces at all
  Set("protocol", "rc");
  Set("ipfilter", kFilter);
  Set("devices.path", tree.Path() + "/");
  EXPECT_EQ(Resolved(), "rdma0:1");

  // Two interfaces of one device: listed for each.
  tree.Write("rdma0/device/net/eth1", "");
  std::vector<std::string> matched;
  std::vector<std::string> devices = {"rdma0"};
  std::vector<std::string> names = {"eth1", kLoopback, kLoopback};
  std::string path = tree.Path() + "/";
  RpcSetter::GetMatchedDeivces(devices, names, matched, path);
  EXPECT_THAT(matched, ElementsAre("rdma0:1", "rdma0:1"));
  std::string out;
  RpcSetter::JoinVectors(out, {"", "", "a", "", "b"}, ",");
  EXPECT_EQ(out, "a,,b") << "no separator in front while the list is empty";

  Set("devices.path", tree / "gone/");
  EXPECT_EQ(Resolved(), "");
}

}  // namespace
}  // namespace vyn::common
