#pragma once

// Sends the heartbeats of one application from a thread of its own.
//
// Any thread may call Start and Stop, each of which sends one heartbeat itself. Between them the sender's
// thread sends one every 2 seconds. A failed heartbeat is logged, and the sender continues.

#include "common/util/ref.h"
#include "platform/sync/mutex.h"

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

namespace vyn::common {

class HeartBeatThread : public Referable {
 public:
  /// \param processType 0 sends to the metadata service, 1 to the tuning service, any other sends nothing.
  /// \param content sent with each heartbeat.
  HeartBeatThread(std::string appName, unsigned char processType, std::string processName,
                  std::string content);
  /// Ends the thread as Stop does, but sends nothing.
  ~HeartBeatThread() override;

  /// Sends the first heartbeat and starts the thread. Does nothing if the sender runs, or if a Stop has
  /// overtaken this first Start. Returns: 0, or 2000057 when no thread could be started. The sender counts as
  /// running even then.
  unsigned int Start();
  /// Ends the thread, after its heartbeat in progress, and sends the last heartbeat, with isAlive false. Does
  /// nothing if the sender is stopped. Returns: 0.
  unsigned int Stop();
  /// The thread's body.
  void Task();
  /// Sends one heartbeat. Returns: the result of the call; 0 when there is no client to send it with.
  unsigned int Send(bool isAlive);

  // The two operations below are for the end of the process. Afterwards, a sender whose thread still runs
  // must not be destroyed.

  /// Tells the thread to end. Does not wait.
  void RequestStop();
  /// Waits at most `patience` for the thread's end and subtracts the time spent from it. Does nothing about a
  /// thread that is still in a call then, or about a sender that another thread is starting or stopping.
  void JoinWithin(std::chrono::milliseconds& patience);

  std::string mAppName;
  unsigned char mProcessType;
  std::string mProcessName;
  std::string mContent;

 private:
  void EndThread() VYN_REQUIRES(mLock);
  /// Requires: the thread has been told to stop.
  void JoinThread() VYN_REQUIRES(mLock);

  std::thread* mHbThread VYN_GUARDED_BY(mLock) = nullptr;
  /// Written under mLock, except by RequestStop, which takes no lock.
  std::atomic<bool> mRunning{false};
  bool mStoppedBeforeStart VYN_GUARDED_BY(mLock) = false;
  std::atomic<bool> mEnded{false};  ///< the thread sets it last
  /// Held by Start and Stop from start to end, also during their heartbeat. Taken before mCondLock.
  sync::Mutex mLock;
  /// The mutex of mCond. The thread holds it whenever it does not wait, also during a heartbeat.
  sync::Mutex mCondLock;
  sync::Condition mCond;  ///< wakes the thread before its period ends
};

}  // namespace vyn::common
