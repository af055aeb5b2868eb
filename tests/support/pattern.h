#pragma once

#include "support/test.h"

// The pattern that tests fill memory, blocks and files with. It differs from byte to byte, from page to page
// and from seed to seed.

namespace vyn::test {

/// Returns: `size` bytes of the pattern.
inline std::string Pattern(std::size_t size, unsigned int seed) {
  std::string bytes(size, '\0');
  for (std::size_t position = 0; position < size; ++position) {
    bytes[position] = static_cast<char>(position * 31 + (position >> 12U) * 7 + seed);
  }
  return bytes;
}

inline void FillPattern(void* bytes, std::size_t size, unsigned int seed) {
  std::memcpy(bytes, Pattern(size, seed).data(), size);
}

inline bool HoldsPattern(const void* bytes, std::size_t size, unsigned int seed) {
  return std::memcmp(bytes, Pattern(size, seed).data(), size) == 0;
}

}  // namespace vyn::test
