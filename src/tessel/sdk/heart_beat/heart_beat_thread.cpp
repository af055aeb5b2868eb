#include "tessel/sdk/heart_beat/heart_beat_thread.h"

#include "common/log/exceptions.h"
#include "common/log/logging.h"
#include "common/util/clock.h"
#include "tessel/rpc/shuffle_meta_rpc_engine.h"
#include "tuning/rpc/tuning_rpc_engine.h"

#include <pthread.h>

#include <new>
#include <system_error>
#include <utility>

namespace vyn::common {

namespace {

constexpr std::chrono::seconds kPeriod{2};
constexpr unsigned char kToMetadataService = 0;
constexpr unsigned char kToTuningService = 1;

}  // namespace

HeartBeatThread::HeartBeatThread(std::string appName, unsigned char processType, std::string processName,
                                 std::string content)
    : mAppName(std::move(appName)),
      mProcessType(processType),
      mProcessName(std::move(processName)),
      mContent(std::move(content)) {}

HeartBeatThread::~HeartBeatThread() {
  sync::MutexLock lock(mLock);
  EndThread();
}

unsigned int HeartBeatThread::Start() {
  sync::MutexLock lock(mLock);
  if (mRunning || mStoppedBeforeStart) {
    return VYN_OK;
  }
  mRunning = true;
  VYN_LOG_INFO(mAppName << " with process name " << mProcessName << " start to send heart beat");
  Send(true);
  mEnded = false;
  mHbThread = new (std::nothrow) std::thread;
  VYN_CHECK_POINTER(mHbThread);
  try {
    *mHbThread = std::thread(&HeartBeatThread::Task, this);
  } catch (const std::system_error&) {  // the process has reached its limit of threads
    delete mHbThread;
    mHbThread = nullptr;
  }
  VYN_CHECK_POINTER(mHbThread);
  // Linux refuses names of more than 15 characters, such as this one. The thread then keeps its creator's
  // name.
  pthread_setname_np(mHbThread->native_handle(), ("heartBeatSender-" + mAppName).c_str());
  return VYN_OK;
}

unsigned int HeartBeatThread::Stop() {
  sync::MutexLock lock(mLock);
  if (!mRunning) {
    // Another thread has registered this sender and is about to start it.
    mStoppedBeforeStart = true;
    return VYN_OK;
  }
  EndThread();
  VYN_LOG_INFO(mAppName << " with process name " << mProcessName << " stop to send heart beat");
  Send(false);
  return VYN_OK;
}

void HeartBeatThread::EndThread() {
  mRunning = false;
  if (mHbThread == nullptr) {
    return;
  }
  {
    // The thread holds the lock except while it waits. So it is waiting now, or it will read mRunning before
    // it waits.
    sync::MutexLock lock(mCondLock);
    mCond.NotifyAll();
  }
  JoinThread();
}

void HeartBeatThread::JoinThread() {
  mHbThread->join();
  delete mHbThread;
  mHbThread = nullptr;
}

void HeartBeatThread::Task() {
  sync::MutexLock lock(mCondLock);
  while (mRunning) {
    try {
      Send(true);
    } catch (...) {  // probably bad_alloc; the next heartbeat may succeed
      static_cast<void>(StatusOfException("heartbeat"));
    }
    // The monotonic clock: setting back the wall clock must not delay the heartbeats.
    WaitFor(mCond, lock, kPeriod);
  }
  mEnded = true;
}

unsigned int HeartBeatThread::Send(bool isAlive) {
  unsigned int status = VYN_OK;
  if (mProcessType == kToMetadataService) {
    if (const auto client = tessel::ShuffleMetaRPCEngine::GetInstance(); client != nullptr) {
      status = client->HeartBeat(mAppName, mProcessType, mProcessName, mContent, isAlive);
    }
  } else if (mProcessType == kToTuningService) {
    if (const auto client = tuning::TuningRpcEngine::GetInstance(); client != nullptr) {
      status = client->HeartBeat(mAppName, mProcessType, mProcessName, mContent, isAlive);
    }
  }
  if (Failed(status)) {
    VYN_LOG_ERROR("Failed to send shuffle heartBeat as appName: "
                  << mAppName << " processType: " << int{mProcessType} << ", process name: " << mProcessName);
  }
  return status;
}

void HeartBeatThread::RequestStop() {
  mRunning = false;
  mCond.NotifyAll();
}

void HeartBeatThread::JoinWithin(std::chrono::milliseconds& patience) {
  constexpr std::chrono::milliseconds kPause{1};
  if (!mLock.try_lock()) {
    return;
  }
  sync::MutexLock lock(mLock, std::adopt_lock);
  if (mHbThread == nullptr) {
    return;
  }
  while (!mEnded && patience > kPause) {
    SleepFor(kPause);
    patience -= kPause;
    // Notify again: without mCondLock, which a hanging call may hold, a notification can come just before the
    // wait.
    mCond.NotifyAll();
  }
  if (mEnded) {
    JoinThread();
  }
}

}  // namespace vyn::common
