#pragma once

// The applications and variables of one leadership: reads from memory, writes through the store first.
//
// A write that a client repeats because the reply was lost succeeds again. Every operation returns 0 or a status of
// services/common/service_status.h; MetadataStore::kStatusDeposed ends the leadership.
//
// Threads: any, after Load. Writes of one application run one at a time and hold that application's lock across the write
// to ZooKeeper, so that memory and store agree; reads wait for no write to ZooKeeper.

#include "services/metadata/metadata_store.h"
#include "services/metadata/variable.h"
#include "tessel/message/broadcast/broadcast_messages.h"

#include <array>
#include <chrono>
#include <map>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <vector>

namespace vyn::services {

class MetadataState {
 public:
  /// Begins a leadership.
  std::uint32_t Load();

  std::uint32_t NewVariable(const std::string& application, std::uint32_t id, std::uint32_t blockNum);
  std::uint32_t RemoveVariable(const std::string& application, std::uint32_t id);
  /// The whole list of blocks at once.
  std::uint32_t SetBlocks(const tessel::BroadcastBlockInfo& info);
  /// More blocks behind those that are known.
  std::uint32_t AddBlocks(const tessel::BroadcastBlockInfo& info);
  std::uint32_t GetVariable(const std::string& application, std::uint32_t id,
                            tessel::BroadcastBlockInfo& info) const;
  std::uint32_t GetBlock(const std::string& application, std::uint32_t id, std::uint32_t index,
                         std::string& bmId) const;
  std::uint32_t RemoveApplication(const std::string& application);

  std::uint32_t HeartBeat(const std::string& application);
  /// Removes it if it is still silent. \param removed receives whether it was. Returns: 0 or a status.
  std::uint32_t Expire(const std::string& application, std::chrono::milliseconds timeout, bool& removed);
  /// Those that sent heartbeats and have been silent for `timeout`.
  std::vector<std::string> Silent(std::chrono::milliseconds timeout) const;
  /// Those of `applications` that are known.
  std::vector<std::string> Known(const std::vector<std::string>& applications) const;

 private:
  /// Guards the writes of the applications that share it.
  std::mutex& WriteLock(const std::string& application);
  std::uint32_t EnsureApplication(const std::string& application);
  /// Copies the variable out. Returns: whether it is there.
  bool Find(const std::string& application, std::uint32_t id, Variable& variable) const;
  std::uint32_t WriteBlocks(const std::string& application, Variable variable);
  /// Requires: the application's write lock is held.
  std::uint32_t Remove(const std::string& application);

  MetadataStore mStore;
  std::array<std::mutex, 64> mWriteLocks;
  /// Guards mApplications.
  mutable std::shared_mutex mMutex;
  std::map<std::string, Application> mApplications;
};

}  // namespace vyn::services
