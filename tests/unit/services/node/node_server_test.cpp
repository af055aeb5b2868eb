#include "services/node/node_server.h"

#include "common/rpc/rpc_engine.h"
#include "services/common/service_status.h"
#include "services/node/reclaimer.h"
#include "services/node/token_registry.h"
#include "support/cluster_test.h"
#include "support/fabric.h"
#include "support/raw_socket.h"
#include "tessel/message/operation_codes.h"

#include <latch>

namespace vyn::services {
namespace {

using common::BaseMessage;
using common::Ref;
using namespace tessel;  // the messages
using testing::ElementsAre;

constexpr long kTimeout = 60000;
constexpr std::uint32_t kNone = 404;  ///< a variable that the leader does not know
/// The look-ups of this variable and of those above it wait until the test lets them go.
constexpr std::uint32_t kHeld = 77;

template <typename Message, typename Fill>
Ref<Message> Make(Fill fill) {
  Ref<Message> message(new Message());
  fill(*message);
  return message;
}

/// A node server on a real pool, and the reclaimer beside it as the daemon has it.
class NodeServerTest : public test::ClusterTest {
 protected:
  void SetUp() override {
    ClusterTest::SetUp();
    Connect();
    mRaw->Create("/vyn/reclaim/1", "");
    std::string error;
    fabric::FabricNodeOptions fabric = mPlace.Options();
    fabric.capacity = 10 * 4096;
    ASSERT_TRUE(mFabric.Start(fabric, error)) << error;
    StartServer(8);
    ASSERT_EQ(Register("app", "secret"), 0U);
  }
  void TearDown() override {
    mReclaimer.Stop();
    mServer.reset();
    mFabric.Stop();
    ClusterTest::TearDown();
  }
  void StartServer(unsigned int workers) {
    mServer.reset();
    NodeServerOptions options;
    options.nodeId = 1;
    options.port = static_cast<std::uint16_t>(mPort.Number());
    options.reclaim = [this](const std::string& application) { return mReclaimer.Drain(application); };
    options.giveBack = [this](const std::string& application, const std::vector<std::string>& bmIds) {
      mReclaimer.GiveBack(application, bmIds);
    };
    options.server.mWorkerThreads = workers;
    options.maxObjects = 4;
    options.lookUp = [this](const std::string&, std::uint32_t id, BroadcastBlockInfo& info) {
      const int number = ++mLookUps;
      EXPECT_TRUE(id < kHeld || id == kNone ||
                  test::WaitUntil([&] { return mLetGo == 0 || mLetGo == number; }));
      info.sizes = {static_cast<std::uint64_t>(number)};
      info.bmIds = {std::string(60, 'x')};
      return id == kNone ? kStatusUnknownVariable : number == mNotReady ? kStatusNotReady : 0;
    };
    mServer = std::make_unique<NodeServer>(options, mFabric);
    std::string error;
    ASSERT_TRUE(mServer->Start(error)) << error;
    mEngine = NewEngine();
  }
  Ref<common::RpcEngine> NewEngine() const {
    Ref<common::RpcEngine> engine(new common::RpcEngine());
    std::string ip = "127.0.0.1";
    std::map<std::string, const std::string> security;
    EXPECT_EQ(engine->Initialize(ip, static_cast<short>(mPort.Number()), kTimeout, false, false, security),
              0U);
    return engine;
  }
  std::uint32_t Call(std::uint16_t code, const Ref<BaseMessage>& request, const Ref<BaseMessage>& response) {
    return mEngine->SyncRpcCall(code, request, response, kTimeout);
  }
  std::uint32_t Register(const std::string& app, const std::string& token, bool leave = false) {
    const auto request = Make<ApplicationRegisterRequest>([&](auto& message) {
      message.ns = app;
      message.token = token;
    });
    Ref<NodeIdResponse> response(new NodeIdResponse());
    const std::uint32_t status = leave ? Call(APP_UNREGISTER, request.Get(), nullptr)
                                       : Call(APP_REGISTER, request.Get(), response.Get());
    EXPECT_TRUE(leave || status != 0 || (response->nodeId == 1 && response->isMfNode));
    return status;
  }
  static Ref<BroadcastBlockBatch> Batch(const std::string& app, const std::vector<std::uint64_t>& sizes) {
    return Make<BroadcastBlockBatch>([&](auto& message) {
      message.appId = app;
      message.sizes = sizes;
    });
  }
  static Ref<BroadcastVar> VariableOf(const std::string& app, std::uint32_t id) {
    return Make<BroadcastVar>([&](auto& message) {
      message.appId = app;
      message.broadcastId = id;
    });
  }
  static Ref<BlobCreateRequest> Blob(const std::string& token) {
    return Make<BlobCreateRequest>([&](auto& message) {
      message.ns = "app";
      message.bagName = "bag";
      message.blobSize = 100;
      message.token = token;
    });
  }
  std::uint32_t Create(const std::string& app, const std::vector<std::uint64_t>& sizes) {
    mCreated = new BroadcastBlockInfo();
    return Call(BROADCAST_BLOCK_BATCH_CREATE, Batch(app, sizes).Get(), mCreated.Get());
  }
  /// Returns: the number of the look-up that the answer comes from, or the status.
  std::uint64_t Fetch(std::uint32_t id, const std::string& app = "app") { return Fetch(mEngine, id, app); }
  static std::uint64_t Fetch(const Ref<common::RpcEngine>& engine, std::uint32_t id, const std::string& app) {
    Ref<BroadcastBlockInfo> response(new BroadcastBlockInfo());
    const std::uint32_t status =
        engine->SyncRpcCall(BROADCAST_BLOCK_BATCH_FETCH, VariableOf(app, id).Get(), response.Get(), kTimeout);
    return status == 0 ? response->sizes.at(0) : status;
  }
  /// Another client, which fetches a held variable and expects this.
  void FetchHeld(std::uint64_t expected) {
    mClients.emplace_back([this, expected] {
      EXPECT_EQ(Fetch(NewEngine(), kHeld, "app"), expected);
      ++mFetched;
    });
  }
  bool Asked(int lookUps) {
    return test::WaitUntil([=, this] { return mLookUps == lookUps; });
  }
  /// Returns: a client that has sent a request and read nothing but the greeting.
  test::RawSocket Send(std::uint16_t code, const Ref<BaseMessage>& request) const {
    EXPECT_EQ(request->Serialize(), 0U);
    const std::string bytes(reinterpret_cast<const char*>(request->SerializedData()),
                            request->SerializedDataSize());
    auto client = test::RawSocket::Connect(static_cast<std::uint16_t>(mPort.Number()));
    EXPECT_TRUE(client.Send(test::WireGreeting() +
                            test::WireHeader(static_cast<std::uint32_t>(2 + bytes.size()), 1, code) +
                            test::Wire(std::uint16_t{1}) + bytes));
    client.Receive(test::WireGreeting().size());
    return client;
  }
  /// The same as a client that will not read its answer; waits until the server has seen it go.
  void SendAndGo(std::uint16_t code, const Ref<BaseMessage>& request) const {
    auto client = Send(code, request);
    shutdown(client.Descriptor(), SHUT_WR);
    EXPECT_TRUE(client.EndsWithin(test::RawSocket::kPatience));
  }

