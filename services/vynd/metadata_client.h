#pragma once

// The daemon's own question to the metadata leader: the blocks of a variable. Connects at the first question
// and follows the leader from there.

#include "common/util/ref.h"
#include "tessel/message/broadcast/broadcast_messages.h"
#include "tessel/rpc/shuffle_meta_rpc_engine.h"

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

class MetadataClient {
 public:
  /// Returns: 0; kStatusNoLeader while none is known; the client's status otherwise. Any thread.
  std::uint32_t LookUp(const std::string& application, std::uint32_t id, tessel::BroadcastBlockInfo& info);

 private:
  /// Fills `engine` with the one that all questions share.
  std::uint32_t Engine(common::Ref<tessel::ShuffleMetaRPCEngine>& engine);

  /// Guards mEngine.
  std::mutex mMutex;
  common::Ref<tessel::ShuffleMetaRPCEngine> mEngine;
};

}  // namespace vyn::services
