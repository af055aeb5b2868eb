// A variable's whole life in each role: processes that use the exported functions, a real fabric node and
// ZooKeeper, and a node server and a metadata service that follow a script over real sockets.

#include "support/fabric.h"
#include "support/scripted_service.h"
#include "support/vynd_process.h"
#include "tessel/message/broadcast/broadcast_messages.h"
#include "tessel/message/node_messages.h"
#include "tessel/message/operation_codes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <mutex>
#include <random>

namespace vyn::test {
namespace {

using namespace tessel;
using testing::ElementsAre;
using Reply = ScriptedService::Reply;
using Request = ScriptedService::Request;

constexpr std::uint16_t kNode = 4;
constexpr unsigned long kSize = 100001;  // not whole pages

/// One cluster of one node. The two services know one application, "app" with the token "secret".
class VariableLifeTest : public testing::Test {
 protected:
  VariableLifeTest() {
    EXPECT_EQ(mFabric.Initialize(mPlace.Home().c_str(), 0), 0);
    RawZookeeper(mUrl).Create("/meta/election/leader_info", "127.0.0.1");
    Furnish(mPlace.Home());
    Furnish(mOutside.Path());
    ScriptServer();
    ScriptMetadata();
  }
  ~VariableLifeTest() override { mFabric.Close(); }

  /// A home of the SDK: its configuration, and the libbmclient.so of the build.
  void Furnish(const std::string& home) const {
    const std::filesystem::path library = home + "/tessel/24.0.0/" VYN_BINARY_TYPE "/lib/mf/libbmclient.so";
    std::filesystem::create_directories(library.parent_path());
    std::filesystem::create_directories(home + "/tessel/24.0.0/" VYN_BINARY_TYPE "/lib/common");
    std::filesystem::create_symlink(VYN_STAGE_DIR "/lib/mf/libbmclient.so", library);
    std::filesystem::create_directories(home + "/conf");
    std::ofstream(home + "/conf/vyn.conf")
        << "vyn.log.level=ERROR\nvyn.tessel.rpc.enableTLS=false\nvyn.tessel.rpc.enableAuthentication=false\n"
        << "vyn.zookeeper.security.enable=false\nvyn.tessel.rpc.transport.protocol=tcp\n"
        << "vyn.tessel.rpc.openssl.path=libssl.so.3\nvyn.tessel.rpc.crypto.path=libcrypto.so.3\n"
        << "vyn.zookeeper.server.url=" << mUrl << "\n"
        << "vyn.tessel.rpc.shuffle_server.port=" << mServer.Port() << "\n"
        << "vyn.tessel.rpc.shuffle_meta.port=" << mMetadata.Port() << "\n";
  }

  /// The node server: makes the namespace, allocates, and gives out what the metadata service has on record.
  void ScriptServer() {
    MetaLeaderInformation leader("127.0.0.1");
    mServer.Answer(ShuffleServer::META_LEADER_INFO, {0, BytesOf(leader)});
    mServer.Answer(ShuffleServer::APP_REGISTER, [this](const Request& request) -> Reply {
      const auto wanted = ReadAs<ApplicationRegisterRequest>(request.body);
      const bool known = wanted->ns == "app" && wanted->token == "secret";
      if (known) {
        mFabric.CreateNamespace(kNode, "app", "secret");
      }
      NodeIdResponse answer;
      answer.nodeId = kNode;
      answer.isMfNode = true;
      return {known ? 0U : 2140007U, BytesOf(answer)};
    });
    mServer.Answer(ShuffleServer::BROADCAST_BLOCK_BATCH_CREATE, [this](const Request& request) -> Reply {
      const auto batch = ReadAs<BroadcastBlockBatch>(request.body);
      BroadcastBlockInfo made;
      made.appId = batch->appId;
      made.broadcastId = batch->broadcastId;
      made.nodeId = kNode;
      for (const unsigned long size : batch->sizes) {
        made.bmIds.push_back(mTenant.Allocate(kNode, size));
        made.sizes.push_back(size);
      }
      return {0, BytesOf(made)};
    });
    mServer.Answer(ShuffleServer::BROADCAST_BLOCK_BATCH_FETCH, [this](const Request& request) -> Reply {
      const std::string record = Record(ReadAs<BroadcastVar>(request.body)->broadcastId);
      return record.empty() ? Reply{2140011, ""} : Reply{0, record};
    });
  }

