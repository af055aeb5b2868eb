#pragma once

// The checksum of an object's contents, by which a copy is compared with its original: XXH3, 64 bits. It
// finds damage; it is no proof against forgery. Threads: one object is used by one thread.

#define XXH_INLINE_ALL
#include <xxhash.h>

#include <cstddef>
#include <cstdint>

namespace vyn::fabric {

class Checksum {
 public:
  Checksum() { XXH3_64bits_reset(&mState); }
  void Add(const void* bytes, std::size_t length) { XXH3_64bits_update(&mState, bytes, length); }
  std::uint64_t Value() const { return XXH3_64bits_digest(&mState); }

 private:
  XXH3_state_t mState;
};

}  // namespace vyn::fabric
