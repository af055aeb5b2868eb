// What messages take from the heap, and what they say when it has nothing left. This program counts every
// allocation.

#include "schema/broadcast_generated.h"
#include "support/captured_log.h"
#include "support/raw_table.h"
#include "tessel/message/broadcast/broadcast_messages.h"
#include "tessel/message/node_messages.h"
#include "tessel/message/shuffle/blob_messages.h"
#include "tessel/message/shuffle/shuffle_application.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <functional>
#include <new>

namespace {

thread_local unsigned gAllocations = 0;
thread_local std::size_t gLargestSize = 0;
thread_local bool gOutOfMemory = false;  // for allocations that may fail

void* Count(std::size_t size) {
  gLargestSize = gAllocations++ == 0 ? size : std::max(gLargestSize, size);
  return std::malloc(size == 0 ? 1 : size);
}

}  // namespace

void* operator new(std::size_t size) {
  if (void* memory = Count(size)) {
    return memory;
  }
  throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return gOutOfMemory ? nullptr : Count(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return gOutOfMemory ? nullptr : Count(size);
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete[](void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }

namespace vyn::test {
namespace {

using common::BaseMessage;
using common::Ref;
using namespace tessel;  // NOLINT: the messages under test

template <typename Action>
unsigned AllocationsOf(Action action) {
  gAllocations = 0;
  action();
  return gAllocations;
}

BroadcastBlockInfo& Fill(BroadcastBlockInfo& info, std::size_t blocks, std::size_t length) {
  info.appId = "app";
  info.bmIds.assign(blocks, std::string(length, 'x'));
  info.sizes.assign(blocks, 4096);
  return info;
}

TEST(MessageAllocation, WritingTakesTheBuildersBufferAlone) {
  BroadcastBlockInfo info;
  info.Serialize();  // this thread's builders
  EXPECT_EQ(AllocationsOf([&] { Fill(info, 1, 15).Serialize(); }),
            1U + 2U);  // buffer; the two lists being filled
  EXPECT_EQ(AllocationsOf([&] { info.Serialize(); }), 1U);

  Fill(info, 1000, 32);
  flatbuffers::FlatBufferBuilder builder(2048);
  const unsigned floor = AllocationsOf([&] {
    const auto appId = builder.CreateString(info.appId);
    const auto bmIds = builder.CreateVectorOfStrings(info.bmIds);
    const auto sizes = builder.CreateVector(info.sizes);
    builder.Finish(CreateTBroadcastBlockInfo(builder, appId, info.broadcastId, bmIds, sizes, info.nodeId));
  });
  EXPECT_EQ(AllocationsOf([&] { info.Serialize(); }), floor);
}

TEST(MessageAllocation, ReadingTakesTheMembersAlone) {
  for (const auto& [blocks, length, expected] :
       {std::tuple<std::size_t, std::size_t, unsigned>{1, 15, 2}, {1000, 15, 2}, {1000, 32, 1002}}) {
    BroadcastBlockInfo sent;
    Fill(sent, blocks, length).Serialize();
    BroadcastBlockInfo received;
    received.SetInputRawData(reinterpret_cast<char*>(sent.SerializedData()), sent.SerializedDataSize(),
                             false);
    EXPECT_EQ(AllocationsOf([&] { EXPECT_EQ(received.Deserialize(), 0U); }), expected);
  }
}

TEST(MessageAllocation, TheBufferHasTheSizeOfTheBuilder) {
  BroadcastBlockInfo info;
  ShuffleBlobIdList list;
  list.blobIdList = {new ShuffleBlobId(1, 2)};
  BroadcastVar var;
  UsingTimeRequest time;
  for (const auto& [message, size] :
       {std::pair<BaseMessage*, std::size_t>{&time, 128}, {&var, 256}, {&list, 512}, {&info, 2048}}) {
    message->Serialize();
    std::size_t largest = 0;
    AllocationsOf([&, target = message] {
      target->Serialize();
      largest = gLargestSize;
    });
    EXPECT_EQ(largest, size);
  }
}

/// A message with this input.
template <typename Class>
Ref<Class> WithInput(std::string& bytes) {
  Ref<Class> message(new Class);
  message->SetInputRawData(bytes.data(), bytes.size(), false);
  return message;
}

TEST(MessageAllocation, SaysWhatThereWasNoMemoryFor) {
  CapturedLog log;
  std::string ids = RawBuffer({Text("ns", 4, "n"), Tables("blobIdList", 6, {{U32("bagId", 4, 1)}})});
  std::string deletion = RawBuffer(
      {Tables("blobIdList", 4, {{U32("bagId", 4, 1)}}), Text("ns", 6, "n"), Text("token", 10, "t")});
  std::string capacities = RawBuffer({Text("ns", 4, "n"), Tables("caps", 6, {{Text("host", 4, "h")}})});
  std::string request = RawBuffer({Table("blobId", 4, {U32("bagId", 4, 1)}), Text("ns", 6, "n")});
  std::string record(104, '\0');
  record[0] = 8;
  const auto idList = WithInput<ShuffleBlobIdList>(ids);
  const auto deleteRequest = WithInput<BlobBatchDeleteRequest>(deletion);
  const auto cluster = WithInput<ClusterCapacityMessage>(capacities);
  const auto blobRequest = WithInput<BlobRequest>(request);
  const auto blob = WithInput<ShuffleBlob>(record);
  UsingTimeRequest copying;
  ShuffleBlobListAndTaskInfo taskInfo;
  taskInfo.valueList = {record};
  ShuffleInfo shuffle;
  Ref<ShuffleBlob> sameBlob = blob;
  std::vector<Ref<ShuffleBlob>> blobs;

  struct Case {
    const char* words;
    unsigned status;
    std::function<unsigned()> action;
  };
  const Case cases[] = {
      {"Unexpected nullptr value mInputRawData", 2000057,
       [&] { return copying.SetInputRawData(record.data(), 4, true); }},
      {"Unexpected nullptr value (tmp)", 2020015, [&] { return idList->Deserialize(); }},
      {"Unexpected nullptr value (tmp)", 2020015, [&] { return deleteRequest->Deserialize(); }},
      {"Unexpected nullptr value (info)", 2020015, [&] { return cluster->Deserialize(); }},
      {"Unexpected nullptr value (mBlobId)", 2020015, [&] { return blobRequest->Deserialize(); }},
      {"Unexpected nullptr value (mId)", 2020015, [&] { return blob->Deserialize(); }},
      {"Unexpected nullptr value blob", 2000057,
       [&] { return taskInfo.DeserializeToShuffleBlobList(blobs); }},
      {"New PartitionInfoPtr failed", 0, [&] { return shuffle.AddNewShuffleBlob(1, sameBlob), 0U; }},
  };
  for (const Case& each : cases) {
    log.Clear();
    gOutOfMemory = true;
    const unsigned status = each.action();
    gOutOfMemory = false;
    EXPECT_EQ(status, each.status) << each.words;
    EXPECT_EQ(log.Texts(4), std::vector<std::string>{each.words});
  }
  EXPECT_EQ(copying.mInputRawData, nullptr);
  EXPECT_TRUE(blobs.empty());
  EXPECT_TRUE(shuffle.mPartitions.empty());
}

}  // namespace
}  // namespace vyn::test
