#include "services/node/node_server.h"

#include "common/rpc/rpc_engine.h"
#include "platform/zk_helper/zk_helper.h"
#include "services/common/service_status.h"
#include "services/node/reclaimer.h"
#include "services/node/token_registry.h"
#include "services/vynd/home_lock.h"
#include "support/cluster_test.h"
#include "support/fabric.h"
#include "support/raw_socket.h"
#include "tessel/message/operation_codes.h"

#include <gmock/gmock.h>
#include <sys/socket.h>

#include <latch>
#include <thread>

namespace vyn::services {
namespace {

using common::Ref;
using namespace tessel;

constexpr long kTimeout = 60000;

/// A node server on a real pool, and the reclaimer beside it as the daemon has it.
class NodeServerTest : public test::ClusterTest {
 protected:
  void SetUp() override {
    ClusterTest::SetUp();
    Connect();
    mRaw->Create("/vyn/reclaim/1", "");
    std::string error;
    bm::FabricNodeOptions fabric = mPlace.Options();
    fabric.capacity = 10 * 4096;
    ASSERT_TRUE(mFabric.Start(fabric, error)) << error;
    StartServer();
  }
  void ConnectTo(common::RpcEngine& engine) {
    std::string ip = "127.0.0.1";
    std::map<std::string, const std::string> security;
    ASSERT_EQ(engine.Initialize(ip, static_cast<short>(mPort.Number()), kTimeout, false, false, security),
              0U);
  }
  void StartServer() {
    mServer.reset();
    NodeServerOptions options;
    options.nodeId = 1;
    options.port = static_cast<std::uint16_t>(mPort.Number());
    options.reclaim = [this](const std::string& application) { return mReclaimer.Drain(application); };
    options.giveBack = [this](const std::string& application, const std::vector<std::string>& bmIds) {
      mReclaimer.GiveBack(application, bmIds);
    };
    options.server.mWorkerThreads = mWorkers;
    options.maxObjects = 4;
    options.lookUp = [this](const std::string& application, std::uint32_t id, BroadcastBlockInfo& info) {
      ++mLookUps;
      EXPECT_TRUE(id / 10 != kHeld / 10 || test::WaitUntil([this] { return mLetGo.load(); }));
      info.appId = application;
      info.broadcastId = id;
      info.bmIds = {std::string(60, 'x')};
      info.sizes = {5};
      if (id == kHeld && mRefuseOnce.exchange(false)) {
        mLetGo = false;
        return kStatusNotReady;
      }
      return id == 404 ? kStatusUnknownVariable : std::uint32_t{0};
    };
    mServer = std::make_unique<NodeServer>(options, mFabric);
    std::string error;
    ASSERT_TRUE(mServer->Start(error)) << error;
    ConnectTo(*mEngine);
  }
  void TearDown() override {
    mServer.reset();
    mFabric.Stop();
    ClusterTest::TearDown();
  }
  std::uint32_t Call(std::uint16_t code, const Ref<common::BaseMessage>& request,
                     const Ref<common::BaseMessage>& response) {
    return mEngine->SyncRpcCall(code, request, response, kTimeout);
  }
  std::uint32_t Register(const std::string& app, const std::string& token,
                         std::uint16_t code = APP_REGISTER) {
    Ref<ApplicationRegisterRequest> request(new ApplicationRegisterRequest());
    request->ns = app;
    request->token = token;
    Ref<NodeIdResponse> response(new NodeIdResponse());
    const std::uint32_t status = Call(code, request.Get(), code == APP_REGISTER ? response.Get() : nullptr);
    if (status == 0 && code == APP_REGISTER) {
      EXPECT_EQ(response->nodeId, 1U);
      EXPECT_TRUE(response->isMfNode);
    }
    return status;
  }
  std::uint32_t Create(const std::string& app, const std::vector<std::uint64_t>& sizes) {
    Ref<BroadcastBlockBatch> request(new BroadcastBlockBatch());
    request->appId = app;
    request->broadcastId = 1;
    request->sizes = sizes;
    mCreated = new BroadcastBlockInfo();
    return Call(BROADCAST_BLOCK_BATCH_CREATE, request.Get(), mCreated.Get());
  }
  std::uint32_t Fetch(const std::string& app, std::uint32_t id) { return Fetch(*mEngine, app, id); }
  static std::uint32_t Fetch(common::RpcEngine& engine, const std::string& app, std::uint32_t id) {
    Ref<BroadcastVar> request(new BroadcastVar());
    request->appId = app;
    request->broadcastId = id;
    Ref<BroadcastBlockInfo> response(new BroadcastBlockInfo());
    const std::uint32_t status =
        engine.SyncRpcCall(BROADCAST_BLOCK_BATCH_FETCH, request.Get(), response.Get(), kTimeout);
    EXPECT_TRUE(status != 0 || response->bmIds.size() == 1);
    return status;
  }
  /// Another client, which fetches a held variable.
  std::jthread FetchHeld(std::uint32_t status = 0, std::uint32_t id = kHeld) {
    return std::jthread([this, status, id] {
      Ref<common::RpcEngine> engine(new common::RpcEngine());
      ConnectTo(*engine);
      EXPECT_EQ(Fetch(*engine, "app", id), status);
      ++mFetched;
    });
  }

