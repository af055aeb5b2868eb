#include "cluster/session_keeper.h"

#include "common/log/logging.h"

#include <algorithm>
#include <system_error>

namespace vyn::cluster {

namespace {

/// The longest pause between two attempts to open a session.
constexpr std::chrono::milliseconds kLongestPause{5000};

}  // namespace

SessionKeeper& SessionKeeper::Get() { return sync::OneInProcess<SessionKeeper>(); }

std::uint32_t SessionKeeper::Open(const common::Ref<ClusterZKAdapter>& adapter, int sessionTimeout) {
  VYN_CHECK_POINTER(adapter);
  sync::MutexLock lock(mMutex);
  mAdapter = adapter;
  mSessionTimeout = sessionTimeout;
  return Renew();
}

std::uint32_t SessionKeeper::Start() {
  sync::MutexLock lock(mMutex);
  if (!mStarted) {
    try {
      mTask.Start({"SessionKeeper", kPeriod}, [this] { Check(); });
    } catch (const std::system_error& failure) {
      VYN_LOG_ERROR("The ZooKeeper session cannot be watched: " << failure.what());
      return VYN_ERR_NULL_POINTER;
    }
    mStarted = true;
  }
  return VYN_OK;
}

std::uint32_t SessionKeeper::Renew() {
  if (mAdapter->SessionHasEnded()) {
    VYN_LOG_WARN("The ZooKeeper session has ended, opening a new one");
    static_cast<void>(mAdapter->ClusterZKClose());
  }
  return mAdapter->ClusterZKAdapterInit(mSessionTimeout);
}

void SessionKeeper::Check() {
  sync::MutexLock lock(mMutex);
  if (mFollowing && !mAdapter->SessionHasEnded()) {
    return;
  }
  // Set before the attempt, which may throw.
  mFollowing = false;
  mPause = std::min(2 * mPause, kLongestPause);
  mTask.SetPeriod(mPause);
  // The watch also reads the leader. Without a leader it fails, but is set: the watcher reads the next one.
  mFollowing = !Failed(Renew()) && !Failed(ClusterZKAdapter::ZKRegisterWatcher(true));
  if (mFollowing) {
    mPause = kPeriod;
    mTask.SetPeriod(mPause);
    VYN_LOG_INFO("A new ZooKeeper session watches the metadata leader");
  }
}

}  // namespace vyn::cluster
