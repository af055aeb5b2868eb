// The operations about bags, blobs, stages, tasks and workers.

#include "common/log/time_counter.h"
#include "support/fake_clock.h"
#include "support/meta_client_test.h"

#include <atomic>
#include <new>

namespace {

/// The size of which this thread has no memory, for allocations that may fail.
thread_local std::size_t gRefusedSize = 0;

}  // namespace

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  try {
    return size == gRefusedSize ? nullptr : ::operator new(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

namespace vyn::tessel {
namespace {

using common::TimeCounter;
using test::BytesOf;
using test::CapturedLog;
using test::CheckOperation;
using test::OperationRow;
using test::ReadAs;

class MetaShuffleOperationsTest : public MetaClientTest {};

Ref<ShuffleBagBatch> Batch(const std::string& name, unsigned int partitions) {
  Ref<ShuffleBagBatch> batch(new ShuffleBagBatch);
  batch->partName = name;
  batch->partitionNum = partitions;
  return batch;
}

Ref<ShuffleBlob> Blob(unsigned int bag, unsigned long inner) {
  Ref<ShuffleBlob> blob(new ShuffleBlob);
  blob->mId = new ShuffleBlobId(bag, inner);
  return blob;
}

TEST_F(MetaShuffleOperationsTest, EveryOperationSendsItsRequestAndTellsItsFailure) {
  ShuffleBagIdList bagIds;
  bagIds.listValue0 = 11;
  bagIds.listValue1 = 12;
  bagIds.bagNamePrefix = "prefix";
  bagIds.bagNamePrefixToBeCleanedList = {"stale0", "stale1"};
  ShuffleBlobListAndTaskInfo listed;
  listed.valueList = {BytesOf(*Blob(1, 2))};
  listed.listResult = true;
  listed.removedNodeId = {8, 9};
  ShuffleBlobStateIndexList statesSent;
  statesSent.stateFlag = 3;
  ShuffleBlobStateIndexCASResultList swapped;
  swapped.blobStates = {4, 5};
  ShuffleIdList shuffles;
  shuffles.ids = {6};
  NodeInformation worker;
  worker.hostName = "host";

  Ref<ShuffleBagIdEntry> entry;
  std::vector<std::string> prefixes{"old"};
  Ref<ShuffleBlobList> blobs(new ShuffleBlobList);
  bool listResult = false;
  std::set<unsigned short> removed{1};
  Ref<ShuffleBlobStateIndexList> states;
  Ref<ShuffleBlobStateIndexCASResultList> swapGot(new ShuffleBlobStateIndexCASResultList);
  Ref<ShuffleIdList> shufflesGot(new ShuffleIdList);
  std::string hostName = "old";
  std::vector<unsigned int> children;
  const std::string newWords = "shuffle blob name does not compliance with specifications in bag batch new";
  const std::string goneWords =
      "shuffle blob name does not compliance with specifications in bag batch remove";
  const std::string idWords = "bagId or inner id == 0 in blob batch remove";
  const auto removeBlobs = [&](const Ref<ShuffleBlobId>& last) {
    return mClient->BlobBatchRemove("app", {new ShuffleBlobId(1, 2), last});
  };

  std::vector<OperationRow> rows = {
      {.name = "BagBatchNew",
       .opcode = 4,
       .call = [&] { return mClient->BagBatchNew(Batch("part", 0)); },
       .sent = [](const auto& body) { EXPECT_EQ(ReadAs<ShuffleBagBatch>(body)->partName, "part"); },
       .words = "Rpc failed to send create bag batch as {code}",
       .refusals = {{[&] { return mClient->BagBatchNew(Batch("a/b", 1)); }, 2000013, newWords}}},
      {.name = "BagBatchRemove",
       .opcode = 5,
       .call = [&] { return mClient->BagBatchRemove(Batch("part", 7)); },
       .sent = [](const auto& body) { EXPECT_EQ(ReadAs<ShuffleBagBatch>(body)->partitionNum, 7U); },
       .words = "Rpc failed to send remove batch bag as {code}",
       .refusals = {{[&] { return mClient->BagBatchRemove(Batch("", 7)); }, 2000013, goneWords},
                    {[&] { return mClient->BagBatchRemove(Batch("part", 0)); }, 2000013,
                     "partition num is 0 in bag batch remove"}}},
      {.name = "BagListGetBatch",
       .opcode = 12,
       .call = [&] { return mClient->BagListGetBatch("prefixapp_1_2_3_4", 21, 22, entry, prefixes); },
       .sent =
           [](const auto& body) {
             const auto request = ReadAs<ShuffleBagInfoGetRequest>(body);
             EXPECT_EQ(std::tie(request->ns, request->name, request->number, request->kind),
                       std::make_tuple("app_1_2_3", "prefixapp_1_2_3_4", 21U, 22));
           },
       .reply = BytesOf(bagIds),
       .taken =
           [&] {
             ASSERT_TRUE(entry != nullptr);
             EXPECT_EQ(std::tie(entry->entryValue0, entry->entryValue1, entry->bagPrefix),
                       std::make_tuple(11U, 12U, "prefix"));
             EXPECT_THAT(prefixes, testing::ElementsAre("stale0", "stale1"));
           },
       .words = "Failed to send get bag id list for <prefixapp_1_2_3_4as, result <{code}>"},
      {.name = "BlobListUnderBagWithMapTaskInfo",
       .opcode = 6,
       .call =
           [&] {
             return mClient->BlobListUnderBagWithMapTaskInfo("bag", blobs, true, listResult, removed, 23);
           },
       .sent =
           [](const auto& body) {
             const auto request = ReadAs<BlobListBagRequest>(body);
             EXPECT_EQ(std::tie(request->bagName, request->listFlag, request->number),
                       std::make_tuple("bag", true, 23U));
           },
       .reply = BytesOf(listed),
       .taken =
           [&] {
             ASSERT_EQ(blobs->mBlobs.size(), 1U);
             EXPECT_EQ(blobs->mBlobs[0]->mId->bagId, 1U);
             EXPECT_TRUE(listResult);
             EXPECT_THAT(removed, testing::ElementsAre(8, 9));
           },
       .words = "Rpc failed to get blob list in bag as {code}"},
      {.name = "BlobBatchRemove",
       .opcode = 7,
       .call = [&] { return removeBlobs(new ShuffleBlobId(3, 4)); },
       .sent =
           [](const auto& body) {
             const auto request = ReadAs<ShuffleBlobIdList>(body);
             EXPECT_EQ(request->ns, "app");
             ASSERT_EQ(request->blobIdList.size(), 2U);
             EXPECT_EQ(request->blobIdList[1]->innerId, 4U);
           },
       .words = "Rpc failed to send remove batch blob as {code}",
       .refusals = {{[&] { return removeBlobs(new ShuffleBlobId(0, 4)); }, 2000013, idWords},
                    {[&] { return removeBlobs(new ShuffleBlobId(3, 0)); }, 2000013, idWords},
                    {[&] { return removeBlobs(nullptr); }, 2000013, idWords}}},
      {.name = "BlobBatchUpdate",
       .opcode = 8,
       .call =
           [&] {
             std::vector<Ref<ShuffleBlob>> batch{Blob(1, 2), Blob(0x01020304, 0x05060708090a0b0cUL)};
             return mClient->BlobBatchUpdate("app", 24, batch, states);
           },
       .sent =
           [](const auto& body) {
             const auto request = ReadAs<ShuffleBlobListAndTaskInfo>(body);
             EXPECT_EQ(std::tie(request->ns, request->number), std::make_tuple("app", 24U));
             EXPECT_THAT(request->keyList,
                         testing::ElementsAre(
                             std::string("\0\0\0\1\0\0\0\0\0\0\0\2", 12) + std::string(84, '\0'),
                             std::string("\1\2\3\4\5\6\7\x8\x9\xa\xb\xc", 12) + std::string(84, '\0')));
             ASSERT_EQ(request->valueList.size(), 2U);
             EXPECT_EQ(ReadAs<ShuffleBlob>(request->valueList[0])->mId->innerId, 2U);
             EXPECT_EQ(ReadAs<ShuffleBlob>(request->valueList[1])->mId->bagId, 0x01020304U);
           },
       .reply = BytesOf(statesSent),
       .taken = [&] { EXPECT_EQ(states->stateFlag, 3); },
       .words = "Rpc failed to send batch update blob as {code}"},
      {.name = "CASBlobListState",
       .opcode = 31,
       .call =
           [&] {
             Ref<BlobListCasRequest> request(new BlobListCasRequest);
             request->blobIndexes = {2, 3};
             return mClient->CASBlobListState(request, swapGot);
           },
       .sent =
           [](const auto& body) {
             EXPECT_THAT(ReadAs<BlobListCasRequest>(body)->blobIndexes, testing::ElementsAre(2, 3));
           },
       .reply = BytesOf(swapped),
       .taken = [&] { EXPECT_THAT(swapGot->blobStates, testing::ElementsAre(4, 5)); },
       .words = "Rpc failed to get blob list in bag as {code}"},
      {.name = "BatchCASShuffleBlobStates",
       .opcode = 13,
       .call =
           [&] {
             Ref<ShuffleBlobStateIndexCASList> request(new ShuffleBlobStateIndexCASList);
             request->casState = 5;
             return mClient->BatchCASShuffleBlobStates(request, swapGot);
           },
       .sent = [](const auto& body) { EXPECT_EQ(ReadAs<ShuffleBlobStateIndexCASList>(body)->casState, 5); },
       .reply = BytesOf(swapped),
       .taken = [&] { EXPECT_THAT(swapGot->blobStates, testing::ElementsAre(4, 5)); },
       .words = "Rpc failed to send blob batch check free as {code}"},
      {.name = "MapTaskStatusUpdate",
       .opcode = 11,
       .call =
           [&] {
             Ref<MapTaskStatus> status(new MapTaskStatus);
             status->taskValue4 = 44;
             return mClient->MapTaskStatusUpdate(status);
           },
       .sent = [](const auto& body) { EXPECT_EQ(ReadAs<MapTaskStatus>(body)->taskValue4, 44U); },
       .words = "Rpc failed to send update map task status as {code}"},
      {.name = "SetStageShuffleId",
       .opcode = 10,
       .call = [&] { return mClient->SetStageShuffleId("app", 31, 32); },
       .sent =
           [](const auto& body) {
             const auto request = ReadAs<ShuffleStage>(body);
             EXPECT_EQ(std::tie(request->appId, request->stageId, request->shuffleId),
                       std::make_tuple("app", 31U, 32U));
           },
       .words = "Rpc failed to send set shuffle stage id as {code}"},
      {.name = "MarkStageUseless",
       .opcode = 9,
       .call =
           [&] {
             children = {1, 2};
             const auto status = mClient->MarkStageUseless("app", children, true, shufflesGot, 33, 34);
             EXPECT_TRUE(children.empty());
             return status;
           },
       .sent =
           [](const auto& body) {
             const auto request = ReadAs<ShuffleStagesCompletedInfo>(body);
             EXPECT_EQ(std::tie(request->appId, request->dagFlag, request->dagValue0, request->dagValue1),
                       std::make_tuple("app", true, 33U, 34U));
             EXPECT_THAT(request->children, testing::ElementsAre(1, 2));
           },
       .reply = BytesOf(shuffles),
       .taken = [&] { EXPECT_THAT(shufflesGot->ids, testing::ElementsAre(6)); },
       .words = "Rpc failed to send set dag as {code}"},
      {.name = "MarkStageHasFailedTask",
       .opcode = 18,
       .call = [&] { return mClient->MarkStageHasFailedTask("app", 35); },
       .sent =
           [](const auto& body) {
             const auto request = ReadAs<StageInfo>(body);
             EXPECT_EQ(std::tie(request->appId, request->stageId), std::make_tuple("app", 35U));
           },
       .words = "Failed to send rpc message MARK_STAGE_HAS_FAILED_TASK as {code}"},
      {.name = "MarkStageAllTaskDone",
       .opcode = 19,
       .call = [&] { return mClient->MarkStageAllTaskDone("app", 36); },
       .sent = [](const auto& body) { EXPECT_EQ(ReadAs<StageInfo>(body)->stageId, 36U); },
       .words = "Failed to send rpc message MARK_STAGE_ALL_TASKS_DONE as {code}"},
      {.name = "FindWorkerByNodeId",
       .opcode = 15,
       .call = [&] { return mClient->FindWorkerByNodeId("app", 37, hostName); },
       .sent =
           [](const auto& body) {
             const auto request = ReadAs<MapTaskStatus>(body);
             EXPECT_EQ(std::tie(request->appId, request->nodeId), std::make_tuple("app", 37U));
           },
       .reply = BytesOf(worker),
       .taken = [&] { EXPECT_EQ(hostName, "host"); },
       .words = "Rpc failed to send mark worker removed as {code}"},
      {.name = "MarkWorkerRemoved",
       .opcode = 14,
       .call = [&] { return mClient->MarkWorkerRemoved("app", 38); },
       .sent =
           [](const auto& body) {
             const auto request = ReadAs<WorkerRemovedNotification>(body);
             EXPECT_EQ(std::tie(request->appName, request->removedNodeId), std::make_tuple("app", 38));
           },
       .words = "Rpc failed to send mark worker removed as {code}"},
  };
  for (OperationRow& row : rows) {
    row.failure = 2060009;
    row.timeout = kTimeout;
    CheckOperation(row, mService);
  }
}

TEST_F(MetaShuffleOperationsTest, TheServersAnswerToNewBagsPassesUnchangedAndUntold) {
  CapturedLog log;
  mService.Answer(4, {2060203, ""});
  mService.Answer(5, {2060203, ""});
  EXPECT_EQ(mClient->BagBatchNew(Batch("part", 1)), 2060203U);
  EXPECT_FALSE(log.Has(4, "Rpc failed to send create bag batch as 2060203"));
  EXPECT_EQ(mClient->BagBatchRemove(Batch("part", 1)), 2060009U);
}

TEST_F(MetaShuffleOperationsTest, TheApplicationIsCutOutOfABagsName) {
  ShuffleBagIdList reply;
  mService.Answer(12, {0, BytesOf(reply)});
  const std::pair<std::string, std::string> names[] = {
      {"abcdefx_1_2_3", "x_1_2_3"},  // the fourth "_" is the one that is appended
      {"abcdefx_1_2", ""},          {"a_b_c_d", "d"}, {"a_b_c_", ""}, {"", ""},
  };
  for (const auto& [bagName, application] : names) {
    Ref<ShuffleBagIdEntry> entry;
    std::vector<std::string> prefixes;
    mService.Clear();
    ASSERT_EQ(mClient->BagListGetBatch(bagName, 0, 0, entry, prefixes), 0U);
    EXPECT_EQ(ReadAs<ShuffleBagInfoGetRequest>(mService.Requests()[0].body)->ns, application) << bagName;
  }
}

TEST_F(MetaShuffleOperationsTest, AnUpdateOfNothingSendsTwoEmptyListsAndABadBlobSendsNothing) {
  ShuffleBlobStateIndexList reply;
  mService.Answer(8, {0, BytesOf(reply)});
  std::vector<Ref<ShuffleBlob>> blobs;
  Ref<ShuffleBlobStateIndexList> states;
  EXPECT_EQ(mClient->BlobBatchUpdate("app", 0, blobs, states), 0U);
  const auto request = ReadAs<ShuffleBlobListAndTaskInfo>(mService.Requests().at(0).body);
  EXPECT_TRUE(request->keyList.empty() && request->valueList.empty());

  mService.Clear();
  blobs = {Blob(1, 2), new ShuffleBlob};
  EXPECT_EQ(mClient->BlobBatchUpdate("app", 0, blobs, states), 2000013U);
  blobs[1] = nullptr;
  EXPECT_EQ(mClient->BlobBatchUpdate("app", 0, blobs, states), 2000013U);
  EXPECT_TRUE(mService.Requests().empty());
}

TEST_F(MetaShuffleOperationsTest, StageMarksAreToldAtDebugLevel) {
  CapturedLog log;
  EXPECT_EQ(mClient->MarkStageHasFailedTask("app", 5), 0U);
  EXPECT_EQ(mClient->MarkStageAllTaskDone("app", 6), 0U);
  EXPECT_TRUE(log.Has(1, "send mark stage has failed task request for app stageId 5"));
  EXPECT_TRUE(log.Has(1, "send mark stage all task done request for app stageId 6"));
  NodeInformation worker;
  worker.hostName = "host";
  mService.Answer(15, {0, BytesOf(worker)});
  std::string hostName;
  EXPECT_EQ(mClient->FindWorkerByNodeId("app", 7, hostName), 0U);
  EXPECT_TRUE(log.Has(2, "Receive hostname of nodeId: 7 is: host"));
}

TEST_F(MetaShuffleOperationsTest, AListThatLacksMemoryForItsBlobsSaysSo) {
  CapturedLog log;
  ShuffleBlobListAndTaskInfo reply;
  reply.valueList = {BytesOf(*Blob(1, 2))};
  mService.Answer(6, {0, BytesOf(reply)});
  Ref<ShuffleBlobList> blobs(new ShuffleBlobList);
  bool result = false;
  std::set<unsigned short> nodes;
  gRefusedSize = sizeof(ShuffleBlob);
  const auto status = mClient->BlobListUnderBagWithMapTaskInfo("bag", blobs, false, result, nodes, 0);
  gRefusedSize = 0;
  EXPECT_EQ(status, 2000057U);
  EXPECT_EQ(log.Texts(4), std::vector<std::string>{"Unexpected nullptr value blob"});
  EXPECT_TRUE(blobs->mBlobs.empty());
}

/// Counts how often it is read, and moves on a microsecond each time.
class CountingClock : public test::FakeClock {
 public:
  std::chrono::steady_clock::time_point Now() override {
    return FakeClock::Now() + std::chrono::microseconds(++mReads);
  }
  std::atomic<int> mReads{0};
};

TEST_F(MetaShuffleOperationsTest, TheListOfABagMeasuresItselfAsFarAsItIsTold) {
  ShuffleBlobListAndTaskInfo reply;
  reply.timeCount = " kv 5";
  Ref<ShuffleBlobList> blobs(new ShuffleBlobList);
  bool result = false;
  std::set<unsigned short> nodes;
  const auto list = [&] {
    return mClient->BlobListUnderBagWithMapTaskInfo("bag", blobs, false, result, nodes, 0);
  };
  const auto timeLines = [](const CapturedLog& log) {
    std::vector<std::string> lines;
    for (const std::string& line : log.Texts(2)) {
      if (line.rfind("TimeCount ", 0) == 0) {
        lines.push_back(line);
      }
    }
    return lines;
  };
  const std::string lineOfLevel[] = {
      "",
      "TimeCount BLOB_LIST_MARK for bag bag: blob_get_mark 1000 rpc_ser 0 rpc_call 0 rpc_des 0 "
      "post_des 1000 kv 5",
      "TimeCount BLOB_LIST_MARK for bag bag: blob_get_mark 7000 rpc_ser 1000 rpc_call 1000 rpc_des 1000 "
      "post_des 1000 kv 5"};
  for (const unsigned char level : {0, 1, 2}) {
    TimeCounter::SetTimeCountLevel(level);
    CountingClock clock;
    CapturedLog log;
    mService.Answer(6, {0, BytesOf(reply)});
    EXPECT_EQ(list(), 0U);
    const auto lines = timeLines(log);
    ASSERT_EQ(lines.size(), level == 0 ? 0U : 1U);
    EXPECT_EQ(clock.mReads == 0, level == 0);
    if (level > 0) {
      EXPECT_EQ(lines[0], lineOfLevel[level]);
    }

    // A failed call is no measure, and a bad blob makes the call a failed one.
    log.Clear();
    mService.Answer(6, {2060011, ""});
    EXPECT_EQ(list(), 2060009U);
    ShuffleBlobListAndTaskInfo bad;
    bad.valueList = {std::string(95, '\0')};
    mService.Answer(6, {0, BytesOf(bad)});
    EXPECT_EQ(list(), 2060009U);
    EXPECT_TRUE(timeLines(log).empty());
    EXPECT_TRUE(blobs->mBlobs.empty());
  }
  TimeCounter::SetTimeCountLevel(0);
}

}  // namespace
}  // namespace vyn::tessel
