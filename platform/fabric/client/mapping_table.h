#pragma once

// The mappings that the library made in this process: BM_Unmap names an object and an address, and munmap
// needs the length. Threads: any.

#include "platform/fabric/protocol/results.h"
#include "platform/sync/mutex.h"

#include <sys/mman.h>

#include <string>
#include <string_view>
#include <unordered_map>

namespace vyn::fabric {

class MappingTable {
 public:
  void Add(void* address, std::string_view id, std::size_t length) {
    sync::MutexLock lock(mMutex);
    mMappings.insert_or_assign(address, Mapping{std::string(id), length});
  }

  /// Removes the mapping. Returns: 0; kBmLocalError when there is none of that object at that address.
  int Remove(void* address, std::string_view id) {
    sync::MutexLock lock(mMutex);
    const auto found = mMappings.find(address);
    if (found == mMappings.end() || found->second.id != id || ::munmap(address, found->second.length) != 0) {
      return kBmLocalError;
    }
    mMappings.erase(found);
    return 0;
  }

  /// Returns: the length of the mapping; 0 when there is none of that object at that address.
  std::size_t LengthOf(const void* address, std::string_view id) {
    sync::MutexLock lock(mMutex);
    const auto found = mMappings.find(const_cast<void*>(address));
    return found == mMappings.end() || found->second.id != id ? 0 : found->second.length;
  }

  /// Forgets the mappings; they stay mapped.
  void Clear() {
    sync::MutexLock lock(mMutex);
    std::unordered_map<void*, Mapping>().swap(mMappings);
  }

  // Not checked: the mutex stays held between the two calls.
  void LockForFork() VYN_NO_THREAD_SAFETY_ANALYSIS { mMutex.lock(); }
  void UnlockAfterFork() VYN_NO_THREAD_SAFETY_ANALYSIS { mMutex.unlock(); }

 private:
  struct Mapping {
    std::string id;
    std::size_t length;
  };

  /// Guards mMappings. Held during munmap: otherwise another thread could map the same address again before
  /// its old entry is erased.
  sync::Mutex mMutex;
  std::unordered_map<void*, Mapping> mMappings VYN_GUARDED_BY(mMutex);
};

}  // namespace vyn::fabric
