// Pool::State: size, stamp and checksum of an object's contents.

#include "platform/fabric/node/pool/file_state.h"
#include "platform/fabric/node/pool/pool.h"

#include <cerrno>

namespace vyn::fabric {

int Pool::State(const NamespacePtr& space, std::string_view id, const Between& between,
                ObjectState& state) const {
  net::Descriptor file;
  if (const int result = OpenObject(space, id, false, file, state.size); result != 0) {
    return result;
  }
  state.beingWritten = IsOpenForWriting(file.Get());
  state.stamp = StampOf(file.Get());
  if (between == nullptr) {
    return 0;
  }
  const std::string key(id);
  if (!state.beingWritten) {
    sync::MutexLock lock(space->mutex);
    const auto known = space->checksums.find(key);
    if (known != space->checksums.end() && known->second.stamp == state.stamp) {
      state.checksum = known->second.checksum;
      return 0;
    }
  }
  if (!ChecksumOf(file.Get(), state.size, between, state.checksum)) {
    return -EIO;
  }
  sync::MutexLock lock(space->mutex);
  if (!state.beingWritten && space->sizes.count(key) > 0) {
    space->checksums.insert_or_assign(key, Namespace::Known{state.stamp, state.checksum});
  }
  return 0;
}

}  // namespace vyn::fabric
