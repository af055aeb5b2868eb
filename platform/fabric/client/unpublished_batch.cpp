#include "platform/fabric/client/unpublished_batch.h"

#include "platform/fabric/protocol/codec.h"
#include "platform/fabric/protocol/names.h"

#include <algorithm>

namespace vyn::fabric {

int UnpublishedBatch::Allocate(const Access& access, std::uint32_t variable,
                               std::span<const std::uint64_t> sizes, std::vector<std::string>& ids) {
  for (std::size_t begin = 0; begin < sizes.size(); begin += kMaxIdsPerFrame) {
    const std::size_t count = std::min<std::size_t>(kMaxIdsPerFrame, sizes.size() - begin);
    if (const int result = AllocateSome(access, variable, sizes.subspan(begin, count), ids); result != 0) {
      // Dropping the connection frees the objects, too, but the daemon would then take the variable's record
      // for that of a dead writer.
      static_cast<void>(mNode->FreeBatch(access, {ids.begin(), ids.end()}));
      Drop();
      ids.clear();
      return result;
    }
    mHeld.push_back(ids[begin]);
  }
  return 0;
}

int UnpublishedBatch::AllocateSome(const Access& access, std::uint32_t variable,
                                   std::span<const std::uint64_t> sizes, std::vector<std::string>& ids) {
  const std::uint64_t largest = *std::max_element(sizes.begin(), sizes.end());
  if (largest > kMaxObjectSize) {
    return kBmNotEnoughCapacity;
  }
  Writer head;
  Put(head, access).Put(variable).Put(static_cast<std::uint16_t>(sizes.size()));
  for (const std::uint64_t size : sizes) {
    head.Put(size);
  }
  std::string answer;
  if (const int result = mNode->CallOver(mHolder, FabricOperation::kAllocateBatch, head.Bytes(), answer,
                                         ReserveTime(largest), nullptr, Channel::AlwaysWanted);
      result != 0) {
    return result;
  }
  Reader reader(answer);
  bool whole = true;
  for (std::size_t index = 0; index < sizes.size(); ++index) {
    ids.emplace_back(reader.Text());
    whole = whole && ids.back().size() == kIdLength;
  }
  return whole && reader.Complete() ? 0 : kBmRemoteProtocol;
}

int UnpublishedBatch::Hold(const ObjectName& object) {
  Writer head;
  Put(head, object);
  std::string answer;
  return mNode->CallOver(mHolder, FabricOperation::kHold, head.Bytes(), answer, {}, nullptr, nullptr);
}

int UnpublishedBatch::Keep(const Access& access) {
  if (mHolder != nullptr && mHolder->Usable()) {
    return 0;
  }
  Drop();
  for (const std::string& id : mHeld) {
    if (const int result = Hold({access, id}); result != 0) {
      Drop();
      return result;
    }
  }
  return 0;
}

}  // namespace vyn::fabric
