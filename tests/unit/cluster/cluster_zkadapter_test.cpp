#include "cluster/cluster_zkadapter.h"

#include "support/cluster_test.h"

#include <dlfcn.h>
#include <gmock/gmock.h>

#include <filesystem>
#include <set>
#include <thread>

namespace {
int gCloseResult = ZOK;
int gExistsResult = ZOK;
}  // namespace

// Found before the client's own: an end that the servers cannot be told of is hard to come by.
extern "C" int zookeeper_close(zhandle_t* handle) {
  static const auto real = reinterpret_cast<int (*)(zhandle_t*)>(dlsym(RTLD_NEXT, "zookeeper_close"));
  const int result = real(handle);
  return result == ZOK ? gCloseResult : result;
}

// Results that only a client with TLS, or a process that was stuck in the kernel, ever sees.
extern "C" int DoDlZooExists(zhandle_t* handle, const char* path, int watch, Stat* stat) {
  static const auto real = reinterpret_cast<decltype(&DoDlZooExists)>(dlsym(RTLD_NEXT, "DoDlZooExists"));
  return gExistsResult == ZOK ? real(handle, path, watch, stat) : gExistsResult;
}

namespace vyn::test {
namespace {

using cluster::ClusterZKAdapter;
using cluster::g_ZKHandler;
using cluster::NODE_ROLE_SDK;
using common::Configuration;
using testing::AnyOf;
using testing::Contains;
using testing::Each;
using testing::StartsWith;

class ClusterZKAdapterTest : public ClusterTest {};

TEST_F(ClusterZKAdapterTest, TheFirstCallMakesTheAdapterAndItsRole) {
  EXPECT_TRUE(ClusterZKAdapter::GetInstance(NODE_ROLE_SDK) == mAdapter);
  EXPECT_EQ(mAdapter->mRole, cluster::NODE_ROLE_SERVER);

  mAdapter = nullptr;
  ClusterZKAdapter::mInstance = nullptr;
  EXPECT_TRUE(mLog.Has(kErrorLine, "Unexpected nullptr value g_ZKHandler"));  // its destructor closes
  const auto wrong = ClusterZKAdapter::GetInstance(static_cast<cluster::NodeRole>(2));
  EXPECT_EQ(wrong->ClusterZKAdapterInit(10000), 1U);
  EXPECT_TRUE(mLog.Has(kErrorLine, "Node role error.2"));
  ClusterZKAdapter::mInstance = nullptr;
}

TEST_F(ClusterZKAdapterTest, OneSessionFromInitToClose) {
  ASSERT_EQ(mAdapter->ClusterZKAdapterInit(10000), 0U);
  EXPECT_TRUE(mLog.Has(kInfoLine, "Successfully init zookeeper client, session timeout is: 10000"));
  EXPECT_TRUE(Audited("connect", true));
  zhandle_t* first = g_ZKHandler;
  EXPECT_EQ(mAdapter->ClusterZKAdapterInit(10000), 0U);
  EXPECT_EQ(g_ZKHandler, first);
  EXPECT_EQ(mAdapter->ClusterZKCheckAvailable(), 0U);

  EXPECT_EQ(mAdapter->ClusterZKMakeDir(), 0U);
  EXPECT_EQ(mAdapter->ClusterZKMakeDir(), 0U);
  RawZookeeper raw(mUrl);
  for (const char* path : {"/meta", "/meta/election", "/meta/election/follower_info"}) {
    EXPECT_EQ(raw.Get(path), "(null)") << path;
    EXPECT_EQ(raw.Owner(path), 0) << path;
  }
  EXPECT_FALSE(raw.Exists("/meta/status"));

  gExistsResult = ZSSLCONNECTIONERROR;
  EXPECT_EQ(mAdapter->ClusterZKCheckAvailable(), 2000051U);
  gExistsResult = ZBADARGUMENTS;
  EXPECT_EQ(mAdapter->ClusterZKCheckAvailable(), 2000053U);
  gExistsResult = ZOK;
  EXPECT_TRUE(
      mLog.Has(kErrorLine, "SSL connection error to ZK server, ret is: -15, try again to connect to server"));
  EXPECT_TRUE(mLog.Has(kErrorLine,
                       "Failed to connect to ZK server, client session expired with process in D state, "
                       "ret is: -8, try to recreate the ZK client"));

  EXPECT_EQ(mAdapter->ClusterZKClose(), 0U);
  EXPECT_TRUE(mLog.Has(kInfoLine, "Cluster Adapter close ZK Client successfully"));
  EXPECT_EQ(mAdapter->ClusterZKClose(), 2000057U);

  ASSERT_EQ(mAdapter->ClusterZKAdapterInit(10000), 0U);
  gCloseResult = ZCONNECTIONLOSS;
  EXPECT_EQ(mAdapter->ClusterZKClose(), 1U);
  gCloseResult = ZOK;
  EXPECT_TRUE(
      mLog.Has(kErrorLine, "Failed to close zookeeper client, zookeeper get error:connection loss (-4)"));
  EXPECT_EQ(g_ZKHandler, nullptr);
}

TEST_F(ClusterZKAdapterTest, ATreeThatCannotBeMade) {
  Configuration::GetInstance()->Set("vyn.zookeeper.server.url", gServer->Address() + "/no/such/root");
  ASSERT_EQ(mAdapter->ClusterZKAdapterInit(10000), 0U);
  EXPECT_EQ(mAdapter->ClusterZKMakeDir(), 1U);
  EXPECT_TRUE(mLog.Has(kErrorLine, "Create /meta failed, ret: no node (-101)"));
  EXPECT_TRUE(Audited("mkdir_meta", false));
  EXPECT_EQ(mAdapter->ClusterZKCheckAvailable(), 2000055U);
  EXPECT_TRUE(mLog.Has(kErrorLine, "Other error in check ZK Cluster available, ret is: -101no node (-101)"));
}

TEST_F(ClusterZKAdapterTest, EveryOperationNeedsTheSession) {
  std::map<std::string, cluster::MetaNodeStatus> nodes;
  std::vector<std::pair<std::string, cluster::MetaNodeStatus>> list;
  std::set<unsigned int> ids;
  String_vector names{};
  cluster::NodeInfo info;
  bool won = false;
  const auto& adapter = *mAdapter;
  const std::pair<const char*, std::uint32_t> results[] = {
      {"MakeDir", adapter.ClusterZKMakeDir()},
      {"CheckAvailable", adapter.ClusterZKCheckAvailable()},
      {"Close", adapter.ClusterZKClose()},
      {"GetLeader", mAdapter->ZKGetAndUpdateMetaLeaderInfo(mMeta)},
      {"RegisterWatcher", mAdapter->ZKRegisterWatcher(true)},
      {"CreateStatus", mAdapter->ZKCreateStatus(nodes)},
      {"ClearAndCreate", mAdapter->ZKClearAndCreateStatusDynamic(mMeta)},
      {"ClearAll", mAdapter->ZKClearAllStatusNode()},
      {"GetAll", mAdapter->ZKGetAllStatusNode(names)},
      {"SetStatus", mAdapter->ZKSetStatus("a", common::META_NODE_STATUS_ALIVE)},
      {"StatusList", mAdapter->ZKGetNodeWithStatusList(list)},
      {"UpdateMemory", mAdapter->ZKUpdateMemoryInformation("a", common::META_NODE_STATUS_ALIVE, false)},
      {"CheckAndMark", mAdapter->ZKCheckAndMarkFollowerBroken(mMeta, names)},
      {"GetNodeList", mAdapter->ClusterZKGetNodeList(ids)},
      {"GetNodeInfo", adapter.ClusterZKGetNodeInfo(1, info)},
      {"GetMemInfo", adapter.ClusterZKGetMemInfo(1, info)},
      {"BecomeLeader", mAdapter->ZKTryBecomeMetaElectionLeader(mMeta, won)},
      {"DeleteLeader", mAdapter->ZKTryDeleteMetaElectionLeader()},
      {"CreateFollower", mAdapter->ZKCreateMetaElectionFollower(mMeta)},
      {"DeleteFollower", mAdapter->ZKTryDeleteMetaElectionFollower("/a")},
      {"Election", mAdapter->ZKElectionOperate(mMeta)},
      {"CreateMutex", mAdapter->ZKWaitAndCreateMetaMutex()},
      {"ReleaseMutex", mAdapter->ZKReleaseMetaMutex()},
  };
  for (const auto& [name, result] : results) {
    EXPECT_EQ(result, 2000057U) << name;
  }
  EXPECT_THAT(mLog.Texts(kErrorLine), Each("Unexpected nullptr value g_ZKHandler"));
  EXPECT_EQ(mLog.Texts(kErrorLine).size(), std::size(results));

  mLog.Clear();
  common::Ref<common::MetaNodeInfo> none;
  EXPECT_EQ(mAdapter->ZKGetAndUpdateMetaLeaderInfo(none), 2000057U);
  Connect();
  EXPECT_EQ(mAdapter->ZKElectionOperate(none), 2000057U);
  EXPECT_EQ(mAdapter->ZKClearAndCreateStatusDynamic(none), 2000057U);
  EXPECT_THAT(mLog.Texts(kErrorLine), Each("Unexpected nullptr value metaNode"));
  EXPECT_EQ(mLog.Texts(kErrorLine).size(), 3U);
}

TEST_F(ClusterZKAdapterTest, InitFailsWithItsCause) {
  const auto configuration = Configuration::GetInstance();
  const std::string home = getenv("VYN_HOME");
  const std::string library = home + "/tessel/24.0.0/" VYN_BINARY_TYPE "/lib/common";
  EXPECT_EQ(ClusterZKAdapter::GetVynLibPath(), std::filesystem::canonical(library));
  std::filesystem::rename(library, library + ".away");
  EXPECT_EQ(mAdapter->ClusterZKAdapterInit(10000), 1U);
  EXPECT_TRUE(mLog.Has(kErrorLine, "Failed to get vyn lib path"));
  std::filesystem::rename(library + ".away", library);

  const std::string failure = "Failed to connect to zookeeper server, zookeeper get error:";
  configuration->Set("vyn.zookeeper.security.enable", true);
  configuration->Set("vyn.zookeeper.security.strategy", "tls");
  EXPECT_EQ(mAdapter->ClusterZKAdapterInit(10000), 1U);
  EXPECT_THAT(mLog.Texts(kErrorLine),
              Contains(StartsWith(failure + "security is enabled, but the ZooKeeper client")));
  configuration->Set("vyn.zookeeper.security.enable", false);

  const ReservedPort nobody;
  configuration->Set("vyn.zookeeper.server.url", "127.0.0.1:" + std::to_string(nobody.Number()));
  configuration->Set("vyn.zookeeper.connect.timeout", 1);
  EXPECT_EQ(mAdapter->ClusterZKAdapterInit(10000), 1U);
  EXPECT_THAT(mLog.Texts(kErrorLine), Contains(StartsWith(failure + "the servers \"127.0.0.1:")));
  configuration->Set("vyn.zookeeper.connect.timeout", 60);
  EXPECT_EQ(g_ZKHandler, nullptr);
}

TEST_F(ClusterZKAdapterTest, AnExpiredSessionIsReportedUntilItIsMadeAnew) {
  constexpr int kRounds = 20;
  constexpr int kThreads = 24;
  for (int round = 0; round < kRounds; ++round) {
    ASSERT_EQ(mAdapter->ClusterZKAdapterInit(2000), 0U);
    zhandle_t* handle = g_ZKHandler;
    const clientid_t id = DoDlZooClientId(handle);
    std::atomic<int> answered{0};
    std::mutex mutex;
    std::set<std::uint32_t> results;
    std::vector<std::jthread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&] {
        std::uint32_t result = 0;
        while (result != 2000053U) {
          result = mAdapter->ClusterZKCheckAvailable();
          ++answered;
          std::lock_guard lock(mutex);
          results.insert(result);
        }
      });
    }
    EXPECT_TRUE(WaitUntil([&] { return answered > kThreads; }));
    ExpireSession(gServer->Port(), id);
    threads.clear();
    EXPECT_THAT(results, Each(AnyOf(0U, 2000047U, 2000049U, 2000053U, 2000055U))) << "round " << round;
    EXPECT_EQ(g_ZKHandler, handle);
    EXPECT_EQ(mAdapter->ZKRegisterWatcher(true), 2000053U);
    EXPECT_EQ(mAdapter->ClusterZKClose(), 0U);
  }
  EXPECT_TRUE(
      mLog.Has(kErrorLine,
               "Failed to connect to ZK server, client session expired, ret is: -9, try to recreate the ZK "
               "client"));
  ASSERT_EQ(mAdapter->ClusterZKAdapterInit(6000), 0U);
  EXPECT_EQ(mAdapter->ClusterZKCheckAvailable(), 0U);
}

TEST_F(ClusterZKAdapterTest, AFrozenServerIsAPassingFailure) {
  ASSERT_EQ(mAdapter->ClusterZKAdapterInit(2000), 0U);
  ASSERT_EQ(mAdapter->ClusterZKMakeDir(), 0U);
  gServer->Freeze();
  EXPECT_EQ(mAdapter->ClusterZKCheckAvailable(), 2000047U);
  EXPECT_TRUE(mLog.Has(kErrorLine, "Unconnected to ZK server, ret is: -7, try again to connect to server"));
  gServer->Thaw();
  std::uint32_t result = 1;
  EXPECT_TRUE(WaitUntil([&] {
    result = mAdapter->ClusterZKCheckAvailable();
    return result == 0U || result == 2000053U;
  }));

  gServer->Kill();
  EXPECT_TRUE(
      WaitUntil([&] { return mAdapter->ClusterZKCheckAvailable() == (result == 0U ? 2000049U : 2000053U); }));
  gServer->Start();
}

}  // namespace
}  // namespace vyn::test
