#pragma once

#include "support/test.h"

// The seeds of random tests.

namespace vyn::test {

/// The seeds that a random test runs one after the other: 1 to `count`, or the one number in VYN_SEED, or a new
/// one when VYN_SEED is "random".
inline std::vector<unsigned int> Seeds(unsigned int count) {
  if (const char* wanted = std::getenv("VYN_SEED"); wanted != nullptr) {
    return {std::string(wanted) == "random" ? std::random_device()()
                                            : static_cast<unsigned int>(std::stoul(wanted))};
  }
  std::vector<unsigned int> seeds(count);
  std::iota(seeds.begin(), seeds.end(), 1U);
  return seeds;
}

}  // namespace vyn::test
