#include "platform/tls/client_setting.h"

#include <mutex>
#include <utility>

namespace vyn::tls {

namespace {

/// Never destroyed: threads may connect while the process ends.
struct Kept {
  std::mutex mutex;  // guards the setting
  ClientSetting setting;
};

Kept& Get() {
  static Kept* const gKept = new Kept;
  return *gKept;
}

}  // namespace

void SetClientSetting(ClientSetting setting) {
  std::lock_guard lock(Get().mutex);
  Get().setting = std::move(setting);
}

ClientSetting GetClientSetting() {
  std::lock_guard lock(Get().mutex);
  return Get().setting;
}

}  // namespace vyn::tls
