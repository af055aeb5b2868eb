#include "services/node/node_server.h"

#include "services/common/service_status.h"
#include "services/node/reclaimer.h"
#include "services/node/token_registry.h"
#include "support/fabric/fabric.h"
#include "support/rpc/service_client.h"
#include "support/zookeeper/cluster_test.h"
#include "tessel/message/operation_codes.h"

#include <latch>

namespace vyn::services {
namespace {

using namespace tessel;  // the messages
using namespace test;
using testing::ElementsAre;
using Sizes = std::vector<std::uint64_t>;

constexpr std::uint32_t kNone = 404;  ///< a variable that the leader does not know
/// The look-ups of this variable and of those above it wait until the test lets them go.
constexpr std::uint32_t kHeld = 77;

/// A node server on a real pool, and the reclaimer beside it as the daemon has it.
class NodeServerTest : public ClusterTest {
 protected:
  void SetUp() override {
    ClusterTest::SetUp();
    mRaw->Create("/vyn/reclaim/1", "");
    fabric::FabricNodeOptions fabric = mPlace.Options();
    fabric.capacity = 10 * 4096;
    ASSERT_TRUE(mFabric.Start(fabric, mError)) << mError;
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
    options.reclaim = [this](const auto& application) { return mReclaimer.Drain(application); };
    options.giveBack = [this](const auto& application, const auto& ids) {
      mReclaimer.GiveBack(application, ids);
    };
    options.server.mWorkerThreads = workers;
    options.maxObjects = 4;
    options.created = [](const auto&, std::uint32_t, const auto& bmIds) {
      return bmIds.size() == 4 ? throw std::bad_alloc() : void();
    };
    options.lookUp = [this](const std::string&, std::uint32_t id, BroadcastBlockInfo& info) {
      const int number = ++mLookUps;
      EXPECT_TRUE(id < kHeld || id == kNone || WaitUntil([&] { return mLetGo == 0 || mLetGo == number; }));
      info.sizes = {static_cast<std::uint64_t>(number)};
      info.bmIds = {std::string(60, 'x')};
      return id == kNone ? kStatusUnknownVariable : 0;
    };
    options.mayAnswer = [this] {
      ++mFetches;
      return mMayAnswer.load();
    };
    mServer = std::make_unique<NodeServer>(options, mFabric);
    ASSERT_TRUE(mServer->Start(mError)) << mError;
    mClient.emplace(mPort.Number());
  }
  std::uint32_t Register(const std::string& app, const std::string& token) {
    const Ref<NodeIdResponse> response(new NodeIdResponse());
    const std::uint32_t status =
        mClient->Send<ApplicationRegisterRequest>(APP_REGISTER, response.Get(), app, token);
    EXPECT_TRUE(status != 0 || (response->nodeId == 1 && response->isMfNode));
    return status;
  }
  std::uint32_t Unregister(const std::string& app, const std::string& token) {
    return mClient->Send<ApplicationRegisterRequest>(APP_UNREGISTER, nullptr, app, token);
  }
  std::uint32_t Create(const std::string& app, const Sizes& sizes) const {
    const Ref<BroadcastBlockInfo> made(new BroadcastBlockInfo());
    const std::uint32_t status =
        ServiceClient(mPort.Number())
            .Send<BroadcastBlockBatch>(BROADCAST_BLOCK_BATCH_CREATE, made.Get(), app, 1U, sizes);
    EXPECT_TRUE(status != 0 || (made->bmIds.size() == sizes.size() && made->sizes == sizes));
    return status;
  }
  /// Returns: the number of the look-up that the answer comes from, or the status.
  std::uint64_t Fetch(std::uint32_t id, const std::string& app = "app") const {
    const Ref<BroadcastBlockInfo> found(new BroadcastBlockInfo());
    const std::uint32_t status =
        ServiceClient(mPort.Number()).Send<BroadcastVar>(BROADCAST_BLOCK_BATCH_FETCH, found.Get(), app, id);
    return status == 0 ? found->sizes.at(0) : status;
  }
  /// Fetches a held variable in a thread, and expects this.
  void FetchHeld(std::uint64_t expected) {
    mClients.emplace_back([this, expected] {
      EXPECT_EQ(Fetch(kHeld), expected);
      ++mFetched;
    });
  }
  bool Asked(int lookUps) {
    return WaitUntil([=, this] { return mLookUps == lookUps; });
  }
  /// Returns: a client that has sent a request and read nothing but the greeting.
  RawSocket Send(std::uint16_t code, const Ref<BaseMessage>& request) const {
    EXPECT_EQ(request->Serialize(), 0U);
    const std::string bytes(reinterpret_cast<const char*>(request->SerializedData()),
                            request->SerializedDataSize());
    auto client = RawSocket::Connect(static_cast<std::uint16_t>(mPort.Number()));
    EXPECT_TRUE(client.Send(WireGreeting() +
                            WireHeader(static_cast<std::uint32_t>(2 + bytes.size()), 1, code) +
                            Wire(std::uint16_t{1}) + bytes));
    client.Receive(WireGreeting().size());
    return client;
  }

