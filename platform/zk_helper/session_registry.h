#pragma once

// The sessions of this process. A caller names one by a ticket, which the exported functions call its handle.
// A forked child starts without sessions: it has none of the client's threads, and a call would write to the
// connection of its parent. The parent's tickets name no session in the child.
// Threads: any thread may call any function.

#include "platform/sync/fork.h"
#include "platform/sync/mutex.h"
#include "platform/zk_helper/session.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <utility>

namespace vyn::utilities::zookeeper {

/// The sessions by ticket. Never destroyed: the adapter closes its session while statics are being destroyed.
struct Registry {
  sync::Mutex mMutex;
  std::map<zhandle_t*, std::shared_ptr<Session>> mSessions VYN_GUARDED_BY(mMutex);
  zhandle_t* mCurrent VYN_GUARDED_BY(mMutex) = nullptr;
  static inline std::atomic<std::uintptr_t> gLastTicket{0};  ///< a forked child continues the count
  bool mClientInUse VYN_GUARDED_BY(mMutex) = false;
  sync::Condition mClientFree;

  static Registry& Get() { return sync::OneInProcess<Registry>(); }

  zhandle_t* NewTicket() {
    // Small numbers, which no valid address equals.
    return reinterpret_cast<zhandle_t*>(++gLastTicket);  // NOLINT(performance-no-int-to-ptr)
  }
  /// Waits until the previous session's client is closed: two clients that lose their connection at the same
  /// time write to one buffer of the client library without a lock. Returns: whether a client may be made.
  bool UseClient(std::chrono::seconds limit) {
    sync::MutexLock lock(mMutex);
    mClientFree.WaitFor(lock, limit,
                        [this]() VYN_REQUIRES(mMutex) { return !mClientInUse || mCurrent != nullptr; });
    if (mClientInUse) {
      return false;
    }
    mClientInUse = true;
    return true;
  }
  int Close(Session& session) {
    const int result = session.CloseClient();
    {
      sync::MutexLock lock(mMutex);
      mClientInUse = false;
      mClientFree.NotifyAll();
    }
    // Last: a watcher may be waiting for a lock, and the thread that holds it may wait for the client to be
    // free.
    session.StopWatchers();
    return result;
  }
  std::shared_ptr<Session> Find(zhandle_t* ticket) {
    sync::MutexLock lock(mMutex);
    const auto found = mSessions.find(ticket);
    return found == mSessions.end() ? nullptr : found->second;
  }
  std::shared_ptr<Session> Take(zhandle_t* ticket) {
    sync::MutexLock lock(mMutex);
    auto node = mSessions.extract(ticket);
    return node.empty() ? nullptr : std::move(node.mapped());
  }
};

}  // namespace vyn::utilities::zookeeper
