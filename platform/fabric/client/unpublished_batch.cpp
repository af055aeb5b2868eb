#include "platform/fabric/client/unpublished_batch.h"

#include <algorithm>

namespace vyn::fabric {

int UnpublishedBatch::Allocate(const Access& access, std::uint32_t variable,
                               std::span<const std::uint64_t> sizes, std::vector<std::string>& ids) {
  for (std::size_t begin = 0; begin < sizes.size(); begin += kMaxIdsPerFrame) {
    const std::size_t count = std::min<std::size_t>(kMaxIdsPerFrame, sizes.size() - begin);
    if (const int result = mNode->AllocateBatch(access, variable, sizes.subspan(begin, count), ids, mHolder);
        result != 0) {
      Drop();  // so the node frees the objects of the earlier requests
      ids.clear();
      return result;
    }
    mHeld.push_back(ids[begin]);
  }
  return 0;
}

int UnpublishedBatch::Keep(const Access& access) {
  if (mHolder != nullptr && mHolder->Usable()) {
    return 0;
  }
  mHolder.reset();
  for (const std::string& id : mHeld) {
    if (const int result = mNode->Hold({access, id}, mHolder); result != 0) {
      return result;
    }
  }
  return 0;
}

}  // namespace vyn::fabric
