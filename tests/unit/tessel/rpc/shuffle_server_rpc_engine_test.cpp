#include "tessel/rpc/shuffle_server_rpc_engine.h"

#include "common/util/system.h"
#include "support/client_test.h"

namespace vyn::tessel {
namespace {

using common::RpcEngine;
using test::BytesOf;
using test::CapturedLog;
using test::CheckOperation;
using test::OperationRow;
using test::ReadAs;
using test::ScriptedService;

class ShuffleServerRPCEngineTest : public testing::Test {
 protected:
  ShuffleServerRPCEngineTest() {
    mConf = test::PlainConfiguration();
    mConf->Set("vyn.tessel.rpc.shuffle_server.port", int{mService.Port()});
    mConf->Set("vyn.tessel.rpc.local_blob.get.timeout", 7001L);
    mConf->Set("vyn.tessel.rpc.local_blob.commit.timeout", 7002L);
    mConf->Set("vyn.tessel.broadcast.variable.create.timeout", 7003L);
    mConf->Set("vyn.tessel.broadcast.variable.fetch.timeout", 7004L);
    ShuffleServerRPCEngine::mPoolMode = false;
    mClient = ShuffleServerRPCEngine::CreateInstance();
  }

  Ref<common::Configuration> mConf;
  ScriptedService mService;
  Ref<ShuffleServerRPCEngine> mClient;
};

TEST_F(ShuffleServerRPCEngineTest, EveryOperationSendsItsRequestAndTellsItsFailure) {
  ASSERT_EQ(mClient->Initialize(1, true), 0U);
  NodeIdResponse node;
  node.nodeId = 4711;
  MetaLeaderInformation leader("10.1.2.3");
  BroadcastBlockInfo blocks;
  blocks.appId = "app";
  blocks.bmIds = {"id0", "id1"};
  blocks.sizes = {1, 2};
  ShuffleBlob blobOnTheWire;
  blobOnTheWire.mId = new ShuffleBlobId(3, 4);
  LocalBlob localBlob;
  localBlob.blobId = 77;
  LocalBlobCommitResponse committed;
  committed.committed = true;

  Ref<NodeIdResponse> nodeGot(new NodeIdResponse);
  Ref<MetaLeaderInformation> leaderGot(new MetaLeaderInformation);
  Ref<BroadcastBlockInfo> blocksGot(new BroadcastBlockInfo);
  Ref<ShuffleBlob> blobGot(new ShuffleBlob);
  Ref<LocalBlob> localGot(new LocalBlob);
  Ref<LocalBlobCommitResponse> commitGot(new LocalBlobCommitResponse);

  const auto createBatch = [&](const std::string& app, std::vector<std::uint64_t> sizes) {
    Ref<BroadcastBlockBatch> request(new BroadcastBlockBatch);
    request->appId = app;
    request->broadcastId = 9;
    request->sizes = std::move(sizes);
    return mClient->BroadcastBlockBatchCreate(request, blocksGot, "token");
  };
  const auto fetchBatch = [&](const std::string& app) {
    Ref<BroadcastVar> request(new BroadcastVar);
    request->appId = app;
    request->broadcastId = 10;
    return mClient->BroadcastBlockBatchFetch(request, blocksGot, "token");
  };
  const auto createBlob = [&](const std::string& bag, unsigned long size) {
    return mClient->BlobCreate("app", bag, blobGot, size, 5, "token");
  };
  std::vector<Ref<ShuffleBlobId>> ids;
  const auto getLocal = [&](const std::string& ns, const std::string& bag, std::uint64_t size, unsigned num) {
    Ref<LocalBlobGetRequest> request(new LocalBlobGetRequest);
    request->ns = ns;
    request->bagName = bag;
    request->size = size;
    request->partitionNum = num;
    return mClient->GetLocalBlob(request, localGot);
  };
  const auto commitLocal = [&](const std::string& ns, std::uint64_t id) {
    Ref<LocalBlobCommitRequest> request(new LocalBlobCommitRequest);
    request->ns = ns;
    request->blobId = id;
    return mClient->CommitLocalBlob(request, commitGot);
  };
  const std::string blobName = "shuffle blob name does not compliance with specifications in blob create";

  const std::vector<OperationRow> rows = {
      {.name = "AppRegister",
       .opcode = 0,
       .call = [&] { return mClient->AppRegister("app", true, nodeGot, "token"); },
       .sent =
           [](const auto& body) {
             const auto request = ReadAs<ApplicationRegisterRequest>(body);
             EXPECT_EQ(std::tie(request->ns, request->token, request->registerFlag),
                       std::make_tuple("app", "token", true));
           },
       .reply = BytesOf(node),
       .taken = [&] { EXPECT_EQ(nodeGot->nodeId, 4711U); },
       .failure = 1,
       .words = "error to register app app",
       .timeout = 5000},
      {.name = "AppUnregister",
       .opcode = 1,
       .call = [&] { return mClient->AppUnregister("app", "token"); },
       .sent =
           [](const auto& body) {
             const auto request = ReadAs<ApplicationRegisterRequest>(body);
             EXPECT_EQ(std::tie(request->ns, request->token, request->registerFlag),
                       std::make_tuple("app", "token", false));
           },
       .failure = 1,
       .words = "error to unregister application app",
       .timeout = 5000},
      {.name = "GetMetaLeaderInfo",
       .opcode = 6,
       .call =
           [&] {
             const Ref<MetaLeaderInformation> request(new MetaLeaderInformation("sdk"));
             return mClient->GetMetaLeaderInfo(request, leaderGot);
           },
       .sent =
           [](const auto& body) { EXPECT_EQ(ReadAs<MetaLeaderInformation>(body)->metaLeaderInfo, "sdk"); },
       .reply = BytesOf(leader),
       .taken = [&] { EXPECT_EQ(leaderGot->metaLeaderInfo, "10.1.2.3"); },
       .failure = 1,
       .words = "Get meta leader info failed",
       .timeout = 5000},
      {.name = "BroadcastBlockBatchCreate",
       .opcode = 7,
       .call =
           [&] {
             return createBatch("app", {64, 65});
           },
       .sent =
           [](const auto& body) {
             const auto request = ReadAs<BroadcastBlockBatch>(body);
             EXPECT_EQ(std::tie(request->appId, request->broadcastId), std::make_tuple("app", 9U));
             EXPECT_THAT(request->sizes, testing::ElementsAre(64, 65));
           },
       .reply = BytesOf(blocks),
       .taken = [&] { EXPECT_THAT(blocksGot->bmIds, testing::ElementsAre("id0", "id1")); },
       .failure = 1,
       .words = "Broadcast block batch create failed",
       .refusals = {{[&] { return createBatch("", {1}); }, 1,
                     "AppId is empty for broadcast block batch create."},
                    {[&] { return createBatch("app", {}); }, 1, "broadcast block is empty."}},
       .timeout = 7003},
      {.name = "BroadcastBlockBatchFetch",
       .opcode = 8,
       .call = [&] { return fetchBatch("app"); },
       .sent =
           [](const auto& body) {
             const auto request = ReadAs<BroadcastVar>(body);
             EXPECT_EQ(std::tie(request->appId, request->broadcastId), std::make_tuple("app", 10U));
           },
       .reply = BytesOf(blocks),
       .taken = [&] { EXPECT_THAT(blocksGot->sizes, testing::ElementsAre(1, 2)); },
       .failure = 1,
       .words = "Broadcast block batch fetch failed",
       .refusals = {{[&] { return fetchBatch(""); }, 1, "AppId is empty for broadcast block batch create."}},
       .timeout = 7004},
      {.name = "BlobCreate",
       .opcode = 2,
       .call = [&] { return createBlob("bag", 20971520); },
       .sent =
           [](const auto& body) {
             const auto request = ReadAs<BlobCreateRequest>(body);
             EXPECT_EQ(std::tie(request->ns, request->bagName, request->blobSize, request->blobNumber,
                                request->token),
                       std::make_tuple("app", "bag", 20971520UL, 5, "token"));
           },
       .reply = BytesOf(blobOnTheWire),
       .taken = [&] { EXPECT_EQ(blobGot->mId->innerId, 4U); },
       .failure = 1,
       .words = "Failed to create blob as {code}",
       .refusals = {{[&] { return createBlob("a.bag", 1); }, 1, blobName},
                    {[&] { return createBlob("", 1); }, 1, blobName},
                    {[&] { return createBlob("bag", 0); }, 1, "invalid shuffle blob size 0"},
                    {[&] { return createBlob("bag", 20971521); }, 1, "invalid shuffle blob size 20971521"}},
       .timeout = 5000},
      {.name = "BlobBatchDelete",
       .opcode = 3,
       .call =
           [&] {
             ids = {new ShuffleBlobId(1, 2), new ShuffleBlobId(3, 4)};
             const auto status = mClient->BlobBatchDelete(ids, "app", 6, "token");
             EXPECT_TRUE(ids.empty());
             return status;
           },
       .sent =
           [](const auto& body) {
             const auto request = ReadAs<BlobBatchDeleteRequest>(body);
             EXPECT_EQ(std::tie(request->ns, request->blobNumber, request->token),
                       std::make_tuple("app", 6, "token"));
             ASSERT_EQ(request->blobIdList.size(), 2U);
             EXPECT_EQ(request->blobIdList[1]->bagId, 3U);
           },
       .failure = 1,
       .words = "Failed to delete blob in batch as {code}",
       .timeout = 5000},
      {.name = "GetLocalBlob",
       .opcode = 4,
       .call = [&] { return getLocal("app", "bag", 10, 2); },
       .sent =
           [](const auto& body) {
             const auto request = ReadAs<LocalBlobGetRequest>(body);
             EXPECT_EQ(std::tie(request->ns, request->bagName, request->size, request->partitionNum),
                       std::make_tuple("app", "bag", 10UL, 2U));
           },
       .reply = BytesOf(localBlob),
       .taken = [&] { EXPECT_EQ(localGot->blobId, 77U); },
       .failure = 1,
       .words = "Get local blob failed",
       .refusals = {{[&] { return getLocal("", "bag", 10, 2); }, 1, "nameSpace is empty."},
                    {[&] { return getLocal("app", "", 10, 2); }, 1, "nameSpace is empty."},
                    {[&] { return getLocal("app", "bag", 0, 2); }, 1,
                     "size == 0, or partitionNum == 0 in LocalBlob get"},
                    {[&] { return getLocal("app", "bag", 10, 0); }, 1,
                     "size == 0, or partitionNum == 0 in LocalBlob get"}},
       .timeout = 7001},
      {.name = "CommitLocalBlob",
       .opcode = 5,
       .call = [&] { return commitLocal("app", 77); },
       .sent =
           [](const auto& body) {
             const auto request = ReadAs<LocalBlobCommitRequest>(body);
             EXPECT_EQ(std::tie(request->ns, request->blobId), std::make_tuple("app", 77UL));
           },
       .reply = BytesOf(committed),
       .taken = [&] { EXPECT_TRUE(commitGot->committed); },
       .failure = 1,
       .words = "Failed to commit local blob id: 77",
       .refusals = {{[&] { return commitLocal("", 77); }, 1, "nameSpace is empty."},
                    {[&] { return commitLocal("app", 0); }, 1, "blobId == 0 in LocalBlob commit"}},
       .timeout = 7002},
  };
  for (const OperationRow& row : rows) {
    CheckOperation(row, mService);
  }
}

TEST_F(ShuffleServerRPCEngineTest, ANullRequestIsAFailureAsAnyOther) {
  ASSERT_EQ(mClient->Initialize(1, true), 0U);
  CapturedLog log;
  Ref<MetaLeaderInformation> leader;
  Ref<BroadcastBlockInfo> blocks;
  Ref<LocalBlob> blob;
  Ref<LocalBlobCommitResponse> committed;
  EXPECT_EQ(mClient->GetMetaLeaderInfo(nullptr, leader), 1U);
  EXPECT_EQ(mClient->BroadcastBlockBatchCreate(nullptr, blocks, ""), 1U);
  EXPECT_EQ(mClient->BroadcastBlockBatchFetch(nullptr, blocks, ""), 1U);
  EXPECT_EQ(mClient->GetLocalBlob(nullptr, blob), 1U);
  EXPECT_EQ(mClient->CommitLocalBlob(nullptr, committed), 1U);
  EXPECT_EQ(log.Texts(4), std::vector<std::string>(5, "Unexpected nullptr value request"));
  EXPECT_TRUE(mService.Requests().empty());
}

TEST_F(ShuffleServerRPCEngineTest, InitializeTellsHowItWentAndLaterCallsConnectWhenTheDaemonIsUp) {
  CapturedLog log;
  EXPECT_EQ(mClient->AppUnregister("app", ""), 1U);
  EXPECT_TRUE(log.Has(4, "Unexpected nullptr value mEnginePool"));

  ASSERT_EQ(mClient->Initialize(3, true), 0U);
  const std::string port = std::to_string(mService.Port());
  EXPECT_TRUE(log.Has(2, "InitShuffleRpc num:3"));
  EXPECT_TRUE(log.Has(2, "Connected to Shuffle Server rpc server<127.0.0.1:" + port + "> successfully. "));
  EXPECT_TRUE(
      log.Has(2, "Connected to shuffle server rpc server(addr:127.0.0.1, port:" + port + ") successfully."));
  EXPECT_EQ(RpcEngine::mTimeout, 5000);
  EXPECT_EQ(ShuffleServerRPCEngine::mShuffleServerIp, "127.0.0.1");

  auto daemon = std::make_unique<ScriptedService>();
  const unsigned short freed = daemon->Port();
  daemon.reset();
  mConf->Set("vyn.tessel.rpc.shuffle_server.port", int{freed});
  EXPECT_EQ(mClient->Initialize(1, true), 2020019U);
  EXPECT_TRUE(log.Has(4, "Failed to initialize server rpc engine."));
  EXPECT_TRUE(log.Has(4, "shuffle server rpc client init error"));
  EXPECT_EQ(mClient->AppUnregister("app", ""), 1U);
  daemon = std::make_unique<ScriptedService>("127.0.0.1", freed);
  EXPECT_EQ(mClient->AppUnregister("app", ""), 0U);
}

TEST_F(ShuffleServerRPCEngineTest, OneInstanceServesOneSide) {
  CapturedLog log;
  EXPECT_EQ(ShuffleServerRPCEngine::GetInstance(true).Get(), mClient.Get());
  EXPECT_EQ(ShuffleServerRPCEngine::GetInstance(false).Get(), mClient.Get());
  ASSERT_EQ(mClient->Initialize(1, false), 0U);
  EXPECT_TRUE(ShuffleServerRPCEngine::GetInstance(true) == nullptr);
  EXPECT_TRUE(log.Has(4, "Failed to get shuffle rpc cli, request sdk: 1, but really sdk:0"));
  EXPECT_EQ(ShuffleServerRPCEngine::GetInstance(false).Get(), mClient.Get());
  ShuffleServerRPCEngine::gShuffleServerRPCEngine = nullptr;
  EXPECT_TRUE(ShuffleServerRPCEngine::GetInstance(false) != nullptr);
}

TEST_F(ShuffleServerRPCEngineTest, SecuritySettingsFollowTheSide) {
  const std::string host = common::VynGetHostname();
  mConf->Set("vyn.tessel.rpc.tls.ca.cert.path", "/ca");
  mConf->Set("vyn.tessel.rpc.tls.sdk.ca.cert.path", "/sdk/ca");
  mConf->Set("vyn.tessel.plx.ksf.backup.path", "/ksf");
  mConf->Set("vyn.tessel.sdk.plx.ksf.backup.path", "/sdk/ksf");
  mConf->Set("vyn.tessel.rpc.auth.kerb.client.keytab", "/client.keytab");
  mConf->Set("vyn.tessel.rpc.auth.kerb.server.keytab", "/server.keytab");
  mConf->Set("vyn.tessel.rpc.auth.client.principle.name", "client");
  mConf->Set("vyn.tessel.rpc.auth.server.principle.name", "server");
  mConf->Set("vyn.tessel.rpc.auth.domain", "DOMAIN");
  for (const bool isSdk : {false, true}) {
    std::map<std::string, const std::string> conf{{"auth.type", "kept"}};
    mClient->GetSecurityConf(conf, isSdk);
    EXPECT_EQ(conf.size(), 12U);
    EXPECT_EQ(conf["auth.type"], "kept");
    EXPECT_EQ(conf["tls.ca.cert.path"], isSdk ? "/sdk/ca" : "/ca");
    EXPECT_EQ(conf["plx.ksf.backup.path"], isSdk ? "/sdk/ksf" : "/ksf");
    EXPECT_EQ(conf["rpc.client.auth.timeout"], "60000");
    EXPECT_EQ(conf["auth.kerb.keytab"], "/client.keytab");
    EXPECT_EQ(conf["auth.kerb.client.principal"], "client/" + host + "@DOMAIN");
    EXPECT_EQ(conf["auth.kerb.server.principal"], "server/" + host + "@DOMAIN");
  }
}

}  // namespace
}  // namespace vyn::tessel