  /// What the metadata service has of a variable, empty without a record.
  std::string Record(unsigned int id) {
    std::lock_guard lock(mMutex);
    const auto found = mRecords.find(id);
    return found == mRecords.end() ? "" : found->second;
  }

  void ScriptMetadata() {
    mMetadata.Answer(ShuffleMeta::BROADCAST_VAR_INFO_ADD, [this](const Request& request) -> Reply {
      std::lock_guard lock(mMutex);
      mRecords[ReadAs<BroadcastBlockInfo>(request.body)->broadcastId] = request.body;
      return {};
    });
    mMetadata.Answer(ShuffleMeta::BROADCAST_VAR_REMOVE, [this](const Request& request) -> Reply {
      std::lock_guard lock(mMutex);
      const auto found = mRecords.find(ReadAs<BroadcastVar>(request.body)->broadcastId);
      if (found == mRecords.end()) {
        return {2140011, ""};
      }
      const auto record = ReadAs<BroadcastBlockInfo>(found->second);
      for (const std::string& id : record->bmIds) {
        const Tenant::Context block(mTenant, id);
        EXPECT_EQ(mFabric.Free(&block), 0);
      }
      mRecords.erase(found);
      return {};
    });
    mMetadata.Answer(ShuffleMeta::APP_REMOVE, [this](const Request&) -> Reply {
      return {mFabric.DestroyNamespace(kNode, "app", "secret") == 0 ? 0U : 2140017U, ""};
    });
    BroadcastRemoteNodeRsp nodes;
    nodes.selectedNodes = {"127.0.0.1:" + std::to_string(mHost->Port())};
    nodes.nodeIds = {kNode};
    nodes.hostNames = {"host"};
    mMetadata.Answer(ShuffleMeta::BROADCAST_REMOTE_NODE_GET, {0, BytesOf(nodes)});
  }
  void AnswerMfNode(bool isMfNode) {
    NodeIdResponse answer;
    answer.isMfNode = isMfNode;
    answer.nodeId = kNode;
    mMetadata.Answer(ShuffleMeta::IS_MF_NODE, {0, BytesOf(answer)});
  }

  /// Other processes of the node find the pattern in place; the second fetch of one makes no call.
  void ExpectExecutorsRead(const std::string& variable, unsigned int seed) {
    for (int i = 0; i < 2; ++i) {
      BroadcastClient executor(mPlace.Home(), false);
      EXPECT_NE(executor.Do("register app 0 wrong").substr(0, 2), "0 ");
      ASSERT_EQ(executor.Do("register app 0 secret"), "0 1");
      EXPECT_EQ(executor.Do("look app " + variable + " 3 1"), "2120013 0") << "fetching comes first";
      const std::size_t fetched = mServer.Count(ShuffleServer::BROADCAST_BLOCK_BATCH_FETCH);
      EXPECT_EQ(executor.Do("fetch app " + variable + " 3"), "0");
      EXPECT_EQ(executor.Do("fetch app " + variable + " 3"), "0");
      EXPECT_EQ(mServer.Count(ShuffleServer::BROADCAST_BLOCK_BATCH_FETCH), fetched + 1);
      EXPECT_EQ(executor.Do("look app " + variable + " 3 " + std::to_string(seed)), "0 1");
      EXPECT_EQ(executor.Do("release app " + variable), "0");
      EXPECT_EQ(executor.Do("leave app"), "0");
      EXPECT_EQ(executor.Do("end"), "0");
    }
  }
  /// The variable goes, then the application.
  void ExpectEnd(BroadcastClient& driver, const std::string& variable) {
    EXPECT_EQ(Objects(), 3U);
    EXPECT_EQ(driver.Do("delete app " + variable), "0");
    EXPECT_EQ(Objects(), 0U);
    EXPECT_EQ(driver.Do("look app " + variable + " 3 1"), "2120013 0");
    EXPECT_EQ(driver.Do("delete app " + variable), "2060009") << "the service knows it no more";
    EXPECT_EQ(driver.Do("complete app"), "0");
    EXPECT_EQ(mHost->Stats()[3], 0U) << "namespaces";
    EXPECT_EQ(driver.Do("end"), "0");
  }
  std::uint64_t Objects() { return mHost->Stats()[2]; }

