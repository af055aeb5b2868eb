#pragma once

// Every message class of the wire, and whether two messages of a class hold the same.

#include "common/message/heart_beat_message.h"
#include "tessel/message/broadcast/broadcast_messages.h"
#include "tessel/message/node_messages.h"
#include "tessel/message/shuffle/bag_messages.h"
#include "tessel/message/shuffle/blob_messages.h"
#include "tessel/message/shuffle/local_blob_messages.h"
#include "tessel/message/shuffle/stage_messages.h"
#include "tuning/message/tuning_messages.h"

#include <string>
#include <tuple>
#include <vector>

namespace vyn::test {

/// The classes that are tables. The place in the list is the first byte of a fuzzer's input: append only.
using TableMessages = std::tuple<
    tessel::BroadcastVar, tessel::BroadcastVarEntry, tessel::BroadcastBlockBatch, tessel::BroadcastBlockInfo,
    tessel::BlockInfoRequest, tessel::BlockBmInfo, tessel::BroadcastRemoteNodeReq,
    tessel::BroadcastRemoteNodeRsp, tessel::NodeIdResponse, tessel::NodeInformation,
    tessel::MetaLeaderInformation, tessel::HostMessage, tessel::CapacityInfo, tessel::ClusterCapacityMessage,
    common::HeartBeatMessage, tessel::TimeStamp, tessel::UsingTimeRequest, tessel::ApplicationRegisterRequest,
    tessel::ShuffleApplication, tessel::ShuffleApplicationIdList, tessel::ShuffleBag, tessel::ShuffleBagBatch,
    tessel::ShuffleBagInfoGetRequest, tessel::ShuffleBagIdEntry, tessel::ShuffleBagIdList,
    tessel::ShuffleBlobId, tessel::ShuffleBlobIdList, tessel::BlobCreateRequest, tessel::BlobRequest,
    tessel::BlobBatchDeleteRequest, tessel::BlobListBagRequest, tessel::BlobListCasRequest,
    tessel::ShuffleBlobStateIndexCASList, tessel::ShuffleBlobStateIndexCASResultList,
    tessel::ShuffleBlobStateIndexList, tessel::ShuffleBlobListAndTaskInfo, tessel::StageInfo,
    tessel::ShuffleStage, tessel::ShuffleStagesCompletedInfo, tessel::ShuffleIdList,
    tessel::WorkerRemovedNotification, tessel::MapTaskStatus, tessel::TaskAttemptStatus,
    tessel::LocalBlobGetRequest, tessel::LocalBlob, tessel::LocalBlobCommitRequest,
    tessel::LocalBlobCommitResponse, tuning::TuningSqlMessage, tuning::RegisterResult, tuning::TuningMetrics,
    tuning::InferIdentification, tuning::InferResult>;

template <typename Member>
bool SameMember(const Member& a, const Member& b) {
  return a == b;
}
template <typename Class>
bool Same(Class& a, Class& b);
template <typename Class>
bool SameMember(const common::Ref<Class>& a, const common::Ref<Class>& b) {
  return a == nullptr || b == nullptr ? a == b : Same(*a, *b);
}
template <typename Class>
bool SameMember(const std::vector<common::Ref<Class>>& a, const std::vector<common::Ref<Class>>& b) {
  bool same = a.size() == b.size();
  for (std::size_t i = 0; same && i < a.size(); ++i) {
    same = SameMember(a[i], b[i]);
  }
  return same;
}

/// Whether all members that travel are equal.
template <typename Class>
bool Same(Class& a, Class& b) {
  return [&]<std::size_t... Member>(std::index_sequence<Member...>) {
    return (SameMember(std::get<Member>(a.Fields()), std::get<Member>(b.Fields())) && ...);
  }
  (std::make_index_sequence<std::tuple_size_v<decltype(a.Fields())>>());
}

}  // namespace vyn::test
