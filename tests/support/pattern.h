#pragma once

#include "support/test.h"

// The pattern that tests fill memory, blocks and files with. It differs from byte to byte, from page to page
// and from seed to seed.

namespace vyn::test {

inline char PatternAt(std::size_t position, unsigned int seed) {
  return static_cast<char>(position * 31 + (position >> 12U) * 7 + seed);
}

inline void FillPattern(void* bytes, std::size_t size, unsigned int seed) {
  for (std::size_t position = 0; position < size; ++position) {
    static_cast<char*>(bytes)[position] = PatternAt(position, seed);
  }
}

inline bool HoldsPattern(const void* bytes, std::size_t size, unsigned int seed) {
  std::size_t position = 0;
  while (position < size && static_cast<const char*>(bytes)[position] == PatternAt(position, seed)) {
    ++position;
  }
  return position == size;
}

/// Returns: `size` bytes of the pattern.
inline std::string Pattern(std::size_t size, unsigned int seed) {
  std::string bytes(size, '\0');
  FillPattern(bytes.data(), size, seed);
  return bytes;
}

}  // namespace vyn::test
