#pragma once

// The applications and variables of one leadership: reads from memory, writes through the store first.
//
// A write that a client repeats because the reply was lost succeeds again. Every operation returns 0 or a
// status of services/common/service_status.h; kStatusNotLeading ends the leadership.
//
// Threads: any, after Load. Writes of one application run one at a time and hold that application's lock
// across the write to ZooKeeper, so that memory and store agree; reads wait for no write to ZooKeeper.

#include "services/metadata/metadata_store.h"
#include "services/metadata/variable.h"
#include "tessel/message/broadcast/broadcast_messages.h"

#include <array>
#include <chrono>
#include <map>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <utility>
#include <vector>

namespace vyn::services {

class MetadataState {
 public:
  explicit MetadataState(ApplicationLimits limits = {}) : mLimits(limits) {}
  /// Begins a leadership. \param asked see MetadataStore::Open.
  std::uint32_t Load(std::chrono::steady_clock::time_point* asked = nullptr);

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

  /// \param alive false: its process says farewell. Only an application that is registered counts: a late
  /// heartbeat does not bring back one that has ended.
  std::uint32_t HeartBeat(const std::string& application, bool alive = true);
  /// Moves every silence: the service itself stood still for `gap` and cannot know who was silent meanwhile.
  void Forgive(std::chrono::steady_clock::duration gap);
  /// Removes it if it is still silent. \param removed receives whether it is gone. Returns: 0 or a status.
  std::uint32_t Expire(const std::string& application, std::chrono::milliseconds timeout, bool& removed);
  /// Those that sent heartbeats and have been silent for `timeout`.
  std::vector<std::string> Silent(std::chrono::milliseconds timeout) const;
  /// \param known receives those of `applications` that are known, or registered at a node. Only so many of
  /// those that are not known here are looked for.
  std::uint32_t Known(const std::vector<std::string>& applications, std::vector<std::string>& known);

 private:
  /// Waits for the writes before this one; the lock is shared by several applications. Returns: no lock when
  /// one of them ended the leadership.
  std::unique_lock<std::mutex> BeginWrite(const std::string& application);
  std::uint32_t EnsureApplication(const std::string& application);
  /// Copies the variable out. Returns: whether it is there.
  bool Find(const std::string& application, std::uint32_t id, Variable& variable) const;
  std::uint32_t WriteBlocks(const std::string& application, Variable variable);
  /// Waits until no node answers with an earlier variable of this number.
  void AwaitForgotten(const std::string& application, std::uint32_t id);
  /// Requires: the application's write lock is held.
  std::uint32_t Remove(const std::string& application);

  /// Whether one more variable with so many blocks fits into the application.
  bool HasRoom(const std::string& application, std::uint32_t blockNum) const;

  const ApplicationLimits mLimits;
  MetadataStore mStore;
  std::array<std::mutex, 64> mWriteLocks;
  /// Guards mApplications and mDeleted.
  mutable std::shared_mutex mMutex;
  std::map<std::string, Application> mApplications;
  /// What tells the nodes of a deleted variable, for who makes its number anew.
  struct Deleted {
    std::chrono::steady_clock::time_point when;
    std::vector<std::string> entries;
  };
  std::map<std::pair<std::string, std::uint32_t>, Deleted> mDeleted;
};

}  // namespace vyn::services
