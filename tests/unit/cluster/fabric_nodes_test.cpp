#include "cluster/cluster_zkadapter.h"
#include "support/cluster_test.h"

#include <gmock/gmock.h>
#include <time.h>

#include <limits>

namespace vyn::test {
namespace {

using cluster::ClusterZKAdapter;
using cluster::NodeInfo;
using namespace std::string_literals;

class FabricNodesTest : public ClusterTest {
 protected:
  void SetUp() override {
    ClusterTest::SetUp();
    Connect();
  }
};

TEST_F(FabricNodesTest, NodeRecords) {
  const std::string aux = "\x01\x02\x03\x04\x78\x56\x34\x12"s;
  const std::string ip = "10.1.2.3\0xxxxxxx"s;
  const std::string host = "node-7" + std::string(58, '\0');
  struct Case {
    std::optional<std::string> record;
    const char* ip;
    std::string hostName;
    std::uint32_t auxValue;
  };
  const Case cases[] = {
      {aux + ip + host, "10.1.2.3", "node-7", 0x12345678U},
      {aux + ip + host + "more than a record", "10.1.2.3", "node-7", 0x12345678U},
      {aux + "255.255.255.2550" + std::string(64, 'h'), "255.255.255.2550", std::string(64, 'h'),
       0x12345678U},
      {aux, "127.0.0.1", "hostname", 0x12345678U},
      {aux + "9", "927.0.0.1", "hostname", 0x12345678U},
      {"", "127.0.0.1", "hostname", 0U},
      {std::nullopt, "127.0.0.1", "hostname", 0U},
  };
  unsigned int id = 4294967295U;
  for (const Case& c : cases) {
    mRaw->Create("/mf/node/" + std::to_string(id), c.record);
    NodeInfo info;
    EXPECT_EQ(mAdapter->ClusterZKGetNodeInfo(id, info), 0U);
    EXPECT_EQ(info.nodeId, id);
    EXPECT_EQ(info.exists, 1U);
    EXPECT_EQ(info.ip, c.ip);
    EXPECT_EQ(info.hostName, c.hostName);
    EXPECT_EQ(info.auxValue, c.auxValue);
    --id;
  }
  NodeInfo info;
  info.exists = 1;
  EXPECT_EQ(mAdapter->ClusterZKGetNodeInfo(77, info), 2000045U);
  EXPECT_EQ(info.nodeId, 77U);
  EXPECT_EQ(info.exists, 0U);

  ExpireSession(gServer->Port(), DoDlZooClientId(cluster::g_ZKHandler));
  ASSERT_TRUE(WaitUntil([&] { return mAdapter->ClusterZKCheckAvailable() == 2000053U; }));
  EXPECT_EQ(mAdapter->ClusterZKGetNodeInfo(77, info), 2000049U);
  EXPECT_TRUE(mLog.Has(kErrorLine, "zookeeper get error:the session has expired (-9)"));
}

TEST_F(FabricNodesTest, CapacityRecords) {
  setenv("TZ", "UTC", 1);
  tzset();
  const std::string record =
      "\x01\0\0\0\0\0\0\x80"s + "\x02\0\0\0\x01\0\0\0"s + "\x80\x51\x01\0\0\0\0\0"s;  // 86400 s
  mRaw->Create("/mf/capacity/1", record);
  mRaw->Create("/mf/capacity/2", record + "longer");
  mRaw->Create("/mf/capacity/3", record.substr(0, 12));
  for (const unsigned int id : {1U, 2U}) {
    NodeInfo info;
    EXPECT_EQ(mAdapter->ClusterZKGetMemInfo(id, info), 0U);
    EXPECT_EQ(info.capacityA, 0x8000000000000001U);
    EXPECT_EQ(info.capacityB, 0x100000002U);
    EXPECT_EQ(info.capacityTime, 86400U);
    EXPECT_EQ(info.capacityTimeText, "1970-01-02 00:00:00");
  }
  NodeInfo info;
  EXPECT_EQ(mAdapter->ClusterZKGetMemInfo(3, info), 0U);
  EXPECT_EQ(info.capacityB, 2U);
  EXPECT_EQ(info.capacityTimeText, "1970-01-01 00:00:00");
  mLog.Clear();
  EXPECT_EQ(mAdapter->ClusterZKGetMemInfo(4, info), 1U);
  EXPECT_TRUE(mLog.Lines().empty());
  std::string text = "kept";
  EXPECT_EQ(ClusterZKAdapter::ConvertTimestamp(1UL << 62, text), 1U);
  EXPECT_EQ(text, "kept");
  EXPECT_TRUE(mLog.Has(kErrorLine, "Failed to get local time"));
}

TEST_F(FabricNodesTest, NodeNamesAreWholeNumbers) {
  std::set<unsigned int> ids;
  EXPECT_EQ(mAdapter->ClusterZKGetNodeList(ids), 1U);
  EXPECT_TRUE(Audited("get_node_list", false));
  struct Case {
    const char* name;
    bool taken;
    unsigned int id;
  };
  for (const Case& c : {Case{"0", true, 0}, Case{"7", true, 7}, Case{"4294967295", true, 4294967295U},
                        Case{"-1", true, 4294967295U}, Case{"4294967296", true, 0}, Case{"00", false, 0},
                        Case{"12x", false, 0}, Case{"x", false, 0}, Case{"99999999999999999999", false, 0}}) {
    const std::string path = std::string("/mf/node/") + c.name;
    mRaw->Create(path);
    mLog.Clear();
    ids.clear();
    EXPECT_EQ(mAdapter->ClusterZKGetNodeList(ids), c.taken ? 0U : 1U) << c.name;
    EXPECT_EQ(mLog.Has(kErrorLine, "Failed to parse node id from zookeeper."), !c.taken) << c.name;
    EXPECT_EQ(ids, c.taken ? std::set<unsigned int>{c.id} : std::set<unsigned int>{}) << c.name;
    mRaw->Delete(path);
  }
  EXPECT_TRUE(Audited("get_node_list", true));
}

}  // namespace
}  // namespace vyn::test
