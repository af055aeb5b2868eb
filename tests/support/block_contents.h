#pragma once

// Contents of a block that two processes compare.

#include <cstddef>
#include <cstdint>
#include <vector>

namespace vyn::test {

/// Bytes that differ from page to page and from seed to seed.
inline std::vector<unsigned char> Contents(std::size_t size, unsigned int seed) {
  std::vector<unsigned char> bytes(size);
  for (std::size_t i = 0; i < size; ++i) {
    bytes[i] = static_cast<unsigned char>(i * 131 + (i >> 12U) * 7 + seed);
  }
  return bytes;
}

/// A sum in which the order of the bytes counts (FNV-1a).
inline std::uint64_t Sum(const unsigned char* bytes, std::size_t size) {
  std::uint64_t sum = 14695981039346656037U;
  for (std::size_t i = 0; i < size; ++i) {
    sum = (sum ^ bytes[i]) * 1099511628211U;
  }
  return sum;
}

}  // namespace vyn::test
