#pragma once

// The daemon's client of the metadata leader. It looks up the blocks of a variable. It connects at the first
// look-up and follows each change of the leader. If no leader answers, LookUp retries with the current leader
// until MetadataClientLimits::lookUp has passed, because executors wait for the result.
//
// Any thread may call any operation.

#include "common/util/ref.h"
#include "platform/sync/mutex.h"
#include "tessel/message/broadcast/broadcast_messages.h"
#include "tessel/rpc/shuffle_meta_rpc_engine.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

namespace vyn::services {

/// Returns: the leader's address as this process knows it; empty while it knows none.
std::string KnownLeader();
/// Waits until this process knows a leader, at most `limit` and while `wanted` returns true. Returns: as
/// KnownLeader.
std::string AwaitLeader(std::chrono::milliseconds limit, const std::function<bool()>& wanted);

struct MetadataClientLimits {
  std::chrono::milliseconds connect{5000};
  std::chrono::milliseconds call{10000};
  /// For all calls of a look-up together. No call starts later; the last one may end later.
  std::chrono::milliseconds lookUp{30000};
};

class MetadataClient {
 public:
  explicit MetadataClient(MetadataClientLimits limits = {}) : mLimits(limits) {}

  /// Returns: 0; kStatusNoLeader when this process knows no leader; otherwise the leader's status or a
  /// transport failure, see RPCEngineBase::SendCall.
  std::uint32_t LookUp(const std::string& application, std::uint32_t id, tessel::BroadcastBlockInfo& info);
  /// Whether the record of a variable has the block. Returns: 0, kStatusNotReady, another failure. One try.
  std::uint32_t FindBlock(const std::string& application, std::uint32_t id, std::uint32_t index);
  /// Removes a variable that has no complete block list and whose record names no writer. One try. Returns: 0, also when there is none;
  /// kStatusVariableExists when it has one or the other; another failure.
  std::uint32_t RemoveUnpublished(const std::string& application, std::uint32_t id);
  /// Removes an unpublished variable if the writer whose first block is `writer` has claimed its number. One
  /// try. Returns: 0, also when there is none or it is another writer's; kStatusVariableExists when it is
  /// published; kStatusNotReady when its record names no writer, kStatusUnknownOperation from an older leader;
  /// another failure.
  std::uint32_t GiveUp(const std::string& application, std::uint32_t id, const std::string& writer);
  /// Ends the retries: a look-up returns after its current call.
  void Stop() { mStopping.store(true, std::memory_order_relaxed); }

 private:
  /// Fills `engine` with the client that all look-ups share; creates it if necessary.
  std::uint32_t Engine(common::Ref<tessel::ShuffleMetaRPCEngine>& engine);
  std::uint32_t Ask(short operation, const common::Ref<common::BaseMessage>& request,
                    const common::Ref<common::BaseMessage>& response);

  const MetadataClientLimits mLimits;
  std::atomic<bool> mStopping{false};
  sync::Mutex mMutex;
  common::Ref<tessel::ShuffleMetaRPCEngine> mEngine VYN_GUARDED_BY(mMutex);
};

}  // namespace vyn::services