  std::string mError;
  FabricPlace mPlace{1};
  ReservedPort mPort;
  std::atomic<int> mLookUps{0};
  std::atomic<int> mLetGo{-1};  ///< the number of the look-up that need not wait, 0 for all
  std::atomic<int> mFetched{0};
  std::atomic<bool> mMayAnswer{true};
  std::atomic<int> mFetches{0};
  fabric::FabricNode mFabric;
  std::unique_ptr<NodeServer> mServer;
  Reclaimer mReclaimer{1, mFabric, [this](const ReclaimEntry& entry) {
                         entry.variablePath.empty() ? mServer->Forget(entry.application)
                                                    : mServer->Forget(entry.application, entry.variableId);
                       }};
  std::optional<ServiceClient> mClient;
  std::vector<std::jthread> mClients;
};

TEST_F(NodeServerTest, TheFirstRegistrationFixesTheToken) {
  EXPECT_EQ(Register("app", "secret"), 0U);
  EXPECT_EQ(Register("app", "guess!"), kStatusWrongToken);
  EXPECT_EQ(Unregister("app", "guess!"), kStatusWrongToken);
  EXPECT_EQ(Unregister("app", "secret"), 0U);
  EXPECT_EQ(Unregister("other", "secret"), kStatusNotRegistered);
  EXPECT_EQ(Unregister("no]\nname", "secret"), kStatusInvalidRequest);
  const std::string longest(4096, 't');
  for (const std::string& name : {std::string("a/b"), std::string("app\0x", 5), std::string(256, 'n')}) {
    EXPECT_EQ(Register(name, "secret"), kStatusInvalidRequest) << name;
  }
  EXPECT_EQ(Register("new", longest + "t"), kStatusInvalidRequest);
  EXPECT_EQ(Register("most", longest), 0U);
  EXPECT_EQ(FixToken("app", "guess!"), kStatusWrongToken) << "and so does every other node";
  EXPECT_THAT(mRaw->Children("/vyn/apps"), ElementsAre("app", "most"));
  EXPECT_EQ(mRaw->Get("/vyn/apps/app/token").find("secret"), std::string::npos);
  const std::string audit = ReadFile(mFolder / "audit.log");
  EXPECT_NE(audit.find("[register_application][app][FAILED]"), std::string::npos) << audit;
  mRaw->Set("/vyn/apps/app/token", R"({"salt":1,"hash":2})");
  EXPECT_EQ(Register("app", "secret"), kStatusWrongToken);
}

TEST_F(NodeServerTest, ReclaimingAnEndedApplicationSparesANewOneOfTheSameName) {
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

TEST_F(NodeServerTest, TheNodeServerCreatesAllBlocksOfABatchOrNone) {
  for (const auto& [app, sizes, status] :
       {std::tuple("other", Sizes{1}, kStatusNotRegistered),
        std::tuple("a/b", Sizes{1}, kStatusInvalidRequest), std::tuple("app", Sizes{}, kStatusInvalidRequest),
        std::tuple("app", Sizes{1, 0}, kStatusInvalidRequest),
        std::tuple("app", Sizes{4096, 9 * 4096, 4096}, VYN_ERR_OUT_OF_POOL_MEMORY),
        std::tuple("app", Sizes{1, ~std::uint64_t{0}}, VYN_ERR_OUT_OF_POOL_MEMORY),
        std::tuple("app", Sizes(4, 1), VYN_ERR_NULL_POINTER),  // what follows the allocation throws
        std::tuple("app", Sizes(5, 1), kStatusLimit)}) {
    EXPECT_EQ(Create(app, sizes), status) << app << testing::PrintToString(sizes);
    EXPECT_EQ(mFabric.Stats().used, 0U);
  }
  std::latch ready(8);
  std::atomic<int> made{0};
  for (int i = 0; i < 8; ++i) {
    mClients.emplace_back([&] {
      ready.arrive_and_wait();
      made += Create("app", {1, 1, 1}) == 0;
    });
  }
  mClients.clear();
  EXPECT_EQ(made, 1) << "several at once do not pass the limit together";
  EXPECT_EQ(mFabric.Stats().objects, 3U);
  EXPECT_EQ(Create("app", {5000}), 0U);
}

TEST_F(NodeServerTest, TheNodeServerFreesTheBlocksOfADisconnectedCaller) {
  mReclaimer.Start();
  StartServer(1);
  FetchHeld(1);
  ASSERT_TRUE(Asked(1));
  // It waits behind that until its caller has gone.
  auto client =
      Send(BROADCAST_BLOCK_BATCH_CREATE, Make<BroadcastBlockBatch>("app", 1U, Sizes{100, 100}).Get());
  shutdown(client.Descriptor(), SHUT_WR);
  EXPECT_TRUE(client.EndsWithin(RawSocket::kPatience));
  mLog.Clear();
  mLetGo = 0;
  EXPECT_TRUE(WaitUntil([this] { return !mLog.Texts(kWarnLine).empty(); }));
  EXPECT_TRUE(WaitUntil([this] { return mFabric.Stats().objects == 0; }));
  EXPECT_EQ(Create("app", {1}), 0U);
  EXPECT_EQ(mFabric.Stats().objects, 1U) << "this caller is there";
}

TEST_F(NodeServerTest, TheNodeServerCachesAFetchUntilTheVariableIsRemoved) {
  EXPECT_EQ(Fetch(1, "other"), kStatusNotRegistered);
  EXPECT_EQ(Fetch(kNone), kStatusUnknownVariable);
  EXPECT_EQ(Fetch(1), 2U);
  EXPECT_EQ(Fetch(2), 3U);
  EXPECT_EQ(Fetch(1), 2U);
  mRaw->Create("/vyn/reclaim/1/5-0", ReclaimEntry{"app", "/vyn/apps/app/1.5-0", 1, false}.ToText());
  mReclaimer.Start();
  EXPECT_TRUE(WaitUntil([&] { return mRaw->Children("/vyn/reclaim/1").empty(); }));
  EXPECT_EQ(Fetch(2), 3U);
  EXPECT_EQ(Fetch(1), 4U);
  mServer->ForgetAll();
  EXPECT_EQ(Fetch(2), 5U);
  EXPECT_EQ(Unregister("app", "secret"), 0U);
  EXPECT_EQ(Fetch(2), 6U);
  mMayAnswer = false;  // the leader may take this node for down
  EXPECT_EQ(Fetch(2), 7U);
  FetchHeld(8);
  ASSERT_TRUE(Asked(8));
  const int fetches = mFetches;
  FetchHeld(9);  // the answer to 8 may be older than this caller
  EXPECT_TRUE(WaitUntil([&] { return mFetches > fetches; }));
  mLetGo = 8;
  ASSERT_TRUE(Asked(9));
  mLetGo = 0;
}

TEST_F(NodeServerTest, CallersOfOneVariableShareALookUpAndOccupyNoOtherWorker) {
  StartServer(3);
  FetchHeld(1);
  ASSERT_TRUE(Asked(1));
  for (int i = 0; i < 5; ++i) {
    Send(BROADCAST_BLOCK_BATCH_FETCH, Make<BroadcastVar>("app", kHeld).Get()).Close();
  }
  EXPECT_EQ(Fetch(1), 2U) << "there are workers for it";
  // Who asks after the variable was deleted must not get what was asked for before.
  mServer->Forget("app", kHeld);
  FetchHeld(3);
  ASSERT_TRUE(Asked(3));
  EXPECT_EQ(mFetched, 0);
  mLetGo = 3;
  EXPECT_TRUE(WaitUntil([this] { return mFetched == 1; }));
  mLetGo = 0;
  mClients.clear();
  EXPECT_EQ(Fetch(kHeld), 3U) << "the answer from before the deletion came last, and is not remembered";
}

TEST_F(NodeServerTest, LookUpsOfManyVariablesLeaveWorkersForOtherRequests) {
  StartServer(4);
  for (std::uint32_t id = kHeld; id < kHeld + 4; ++id) {
    mClients.emplace_back([this, id] { EXPECT_LE(Fetch(id), 4U); });
  }
  ASSERT_TRUE(Asked(2));
  EXPECT_EQ(Register("app", "secret"), 0U);
  EXPECT_EQ(mLookUps, 2);
  mLetGo = 0;
}

TEST_F(NodeServerTest, TheNodeServerCreatesAndDeletesBlobsInThePool) {
  const Ref<ShuffleBlob> blobs[] = {new ShuffleBlob(), new ShuffleBlob()};
  const auto create = [&](const Ref<ShuffleBlob>& blob, const char* token) {
    return mClient->Send<BlobCreateRequest>(BLOB_CREATE, blob.Get(), "bag", "app", 100U, 0, token);
  };
  EXPECT_EQ(create(blobs[0], "guess!"), kStatusWrongToken);
  for (const auto& blob : blobs) {
    ASSERT_EQ(create(blob, "secret"), 0U);
  }
  EXPECT_EQ(mFabric.Stats().objects, 2U);
  // A blob can be deleted after a process of the application, and the server, have gone.
  EXPECT_EQ(Unregister("app", "secret"), 0U);
  StartServer(8);
  const auto remove = [&](const Ref<ShuffleBlob>& blob, const char* token) {
    return mClient->Send<BlobBatchDeleteRequest>(BLOB_BATCH_DELETE, nullptr, std::vector{blob->mId}, "app", 0,
                                                 token);
  };
  EXPECT_EQ(remove(blobs[0], "guess!"), kStatusWrongToken);
  ++blobs[1]->mId->bagId;  // there is no such blob in that bag
  for (const int i : {0, 0, 1}) {
    EXPECT_EQ(remove(blobs[i], "secret"), 0U);
    EXPECT_EQ(mFabric.Stats().objects, 1U);
  }
}

}  // namespace
}  // namespace vyn::services
