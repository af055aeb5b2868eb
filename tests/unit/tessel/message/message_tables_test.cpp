// Every table of the wire against bytes written by hand: each field at its slot, in both directions.

#include "support/all_messages.h"
#include "support/captured_log.h"
#include "support/raw_table.h"
#include "vyn/status.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <set>

namespace vyn::test {
namespace {

using common::BaseMessage;
using common::Ref;

constexpr int kError = 4;

/// One class: its fields in the order in which a reader takes them, and a message with the same values.
struct Row {
  std::string name;
  RawFields fields;
  std::function<Ref<BaseMessage>()> fresh;
  std::function<Ref<BaseMessage>()> filled;
  std::function<bool(BaseMessage&, BaseMessage&)> same;
};

template <typename Tuple>
struct Decayed;
template <typename... Member>
struct Decayed<std::tuple<Member&...>> {
  using Type = std::tuple<Member...>;
};
template <typename Class>
using Values = typename Decayed<decltype(std::declval<Class&>().Fields())>::Type;

template <typename Class>
Row Make(std::string name, Values<Class> values, RawFields fields) {
  return {
      std::move(name), std::move(fields), [] { return Ref<BaseMessage>(new Class); },
      [values] {
        Ref<Class> message(new Class);
        message->Fields() = values;
        return Ref<BaseMessage>(message);
      },
      [](BaseMessage& a, BaseMessage& b) { return Same(static_cast<Class&>(a), static_cast<Class&>(b)); }};
}

RawFields BlobId(std::uint32_t bag, std::uint64_t inner) {
  return {U32("bagId", 4, bag), U64("innerId", 6, inner)};
}
RawFields Capacity(std::string host, std::uint64_t a, std::uint64_t b) {
  return {Text("host", 4, std::move(host)), U64("capacityA", 6, a), U64("capacityB", 8, b)};
}
RawFields Parameter(std::string key, std::string value) {
  return {Text("key", 4, std::move(key)), Text("value", 6, std::move(value))};
}

Ref<tessel::CapacityInfo> CapacityMember(std::string host, std::uint64_t a, std::uint64_t b) {
  Ref<tessel::CapacityInfo> info(new tessel::CapacityInfo);
  info->host = std::move(host);
  info->capacityA = a;
  info->capacityB = b;
  return info;
}

std::vector<Row> Rows() {
  using namespace tessel;  // NOLINT: this table is about its classes
  using namespace tuning;  // NOLINT
  using common::HeartBeatMessage;
  constexpr std::uint64_t kWide = 1ULL << 40;
  const std::string raw("k\0ey", 4);
  return {
      Make<BroadcastVar>(
          "BroadcastVar", {"app", 7, 3, true},
          {Text("appId", 10, "app"), U32("broadcastId", 6, 7), U32("blockNum", 4, 3), U8("varFlag", 8, 1)}),
      Make<BroadcastVarEntry>("BroadcastVarEntry", {"n", 9, true, {1, kWide}},
                              {Text("name", 8, "n"), U32("entryId", 4, 9), U8("entryFlag", 6, 1),
                               Numbers("sizes", 10, 8, {1, kWide})}),
      Make<BroadcastBlockBatch>(
          "BroadcastBlockBatch", {"app", 1, {4096, 8, 1}},
          {Text("appId", 4, "app"), U32("broadcastId", 6, 1), Numbers("sizes", 8, 8, {4096, 8, 1})}),
      Make<BroadcastBlockInfo>("BroadcastBlockInfo", {"app", 2, 0xFFFF, {"id-1", ""}, {64, 65}},
                               {Text("appId", 4, "app"), U32("broadcastId", 6, 2), U32("nodeId", 12, 0xFFFF),
                                Texts("bmIds", 8, {"id-1", ""}), Numbers("sizes", 10, 8, {64, 65})}),
      Make<BlockInfoRequest>("BlockInfoRequest", {"app", 4, 5},
                             {Text("appId", 4, "app"), U32("broadcastId", 6, 4), U32("blockIndex", 8, 5)}),
      Make<BlockBmInfo>("BlockBmInfo", {{"a", "b"}, true, {"c"}},
                        {Texts("bmIds", 4, {"a", "b"}), U8("bmFlag", 8, 1), Texts("varToClean", 6, {"c"})}),
      Make<BroadcastRemoteNodeReq>(
          "BroadcastRemoteNodeReq", {"app", true, {"10.0.0.1"}},
          {Text("appId", 6, "app"), U8("selectFlag", 8, 1), Texts("candidateNodes", 4, {"10.0.0.1"})}),
      Make<BroadcastRemoteNodeRsp>("BroadcastRemoteNodeRsp", {{"x", "y", "z"}, {1, 65535, 3}, {"h"}},
                                   {Texts("selectedNodes", 4, {"x", "y", "z"}),
                                    Numbers("nodeIds", 6, 2, {1, 65535, 3}), Texts("hostNames", 8, {"h"})}),

      Make<NodeIdResponse>("NodeIdResponse", {17, true}, {U32("nodeId", 4, 17), U8("isMfNode", 6, 1)}),
      Make<NodeInformation>("NodeInformation", {"host", 18},
                            {Text("hostName", 4, "host"), U32("nodeId", 6, 18)}),
      Make<MetaLeaderInformation>("MetaLeaderInformation", {"sdk"}, {Text("metaLeaderInfo", 4, "sdk")}),
      Make<HostMessage>("HostMessage", {"n", {"a", "b", "c"}},
                        {Text("ns", 4, "n"), Texts("hosts", 6, {"a", "b", "c"})}),
      Make<CapacityInfo>("CapacityInfo", {"h", kWide, 2}, Capacity("h", kWide, 2)),
      Make<ClusterCapacityMessage>(
          "ClusterCapacityMessage", {"n", {CapacityMember("h1", 3, kWide), CapacityMember("h2", 5, 6)}},
          {Text("ns", 4, "n"), Tables("caps", 6, {Capacity("h1", 3, kWide), Capacity("h2", 5, 6)})}),
      Make<HeartBeatMessage>("HeartBeatMessage", {"n", 255, "p", "", true},
                             {Text("ns", 4, "n"), U8("processType", 6, 255), Text("processName", 8, "p"),
                              Text("content", 10, ""), U8("isAlive", 12, 1)}),
      Make<TimeStamp>(
          "TimeStamp", {"1", "2", "3"},
          {Text("handleTimeStamp", 4, "1"), Text("kvTimeStamp", 6, "2"), Text("engineTimeStamp", 8, "3")}),
      Make<UsingTimeRequest>("UsingTimeRequest", {5}, {U32("usingTime", 4, 5)}),
      Make<ApplicationRegisterRequest>("ApplicationRegisterRequest", {"n", "t", true},
                                       {Text("ns", 4, "n"), Text("token", 6, "t"), U8("registerFlag", 8, 1)}),
      Make<ShuffleApplication>("ShuffleApplication", {"app"}, {Text("appId", 4, "app")}),
      Make<ShuffleApplicationIdList>("ShuffleApplicationIdList", {{"a", "b", "c"}},
                                     {Texts("appIds", 4, {"a", "b", "c"})}),

      Make<ShuffleBag>("ShuffleBag", {0xFFFFFFFF, 2, 3, 4, "b", "n"},
                       {U64("bagValue0", 4, 4294967295), U32("bagValue1", 6, 2), U32("bagValue2", 8, 3),
                        U32("bagValue3", 10, 4), Text("name", 12, "b"), Text("ns", 14, "n")}),
      Make<ShuffleBagBatch>("ShuffleBagBatch", {1, 2, 3, "p", "n"},
                            {U32("partitionNum", 4, 1), U32("batchValue1", 6, 2), U32("batchValue2", 8, 3),
                             Text("partName", 10, "p"), Text("ns", 12, "n")}),
      Make<ShuffleBagInfoGetRequest>(
          "ShuffleBagInfoGetRequest", {"n", "b", 6, 7},
          {Text("ns", 4, "n"), Text("name", 6, "b"), U32("number", 8, 6), U8("kind", 10, 7)}),
      Make<ShuffleBagIdEntry>("ShuffleBagIdEntry", {"n", "b", 1, 2, 3},
                              {Text("ns", 4, "n"), Text("bagPrefix", 6, "b"), U32("entryValue0", 8, 1),
                               U32("entryValue1", 10, 2), U16("entryNode", 12, 3)}),
      Make<ShuffleBagIdList>("ShuffleBagIdList", {1, 2, "p", {"a"}},
                             {U32("listValue0", 4, 1), U32("listValue1", 6, 2), Text("bagNamePrefix", 8, "p"),
                              Texts("bagNamePrefixToBeCleanedList", 10, {"a"})}),

      Make<ShuffleBlobId>("ShuffleBlobId", {3, kWide}, BlobId(3, kWide)),
      Make<ShuffleBlobIdList>("ShuffleBlobIdList", {"n", {new ShuffleBlobId(1, 2), new ShuffleBlobId(3, 4)}},
                              {Text("ns", 4, "n"), Tables("blobIdList", 6, {BlobId(1, 2), BlobId(3, 4)})}),
      Make<BlobCreateRequest>("BlobCreateRequest", {"b", "n", kWide, 5, "t"},
                              {Text("bagName", 6, "b"), Text("ns", 4, "n"), U64("blobSize", 8, kWide),
                               U16("blobNumber", 10, 5), Text("token", 12, "t")}),
      Make<BlobRequest>("BlobRequest", {new ShuffleBlobId(1, 2), "n", 5},
                        {Table("blobId", 4, BlobId(1, 2)), Text("ns", 6, "n"), U16("blobNumber", 8, 5)}),
      Make<BlobBatchDeleteRequest>("BlobBatchDeleteRequest", {{new ShuffleBlobId(1, 2)}, "n", 5, "t"},
                                   {Tables("blobIdList", 4, {BlobId(1, 2)}), Text("ns", 6, "n"),
                                    U16("blobNumber", 8, 5), Text("token", 10, "t")}),
      Make<BlobListBagRequest>("BlobListBagRequest", {"b", true, 5},
                               {Text("bagName", 4, "b"), U8("listFlag", 6, 1), U32("number", 8, 5)}),
      Make<BlobListCasRequest>(
          "BlobListCasRequest", {"b", 6, {1, 2, 3}},
          {Text("bagName", 4, "b"), U32("casValue", 6, 6), Numbers("blobIndexes", 8, 4, {1, 2, 3})}),
      Make<ShuffleBlobStateIndexCASList>(
          "ShuffleBlobStateIndexCASList", {"n", 6, {1, 2, 3}},
          {Text("ns", 4, "n"), U8("casState", 6, 6), Numbers("blobIndex", 8, 4, {1, 2, 3})}),
      Make<ShuffleBlobStateIndexCASResultList>("ShuffleBlobStateIndexCASResultList", {{{1, 2, 255}}},
                                               {Numbers("blobStates", 4, 1, {1, 2, 255})}),
      Make<ShuffleBlobStateIndexList>("ShuffleBlobStateIndexList", {1, 2, 3, "t"},
                                      {U8("stateFlag", 4, 1), U32("stateValue0", 6, 2),
                                       U32("stateValue1", 8, 3), Text("timeCount", 10, "t")}),
      Make<ShuffleBlobListAndTaskInfo>(
          "ShuffleBlobListAndTaskInfo", {1, "n", {raw, "l"}, {std::string(3, 0)}, true, {65535, 4, 9}, "t"},
          {U32("number", 4, 1), Text("ns", 6, "n"), Texts("keyList", 8, {raw, "l"}),
           Texts("valueList", 10, {std::string(3, 0)}), U8("listResult", 12, 1),
           Numbers("removedNodeId", 14, 2, {4, 9, 65535}), Text("timeCount", 16, "t")}),

      Make<StageInfo>("StageInfo", {"app", 5}, {Text("appId", 4, "app"), U32("stageId", 6, 5)}),
      Make<ShuffleStage>("ShuffleStage", {"app", 5, 6},
                         {Text("appId", 4, "app"), U32("stageId", 6, 5), U32("shuffleId", 8, 6)}),
      Make<ShuffleStagesCompletedInfo>(
          "ShuffleStagesCompletedInfo", {"app", {1, 2}, true, 3, 4},
          {Text("appId", 4, "app"), Numbers("children", 6, 4, {1, 2}), U8("dagFlag", 8, 1),
           U32("dagValue0", 10, 3), U32("dagValue1", 12, 4)}),
      Make<ShuffleIdList>("ShuffleIdList", {{{1, 2}}}, {Numbers("ids", 4, 4, {1, 2})}),
      Make<WorkerRemovedNotification>("WorkerRemovedNotification", {"app", 5},
                                      {Text("appName", 4, "app"), U16("removedNodeId", 6, 5)}),
      Make<MapTaskStatus>("MapTaskStatus", {"app", 1, 2, 3, 4, 5, 6, 7},
                          {Text("appId", 4, "app"), U32("taskValue0", 8, 1), U32("taskValue1", 10, 2),
                           U32("taskValue2", 12, 3), U32("taskValue3", 14, 4), U32("taskValue4", 16, 5),
                           U8("taskFlag", 18, 6), U32("nodeId", 6, 7)}),
      Make<TaskAttemptStatus>(
          "TaskAttemptStatus", {1, 2, 3, 4, 5, 6},
          {U32("attemptValue0", 6, 1), U32("attemptValue1", 8, 2), U32("attemptValue2", 10, 3),
           U32("attemptValue3", 12, 4), U8("attemptFlag", 14, 5), U16("attemptNode", 4, 6)}),

      Make<LocalBlobGetRequest>(
          "LocalBlobGetRequest", {"n", "b", kWide, 5},
          {Text("ns", 4, "n"), Text("bagName", 6, "b"), U64("size", 8, kWide), U32("partitionNum", 10, 5)}),
      Make<LocalBlob>("LocalBlob", {1, 2, "b"},
                      {U64("blobId", 4, 1), U64("size", 6, 2), Text("bmId", 8, "b")}),
      Make<LocalBlobCommitRequest>("LocalBlobCommitRequest", {"n", 5},
                                   {Text("ns", 4, "n"), U64("blobId", 6, 5)}),
      Make<LocalBlobCommitResponse>("LocalBlobCommitResponse", {5, true},
                                    {U64("blobId", 4, 5), U8("committed", 6, 1)}),
      Make<TuningSqlMessage>("TuningSqlMessage", {"f", "a", "q"},
                             {Text("field", 4, "f"), Text("appId", 6, "a"), Text("queryIdent", 8, "q")}),
      Make<RegisterResult>("RegisterResult", {true, "d"}, {U8("registered", 4, 1), Text("detail", 6, "d")}),
      Make<TuningMetrics>("TuningMetrics", {"f", "a", "q", "t", "i", {{"k", "v"}}},
                          {Text("field", 4, "f"), Text("appId", 6, "a"), Text("queryIdent", 8, "q"),
                           Text("metricsType", 10, "t"), Text("metricsIdent", 12, "i"),
                           Tables("metrics", 14, {Parameter("k", "v")})}),
      Make<InferIdentification>("InferIdentification",
                                {"f", "a", "q", "t", "any text", {{"b", "2"}, {"a", "1"}}},
                                {Text("field", 4, "f"), Text("appId", 6, "a"), Text("queryIdent", 8, "q"),
                                 Text("inferType", 10, "t"), Text("inferIdent", 12, "any text"),
                                 Tables("inferParameters", 14, {Parameter("a", "1"), Parameter("b", "2")})}),
      Make<InferResult>("InferResult", {true, {{"k", ""}}},
                        {U8("inferred", 4, 1), Tables("parameters", 6, {Parameter("k", "")})}),
  };
}

/// The status of reading exactly these bytes: they end where readable memory ends, at an address that suits
/// no number, as behind the head of a frame.
std::uint32_t Read(BaseMessage& message, const std::string& bytes) {
  const std::unique_ptr<char[]> memory(new char[bytes.size() + 1]);
  std::copy(bytes.begin(), bytes.end(), memory.get() + 1);
  const auto status = message.SetInputRawData(memory.get() + 1, bytes.size(), false);
  return Failed(status) ? status : message.Deserialize();
}

std::string Written(BaseMessage& message) {
  EXPECT_EQ(message.Serialize(), 0U);
  return {reinterpret_cast<const char*>(message.SerializedData()), message.SerializedDataSize()};
}

RawFields Without(const RawFields& fields, std::size_t index) {
  RawFields rest = fields;
  rest.erase(rest.begin() + static_cast<std::ptrdiff_t>(index));
  return rest;
}

/// Runs `check` for every row.
void ForEveryRow(const std::function<void(const Row&)>& check) {
  const auto rows = Rows();
  ASSERT_EQ(rows.size(), std::tuple_size_v<TableMessages>);
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    check(row);
  }
}

TEST(MessageTables, WriteEveryFieldIntoItsSlot) {
  ForEveryRow([](const Row& row) {
    const auto message = row.filled();
    const std::string bytes = Written(*message);
    std::vector<unsigned> voffsets;
    for (const RawField& field : row.fields) {
      EXPECT_EQ(RawValue(bytes, field), RawValue(field)) << field.name;
      voffsets.push_back(field.voffset);
    }
    std::sort(voffsets.begin(), voffsets.end());
    EXPECT_EQ(RawSlots(bytes), voffsets);
    const auto back = row.fresh();
    EXPECT_EQ(Read(*back, bytes), 0U);
    EXPECT_TRUE(row.same(*back, *message));
  });
}

TEST(MessageTables, ReadHandWrittenBytes) {
  const CapturedLog log;
  ForEveryRow([&](const Row& row) {
    const auto message = row.fresh();
    for (const char* reading : {"first", "second, which replaces and does not add"}) {
      EXPECT_EQ(Read(*message, RawBuffer(row.fields)), 0U) << reading;
      EXPECT_TRUE(row.same(*message, *row.filled())) << reading;
    }
  });
  EXPECT_TRUE(log.Lines().empty());
}

TEST(MessageTables, ReadAbsentScalarsAsZeroAndWriteZeroAsAbsent) {
  ForEveryRow([](const Row& row) {
    RawFields fields;
    std::copy_if(row.fields.begin(), row.fields.end(), std::back_inserter(fields),
                 [](const RawField& field) { return field.kind != RawField::kNumber; });
    for (const auto& message : {row.filled(), row.fresh()}) {
      EXPECT_EQ(Read(*message, RawBuffer(fields)), 0U);
      const std::string bytes = Written(*message);
      for (const RawField& field : row.fields) {
        EXPECT_EQ(RawValue(bytes, field), field.kind == RawField::kNumber ? "absent" : RawValue(field))
            << field.name;
      }
    }
  });
}

TEST(MessageTables, RefuseAnAbsentRequiredField) {
  CapturedLog log;
  ForEveryRow([&](const Row& row) {
    for (std::size_t absent = 0; absent < row.fields.size(); ++absent) {
      const RawField& missing = row.fields[absent];
      if (missing.kind == RawField::kNumber) {
        continue;
      }
      const std::string bytes = RawBuffer(Without(row.fields, absent));
      const auto message = row.fresh();
      // A blob request without identity is the one message that cannot be written; besides, it has an empty
      // text.
      const std::string before =
          Failed(message->Serialize()) ? RawBuffer({Text("ns", 6, "")}) : Written(*message);
      log.Clear();
      EXPECT_EQ(Read(*message, bytes), 2020015U);
      const std::string name = row.name == "CapacityInfo" ? "instance->host()" : missing.name;
      EXPECT_EQ(log.Texts(kError), std::vector<std::string>{"Unexpected nullptr value (" + name + ")"});
      // What is read before it has its new value, the rest its old one.
      const std::string after = missing.kind == RawField::kTable ? before : Written(*message);
      for (std::size_t i = 0; i < row.fields.size(); ++i) {
        const RawField& field = row.fields[i];
        EXPECT_EQ(RawValue(after, field), i < absent ? RawValue(field) : RawValue(before, field))
            << field.name << " without " << missing.name;
      }
      // A full message keeps what the absent field held.
      const auto full = row.filled();
      EXPECT_EQ(Read(*full, bytes), 2020015U);
      EXPECT_TRUE(row.same(*full, *row.filled())) << missing.name;
    }
  });
}

TEST(MessageTables, RefuseBytesCutAtAnyLength) {
  CapturedLog log;
  ForEveryRow([&](const Row& row) {
    const std::string bytes = RawBuffer(row.fields);
    const auto message = row.fresh();
    log.Clear();
    for (std::size_t size = 1; size < bytes.size(); ++size) {
      ASSERT_EQ(Read(*message, bytes.substr(0, size)), 2020015U) << size << " of " << bytes.size();
    }
    EXPECT_EQ(log.Texts(kError),
              std::vector<std::string>(bytes.size() - 1, "Unexpected nullptr value (instance)"));
    EXPECT_TRUE(row.same(*message, *row.fresh()));
  });
}

TEST(MessageTables, RefuseSlotsOfAnotherKind) {
  ForEveryRow([](const Row& row) {
    for (std::size_t i = 0; i < row.fields.size(); ++i) {
      const RawField& field = row.fields[i];
      RawFields wrong;
      if (field.kind != RawField::kNumber) {
        wrong.push_back(U32(field.name, field.voffset, 0x7FFFFFFF));  // an offset to nowhere
      }
      if (field.kind == RawField::kTexts || field.kind == RawField::kTables) {
        wrong.push_back(Numbers(field.name, field.voffset, 4, {0xFFFFFFF0, 0xFFFFFFF0, 0xFFFFFFF0}));
      }
      if (field.kind == RawField::kNumbers && field.width > 1) {
        wrong.push_back(
            Numbers(field.name, field.voffset, field.width / 2, field.numbers));  // nothing behind it
      }
      for (const RawField& slot : wrong) {
        RawFields fields = Without(row.fields, i);
        fields.push_back(slot);
        const auto message = row.fresh();
        EXPECT_EQ(Read(*message, RawBuffer(fields)), 2020015U) << field.name;
        EXPECT_TRUE(row.same(*message, *row.fresh())) << field.name;
      }
    }
  });
}

TEST(MessageTables, RefuseToReadWithoutInputAndEachFromItsOwnPlace) {
  CapturedLog log;
  std::set<std::string> places;
  ForEveryRow([&](const Row& row) {
    log.Clear();
    EXPECT_EQ(row.fresh()->Deserialize(), 2020015U);
    EXPECT_EQ(log.Texts(kError), std::vector<std::string>{"Unexpected nullptr value (instance)"});
    const std::string line = log.Lines().at(0).whole;
    EXPECT_EQ(line.find("message_codec"), std::string::npos) << line;
    EXPECT_TRUE(places.insert(line).second) << line;
  });
}

}  // namespace
}  // namespace vyn::test
