// The session, what each operation answers when it has none or a call of it is refused, and the records of the
// fabric's nodes.

#include "cluster/cluster_zkadapter.h"
#include "support/zookeeper/cluster_test.h"
#include "support/zookeeper/zookeeper_calls.h"

namespace vyn::test {
namespace {

using cluster::ClusterZKAdapter;
using cluster::g_ZKHandler;
using cluster::NodeInfo;
using namespace std::string_literals;

constexpr auto kAlive = common::META_NODE_STATUS_ALIVE;

class SessionTest : public ClusterTest {};

TEST_F(SessionTest, EveryOperationReportsARefusedCallAndAMissingSession) {
  mMeta->mNodeAddress = "me:1";
  std::map<std::string, cluster::MetaNodeStatus> nodes{{"new:1", kAlive}};
  std::vector<std::pair<std::string, cluster::MetaNodeStatus>> list;
  String_vector names{};
  std::set<unsigned int> ids;
  bool won = false;
  struct Row {
    const char* refused;  ///< behind "DoDlZoo"
    int nth;              ///< the call that is refused
    const char* audit;    ///< the word of the failure; empty when it has none
    std::function<std::uint32_t()> call;
    std::uint32_t status = 1;
    int answer = ZNOAUTH;  ///< of the refused call
  };
  const auto watch = [&] { return mAdapter->ZKRegisterWatcher(false); };
  const auto makeStatus = [&] { return mAdapter->ZKCreateStatus(nodes); };
  const auto set = [&] { return mAdapter->ZKSetStatus("me:1", kAlive); };
  const auto read = [&] { return mAdapter->ZKGetNodeWithStatusList(list); };
  const auto mark = [&] {
    mMeta->mNodeStatusMap = {{"other:1", kAlive}};
    return mAdapter->ZKCheckAndMarkFollowerBroken(mMeta, names);
  };
  const auto available = [&] { return mAdapter->ClusterZKCheckAvailable(); };
  const auto lead = [&] { return mAdapter->ZKTryBecomeMetaElectionLeader(mMeta, won); };
  const auto elect = [&] { return mAdapter->ZKElectionOperate(mMeta); };
  const auto release = [&] { return mAdapter->ZKReleaseMetaMutex(); };
  const auto clear = [&] { return mAdapter->ZKClearAndCreateStatusDynamic(mMeta); };
  const auto resign = [&] { return mAdapter->ZKTryDeleteMetaElectionLeader(); };
  const Row rows[] = {
      {"Create", 1, "mkdir_meta", [&] { return mAdapter->ClusterZKMakeDir(); }},
      {"Wexists", 1, "set_leader_watcher", watch, 2000055},
      {"Wexists", 2, "set_status_watcher", watch, 0},
      {"GetChildren", 1, "get_status_children", watch},
      {"Create", 1, "create_node", makeStatus},
      {"Create", 2, "create_status", makeStatus},
      {"Create", 2, "", makeStatus, 0, ZNODEEXISTS},
      {"Delete", 1, "delete_meta_conf", clear},
      {"GetChildren", 1, "get_status_children", clear},
      {"Get", 1, "get_status", set},
      {"Set", 1, "set_status", set},
      {"GetChildren", 1, "get_meta_children", read},
      {"Get", 1, "get_status", read},
      {"Set", 1, "set_status", mark},
      {"GetChildren", 1, "get_node_list", [&] { return mAdapter->ClusterZKGetNodeList(ids); }},
      {"Exists", 1, "", available, 2000051, ZSSLCONNECTIONERROR},
      {"Exists", 1, "", available, 2000053, ZBADARGUMENTS},
      {"Exists", 1, "", available, 2000055},
      {"Wexists", 1, "set_leader_watcher", watch, 2000047, ZOPERATIONTIMEOUT},
      {"Create", 1, "elect_leader", lead},
      {"Create", 1, "", lead, 0, ZOPERATIONTIMEOUT},
      {"Create", 1, "elect_leader", elect},
      {"Create", 1, "get_status", elect, 1, ZOK},  // it leads and cannot mark the leader before it
      {"Delete", 1, "", resign},
      {"Delete", 1, "", resign, 1, ZNONODE},
      {"Create", 1, "create_follower_path", [&] { return mAdapter->ZKCreateMetaElectionFollower(mMeta); }},
      {"Create", 1, "create_status_dynamic", [&] { return mAdapter->ZKWaitAndCreateMetaMutex(); }},
      {"Delete", 1, "delete_meta_mutex", release},
      {"Delete", 1, "", release, 0, ZNONODE},
      {"Delete", 2, "clear_meta_children", clear}};
  mMeta->mMetaNodeRole = common::MetaNodeRole::FOLLOWER;
  ClusterZKAdapter::isRunning = false;  // the calls of a watcher would count
  for (const char* path : {"/meta/status/me:1", "/meta/status/other:1", "/meta/election/leader_info"}) {
    mRaw->Create(path, "2");
  }
  for (const Row& row : rows) {
    SCOPED_TRACE(row.audit);
    ASSERT_EQ(ULOG_AuditInit(mFolder.Write("audit.log", "").c_str(), 1, 1), 0);
    std::atomic<int> left{row.nth};
    const ZookeeperCalls calls([&](const ZookeeperCall& call) {
      const bool refused = call.function == std::string("DoDlZoo") + row.refused && --left == 0;
      return refused ? row.answer : call.make();
    });
    EXPECT_EQ(row.call(), row.status);
    EXPECT_LE(left, 0) << "nothing was refused";
    EXPECT_EQ(ReadFile(mFolder / "audit.log").find(std::string(row.audit) + "][zookeeper][FAILED]") ==
                  std::string::npos,
              row.audit == ""s);
  }
  Disconnect();
  for (const Row& row : rows) {
    EXPECT_EQ(row.call(), 2000057U) << row.audit;
  }
}

TEST_F(SessionTest, AnExpiredSessionIsReportedUntilANewOneIsOpened) {
  Connect(mUrl, 2000);
  ExpireSession(mUrl, DoDlZooClientId(g_ZKHandler));
  EXPECT_TRUE(WaitUntil([&] { return mAdapter->ClusterZKCheckAvailable() == 2000053U; }));
  EXPECT_EQ(mAdapter->ZKRegisterWatcher(true), 2000053U);

  Connect(mUrl, 2000);
  gServer->Freeze();
  EXPECT_EQ(mAdapter->ClusterZKCheckAvailable(), 2000047U);
  gServer->Thaw();
}

TEST_F(SessionTest, TheAdapterReadsTheRecordsOfANode) {
  const std::string aux = "\x01\x02\x03\x04\x78\x56\x34\x12"s;
  const std::string whole = aux + "10.1.2.3\0xxxxxxx"s + "node-7" + std::string(58, '\0');
  unsigned int id = 4294967295U;
  for (const auto& [record, ip, hostName] :
       {std::tuple(std::optional(whole + "more than a record"), "10.1.2.3"s, "node-7"s),
        std::tuple(std::optional(aux + "255.255.255.2550" + std::string(64, 'h')), "255.255.255.2550"s,
                   std::string(64, 'h')),
        std::tuple(std::optional<std::string>(), "127.0.0.1"s, "hostname"s)}) {
    mRaw->Create("/mf/node/" + std::to_string(id), record);
    NodeInfo info;
    EXPECT_EQ(mAdapter->ClusterZKGetNodeInfo(id, info), 0U);
    EXPECT_EQ(std::tuple(info.nodeId, info.exists, info.auxValue, info.ip, info.hostName),
              std::tuple(id, 1U, record ? 0x12345678U : 0U, ip, hostName));
    --id;
  }
  NodeInfo info;
  EXPECT_EQ(mAdapter->ClusterZKGetNodeInfo(77, info), 2000045U);
  std::string text;
  EXPECT_EQ(ClusterZKAdapter::ConvertTimestamp(LONG_MAX, text), 1U) << "no calendar has that year";
  for (const auto& [name, valid] : {std::pair("-1"s, true), std::pair("00"s, false)}) {
    mRaw->Create("/mf/node/" + name);
    std::set<unsigned int> ids;
    EXPECT_EQ(mAdapter->ClusterZKGetNodeList(ids), valid ? 0U : 1U) << name;
    mRaw->Delete("/mf/node/" + name);
  }
}

TEST_F(SessionTest, AForkedChildOpensASessionOfItsOwnWhileAnotherThreadOfItsParentOpensOne) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "ThreadSanitizer supports no threads in a forked child";
#endif
  std::promise<void> held;
  std::promise<void> forked;
  const std::jthread other([&] {
    const sync::RecursiveMutexLock lock(ClusterZKAdapter::mZKHandleLock);
    held.set_value();
    forked.get_future().wait();
  });
  held.get_future().wait();
  const pid_t child = ::fork();
  if (child == 0) {
    ::alarm(60);
    const bool none = g_ZKHandler == nullptr;
    ::_exit(none && mAdapter->ClusterZKAdapterInit(30000) == 0 && mAdapter->ClusterZKCheckAvailable() == 0
                ? 0
                : 1);
  }
  forked.set_value();
  int status = -1;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(mAdapter->ClusterZKCheckAvailable(), 0U);
}

}  // namespace
}  // namespace vyn::test
