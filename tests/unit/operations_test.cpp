// Every operation of the three clients: what it sends, what it takes from the answer, how it fails and what it
// refuses.

#include "support/operations_test.h"

#include "common/log/time_counter.h"
#include "support/fake_clock.h"
#include "support/test.h"
#include "tessel/message/operation_codes.h"
#include "tuning/message/tuning_operation_codes.h"

namespace vyn::test {
namespace {

using common::HeartBeatMessage;
using namespace tessel;  // NOLINT: the messages
using namespace tuning;  // NOLINT
using BlobIds = std::vector<Ref<ShuffleBlobId>>;
using NodeIds = std::set<std::uint16_t>;
using Numbers = std::vector<unsigned int>;
using Parameters = std::map<std::string, std::string>;
using Sizes = std::vector<std::uint64_t>;
using Texts = std::vector<std::string>;

TEST_F(OperationsTest, OfTheNodeServer) {
  ASSERT_EQ(mServer->Initialize(1, true), 0U);
  Client(gShuffleServerNames, 1, {.status = 1, .timeout = 5000});

  CheckInto<NodeIdResponse>(0, "APP_REGISTER", INTO(mServer->AppRegister("app", true, got, "token")),
                            Make<ApplicationRegisterRequest>("app", "token", true));
  Check(1, "APP_UNREGISTER", CALL(mServer->AppUnregister("app", "token")),
        Make<ApplicationRegisterRequest>("app", "token", false));

  Ref<ShuffleBlob> blob(new ShuffleBlob);
  const auto create = [&](const std::string& bag, unsigned long size) {
    return mServer->BlobCreate("app", bag, blob, size, 5, "token");
  };
  Check(2, "BLOB_CREATE", CALL(create("bag", 20971520)),
        Make<BlobCreateRequest>("bag", "app", 20971520, 5, "token"),
        {BytesOf(*Blob(3, 4)), CALL(blob->mId->bagId == 3 && blob->mId->innerId == 4)});
  Refuse(CALL(create("a.bag", 1)), CALL(create("", 1)), CALL(create("bag", 0)),
         CALL(create("bag", 20971521)));

  const BlobIds ids{new ShuffleBlobId(1, 2), new ShuffleBlobId(3, 4)};
  BlobIds taken;
  Check(3, "BLOB_BATCH_DELETE", CALL(taken = ids, mServer->BlobBatchDelete(taken, "app", 6, "token")),
        Make<BlobBatchDeleteRequest>(ids, "app", 6, "token"), {"", CALL(taken.empty())});
  EXPECT_TRUE(taken.empty()) << "also by a call that failed";

  const auto get = Make<LocalBlobGetRequest>("app", "bag", 10, 2);
  const auto getOf = [&](const char* app, const char* bag, int size, int partitions) {
    return mServer->GetLocalBlob(Make<LocalBlobGetRequest>(app, bag, size, partitions), Null<LocalBlob>());
  };
  CheckInto<LocalBlob>(4, "LOCAL_BLOB_GET", INTO(mServer->GetLocalBlob(get, got)), get, {.timeout = 7001});
  Refuse(CALL(getOf("", "bag", 10, 2)), CALL(getOf("app", "", 10, 2)), CALL(getOf("app", "bag", 0, 2)),
         CALL(getOf("app", "bag", 10, 0)), CALL(mServer->GetLocalBlob(nullptr, Null<LocalBlob>())));

  const auto commit = Make<LocalBlobCommitRequest>("app", 77);
  const auto commitOf = [&](const Ref<LocalBlobCommitRequest>& request) {
    return mServer->CommitLocalBlob(request, Null<LocalBlobCommitResponse>());
  };
  CheckInto<LocalBlobCommitResponse>(5, "LOCAL_BLOB_COMMIT", INTO(mServer->CommitLocalBlob(commit, got)),
                                     commit, {.timeout = 7002});
  Refuse(CALL(commitOf(Make<LocalBlobCommitRequest>("", 77))),
         CALL(commitOf(Make<LocalBlobCommitRequest>("app", 0))), CALL(commitOf(nullptr)));

  const auto question = Make<MetaLeaderInformation>("sdk");
  CheckInto<MetaLeaderInformation>(6, "META_LEADER_INFO", INTO(mServer->GetMetaLeaderInfo(question, got)),
                                   question);
  Refuse(CALL(mServer->GetMetaLeaderInfo(nullptr, Null<MetaLeaderInformation>())));

  const auto batchOf = [&](const Ref<BroadcastBlockBatch>& request) {
    return mServer->BroadcastBlockBatchCreate(request, Null<BroadcastBlockInfo>(), "token");
  };
  const auto batch = Make<BroadcastBlockBatch>("app", 9, Sizes{64, 65});
  CheckInto<BroadcastBlockInfo>(7, "BROADCAST_BLOCK_BATCH_CREATE",
                                INTO(mServer->BroadcastBlockBatchCreate(batch, got, "token")), batch,
                                {.timeout = 7003});
  Refuse(CALL(batchOf(Make<BroadcastBlockBatch>("", 9, Sizes{1}))),
         CALL(batchOf(Make<BroadcastBlockBatch>("app", 9, Sizes{}))), CALL(batchOf(nullptr)));

  const auto fetchOf = [&](const Ref<BroadcastVar>& request) {
    return mServer->BroadcastBlockBatchFetch(request, Null<BroadcastBlockInfo>(), "token");
  };
  const auto var = Make<BroadcastVar>("app", 10, 3, true);
  CheckInto<BroadcastBlockInfo>(8, "BROADCAST_BLOCK_BATCH_FETCH",
                                INTO(mServer->BroadcastBlockBatchFetch(var, got, "token")), var,
                                {.timeout = 7004});
  Refuse(CALL(fetchOf(new BroadcastVar)), CALL(fetchOf(nullptr)));
}

TEST_F(OperationsTest, OfTheMetadataServiceOnVariablesAndNodes) {
  ASSERT_EQ(mMeta->Initialize(), 0U);
  Client(gShuffleMetaNames, 2000013, {.status = 2060009, .timeout = 8001});
  const auto app = Make<ShuffleApplication>("app");
  Check(0, "APP_REMOVE", CALL(mMeta->AppRemove("app")), app, {}, {.passed = 1});
  Refuse(CALL(mMeta->AppRemove("a.b")));

  auto apps = Make<ShuffleApplicationIdList>(Texts{"app", "gone"});
  CheckInto<ShuffleApplicationIdList>(17, "CHECK_VALID_APP", INTO(mMeta->CheckValidApps(apps, got)), apps);

  Texts hosts;
  Check(20, "GET_UNAVAILABLE_NODE_LIST", CALL(mMeta->GetUnavailableNodeList("app", hosts)), app,
        {BytesOf(*Make<HostMessage>("app", Texts{"dead"})), CALL(hosts == Texts{"dead"})});
  EXPECT_TRUE(hosts.empty()) << "a failed call leaves no node";

  const auto beat = [&](const char* name, const char* process) {
    return mMeta->HeartBeat(name, 200, process, "any text; a.b", true);
  };
  Check(21, "HEART_BEAT", CALL(beat("app", "driver")),
        Make<HeartBeatMessage>("app", 200, "driver", "any text; a.b", true));
  Refuse(CALL(beat("a b", "driver")), CALL(beat("app", "")));

  const auto var = Make<BroadcastVar>("app", 7, 3, true);
  const Ref<BroadcastVar> badVar(new BroadcastVar);
  Check(22, "BROADCAST_VAR_NEW", CALL(mMeta->BroadcastVarNew(var)), var);
  Check(23, "BROADCAST_VAR_REMOVE", CALL(mMeta->BroadcastVarRemove(var)), var);
  CheckInto<BroadcastBlockInfo>(24, "BROADCAST_VAR_GET", INTO(mMeta->BroadcastVarInfoGet(var, got)), var);
  Refuse(CALL(mMeta->BroadcastVarNew(badVar)), CALL(mMeta->BroadcastVarRemove(badVar)),
         CALL(mMeta->BroadcastVarInfoGet(badVar, Null<BroadcastBlockInfo>())));

  const auto info = Make<BroadcastBlockInfo>("app", 7, 2, Texts{"id"}, Sizes{64});
  Check(25, "BROADCAST_VAR_INFO_ADD", CALL(mMeta->BroadcastVarInfoAdd(info)), info);
  Check(26, "BROADCAST_BLOCK_INFO_ADD", CALL(mMeta->BroadcastBlockInfoAdd(info)), info);
  Refuse(CALL(mMeta->BroadcastVarInfoAdd(new BroadcastBlockInfo)),
         CALL(mMeta->BroadcastBlockInfoAdd(new BroadcastBlockInfo)));

  const auto block = Make<BlockInfoRequest>("app", 7, 2);
  CheckInto<BlockBmInfo>(27, "BROADCAST_BLOCK_INFO_GET", INTO(mMeta->BroadcastBlockInfoFetch(block, got)),
                         block);
  Refuse(CALL(mMeta->BroadcastBlockInfoFetch(new BlockInfoRequest, Null<BlockBmInfo>())));

  const auto nodes = Make<BroadcastRemoteNodeReq>("app", true, Texts{"10.0.0.1"});
  const Ref<BroadcastRemoteNodeReq> noNode(new BroadcastRemoteNodeReq);
  CheckInto<BroadcastRemoteNodeRsp>(28, "BROADCAST_REMOTE_NODE_GET",
                                    INTO(mMeta->BroadcastRemoteNodeInfoGet(nodes, got)), nodes);
  CheckInto<NodeIdResponse>(29, "IS_MF_NODE", INTO(mMeta->IsMfNode(nodes, got)), nodes);
  Refuse(CALL(mMeta->BroadcastRemoteNodeInfoGet(noNode, Null<BroadcastRemoteNodeRsp>())),
         CALL(mMeta->IsMfNode(noNode, Null<NodeIdResponse>())));

  const std::vector capacities{Make<CapacityInfo>("h5", 5, 10), Make<CapacityInfo>("h7", 7, 14)};
  Texts list;
  Check(30, "GET_MF_CAPACITY_LIST", CALL(list = {"before"}, mMeta->GetMfCapacityList("app", list)), app,
        {BytesOf(*Make<ClusterCapacityMessage>("app", capacities)),
         CALL(list == Texts{"before", "h5-5-10", "h7-7-14"})});
  EXPECT_EQ(list.size(), 1U) << "a failed call adds nothing";
}

TEST_F(OperationsTest, OfTheMetadataServiceOnShuffles) {
  ASSERT_EQ(mMeta->Initialize(), 0U);
  Client(gShuffleMetaNames, 2000013, {.status = 2060009, .timeout = 8001});
  const auto batch = Make<ShuffleBagBatch>(7, 1, 2, "part", "app");
  const auto badBatch = Make<ShuffleBagBatch>(7, 1, 2, "a/b", "app");
  const auto noBag = Make<ShuffleBagBatch>(0, 1, 2, "part", "app");
  Check(4, "BAG_BATCH_NEW", CALL(mMeta->BagBatchNew(noBag)), noBag, {}, {.passed = 2060203});
  Check(5, "BAG_BATCH_REMOVE", CALL(mMeta->BagBatchRemove(batch)), batch);
  Refuse(CALL(mMeta->BagBatchNew(badBatch)), CALL(mMeta->BagBatchRemove(badBatch)),
         CALL(mMeta->BagBatchRemove(noBag)));

  const Ref<ShuffleBlobList> blobs(new ShuffleBlobList);
  bool result = false;
  NodeIds removed{1};
  const auto listed =
      Make<ShuffleBlobListAndTaskInfo>(0, "", Texts{}, Texts{BytesOf(*Blob(1, 2))}, true, NodeIds{8, 9}, "");
  Check(
      6, "BLOB_LIST_MARK_READING",
      CALL(blobs->mBlobs.clear(),
           mMeta->BlobListUnderBagWithMapTaskInfo("bag", blobs, true, result, removed, 23)),
      Make<BlobListBagRequest>("bag", true, 23),
      {BytesOf(*listed), CALL(blobs->mBlobs.at(0)->mId->innerId == 2 && result && removed == NodeIds{8, 9})});

  const auto ids = [](unsigned int bag, unsigned long inner) {
    return BlobIds{new ShuffleBlobId(1, 2), new ShuffleBlobId(bag, inner)};
  };
  Check(7, "BLOB_BATCH_REMOVE", CALL(mMeta->BlobBatchRemove("app", ids(3, 4))),
        Make<ShuffleBlobIdList>("app", ids(3, 4)));
  Refuse(CALL(mMeta->BlobBatchRemove("app", ids(0, 4))), CALL(mMeta->BlobBatchRemove("app", ids(3, 0))),
         CALL(mMeta->BlobBatchRemove("app", {nullptr})));

  const auto update = [&](const Ref<ShuffleBlob>& last, Ref<ShuffleBlobStateIndexList>& states) {
    std::vector<Ref<ShuffleBlob>> list{Blob(1, 2), last};
    return mMeta->BlobBatchUpdate("app", 24, list, states);
  };
  const auto wide = Blob(0x01020304, 0x05060708090a0b0cUL);
  // Bag and inner id are big-endian, and nothing follows them.
  const Texts keys{std::string("\0\0\0\1\0\0\0\0\0\0\0\2", 12) + std::string(84, '\0'),
                   "\1\2\3\4\5\6\7\x8\x9\xa\xb\xc" + std::string(84, '\0')};
  const Texts values{BytesOf(*Blob(1, 2)), BytesOf(*wide)};
  CheckInto<ShuffleBlobStateIndexList>(
      8, "BLOB_BATCH_UPDATE", INTO(update(wide, got)),
      Make<ShuffleBlobListAndTaskInfo>(24, "app", keys, values, false, NodeIds{}, ""));
  Refuse(CALL(update(nullptr, Null<ShuffleBlobStateIndexList>())),
         CALL(update(new ShuffleBlob, Null<ShuffleBlobStateIndexList>())));

  Numbers children;
  CheckInto<ShuffleIdList>(
      9, "STAGE_DAG_SET",
      INTO(children = {1, 2}, mMeta->MarkStageUseless("app", children, true, got, 33, 34)),
      Make<ShuffleStagesCompletedInfo>("app", Numbers{1, 2}, true, 33, 34));
  EXPECT_TRUE(children.empty()) << "also by a call that failed";

  Check(10, "STAGE_SHUFFLEID_SET", CALL(mMeta->SetStageShuffleId("app", 31, 32)),
        Make<ShuffleStage>("app", 31, 32));
  auto task = Make<MapTaskStatus>("app", 1, 2, 3, 4, 5, 6, 7);
  Check(11, "MAP_TASK_STATUS_UPDATE", CALL(mMeta->MapTaskStatusUpdate(task)), task);

  Ref<ShuffleBagIdEntry> entry;
  Texts stale{"old"};
  Check(12, "BAG_BATCH_LIST_GET", CALL(mMeta->BagListGetBatch("prefixapp_1_2_3_4", 21, 22, entry, stale)),
        Make<ShuffleBagInfoGetRequest>("app_1_2_3", "prefixapp_1_2_3_4", 21, 22),
        {BytesOf(*Make<ShuffleBagIdList>(11, 12, "prefix", Texts{"stale"})),
         CALL(std::tie(entry->entryValue0, entry->entryValue1, entry->bagPrefix, stale) ==
              std::make_tuple(11U, 12U, "prefix", Texts{"stale"}))});

  auto swap = Make<ShuffleBlobStateIndexCASList>("app", 5, Numbers{2, 3});
  CheckInto<ShuffleBlobStateIndexCASResultList>(13, "BLOB_BATCH_MARK_AND_FETCH",
                                                INTO(mMeta->BatchCASShuffleBlobStates(swap, got)), swap);
  const auto bagSwap = Make<BlobListCasRequest>("bag", 6, Numbers{2, 3});
  CheckInto<ShuffleBlobStateIndexCASResultList>(31, "", INTO(mMeta->CASBlobListState(bagSwap, got)), bagSwap);

  Check(14, "MARK_WORKER_REMOVED", CALL(mMeta->MarkWorkerRemoved("app", 38)),
        Make<WorkerRemovedNotification>("app", 38));
  std::string host;
  Check(15, "FIND_WORKER", CALL(mMeta->FindWorkerByNodeId("app", 37, host)),
        Make<MapTaskStatus>("app", 0, 0, 0, 0, 0, 0, 37),
        {BytesOf(*Make<NodeInformation>("host", 37)), CALL(host == "host")});
  Check(18, "MARK_STAGE_HAS_FAILED_TASK", CALL(mMeta->MarkStageHasFailedTask("app", 35)),
        Make<StageInfo>("app", 35));
  Check(19, "MARK_STAGE_ALL_TASKS_DONE", CALL(mMeta->MarkStageAllTaskDone("app", 36)),
        Make<StageInfo>("app", 36));
}

TEST_F(OperationsTest, OfTheTuningService) {
  ASSERT_EQ(mTuning->Initialize(), 0U);
  Client(gTuningServerNames, 2000013, {.status = 2020025, .timeout = 9001});
  const auto enter = [&](const char* field, const char* app, const char* query) {
    auto bad = Make<TuningSqlMessage>(field, app, query);
    return mTuning->RegisterSqlHistory(bad, Null<RegisterResult>());
  };
  auto query = Make<TuningSqlMessage>("f", "a", "q");
  CheckInto<RegisterResult>(0, "SQL_HISTORY_REGISTER", INTO(mTuning->RegisterSqlHistory(query, got)), query);
  Refuse(CALL(enter("", "a", "q")), CALL(enter("f", "a.b", "q")), CALL(enter("f", "a", "q;")));
  Check(1, "SQL_HISTORY_UNREGISTER", CALL(mTuning->UnRegisterSqlHistory(query)), query);
  auto noQuery = Make<TuningSqlMessage>("f", "a", "");
  Refuse(CALL(mTuning->UnRegisterSqlHistory(noQuery)));

  const auto beat = [&](const char* name, const char* process) {
    return mTuning->HeartBeat(name, 1, process, "any text", false);
  };
  Check(2, "TUNING_HEART_BEAT", CALL(beat("app", "driver")),
        Make<HeartBeatMessage>("app", 1, "driver", "any text", false), {}, {.status = 2060009});
  Refuse(CALL(beat("app", "a b")), CALL(beat("", "driver")));

  const auto report = [&](const char* app, const char* type) {
    auto metrics = Make<TuningMetrics>("f", app, "q", type, "", Parameters{});
    return mTuning->ReportTuningMetrics(metrics);
  };
  auto metrics = Make<TuningMetrics>("f", "a", "q", "type", "any text", Parameters{{"a metric", "any text"}});
  Check(3, "REPORT_TUNING_METRICS", CALL(mTuning->ReportTuningMetrics(metrics)), metrics);
  Refuse(CALL(report("a b", "type")), CALL(report("a", "a type")));

  const auto inferOf = [&](const char* app, const char* type, const char* key) {
    auto bad = Make<InferIdentification>("f", app, "q", type, "", Parameters{{"k", "v"}, {key, "v"}});
    return mTuning->InferByHistory(bad, Null<InferResult>());
  };
  auto infer = Make<InferIdentification>("f", "a", "q", "type", "any text", Parameters{{"k", "any text"}});
  CheckInto<InferResult>(4, "INFER_BY_HISTORY", INTO(mTuning->InferByHistory(infer, got)), infer,
                         {.isTold = false});
  Refuse(CALL(inferOf("a b", "type", "k")), CALL(inferOf("a", "a type", "k")), CALL(inferOf("a", "", "k")),
         CALL(inferOf("a", "type", "k 2")));
  mService.Answer(4, {0, "no message"});
  EXPECT_EQ(mTuning->InferByHistory(infer, Null<InferResult>()), 0U) << "the answer may be left unread";
}

TEST_F(OperationsTest, ANullRequestIsRefused) {
  for (const std::uint32_t status :
       {mMeta->BroadcastVarNew(nullptr), mMeta->BagBatchNew(nullptr),
        mMeta->CASBlobListState(nullptr, nullptr), mMeta->MapTaskStatusUpdate(Null<MapTaskStatus>()),
        mMeta->IsMfNode(nullptr, Null<NodeIdResponse>()),
        mTuning->ReportTuningMetrics(Null<TuningMetrics>())}) {
    EXPECT_EQ(status, 2000057U);
  }
}

TEST_F(OperationsTest, TheApplicationIsCutOutOfABagsName) {
  ASSERT_EQ(mMeta->Initialize(), 0U);
  mService.Answer(12, {0, BytesOf(*Make<ShuffleBagIdList>(0, 0, "", Texts{}))});
  for (const auto& [bag, application] : std::map<std::string, std::string>{
           {"abcdefx_1_2_3", "x_1_2_3"},  // the fourth "_" is the one that is appended
           {"abcdefx_1_2", ""},
           {"a_b_c_d", "d"},
           {"a_b_c_", ""},
           {"", ""}}) {
    Ref<ShuffleBagIdEntry> entry;
    std::vector<std::string> prefixes;
    mService.Clear();
    ASSERT_EQ(mMeta->BagListGetBatch(bag, 0, 0, entry, prefixes), 0U);
    EXPECT_EQ(ReadAs<ShuffleBagInfoGetRequest>(mService.Requests()[0].body)->ns, application) << bag;
  }
}

/// Moves on a microsecond each time it is read.
class CountingClock : public FakeClock {
 public:
  std::chrono::steady_clock::time_point Now() override {
    return FakeClock::Now() + std::chrono::microseconds(++mReads);
  }
  std::atomic<int> mReads{0};
};

TEST_F(OperationsTest, TheListOfABagMeasuresItselfAsFarAsItIsTold) {
  ASSERT_EQ(mMeta->Initialize(), 0U);
  Ref<ShuffleBlobList> blobs(new ShuffleBlobList);
  bool result = false;
  NodeIds nodes;
  const auto list = CALL(mMeta->BlobListUnderBagWithMapTaskInfo("bag", blobs, false, result, nodes, 0));
  const auto reply = [](const Texts& values) {
    return BytesOf(*Make<ShuffleBlobListAndTaskInfo>(0, "", Texts{}, values, false, NodeIds{}, " kv 5"));
  };
  // In nanoseconds: the call, its three phases, the work on the reply; the service's own figure follows.
  const Texts figures[] = {
      {}, {"1000", "0", "0", "0", "1000", "5"}, {"7000", "1000", "1000", "1000", "1000", "5"}};
  for (const unsigned char level : {0, 1, 2}) {
    common::TimeCounter::SetTimeCountLevel(level);
    CountingClock clock;
    CapturedLog log;
    mService.Answer(6, {0, reply({})});
    EXPECT_EQ(list(), 0U);
    EXPECT_EQ(clock.mReads != 0, level != 0);
    ASSERT_EQ(log.Texts(2).size(), level == 0 ? 0U : 1U);
    const std::string line = level == 0 ? "" : log.Texts(2)[0];
    const std::regex number("\\d+");
    EXPECT_EQ(Texts(std::sregex_token_iterator(line.begin(), line.end(), number), {}), figures[level]);

    // A failed call is no measure, and a bad blob makes the call a failed one.
    log.Clear();
    mService.Answer(6, {2060011, ""});
    EXPECT_EQ(list(), 2060009U);
    mService.Answer(6, {0, reply({std::string(95, '\0')})});
    EXPECT_EQ(list(), 2060009U);
    EXPECT_TRUE(log.Texts(2).empty() && blobs->mBlobs.empty());
  }
}

}  // namespace
}  // namespace vyn::test
