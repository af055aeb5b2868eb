#pragma once

// The seeds and random numbers of a test, and the steps that a failure shows.

#include "support/test.h"

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

/// The random numbers of one seed, and the last 20 steps that were made of them.
class RandomSteps {
 public:
  explicit RandomSteps(unsigned int seed) : mSeed(seed), mEngine(seed) {}

  /// Returns: a number from 0 to `count` - 1.
  std::uint32_t Number(std::uint32_t count) { return static_cast<std::uint32_t>(mEngine() % count); }
  std::uint64_t Wide(std::uint64_t count) {
    const std::uint64_t high = mEngine();
    return (high << 32U | mEngine()) % count;
  }
  bool OneIn(std::uint32_t count) { return Number(count) == 0; }
  template <typename Value>
  Value Pick(const std::vector<Value>& values) {
    return values[Number(static_cast<std::uint32_t>(values.size()))];
  }

  /// \param parts of the step: texts and numbers.
  template <typename... Parts>
  void Note(const Parts&... parts) {
    std::ostringstream step;
    ((step << parts << ' '), ...);
    mSteps.push_back(step.str());
    if (mSteps.size() > 20) {
      mSteps.pop_front();
    }
  }
  /// Returns: the seed and the last steps, for the message of a failure.
  std::string Story() const {
    return std::accumulate(
        mSteps.begin(), mSteps.end(), "\nVYN_SEED=" + std::to_string(mSeed) + ", the last steps:",
        [](const std::string& text, const std::string& step) { return text + "\n  " + step; });
  }

 private:
  const unsigned int mSeed;
  std::mt19937 mEngine;
  std::deque<std::string> mSteps;
};

}  // namespace vyn::test
