// The frame of every message: input bytes and their owner, the builders of a thread, what is refused before
// any field.

#include "common/message/base_message.h"

#include "support/captured_log.h"
#include "support/raw_table.h"
#include "tessel/message/broadcast/broadcast_messages.h"
#include "tessel/message/node_messages.h"
#include "vyn/status.h"

#include <flatbuffers/flatbuffers.h>
#include <gtest/gtest.h>

#include <cstring>
#include <future>
#include <memory>

namespace vyn::test {
namespace {

using common::BaseMessage;
using common::Ref;
using namespace tessel;  // NOLINT: the messages under test

constexpr int kError = 4;

std::string Bytes(const BaseMessage& message) {
  return {reinterpret_cast<const char*>(message.SerializedData()), message.SerializedDataSize()};
}

TEST(BaseMessage, TakesInputBytes) {
  CapturedLog log;
  char bytes[] = "bytes";
  struct Case {
    char* data;
    unsigned size;
    const char* words;
  };
  for (const Case& refused :
       {Case{nullptr, 5, "set_input_raw_data input rawData is null."},
        Case{bytes, 0, "set_input_raw_data input size <= 0. size:0"},
        Case{bytes, 2147483647, "set_input_raw_data input size > 2147483646. size:2147483647"}}) {
    for (const bool copy : {false, true}) {
      UsingTimeRequest message;
      log.Clear();
      EXPECT_EQ(message.SetInputRawData(refused.data, refused.size, copy), 2020015U);
      EXPECT_EQ(log.Texts(kError), std::vector<std::string>{refused.words});
      EXPECT_EQ(message.mInputRawData, nullptr);
      EXPECT_FALSE(message.mInputRawDataOwned);
    }
  }
  UsingTimeRequest lent;
  EXPECT_EQ(lent.SetInputRawData(bytes, 2147483646, false), 0U);
  EXPECT_EQ(lent.mInputRawData, bytes);
  EXPECT_EQ(lent.mInputRawDataSize, 2147483646U);
  EXPECT_FALSE(lent.mInputRawDataOwned);
  lent.mInputRawDataSize = 2147483647;  // past the door: the verifier would stop the process
  EXPECT_EQ(lent.Deserialize(), 2020015U);
}

TEST(BaseMessage, KeepsACopyThatOutlivesTheCallersBytes) {
  auto bytes = std::make_unique<std::string>(RawBuffer({Text("appId", 4, "app"), U32("broadcastId", 6, 3)}));
  BlockInfoRequest message;
  ASSERT_EQ(message.SetInputRawData(bytes->data(), bytes->size(), true), 0U);
  EXPECT_TRUE(message.mInputRawDataOwned);
  std::memset(bytes->data(), 0xEE, bytes->size());
  bytes.reset();
  EXPECT_EQ(message.Deserialize(), 0U);
  EXPECT_EQ(message.appId, "app");
  EXPECT_EQ(message.broadcastId, 3U);
}

TEST(BaseMessage, StartsEmptyAndSharesANullReply) {
  UsingTimeRequest message;
  EXPECT_EQ(message.mInputRawData, nullptr);
  EXPECT_EQ(message.SerializedData(), nullptr);
  EXPECT_EQ(message.SerializedDataSize(), 0U);
  EXPECT_EQ(BaseMessage::gNullPtr, nullptr);
}

TEST(BaseMessage, WritesTheseVeryBytes) {
  BroadcastVar message;
  message.appId = "app1";
  message.broadcastId = 0x01020304;
  message.blockNum = 5;
  ASSERT_EQ(message.Serialize(), 0U);
  const unsigned char expected[] = {
      16,  0,   0,   0,                 // the root table stands at 16
      12,  0,   20,  0,                 // vtable: its own size, the table's
      8,   0,   12,  0,   7, 0, 16, 0,  // blockNum, broadcastId, varFlag, appId: places in the table
      12,  0,   0,   0,                 // table: the vtable stands 12 bytes ahead of it
      0,   0,   0,   1,                 // padding, varFlag
      5,   0,   0,   0,                 // blockNum
      4,   3,   2,   1,                 // broadcastId
      4,   0,   0,   0,                 // appId: 4 bytes further
      4,   0,   0,   0,                 // its length
      'a', 'p', 'p', '1', 0, 0, 0,  0,  // its bytes, NUL, padding
  };
  EXPECT_EQ(Bytes(message), std::string(reinterpret_cast<const char*>(expected), sizeof(expected)));
}

TEST(BaseMessage, DefaultScalarsMakeAnEmptyTable) {
  NodeIdResponse sent;
  sent.nodeId = 0;
  ASSERT_EQ(sent.Serialize(), 0U);
  std::string bytes = Bytes(sent);
  EXPECT_TRUE(RawSlots(bytes).empty());
  NodeIdResponse received;
  EXPECT_EQ(received.nodeId, 0xFFFFFFFFU);
  ASSERT_EQ(received.SetInputRawData(bytes.data(), bytes.size(), false), 0U);
  EXPECT_EQ(received.Deserialize(), 0U);
  EXPECT_EQ(received.nodeId, 0U);
}

// Entries of a list that share one long text could fill all memory out of few bytes.
TEST(BaseMessage, RefusesTextsThatAddUpToMoreThanTheInput) {
  const auto buffer = [](std::size_t length) {
    std::string bytes = RawBuffer({Texts("appIds", 4, {std::string(length, 'x'), ""})});
    const std::size_t second =
        bytes.find('x') - 8;  // the second entry's offset stands ahead of the text's length
    const std::uint32_t sameText = 4;
    bytes.replace(second, 4, reinterpret_cast<const char*>(&sameText), 4);
    return bytes;
  };
  for (const auto& [length, status] : {std::pair<std::size_t, unsigned>{8, 0U}, {1000, 2020015U}}) {
    std::string bytes = buffer(length);
    ShuffleApplicationIdList message;
    ASSERT_EQ(message.SetInputRawData(bytes.data(), bytes.size(), false), 0U);
    EXPECT_EQ(message.Deserialize(), status);
    EXPECT_EQ(message.appIds, std::vector<std::string>(Failed(status) ? 0 : 2, std::string(length, 'x')));
  }
}

// Numbers of 32 bits in the place of 64, with enough behind them to pass for twice their number of bytes.
TEST(BaseMessage, RefusesNumbersThatDoNotStandWhereTheirWidthAsks) {
  std::string bytes =
      RawBuffer({Text("appId", 4, "appname"), Numbers("sizes", 8, 4, {1, 2, 0, 0, 0, 0, 0, 0})});
  const std::size_t count = bytes.rfind(std::string("\x08\0\0\0\x01\0\0\0", 8));
  bytes[count] = 3;
  ASSERT_EQ(count % 8, 0U);
  BroadcastBlockBatch message;
  ASSERT_EQ(message.SetInputRawData(bytes.data(), bytes.size(), false), 0U);
  EXPECT_EQ(message.Deserialize(), 2020015U);
  EXPECT_TRUE(message.appId.empty());
}

TEST(BaseMessage, SharesABuilderAmongTheMessagesOfAThread) {
  BroadcastVar first;
  BroadcastVar second;
  ASSERT_EQ(first.Serialize(), 0U);
  ASSERT_EQ(second.Serialize(), 0U);
  EXPECT_EQ(BaseMessage::fbBuilder256.GetBufferPointer(), second.SerializedData());
  EXPECT_EQ(BaseMessage::fbBuilder256.GetSize(), second.SerializedDataSize());
  second.appId = std::string(1000, 'x');
  ASSERT_EQ(second.Serialize(), 0U);
  EXPECT_GT(second.SerializedDataSize(), 1000U);
}

TEST(BaseMessage, DoesNotDisturbOtherThreads) {
  const auto work = [](char letter) {
    for (unsigned i = 0; i < 500; ++i) {
      BroadcastBlockInfo sent;
      sent.appId = std::string(1 + i % 50, letter);
      sent.bmIds.assign(i % 40, std::string(i % 30, letter));
      sent.sizes.assign(i % 40, i);
      BroadcastBlockInfo received;
      if (Failed(sent.Serialize()) ||
          Failed(received.SetInputRawData(reinterpret_cast<char*>(sent.SerializedData()),
                                          sent.SerializedDataSize(), i % 2)) ||
          Failed(received.Deserialize()) || received.Fields() != sent.Fields()) {
        return i;
      }
    }
    return 500U;
  };
  auto other = std::async(std::launch::async, work, 'a');
  EXPECT_EQ(work('b'), 500U);
  EXPECT_EQ(other.get(), 500U);
}

}  // namespace
}  // namespace vyn::test
