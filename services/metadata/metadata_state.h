#pragma once

// The applications and variables that the leader knows. A read uses memory only. A write goes to
// MetadataStore first and then to memory.
//
// A client may repeat a write whose reply was lost; the repetition succeeds as well. Every operation returns
// 0 or a status of tessel/message/service_status.h. After kStatusNotLeading the leadership is over.
//
// After Load any thread may call any operation. Writes of one application run one at a time. Each holds the
// application's write lock during the write to ZooKeeper, so that memory and store agree. A read never waits
// for a write to ZooKeeper.

#include "platform/sync/mutex.h"
#include "services/metadata/metadata_store.h"
#include "services/metadata/variable.h"
#include "tessel/message/broadcast/broadcast_messages.h"

#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace vyn::services {

class MetadataState {
 public:
  explicit MetadataState(ApplicationLimits limits = {}) : mLimits(limits) {}
  /// Begins a leadership and reads the records. \param asked see MetadataStore::Open. \param extra how much
  /// longer than the time-out the applications have for their first heartbeat to this leader.
  std::uint32_t Load(std::chrono::steady_clock::time_point* asked = nullptr,
                     std::chrono::milliseconds extra = {});

  /// \param writer see Variable::writer. Returns kStatusNotForgotten while a live node may answer from its
  /// cache about an earlier variable of this number; kStatusVariableExists when another writer has the number,
  /// or one with another number of blocks.
  std::uint32_t NewVariable(const std::string& application, std::uint32_t id, std::uint32_t blockNum,
                            const std::string& writer = "");
  /// Removes the variable if `writer` has claimed its number. \param published whether also when it has its
  /// blocks. Returns: 0, also when there is no such variable or another writer has the number;
  /// kStatusVariableExists when it stays because it has its blocks; kStatusNotReady when its record names no
  /// writer.
  std::uint32_t GiveUp(const std::string& application, std::uint32_t id, const std::string& writer,
                       bool published);
  /// \param onlyUnpublished refuses, with kStatusVariableExists, a variable that has all its blocks.
  /// Waits until the live nodes have forgotten the variable, for a bounded time.
  std::uint32_t RemoveVariable(const std::string& application, std::uint32_t id,
                               bool onlyUnpublished = false);
  /// Sets the whole list of blocks.
  std::uint32_t SetBlocks(const tessel::BroadcastBlockInfo& info);
  /// Appends blocks to the known ones.
  std::uint32_t AddBlocks(const tessel::BroadcastBlockInfo& info);
  std::uint32_t GetVariable(const std::string& application, std::uint32_t id,
                            tessel::BroadcastBlockInfo& info) const;
  std::uint32_t GetBlock(const std::string& application, std::uint32_t id, std::uint32_t index,
                         std::string& bmId) const;
  std::uint32_t RemoveApplication(const std::string& application);
  /// Looks once whether the nodes have forgotten what was deleted, so that it need not be remembered here.
  void SweepDeleted();

  /// Records a heartbeat. Ignores an application that is not registered, so that a late heartbeat does not
  /// recreate one that has ended. \param alive false for the last heartbeat of a process.
  std::uint32_t HeartBeat(const std::string& application, bool alive = true);
  /// Extends every heartbeat deadline by `gap`, a time in which this process was suspended or refused
  /// heartbeats.
  void ExtendHeartbeatDeadlines(std::chrono::steady_clock::duration gap);
  /// Removes the application if its last heartbeat is still `timeout` ago. \param removed receives whether it
  /// was removed. Returns: 0 or a status.
  std::uint32_t Expire(const std::string& application, std::chrono::milliseconds timeout, bool& removed);
  /// The applications that have sent heartbeats, the last one at least `timeout` ago.
  std::vector<std::string> Silent(std::chrono::milliseconds timeout) const;
  /// \param known receives those of `applications` that exist in memory or are registered at a node.
  /// ZooKeeper is asked for at most kMaxUnknown of them.
  std::uint32_t FilterKnown(const std::vector<std::string>& applications, std::vector<std::string>& known);

 private:
  /// The lock of an application for writing, which it shares with some others.
  sync::Mutex& WriteLock(const std::string& application);
  std::uint32_t EnsureApplication(const std::string& application);
  /// Copies the variable. Returns: whether it exists.
  bool Find(const std::string& application, std::uint32_t id, Variable& variable) const;
  /// Removes the record of a variable if `mayRemove` returns 0 for it. Then waits until the live nodes have
  /// forgotten the variable, for a bounded time. Returns: 0, also when there is none;
  /// the status of `mayRemove`, another failure.
  std::uint32_t RemoveRecord(const std::string& application, std::uint32_t id,
                             const std::function<std::uint32_t(const Variable&)>& mayRemove);
  /// The same without waiting for the nodes.
  std::uint32_t RemoveRecordNow(const std::string& application, std::uint32_t id,
                                const std::function<std::uint32_t(const Variable&)>& mayRemove);
  std::uint32_t WriteBlocks(const std::string& application, Variable variable);
  /// Waits until no live node answers from its cache about an earlier, deleted variable of this number, for a
  /// bounded time. Returns: 0, or kStatusNotForgotten after that time.
  std::uint32_t AwaitForgotten(const std::string& application, std::int64_t id);
  /// Asks the nodes once about a deletion, and forgets it when they have. Returns: the id of a node that has
  /// not.
  std::string NodeThatRemembers(const MetadataStore::Deletions::key_type& deleted);
  void RememberDeleted(const MetadataStore::Deletions::key_type& deleted,
                       const std::vector<std::string>& entries) VYN_REQUIRES(mMutex);
  std::uint32_t Remove(const std::string& application) VYN_REQUIRES(WriteLock(application));

  /// Whether the application's limits allow one more variable with `blockNum` blocks.
  bool HasRoom(const std::string& application, std::uint32_t blockNum) const;

  const ApplicationLimits mLimits;
  MetadataStore mStore;
  std::array<sync::Mutex, 64> mWriteLocks;
  mutable sync::SharedMutex mMutex;
  std::map<std::string, Application> mApplications VYN_GUARDED_BY(mMutex);
  /// The deleted variables that a live node may still have in its cache, and the ended applications.
  /// NewVariable does not use their numbers.
  MetadataStore::Deletions mDeleted VYN_GUARDED_BY(mMutex);
  /// The number of threads in AwaitForgotten.
  std::atomic<unsigned int> mWaiting{0};
  /// The last deletion that SweepDeleted has looked at; used by its thread.
  MetadataStore::Deletions::key_type mSwept;
};

}  // namespace vyn::services
