#include "cluster/meta_node_info.h"

#include "platform/sync/mutex.h"

#include <new>

namespace vyn::common {

Ref<MetaNodeInfo>& MetaNodeInfo::metaInstance = *new Ref<MetaNodeInfo>;
sync::Mutex MetaNodeInfo::mMutex;

Ref<MetaNodeInfo> MetaNodeInfo::GetInstance() {
  sync::MutexLock lock(mMutex);
  if (metaInstance == nullptr) {
    metaInstance = new (std::nothrow) MetaNodeInfo;
  }
  return metaInstance;
}

}  // namespace vyn::common
