#pragma once

// Keeps the ZooKeeper session of a driver. A session ends when its process was stopped, or cut off from
// ZooKeeper, for longer than the session time-out. The keeper's thread notices the end, opens a new session,
// sets the watch of the leader again and reads the leader. Until it succeeds it tries again, with growing
// pauses.
//
// vynd does not use the keeper: its MetadataMember renews the session, and what depends on it, itself.
//
// Any thread may call any operation. The keeper's mutex is taken before ClusterZKAdapter::mZKHandleLock and
// is held while a session is closed and opened. No watcher takes it.

#include "cluster/cluster_zkadapter.h"
#include "common/wait/periodic_task.h"
#include "platform/sync/fork.h"
#include "platform/sync/mutex.h"

#include <chrono>
#include <cstdint>

namespace vyn::cluster {

class SessionKeeper {
 public:
  /// Returns: the process's keeper. Never destroyed: its thread may still run while the process exits. A
  /// forked child has one of its own, without a thread and a session.
  static SessionKeeper& Get();

  /// Opens a session unless there is a usable one. Closes one that has ended.
  /// \param sessionTimeout in milliseconds; also for the sessions that the thread opens later. Returns: 0 or
  /// a status of ClusterZKAdapterInit.
  std::uint32_t Open(const common::Ref<ClusterZKAdapter>& adapter, int sessionTimeout);
  /// Starts the thread unless it runs. Requires: Open has been called. Returns: 2000057 when the process can
  /// have no more threads.
  std::uint32_t Start();

 private:
  /// The time between two checks. A check reads the memory of the ZooKeeper client and sends nothing.
  static constexpr std::chrono::milliseconds kPeriod{500};

  friend SessionKeeper& sync::OneInProcess<SessionKeeper>();
  SessionKeeper() = default;
  /// One round of mTask.
  void Check();
  std::uint32_t Renew() VYN_REQUIRES(mMutex);

  sync::Mutex mMutex;
  common::Ref<ClusterZKAdapter> mAdapter VYN_GUARDED_BY(mMutex);
  int mSessionTimeout VYN_GUARDED_BY(mMutex) = 0;
  bool mStarted VYN_GUARDED_BY(mMutex) = false;
  bool mFollowing VYN_GUARDED_BY(mMutex) = true;                      ///< false after a failed attempt
  std::chrono::milliseconds mPause VYN_GUARDED_BY(mMutex) = kPeriod;  ///< the present period of mTask
  common::PeriodicTask mTask;
};

}  // namespace vyn::cluster