  test::FabricPlace mPlace{1};
  test::ReservedPort mPort;
  std::atomic<int> mLookUps{0};
  std::atomic<int> mLetGo{-1};     ///< the number of the look-up that need not wait, 0 for all
  std::atomic<int> mNotReady{-1};  ///< the number of the look-up that is refused
  std::atomic<int> mFetched{0};
  fabric::FabricNode mFabric;
  std::unique_ptr<NodeServer> mServer;
  Reclaimer mReclaimer{1, mFabric, [this](const ReclaimEntry& entry) {
                         entry.variablePath.empty() ? mServer->Forget(entry.application)
                                                    : mServer->Forget(entry.application, entry.variableId);
                       }};
  Ref<common::RpcEngine> mEngine;
  Ref<BroadcastBlockInfo> mCreated;
  std::vector<std::jthread> mClients;
};

TEST_F(NodeServerTest, TheFirstRegistrationFixesTheToken) {
  struct Case {
    std::string app, token;
    bool leave;
    std::uint32_t status;
  };
  const std::string longest(4096, 't');
  for (const Case& c :
       {Case{"app", "secret", false, 0}, Case{"app", "guess!", false, kStatusWrongToken},
        Case{"app", "guess!", true, kStatusWrongToken}, Case{"app", "secret", true, 0},
        Case{"other", "secret", true, kStatusNotRegistered},
        Case{"a/b", "secret", false, kStatusInvalidRequest},
        Case{std::string("app\0x", 5), "secret", false, kStatusInvalidRequest},
        Case{"no]\nname", "secret", true, kStatusInvalidRequest},
        Case{std::string(256, 'n'), "secret", false, kStatusInvalidRequest},
        Case{"new", longest + "t", false, kStatusInvalidRequest}, Case{"most", longest, false, 0}}) {
    EXPECT_EQ(Register(c.app, c.token, c.leave), c.status) << c.app << " " << c.leave;
  }
  EXPECT_EQ(FixToken("app", "guess!"), kStatusWrongToken) << "and so does every other node";
  EXPECT_EQ(FixToken("app", "secret"), 0U);
  EXPECT_THAT(mRaw->Children("/vyn/apps"), ElementsAre("app", "most"));
  EXPECT_EQ(mRaw->Get("/vyn/apps/app/token").find("secret"), std::string::npos);
  const std::string audit = test::ReadFile(mFolder / "audit.log");
  EXPECT_NE(audit.find("[register_application][app][FAILED]"), std::string::npos) << audit;
  for (const char* damaged : {R"({"salt":1,"hash":2})", "[]"}) {
    mRaw->Set("/vyn/apps/app/token", damaged);
    EXPECT_EQ(Register("app", "secret"), kStatusWrongToken) << damaged;
  }
}

TEST_F(NodeServerTest, AnEarlierApplicationsEndDoesNotHitTheNewOne) {
  ASSERT_EQ(Create("app", {100}), 0U);
  // The leader removed it, and this node has not looked yet.
  mRaw->Delete("/vyn/apps/app/token");
  mRaw->Delete("/vyn/apps/app");
  mRaw->Create("/vyn/reclaim/1/5-0", ReclaimEntry{"app", "", 0, false}.ToText());
  mRaw->Create("/vyn/reclaim/1/5-1", ReclaimEntry{"other", "", 0, false}.ToText());
  EXPECT_EQ(Register("app", "new"), 0U);
  EXPECT_EQ(mFabric.Stats().objects, 0U);
  EXPECT_THAT(mRaw->Children("/vyn/reclaim/1"), ElementsAre("5-1"));
  ASSERT_EQ(Create("app", {100}), 0U);
  EXPECT_TRUE(mReclaimer.Drain());
  EXPECT_EQ(mFabric.Stats().objects, 1U);
  EXPECT_TRUE(mRaw->Children("/vyn/reclaim/1").empty());
}

TEST_F(NodeServerTest, ABatchIsCreatedWholeAndWithinTheLimitOrNotAtAll) {
  struct Case {
    const char* app;
    std::vector<std::uint64_t> sizes;
    std::uint32_t status;
  };
  for (const Case& c : {Case{"other", {1}, kStatusNotRegistered}, Case{"a/b", {1}, kStatusInvalidRequest},
                        Case{"app", {}, kStatusInvalidRequest}, Case{"app", {1, 0}, kStatusInvalidRequest},
                        Case{"app", {4096, 9 * 4096, 4096}, VYN_ERR_OUT_OF_POOL_MEMORY},
                        Case{"app", {1, ~std::uint64_t{0}}, VYN_ERR_OUT_OF_POOL_MEMORY},
                        Case{"app", {1, 1, 1, 1, 1}, kStatusLimit}}) {
    EXPECT_EQ(Create(c.app, c.sizes), c.status) << c.app << testing::PrintToString(c.sizes);
    EXPECT_EQ(mFabric.Stats().used, 0U);
  }
  std::latch ready(8);
  std::atomic<int> made{0};
  for (int i = 0; i < 8; ++i) {
    mClients.emplace_back([&] {
      const auto engine = NewEngine();
      Ref<BroadcastBlockInfo> response(new BroadcastBlockInfo());
      ready.arrive_and_wait();
      made += engine->SyncRpcCall(BROADCAST_BLOCK_BATCH_CREATE, Batch("app", {1, 1, 1}).Get(), response.Get(),
                                  kTimeout) == 0;
    });
  }
  mClients.clear();
  EXPECT_EQ(made, 1) << "several at once do not pass the limit together";
  EXPECT_EQ(mFabric.Stats().objects, 3U);
  ASSERT_EQ(Create("app", {5000}), 0U);
  EXPECT_TRUE(mCreated->bmIds.size() == 1 && mCreated->nodeId == 1);
  EXPECT_THAT(mCreated->sizes, ElementsAre(5000));
}

TEST_F(NodeServerTest, WhatWasMadeForACallerThatHasGoneIsGivenBack) {
  mReclaimer.Start();
  StartServer(1);
  FetchHeld(1);
  ASSERT_TRUE(Asked(1));
  // Both wait behind it until their callers have gone.
  SendAndGo(BROADCAST_BLOCK_BATCH_CREATE, Batch("app", {100, 100}).Get());
  SendAndGo(BLOB_CREATE, Blob("secret").Get());
  mLog.Clear();
  mLetGo = 0;
  EXPECT_TRUE(test::WaitUntil([this] { return mLog.Texts(test::kWarnLine).size() >= 2; }))
      << "a line for each";
  EXPECT_TRUE(test::WaitUntil([this] { return mFabric.Stats().objects == 0; }));
  EXPECT_EQ(Create("app", {1}), 0U);
  EXPECT_EQ(mFabric.Stats().objects, 1U) << "this caller is there";
  mReclaimer.Stop();
}

TEST_F(NodeServerTest, AFetchIsRememberedUntilTheVariableGoes) {
  EXPECT_EQ(Fetch(1, "other"), kStatusNotRegistered);
  EXPECT_EQ(Fetch(1, "a/b"), kStatusInvalidRequest);
  EXPECT_EQ(Fetch(kNone), kStatusUnknownVariable);
  EXPECT_EQ(Fetch(1), 2U);
  EXPECT_EQ(Fetch(2), 3U);
  EXPECT_EQ(Fetch(1), 2U);
  mRaw->Create("/vyn/reclaim/1/5-0", ReclaimEntry{"app", "/vyn/apps/app/1.5-0", 1, false}.ToText());
  mReclaimer.Start();
  EXPECT_TRUE(test::WaitUntil([&] { return mRaw->Children("/vyn/reclaim/1").empty(); }));
  mReclaimer.Stop();
  EXPECT_EQ(Fetch(2), 3U);
  EXPECT_EQ(Fetch(1), 4U);
  mServer->ForgetAll();
  EXPECT_EQ(Fetch(2), 5U);
  EXPECT_EQ(Register("app", "secret", true), 0U);
  EXPECT_EQ(Fetch(2), 6U);
}

TEST_F(NodeServerTest, OneAsksTheLeaderForAllAndTheOthersKeepNoWorker) {
  StartServer(3);
  FetchHeld(1);
  ASSERT_TRUE(Asked(1));
  for (int i = 0; i < 5; ++i) {
    Send(BROADCAST_BLOCK_BATCH_FETCH, VariableOf("app", kHeld).Get()).Close();
  }
  EXPECT_EQ(Fetch(1), 2U) << "there are workers for it";
  // Who asks after the variable was deleted must not get what was asked for before.
  mServer->Forget("app", kHeld);
  FetchHeld(3);
  ASSERT_TRUE(Asked(3));
  EXPECT_EQ(mFetched, 0);
  mLetGo = 3;
  EXPECT_TRUE(test::WaitUntil([this] { return mFetched == 1; }));
  mLetGo = 0;
  mClients.clear();
  EXPECT_EQ(Fetch(kHeld), 3U) << "the answer from before the deletion came last, and is not remembered";
}

TEST_F(NodeServerTest, LookUpsOfManyVariablesLeaveWorkersForOthers) {
  StartServer(4);
  for (std::uint32_t id = kHeld; id < kHeld + 4; ++id) {
    mClients.emplace_back([this, id] { EXPECT_LE(Fetch(NewEngine(), id, "app"), 4U); });
  }
  ASSERT_TRUE(Asked(2));
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(Register("app", "secret"), 0U);
  }
  EXPECT_EQ(mLookUps, 2);
  mLetGo = 0;
}

TEST_F(NodeServerTest, ARefusalIsNotForWhoAskedAfterTheLeaderWasAsked) {
  mNotReady = 1;
  FetchHeld(kStatusNotReady);
  ASSERT_TRUE(Asked(1));
  auto second = Send(BROADCAST_BLOCK_BATCH_FETCH, VariableOf("app", kHeld).Get());
  EXPECT_EQ(Fetch(1), 2U) << "by now the second has been heard";
  mLetGo = 1;
  mClients.clear();
  ASSERT_TRUE(Asked(3));
  mLetGo = 3;
  const std::string answer = second.Receive(test::WireHeader(0, 0, 0).size() + sizeof(std::uint32_t));
  EXPECT_EQ(answer.substr(answer.size() - sizeof(std::uint32_t)), test::Wire(std::uint32_t{0}));
}

TEST_F(NodeServerTest, BlobsAreObjectsOfThePool) {
  Ref<ShuffleBlob> blob(new ShuffleBlob());
  EXPECT_EQ(Call(BLOB_CREATE, Blob("guess!").Get(), blob.Get()), kStatusWrongToken);
  EXPECT_THAT(test::ReadFile(mFolder / "audit.log"),
              testing::ContainsRegex("\\[127.0.0.1:[0-9]+\\]\\[create_blob\\]\\[app\\]\\[FAILED\\]"));
  ASSERT_EQ(Call(BLOB_CREATE, Blob("secret").Get(), blob.Get()), 0U);
  Ref<ShuffleBlob> other(new ShuffleBlob());
  ASSERT_EQ(Call(BLOB_CREATE, Blob("secret").Get(), other.Get()), 0U);
  EXPECT_EQ(mFabric.Stats().objects, 2U);
  // A blob can be deleted after a process of the application, and the server, have gone.
  EXPECT_EQ(Register("app", "secret", true), 0U);
  StartServer(8);
  const auto remove = [&](const ShuffleBlob& which, const std::string& token) {
    const auto request = Make<BlobBatchDeleteRequest>([&](auto& message) {
      message.ns = "app";
      message.token = token;
      message.blobIdList = {which.mId};
    });
    return Call(BLOB_BATCH_DELETE, request.Get(), nullptr);
  };
  EXPECT_EQ(remove(*blob, "guess!"), kStatusWrongToken);
  for (const char* time : {"first", "repeated"}) {
    EXPECT_EQ(remove(*blob, "secret"), 0U) << time;
    EXPECT_EQ(mFabric.Stats().objects, 1U) << time;
  }
  ++other->mId->bagId;
  EXPECT_EQ(remove(*other, "secret"), 0U);
  EXPECT_EQ(mFabric.Stats().objects, 1U) << "there is no such blob in that bag";
  EXPECT_EQ(Call(LOCAL_BLOB_GET, Blob("secret").Get(), blob.Get()), kStatusNotServed);
  EXPECT_EQ(Call(99, Blob("secret").Get(), blob.Get()), kStatusUnknownOperation);
}

}  // namespace
}  // namespace vyn::services
