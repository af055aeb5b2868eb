// The messages that are no plain list of fields: blobs, lists of identities, capacities.

#include "tessel/message/shuffle/blob_messages.h"

#include "support/captured_log.h"
#include "support/raw_table.h"
#include "tessel/message/node_messages.h"
#include "tessel/message/shuffle/bag_messages.h"
#include "tessel/message/shuffle/stage_messages.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

namespace vyn::test {
namespace {

using common::BaseMessage;
using common::Ref;
using namespace tessel;  // NOLINT: the messages under test

constexpr int kError = 4;
using Lines = std::vector<std::string>;

std::string Bytes(const BaseMessage& message) {
  return {reinterpret_cast<const char*>(message.SerializedData()), message.SerializedDataSize()};
}

/// Reads exactly these bytes, at an address that suits no number.
std::uint32_t Read(BaseMessage& message, const std::string& bytes) {
  const std::unique_ptr<char[]> memory(new char[bytes.size() + 1]);
  std::copy(bytes.begin(), bytes.end(), memory.get() + 1);
  EXPECT_EQ(message.SetInputRawData(memory.get() + 1, bytes.size(), false), 0U);
  return message.Deserialize();
}

/// A serialised blob: root offset 8, padding, then the record.
std::string BlobBytes(const std::string& text) {
  std::string bytes(
      "\x08\0\0\0\0\0\0\0"                // root, padding
      "\x08\x07\x06\x05\x04\x03\x02\x01"  // innerId
      "\x0D\x0C\x0B\x0A",                 // bagId
      20);
  bytes += "opaque-15-bytes" + text;
  bytes.resize(104, '\0');
  return bytes;
}

TEST(ShuffleBlob, WritesIdentityTextAndZeros) {
  ShuffleBlob blob;
  blob.mId = new ShuffleBlobId(0x0A0B0C0D, 0x0102030405060708);
  blob.mRecord.fill(0xEE);  // whatever was there before
  const std::string opaque = "opaque-15-bytes";
  std::copy(opaque.begin(), opaque.end(), blob.mRecord.begin() + 12);
  for (const std::string& text : {std::string(63, 't'), std::string("short"), std::string()}) {
    blob.blobText = text;
    ASSERT_EQ(blob.Serialize(), 0U);
    EXPECT_EQ(Bytes(blob), BlobBytes(text));
  }
}

TEST(ShuffleBlob, RefusesToWriteWithoutIdentityOrWithTooMuchText) {
  CapturedLog log;
  ShuffleBlob blob;
  blob.mId = new ShuffleBlobId(1, 2);
  ASSERT_EQ(blob.Serialize(), 0U);
  blob.blobText.assign(64, 't');
  EXPECT_EQ(blob.Serialize(), 2020015U);
  EXPECT_EQ(blob.SerializedData(), nullptr);
  EXPECT_EQ(blob.SerializedDataSize(), 0U);
  blob.mId = nullptr;
  EXPECT_EQ(blob.Serialize(), 2020015U);
  EXPECT_EQ(log.Texts(kError), (Lines{"memcpy_s in ShuffleBlob serialize failed.",
                                      "try to serialize shuffle blob, but its id is nullptr"}));
}

TEST(ShuffleBlob, ReadsTheRecordWithAllItsText) {
  CapturedLog log;
  ShuffleBlob blob;
  ASSERT_EQ(Read(blob, BlobBytes("text")), 0U);
  EXPECT_EQ(blob.mId->bagId, 0x0A0B0C0DU);
  EXPECT_EQ(blob.mId->innerId, 0x0102030405060708U);
  EXPECT_EQ(blob.blobText, "text" + std::string(60, '\0'));
  std::string record = BlobBytes("").substr(8);
  EXPECT_TRUE(std::equal(record.begin(), record.end(), blob.mRecord.begin(),
                         [](char a, std::uint8_t b) { return static_cast<std::uint8_t>(a) == b; }));
  EXPECT_EQ(blob.Serialize(), 2020015U);
  blob.blobText = blob.blobText.c_str();
  ASSERT_EQ(blob.Serialize(), 0U);
  EXPECT_EQ(Bytes(blob), BlobBytes("text"));
}

TEST(ShuffleBlob, RefusesARecordOutsideTheInput) {
  CapturedLog log;
  const std::string good = BlobBytes("text");
  const auto withRoot = [&](std::uint32_t root, std::size_t size) {
    std::string bytes = good.substr(0, size);
    return bytes.replace(0, 4, reinterpret_cast<const char*>(&root), 4);
  };
  const std::string outside = "Failed to verify buffer.";
  const std::string null = "Unexpected nullptr value (des)";
  struct Case {
    std::string bytes;
    Lines words;
  };
  for (const Case& each : {Case{good.substr(0, 1), {outside}}, Case{good.substr(0, 3), {outside}},
                           Case{good.substr(0, 95), {outside}}, Case{good.substr(0, 103), {outside}},
                           Case{withRoot(9, 104), {outside}}, Case{withRoot(3, 104), {outside}},
                           Case{withRoot(0x80000008, 104), {outside}},
                           Case{withRoot(0xFFFFFFFF, 104), {outside}}, Case{withRoot(0, 104), {null}},
                           Case{withRoot(0, 4), {null, outside}}, Case{withRoot(0, 95), {null, outside}}}) {
    ShuffleBlob blob;
    log.Clear();
    EXPECT_EQ(Read(blob, each.bytes), 2020015U);
    EXPECT_EQ(log.Texts(kError), each.words);
    EXPECT_EQ(blob.mId, nullptr);
  }
  ShuffleBlob tight;
  EXPECT_EQ(Read(tight, withRoot(4, 100)), 0U);
  ShuffleBlob without;
  EXPECT_EQ(without.Deserialize(), 2020015U);
  EXPECT_TRUE(log.Has(kError, "Unexpected nullptr value (mInputRawData)"));
}

TEST(ShuffleBlobListAndTaskInfo, MakesBlobsOrLeavesTheList) {
  ShuffleBlobListAndTaskInfo info;
  std::vector<Ref<ShuffleBlob>> blobs{new ShuffleBlob};
  EXPECT_EQ(info.DeserializeToShuffleBlobList(blobs), 0U);
  EXPECT_EQ(blobs.size(), 1U);
  info.valueList = {BlobBytes("one"), BlobBytes("two")};
  EXPECT_EQ(info.DeserializeToShuffleBlobList(blobs), 0U);
  ASSERT_EQ(blobs.size(), 3U);
  EXPECT_STREQ(blobs[1]->blobText.c_str(), "one");
  EXPECT_STREQ(blobs[2]->blobText.c_str(), "two");
  EXPECT_EQ(blobs[2]->mInputRawData, nullptr);
  for (const std::string& bad : {BlobBytes("").substr(0, 95), std::string()}) {
    info.valueList = {BlobBytes("three"), bad, BlobBytes("four")};
    EXPECT_EQ(info.DeserializeToShuffleBlobList(blobs), 2020015U);
    EXPECT_EQ(blobs.size(), 3U);
  }
}

TEST(ShuffleBlobListAndTaskInfo, HoldsEachRemovedNodeOnce) {
  ShuffleBlobListAndTaskInfo info;
  ASSERT_EQ(Read(info, RawBuffer({Text("ns", 6, ""), Texts("keyList", 8, {}), Texts("valueList", 10, {}),
                                  Numbers("removedNodeId", 14, 2, {9, 3, 9}), Text("timeCount", 16, "")})),
            0U);
  EXPECT_EQ(info.removedNodeId, (std::set<std::uint16_t>{3, 9}));
}

TEST(BlobIdLists, LeaveNullEntriesOut) {
  CapturedLog log;
  const RawField ids = Tables("blobIdList", 0, {{U32("bagId", 4, 1), U64("innerId", 6, 2)}});
  ShuffleBlobIdList list;
  ASSERT_EQ(list.Serialize(), 0U);
  EXPECT_EQ(log.Texts(kError), Lines{"ShuffleBlobIdList is empty"});
  log.Clear();
  list.blobIdList = {new ShuffleBlobId(1, 2), nullptr, new ShuffleBlobId(1, 2)};
  ASSERT_EQ(list.Serialize(), 0U);
  EXPECT_EQ(log.Texts(kError), Lines{"nullPtr in shuffle blobId list"});
  RawField slot = ids;
  slot.voffset = 6;
  EXPECT_EQ(RawValue(Bytes(list), slot), "[[bagId 1, innerId 2], [bagId 1, innerId 2]]");

  log.Clear();
  BlobBatchDeleteRequest request;
  ASSERT_EQ(request.Serialize(), 0U);
  EXPECT_TRUE(log.Lines().empty());
  request.blobIdList = {nullptr, new ShuffleBlobId(1, 2)};
  ASSERT_EQ(request.Serialize(), 0U);
  EXPECT_EQ(log.Texts(kError), Lines{"BlobBatchDeleteRequest contains null blob id"});
  slot.voffset = 4;
  EXPECT_EQ(RawValue(Bytes(request), slot), "[[bagId 1, innerId 2]]");
}

TEST(BlobRequest, RefusesToWriteWithoutIdentity) {
  CapturedLog log;
  BlobRequest request;
  request.mBlobId = new ShuffleBlobId(1, 2);
  ASSERT_EQ(request.Serialize(), 0U);
  ShuffleBlobStateIndexList other;  // of the same builder
  ASSERT_EQ(other.Serialize(), 0U);
  const std::string bytes = Bytes(other);
  request.mBlobId = nullptr;
  EXPECT_EQ(request.Serialize(), 2020015U);
  EXPECT_EQ(request.SerializedData(), nullptr);
  EXPECT_EQ(Bytes(other), bytes);  // the builder was not touched
  EXPECT_EQ(log.Texts(kError), Lines{"blob id is nullptr."});
}

TEST(ClusterCapacityMessage, RefusesNullEntriesAndEntriesWithoutHost) {
  CapturedLog log;
  ClusterCapacityMessage message;
  ASSERT_EQ(message.Serialize(), 0U);
  message.caps = {new CapacityInfo, nullptr};
  EXPECT_EQ(message.Serialize(), 2000057U);
  EXPECT_EQ(message.SerializedData(), nullptr);
  EXPECT_EQ(log.Texts(kError), Lines{"Unexpected nullptr value cap"});
  message.caps.pop_back();
  EXPECT_EQ(message.Serialize(), 0U);  // a half-built buffer is no burden

  log.Clear();
  const RawFields host = {Text("host", 4, "h")};
  EXPECT_EQ(Read(message,
                 RawBuffer({Text("ns", 4, "n"), Tables("caps", 6, {host, {U64("capacityA", 6, 1)}, host})})),
            2020015U);
  EXPECT_EQ(log.Texts(kError), Lines{"Unexpected nullptr value (iter->host())"});
  ASSERT_EQ(message.caps.size(), 1U);  // what was copied so far
  EXPECT_EQ(message.caps[0]->host, "h");
}

TEST(ShuffleMessages, ReadWhatThePeerAloneMayWrite) {
  ShuffleBag bag;
  ASSERT_EQ(
      Read(bag, RawBuffer({U64("bagValue0", 4, 0x100000007), Text("name", 12, "b"), Text("ns", 14, "n")})),
      0U);
  EXPECT_EQ(bag.bagValue0, 7U);  // the low 32 bits
  ShuffleApplication application;
  EXPECT_EQ(Read(application, RawBuffer({Text("appId", 4, "app"), Text("appExtra", 6, "more")})), 0U);
  EXPECT_EQ(application.appId, "app");
  EXPECT_EQ(Read(application, RawBuffer({Text("appId", 4, "a"), U32("appExtra", 6, 0x10000)})), 2020015U);
  ShuffleBagIdEntry entry;
  EXPECT_EQ(entry.mOpaqueNumber, 999999U);
  std::vector<unsigned> stages = {1, 2};
  ShuffleStagesCompletedInfo completed("app", stages, true, 3, 4);
  EXPECT_TRUE(stages.empty());
  EXPECT_EQ(completed.Fields(), std::make_tuple("app", std::vector<unsigned>{1, 2}, true, 3U, 4U));
}

}  // namespace
}  // namespace vyn::test
