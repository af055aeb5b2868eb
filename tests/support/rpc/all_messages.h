#pragma once

// Every message class of the wire: how its messages are filled, read and written.

#include "common/message/heart_beat_message.h"
#include "support/test.h"
#include "tessel/message/broadcast/broadcast_messages.h"
#include "tessel/message/node_messages.h"
#include "tessel/message/shuffle/bag_messages.h"
#include "tessel/message/shuffle/blob_messages.h"
#include "tessel/message/shuffle/local_blob_messages.h"
#include "tessel/message/shuffle/stage_messages.h"
#include "tuning/message/tuning_messages.h"
#include "vyn/status.h"

namespace vyn::tessel {

/// The classes that are tables. The place in the list is the first byte of a fuzzer's input: append only.
using TableMessages = std::tuple<
    BroadcastVar, BroadcastVarEntry, BroadcastBlockBatch, BroadcastBlockInfo, BlockInfoRequest, BlockBmInfo,
    BroadcastRemoteNodeReq, BroadcastRemoteNodeRsp, NodeIdResponse, NodeInformation, MetaLeaderInformation,
    HostMessage, CapacityInfo, ClusterCapacityMessage, common::HeartBeatMessage, TimeStamp, UsingTimeRequest,
    ApplicationRegisterRequest, ShuffleApplication, ShuffleApplicationIdList, ShuffleBag, ShuffleBagBatch,
    ShuffleBagInfoGetRequest, ShuffleBagIdEntry, ShuffleBagIdList, ShuffleBlobId, ShuffleBlobIdList,
    BlobCreateRequest, BlobRequest, BlobBatchDeleteRequest, BlobListBagRequest, BlobListCasRequest,
    ShuffleBlobStateIndexCASList, ShuffleBlobStateIndexCASResultList, ShuffleBlobStateIndexList,
    ShuffleBlobListAndTaskInfo, StageInfo, ShuffleStage, ShuffleStagesCompletedInfo, ShuffleIdList,
    WorkerRemovedNotification, MapTaskStatus, TaskAttemptStatus, LocalBlobGetRequest, LocalBlob,
    LocalBlobCommitRequest, LocalBlobCommitResponse, tuning::TuningSqlMessage, tuning::RegisterResult,
    tuning::TuningMetrics, tuning::InferIdentification, tuning::InferResult>;

}  // namespace vyn::tessel

namespace vyn::test {

using tessel::TableMessages;
using Random = std::mt19937_64;

/// Gives a message, or a member, random contents.
template <typename Member>
void Fill(Member& member, Random& random) {
  if constexpr (std::is_arithmetic_v<Member>) {
    member = random() % 4 == 0 ? Member{} : static_cast<Member>(random());  // zero often: it is not stored
  } else if constexpr (requires { member.Fields(); }) {
    std::apply([&](auto&... field) { (Fill(field, random), ...); }, member.Fields());
  } else if constexpr (requires { member.Get(); }) {
    member = new std::remove_pointer_t<decltype(member.Get())>;
    Fill(*member, random);
  } else {
    member.clear();
    for (auto left = random() % 6; left != 0; --left) {
      if constexpr (requires { typename Member::mapped_type; }) {
        std::string key;
        Fill(key, random);
        Fill(member[key], random);
      } else {
        typename Member::value_type entry;
        Fill(entry, random);
        member.insert(member.end(), entry);
      }
    }
  }
}

/// Calls `take` with each index below `Count`, as a constant.
template <std::size_t Count, typename Take>
void ForEachIndex(Take take) {
  [&]<std::size_t... Index>(std::index_sequence<Index...>) {
    (take(std::integral_constant<std::size_t, Index>()), ...);
  }
  (std::make_index_sequence<Count>());
}

/// The status of reading exactly these bytes, out of memory that ends where they end. \param shift the place of
/// the first byte behind a multiple of 8.
template <typename Class>
std::uint32_t Read(Class& message, std::string_view bytes, std::size_t shift = 0) {
  const std::unique_ptr<char[]> memory(new char[bytes.size() + shift]);
  std::copy(bytes.begin(), bytes.end(), memory.get() + shift);
  const auto size = static_cast<unsigned int>(bytes.size());
  const std::uint32_t status = message.SetInputRawData(memory.get() + shift, size, false);
  return Failed(status) ? status : message.Deserialize();
}

/// The bytes of a message; empty when it refuses to be serialised.
inline std::string Bytes(common::BaseMessage& message) {
  message.Serialize();
  return {reinterpret_cast<const char*>(message.SerializedData()), message.SerializedDataSize()};
}

/// Whether the class refuses `bytes`, or else makes a message of them that can be written and read back equal.
template <typename Class>
bool RefusesOrKeeps(std::string_view bytes) {
  Class message;
  if (Failed(Read(message, bytes))) {
    return true;
  }
  const std::string written = Bytes(message);
  Class again;
  return !written.empty() && !Failed(Read(again, written)) && Bytes(again) == written;
}

}  // namespace vyn::test
