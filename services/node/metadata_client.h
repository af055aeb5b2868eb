#pragma once

// The daemon's own question to the metadata leader: the blocks of a variable. Connects at the first question
// and follows the leader from there. Executors wait for the answer: a question that gets none, because the
// leader's host has vanished or nobody leads, is put again to whoever leads then, until its time is over.

#include "common/util/ref.h"
#include "tessel/message/broadcast/broadcast_messages.h"
#include "tessel/rpc/shuffle_meta_rpc_engine.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

namespace vyn::services {

/// Returns: the leader's address as this process knows it; empty while nobody leads.
std::string KnownLeader();
/// Waits for a leader, at most `limit` and while `wanted` says so. Returns: as KnownLeader.
std::string AwaitLeader(std::chrono::milliseconds limit, const std::function<bool()>& wanted);

struct MetadataClientLimits {
  std::chrono::milliseconds connect{5000};
  std::chrono::milliseconds call{10000};
  /// Of a look-up, all its calls together; the last one may outlast it.
  std::chrono::milliseconds lookUp{30000};
};

class MetadataClient {
 public:
  explicit MetadataClient(MetadataClientLimits limits = {}) : mLimits(limits) {}

  /// Returns: 0; kStatusNoLeader when none is known; what the leader answered, or what failed on the way, as
  /// RPCEngineBase::SendCall tells it. Any thread.
  std::uint32_t LookUp(const std::string& application, std::uint32_t id, tessel::BroadcastBlockInfo& info);
  /// Look-ups end with their call that is under way.
  void Stop() { mStopping.store(true, std::memory_order_relaxed); }

 private:
  /// Fills `engine` with the one that all questions share.
  std::uint32_t Engine(common::Ref<tessel::ShuffleMetaRPCEngine>& engine);
  std::uint32_t Ask(const common::Ref<tessel::BroadcastVar>& request,
                    const common::Ref<tessel::BroadcastBlockInfo>& response);

  const MetadataClientLimits mLimits;
  std::atomic<bool> mStopping{false};
  /// Guards mEngine.
  std::mutex mMutex;
  common::Ref<tessel::ShuffleMetaRPCEngine> mEngine;
};

}  // namespace vyn::services
