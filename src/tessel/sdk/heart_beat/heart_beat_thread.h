#pragma once

// One background sender of heartbeats for one application.
//
// Start and Stop may be called from any thread. Start and Stop each send one heartbeat themselves; in between
// the sender's own thread sends one every 2 seconds. A failed heartbeat is logged and the sender goes on.

#include "common/util/ref.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace vyn::common {

class HeartBeatThread : public Referable {
 public:
  /// \param processType 0 sends to the metadata service, 1 to the tuning service, any other sends nothing.
  /// \param content passed on with each heartbeat.
  HeartBeatThread(std::string appName, unsigned char processType, std::string processName,
                  std::string content);
  /// Ends the thread as Stop does, without the farewell.
  ~HeartBeatThread() override;

  /// Sends the first heartbeat and starts the thread; does nothing on a running sender.
  /// Returns: 0, or 2000057 when no thread can be had. The sender then counts as running all the same.
  unsigned int Start();
  /// Ends the thread, which waits for a heartbeat in progress, and sends the farewell; does nothing on a
  /// stopped sender. Returns: 0.
  unsigned int Stop();
  /// The thread's body.
  void Task();
  /// Sends one heartbeat. Returns: the result of the call; 0 when there is nobody to send to.
  unsigned int Send(bool isAlive);

  // For the end of the process. A sender whose thread did not end then must not be destroyed.

  /// Asks the thread to end and waits for nothing.
  void AskToEnd();
  /// Waits for the thread's end, at most `patience`, from which the time spent is taken. A thread that is
  /// inside a call by then, and a sender that is just being started or stopped, are left as they are.
  void JoinWithin(std::chrono::milliseconds& patience);

  std::string mAppName;
  unsigned char mProcessType;
  std::string mProcessName;
  std::string mContent;

 private:
  void EndThread();
  void JoinThread();

  std::thread* mHbThread = nullptr;  ///< guarded by mLock
  /// Written under mLock, but for the end of the process, which waits for no lock.
  std::atomic<bool> mRunning{false};
  std::atomic<bool> mEnded{false};  ///< set by the thread as its last act
  std::mutex mLock;      ///< serialises Start and Stop, which hold it through their call; before mCondLock
  std::mutex mCondLock;  ///< goes with mCond; the thread holds it whenever it does not wait, also in its call
  std::condition_variable mCond;  ///< wakes the thread early
};

}  // namespace vyn::common
