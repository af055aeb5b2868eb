// The registry of heartbeat senders. These members of BaseApiUtil are defined here because they call the
// typed clients, which src/common must not include.

#include "common/api/base_api_util.h"
#include "common/log/logging.h"
#include "platform/sync/fork.h"
#include "platform/sync/mutex.h"
#include "tessel/sdk/heart_beat/heart_beat_thread.h"

#include <chrono>
#include <cstdint>
#include <new>
#include <utility>

namespace vyn::common {

// Never destroyed: a sender that hangs in a call may still use it while the process exits.
std::unordered_map<std::string, Ref<HeartBeatThread>>& BaseApiUtil::g_HeartBeatFlag =
    *new std::unordered_map<std::string, Ref<HeartBeatThread>>;
sync::Mutex BaseApiUtil::heartBeatLock;

namespace {

/// Its destructor ends all senders when the process exits, without a last heartbeat. (dlclose does not unload
/// this library.) It waits one second for all threads together. A thread that is still in a call then keeps
/// running until the process has exited; it uses only objects that are never destroyed.
struct SenderShutdown {
  const std::uint32_t mOwner = sync::ForkCount();

  ~SenderShutdown() {
    if (sync::ForkCount() != mOwner) {
      return;  // a forked child has the registry but not its threads
    }
    std::chrono::milliseconds patience{1000};
    sync::MutexLock lock(BaseApiUtil::heartBeatLock);
    for (const auto& [name, sender] : BaseApiUtil::g_HeartBeatFlag) {
      sender->RequestStop();
    }
    for (const auto& [name, sender] : BaseApiUtil::g_HeartBeatFlag) {
      sender->JoinWithin(patience);
    }
  }
};

using Senders = std::unordered_map<std::string, Ref<HeartBeatThread>>;

/// In a forked child, empties the registry: its parent sends the heartbeats of those applications, and their
/// senders have no threads here. The senders are not destroyed: their destructors would join those threads.
void ForgetSendersOfParent(Senders& senders) {
  static std::uint32_t owner = sync::ForkCount();
  if (owner != sync::ForkCount()) {
    owner = sync::ForkCount();
    static_cast<void>(new Senders(std::move(senders)));
    senders.clear();
  }
}

}  // namespace

unsigned int BaseApiUtil::StartHeartBeat(const std::string& appName, unsigned char processType,
                                         const std::string& processName, const std::string& content) {
  Ref<HeartBeatThread> threadPtr(new (std::nothrow)
                                     HeartBeatThread(appName, processType, processName, content));
  VYN_CHECK_POINTER(threadPtr);
  if (Failed(PutIfAbsent(appName, threadPtr))) {
    VYN_LOG_WARN("Heart beat of appName: " << appName << " processType: " << int{processType}
                                           << ", process name: " << processName << " has already started.");
    return VYN_ERR_GENERIC;
  }
  const unsigned int status = threadPtr->Start();
  // Made after the first heartbeat, so that it is destroyed before the statics that the heartbeat has made.
  static const SenderShutdown senderShutdown;
  return status;
}

unsigned int BaseApiUtil::StopHeartBeat(const std::string& appName, unsigned char processType,
                                        const std::string& processName, const std::string& /*content*/) {
  Ref<HeartBeatThread> threadPtr;
  if (Failed(GetIfExist(appName, threadPtr))) {
    VYN_LOG_WARN("Heart beat of appName: " << appName << " processType: " << int{processType}
                                           << ", process name: " << processName << " is already stopped.");
    return VYN_ERR_GENERIC;
  }
  threadPtr->Stop();
  return VYN_OK;
}

unsigned int BaseApiUtil::PutIfAbsent(const std::string& appName, const Ref<HeartBeatThread>& thread) {
  sync::MutexLock lock(heartBeatLock);
  ForgetSendersOfParent(g_HeartBeatFlag);
  return g_HeartBeatFlag.emplace(appName, thread).second ? VYN_OK : VYN_ERR_GENERIC;
}

unsigned int BaseApiUtil::GetIfExist(const std::string& appName, Ref<HeartBeatThread>& thread) {
  sync::MutexLock lock(heartBeatLock);
  ForgetSendersOfParent(g_HeartBeatFlag);
  const auto found = g_HeartBeatFlag.find(appName);
  if (found == g_HeartBeatFlag.end()) {
    return VYN_ERR_GENERIC;
  }
  thread = found->second;
  g_HeartBeatFlag.erase(found);
  return VYN_OK;
}

}  // namespace vyn::common