  /// Returns: a client that has sent a request and read nothing but the greeting.
  test::RawSocket Send(std::uint16_t code, const Ref<common::BaseMessage>& request) {
    EXPECT_EQ(request->Serialize(), 0U);
    const std::string bytes(reinterpret_cast<const char*>(request->SerializedData()),
                            request->SerializedDataSize());
    auto client = test::RawSocket::Connect(static_cast<std::uint16_t>(mPort.Number()));
    const auto length = static_cast<std::uint32_t>(2 + bytes.size());
    EXPECT_TRUE(client.Send(test::WireGreeting() + test::WireHeader(length, 1, code) +
                            test::Wire(std::uint16_t{1}) + bytes));
    client.Receive(test::WireGreeting().size());
    return client;
  }
  /// The same as a client that will not read its answer; waits until the server has seen it go.
  void SendAndGo(std::uint16_t code, const Ref<common::BaseMessage>& request) {
    auto client = Send(code, request);
    shutdown(client.Descriptor(), SHUT_WR);
    EXPECT_TRUE(client.EndsWithin(test::RawSocket::kPatience));
  }

  /// The look-ups of this variable and of others of its decade wait for mLetGo.
  static constexpr std::uint32_t kHeld = 77;

  test::FabricPlace mPlace{1};
  test::ReservedPort mPort;
  unsigned int mWorkers = 8;
  std::atomic<bool> mLetGo{false};
  /// The next look-up of the held variable is refused, and the one after it waits again.
  std::atomic<bool> mRefuseOnce{false};
  std::atomic<int> mFetched{0};
  bm::FabricNode mFabric;
  std::atomic<int> mLookUps{0};
  std::unique_ptr<NodeServer> mServer;
  Reclaimer mReclaimer{1, mFabric, [this](const ReclaimEntry& entry) {
                         if (entry.variablePath.empty()) {
                           mServer->Forget(entry.application);
                         } else {
                           mServer->Forget(entry.application, entry.variableId);
                         }
                       }};
  Ref<common::RpcEngine> mEngine{new common::RpcEngine()};
  Ref<BroadcastBlockInfo> mCreated;
};

TEST_F(NodeServerTest, TheFirstRegistrationFixesTheToken) {
  EXPECT_EQ(Register("app", "secret"), 0U);
  EXPECT_EQ(Register("app", "secret"), 0U);
  EXPECT_EQ(Register("app", "guess"), kStatusWrongToken);
  EXPECT_EQ(FixToken("app", "guess"), kStatusWrongToken) << "and so does every other node";
  EXPECT_EQ(FixToken("app", "secret"), 0U);
  EXPECT_EQ(mRaw->Get("/vyn/apps/app/token").find("secret"), std::string::npos);
  EXPECT_EQ(Register("a/b", "secret"), kStatusInvalidRequest);
  EXPECT_EQ(Register(std::string("app\0x", 5), "secret"), kStatusInvalidRequest);
  EXPECT_EQ(Register("app", "guess", APP_UNREGISTER), kStatusWrongToken);
  EXPECT_EQ(Register("other", "secret", APP_UNREGISTER), kStatusNotRegistered);
  EXPECT_EQ(Register("app", "secret", APP_UNREGISTER), 0U);
  const std::string audit = test::ReadFile(mFolder / "audit.log");
  EXPECT_NE(audit.find("[register_application][app][FAILED]"), std::string::npos) << audit;

  mRaw->Set("/vyn/apps/app/token", R"({"salt":1,"hash":2})");
  EXPECT_EQ(Register("app", "secret"), kStatusWrongToken) << "a damaged record lets nobody in";
}

TEST_F(NodeServerTest, AnEarlierApplicationsEndDoesNotHitTheNewOne) {
  ASSERT_EQ(Register("app", "old"), 0U);
  ASSERT_EQ(Create("app", {100}), 0U);
  // The leader removed it, and this node has not looked yet.
  mRaw->Delete("/vyn/apps/app/token");
  mRaw->Delete("/vyn/apps/app");
  mRaw->Create("/vyn/reclaim/1/5-0", ReclaimEntry{"app", "", 0, false}.ToText());
  mRaw->Create("/vyn/reclaim/1/5-1", ReclaimEntry{"other", "", 0, false}.ToText());
  EXPECT_EQ(Register("app", "new"), 0U);
  EXPECT_EQ(mFabric.Stats().objects, 0U);
  EXPECT_THAT(mRaw->Children("/vyn/reclaim/1"), testing::ElementsAre("5-1"));
  ASSERT_EQ(Create("app", {100}), 0U);
  mRaw->Create("/vyn/reclaim/1/5-2", "rubbish");
  EXPECT_TRUE(mReclaimer.Drain());
  EXPECT_EQ(mFabric.Stats().objects, 1U);
  EXPECT_THAT(mRaw->Children("/vyn/reclaim/1"), testing::IsEmpty());
}

TEST_F(NodeServerTest, ABatchIsCreatedWholeOrNotAtAll) {
  EXPECT_EQ(Create("app", {1}), kStatusNotRegistered);
  ASSERT_EQ(Register("app", "secret"), 0U);
  EXPECT_EQ(Create("app", {}), kStatusInvalidRequest);
  EXPECT_EQ(Create("app", {1, 0}), kStatusInvalidRequest);
  EXPECT_EQ(Create("app", {4096, 9 * 4096, 4096}), VYN_ERR_OUT_OF_POOL_MEMORY);
  EXPECT_EQ(Create("app", {~std::uint64_t{0}, 1}), VYN_ERR_OUT_OF_POOL_MEMORY);
  EXPECT_EQ(mFabric.Stats().used, 0U);
  ASSERT_EQ(Create("app", {1, 9 * 4096}), 0U);
  EXPECT_THAT(mCreated->sizes, testing::ElementsAre(1, 9 * 4096));
  EXPECT_EQ(mCreated->bmIds.size(), 2U);
  EXPECT_EQ(mCreated->nodeId, 1U);
  EXPECT_EQ(Create("app", {1, 1, 1}), kStatusLimit);
}

TEST_F(NodeServerTest, BatchesAtOnceDoNotPassTheLimitTogether) {
  ASSERT_EQ(Register("app", "secret"), 0U);
  std::latch ready(8);
  std::atomic<int> made{0};
  std::vector<std::jthread> clients;
  for (int i = 0; i < 8; ++i) {
    clients.emplace_back([&] {
      Ref<common::RpcEngine> engine(new common::RpcEngine());
      ConnectTo(*engine);
      Ref<BroadcastBlockBatch> request(new BroadcastBlockBatch());
      request->appId = "app";
      request->sizes = {1, 1, 1};
      Ref<BroadcastBlockInfo> response(new BroadcastBlockInfo());
      ready.arrive_and_wait();
      made += engine->SyncRpcCall(BROADCAST_BLOCK_BATCH_CREATE, request.Get(), response.Get(), kTimeout) == 0;
    });
  }
  clients.clear();
  EXPECT_EQ(made, 1);
  EXPECT_EQ(mFabric.Stats().objects, 3U);
}

TEST_F(NodeServerTest, WhatWasMadeForACallerThatHasGoneIsGivenBack) {
  ASSERT_EQ(Register("app", "secret"), 0U);
  mReclaimer.Start();
  mWorkers = 1;
  StartServer();
  const std::jthread busy = FetchHeld();
  ASSERT_TRUE(test::WaitUntil([this] { return mLookUps == 1; }));
  // Both wait behind it until their callers have gone.
  Ref<BroadcastBlockBatch> blocks(new BroadcastBlockBatch());
  blocks->appId = "app";
  blocks->sizes = {100, 100};
  SendAndGo(BROADCAST_BLOCK_BATCH_CREATE, blocks.Get());
  Ref<BlobCreateRequest> blob(new BlobCreateRequest());
  blob->ns = "app";
  blob->bagName = "bag";
  blob->blobSize = 100;
  blob->token = "secret";
  SendAndGo(BLOB_CREATE, blob.Get());
  EXPECT_EQ(mFabric.Stats().objects, 0U);
  mLetGo = true;
  for (const char* made : {"BROADCAST_BLOCK_BATCH_CREATE of application app did not reach its caller, 2",
                           "BLOB_CREATE of application app did not reach its caller, 1"}) {
    const std::string line = std::string("The answer to ") + made + " objects are given back";
    EXPECT_TRUE(test::WaitUntil([&] { return mLog.Has(test::kWarnLine, line); })) << line;
  }
  EXPECT_TRUE(test::WaitUntil([this] { return mFabric.Stats().objects == 0; }));
  mReclaimer.Stop();
}

TEST_F(NodeServerTest, AFetchIsRememberedUntilTheVariableGoes) {
  EXPECT_EQ(Fetch("app", 1), kStatusNotRegistered);
  ASSERT_EQ(Register("app", "secret"), 0U);
  EXPECT_EQ(Fetch("app", 404), kStatusUnknownVariable);
  EXPECT_EQ(Fetch("app", 1), 0U);
  EXPECT_EQ(Fetch("app", 2), 0U);
  EXPECT_EQ(mLookUps, 3);
  EXPECT_EQ(Fetch("app", 1), 0U);
  EXPECT_EQ(mLookUps, 3);
  mRaw->Create("/vyn/reclaim/1/5-0", ReclaimEntry{"app", "/vyn/apps/app/1.5-0", 1, false}.ToText());
  mReclaimer.Start();
  EXPECT_TRUE(test::WaitUntil([&] { return mRaw->Children("/vyn/reclaim/1").empty(); }));
  mReclaimer.Stop();
  EXPECT_EQ(Fetch("app", 2), 0U);
  EXPECT_EQ(mLookUps, 3);
  EXPECT_EQ(Fetch("app", 1), 0U);
  EXPECT_EQ(mLookUps, 4);
  mServer->ForgetAll();
  EXPECT_EQ(Fetch("app", 2), 0U);
  EXPECT_EQ(mLookUps, 5);
}

TEST_F(NodeServerTest, OneAsksTheLeaderForAllAndTheOthersKeepNoWorker) {
  ASSERT_EQ(Register("app", "secret"), 0U);
  mWorkers = 3;
  StartServer();
  std::vector<std::jthread> clients;
  for (int i = 0; i < 6; ++i) {
    clients.push_back(FetchHeld());
  }
  ASSERT_TRUE(test::WaitUntil([this] { return mLookUps == 1; }));
  EXPECT_EQ(Fetch("app", 1), 0U) << "there are workers for it";
  EXPECT_EQ(mLookUps, 2);
  // Who asks after the variable was deleted must not get what was asked for before.
  mServer->Forget("app", kHeld);
  clients.push_back(FetchHeld());
  EXPECT_TRUE(test::WaitUntil([this] { return mLookUps == 3; }));
  EXPECT_EQ(mFetched, 0);
  mLetGo = true;
  clients.clear();
  EXPECT_EQ(mFetched, 7);
  EXPECT_EQ(Fetch("app", kHeld), 0U);
  EXPECT_EQ(mLookUps, 3) << "the later answer is remembered";
}

TEST_F(NodeServerTest, LookUpsOfManyVariablesLeaveWorkersForOthers) {
  mWorkers = 4;
  StartServer();
  ASSERT_EQ(Register("app", "secret"), 0U);
  std::vector<std::jthread> clients;
  for (std::uint32_t id = kHeld - 4; id < kHeld; ++id) {
    clients.push_back(FetchHeld(0, id));
  }
  ASSERT_TRUE(test::WaitUntil([this] { return mLookUps == 2; }));
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(Register("app", "secret"), 0U);
  }
  EXPECT_EQ(mLookUps, 2);
  mLetGo = true;
  clients.clear();
  EXPECT_EQ(mFetched, 4);
}

TEST_F(NodeServerTest, ARefusalIsNotForWhoAskedAfterTheLeaderWasAsked) {
  ASSERT_EQ(Register("app", "secret"), 0U);
  mRefuseOnce = true;
  std::jthread first = FetchHeld(kStatusNotReady);
  ASSERT_TRUE(test::WaitUntil([this] { return mLookUps == 1; }));
  Ref<BroadcastVar> request(new BroadcastVar());
  request->appId = "app";
  request->broadcastId = kHeld;
  auto second = Send(BROADCAST_BLOCK_BATCH_FETCH, request.Get());
  EXPECT_EQ(Fetch("app", 1), 0U) << "by now the second has been heard";
  mLetGo = true;
  first.join();
  ASSERT_TRUE(test::WaitUntil([this] { return mLookUps == 3; }));
  mLetGo = true;
  const std::string answer = second.Receive(test::WireHeader(0, 0, 0).size() + sizeof(std::uint32_t));
  EXPECT_EQ(answer.substr(answer.size() - sizeof(std::uint32_t)), test::Wire(std::uint32_t{0}));
}

TEST_F(NodeServerTest, ANameOrTokenThatThePoolRefusesIsNotFixed) {
  EXPECT_EQ(Register(std::string(256, 'n'), "secret"), kStatusInvalidRequest);
  EXPECT_EQ(Register("app", std::string(4097, 't')), kStatusInvalidRequest);
  EXPECT_FALSE(mRaw->Exists("/vyn/apps"));
  EXPECT_EQ(Register("app", std::string(4096, 't')), 0U);
  EXPECT_EQ(Register("no]\nname", "secret", APP_UNREGISTER), kStatusInvalidRequest);
}

TEST_F(NodeServerTest, BlobsAreObjectsOfThePool) {
  ASSERT_EQ(Register("app", "secret"), 0U);
  Ref<BlobCreateRequest> create(new BlobCreateRequest());
  create->ns = "app";
  create->bagName = "bag";
  create->blobSize = 100;
  create->token = "guess";
  Ref<ShuffleBlob> blob(new ShuffleBlob());
  EXPECT_EQ(Call(BLOB_CREATE, create.Get(), blob.Get()), kStatusWrongToken);
  EXPECT_THAT(test::ReadFile(mFolder / "audit.log"),
              testing::ContainsRegex("\\[127.0.0.1:[0-9]+\\]\\[create_blob\\]\\[app\\]\\[FAILED\\]"));
  create->token = "secret";
  ASSERT_EQ(Call(BLOB_CREATE, create.Get(), blob.Get()), 0U);
  Ref<ShuffleBlob> other(new ShuffleBlob());
  ASSERT_EQ(Call(BLOB_CREATE, create.Get(), other.Get()), 0U);
  EXPECT_EQ(mFabric.Stats().objects, 2U);
  EXPECT_EQ(Register("app", "secret", APP_UNREGISTER), 0U);
  StartServer();
  Ref<BlobBatchDeleteRequest> remove(new BlobBatchDeleteRequest());
  remove->ns = "app";
  remove->token = "secret";
  remove->blobIdList = {blob->mId};
  EXPECT_EQ(Call(BLOB_BATCH_DELETE, remove.Get(), nullptr), 0U);
  EXPECT_EQ(mFabric.Stats().objects, 1U)
      << "also after a process of the application, and the server, have gone";
  EXPECT_EQ(Call(BLOB_BATCH_DELETE, remove.Get(), nullptr), 0U) << "a repeat";
  ++other->mId->bagId;
  remove->blobIdList = {other->mId};
  EXPECT_EQ(Call(BLOB_BATCH_DELETE, remove.Get(), nullptr), 0U);
  EXPECT_EQ(mFabric.Stats().objects, 1U) << "there is no such blob in that bag";
  EXPECT_EQ(Call(LOCAL_BLOB_GET, create.Get(), blob.Get()), kStatusNotServed);
  EXPECT_EQ(Call(99, create.Get(), blob.Get()), kStatusUnknownOperation);
}

TEST(HomeLock, HasOneHolder) {
  const test::TempDir home;
  std::string error;
  {
    HomeLock first;
    ASSERT_TRUE(first.Take(home.Path(), error)) << error;
    HomeLock second;
    EXPECT_FALSE(second.Take(home.Path(), error));
    EXPECT_NE(error.find("process " + std::to_string(getpid())), std::string::npos) << error;
  }
  HomeLock next;
  EXPECT_TRUE(next.Take(home.Path(), error)) << error;
  HomeLock nowhere;
  EXPECT_FALSE(nowhere.Take(home / "missing", error));
}

}  // namespace
}  // namespace vyn::services
