#include "cluster/meta_node_info.h"

#include <new>

namespace vyn::common {

Ref<MetaNodeInfo>& MetaNodeInfo::metaInstance = *new Ref<MetaNodeInfo>;
std::mutex MetaNodeInfo::mMutex;

Ref<MetaNodeInfo> MetaNodeInfo::GetInstance() {
  std::lock_guard lock(mMutex);
  if (metaInstance == nullptr) {
    metaInstance = new (std::nothrow) MetaNodeInfo;
  }
  return metaInstance;
}

}  // namespace vyn::common
