#include "platform/tls/client_setting.h"

#include "platform/sync/mutex.h"

#include <utility>

namespace vyn::tls {

namespace {

/// Never destroyed: threads may connect while the process ends.
struct Kept {
  sync::Mutex mutex;
  ClientSetting setting VYN_GUARDED_BY(mutex);
};

Kept& Get() {
  static Kept* const gKept = new Kept;
  return *gKept;
}

}  // namespace

void SetClientSetting(ClientSetting setting) {
  Kept& kept = Get();
  sync::MutexLock lock(kept.mutex);
  kept.setting = std::move(setting);
}

ClientSetting GetClientSetting() {
  Kept& kept = Get();
  sync::MutexLock lock(kept.mutex);
  return kept.setting;
}

}  // namespace vyn::tls