  /// A node's link port must be below 32768, where the system gives none away.
  static std::unique_ptr<FabricHost> StartHost(const FabricPlace& place) {
    std::random_device random;
    for (int attempt = 0;; ++attempt) {
      try {
        return std::make_unique<FabricHost>(
            place, std::vector<std::string>{"--port", std::to_string(20000 + random() % 12000)});
      } catch (const std::runtime_error&) {  // somebody has that port
        if (attempt == 20) {
          throw;
        }
      }
    }
  }

  FabricPlace mPlace{kNode};
  std::unique_ptr<FabricHost> mHost = StartHost(mPlace);
  TempDir mOutside;
  ZookeeperServer mZookeeper;
  const std::string mUrl = mZookeeper.NewRoot();
  bm::Client mFabric;
  Tenant mTenant{mFabric, "app", "secret"};
  std::mutex mMutex;
  std::map<unsigned int, std::string> mRecords;  ///< guarded by mMutex
  ScriptedService mServer;
  ScriptedService mMetadata;
};

TEST_F(VariableLifeTest, ADriverOnANodeAndItsExecutors) {
  AnswerMfNode(true);
  BroadcastClient driver(mPlace.Home(), true);
  ASSERT_EQ(driver.Do("register app 1 secret"), "0 1");
  ASSERT_EQ(driver.Do("create app 7 3"), "0");
  ASSERT_EQ(driver.Do("fill app 7 3 " + std::to_string(kSize) + " 5"), "0");
  const auto record = ReadAs<BroadcastBlockInfo>(Record(7));
  EXPECT_THAT(record->sizes, ElementsAre(kSize, kSize, kSize));
  EXPECT_EQ(record->nodeId, kNode);
  ExpectExecutorsRead("7", 5);
  EXPECT_EQ(driver.Do("leave app"), "0");
  ExpectEnd(driver, "7");
}

TEST_F(VariableLifeTest, ADriverOutsideTheFabricAndExecutorsOnANode) {
  AnswerMfNode(false);
  BroadcastClient driver(mOutside.Path(), true);
  ASSERT_EQ(driver.Do("register app 1 secret"), "0 0") << "it takes no part";
  ASSERT_EQ(driver.Do("create app 8 3"), "0");
  ASSERT_EQ(driver.Do("place app 8 3 " + std::to_string(kSize) + " 6 secret"), "0 " + std::to_string(kNode));
  const auto record = ReadAs<BroadcastBlockInfo>(Record(8));
  ASSERT_EQ(record->bmIds.size(), 3U);
  EXPECT_EQ(record->bmIds[2].substr(60), std::string(4, '\0'));
  EXPECT_EQ(record->nodeId, kNode);
  EXPECT_EQ(mServer.Requests().size(), 0U) << "no node server is its own";
  EXPECT_EQ(driver.Do("copy app 8 3 " + std::to_string(kSize) + " 6 secret"), "0 1");
  EXPECT_EQ(driver.Do("copy app 8 3 " + std::to_string(kSize) + " 6 wrong"), "2120007 0");
  ExpectExecutorsRead("8", 6);
  ExpectEnd(driver, "8");
}

}  // namespace
}  // namespace vyn::test
