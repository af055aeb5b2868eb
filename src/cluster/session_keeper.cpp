#include "cluster/session_keeper.h"

#include "common/log/exceptions.h"
#include "common/log/logging.h"

#include <algorithm>
#include <system_error>
#include <thread>

namespace vyn::cluster {

namespace {

/// The time between two checks. A check reads the memory of the ZooKeeper client and sends nothing.
constexpr std::chrono::milliseconds kPeriod{500};
/// The longest pause between two attempts to open a session.
constexpr std::chrono::milliseconds kLongestPause{5000};

}  // namespace

SessionKeeper& SessionKeeper::Get() {
  static auto* keeper = new SessionKeeper;
  return *keeper;
}

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
      std::thread(&SessionKeeper::Run, this).detach();
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

void SessionKeeper::Run() {
  // The waits use the real time and not the clock of common/util/clock.h: this thread outlives every clock
  // that replaces it.
  bool following = true;
  std::chrono::milliseconds pause = kPeriod;
  for (;;) {
    std::this_thread::sleep_for(pause);
    try {
      sync::MutexLock lock(mMutex);
      if (following && !mAdapter->SessionHasEnded()) {
        continue;
      }
      // The watch also reads the leader. Without a leader it fails, but is set: the watcher reads the next
      // one.
      following = !Failed(Renew()) && !Failed(ClusterZKAdapter::ZKRegisterWatcher(true));
      if (following) {
        VYN_LOG_INFO("A new ZooKeeper session watches the metadata leader");
      }
    } catch (...) {  // probably bad_alloc; the next attempt may succeed
      following = false;
      static_cast<void>(common::StatusOfException("SessionKeeper"));
    }
    pause = following ? kPeriod : std::min(2 * pause, kLongestPause);
  }
}

}  // namespace vyn::cluster
