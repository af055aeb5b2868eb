#include "common/util/random_index.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <numeric>
#include <random>

namespace vyn::common {

void ShuffleIndex(std::vector<unsigned int>& indexes) {
  std::iota(indexes.begin(), indexes.end(), 0U);
  const auto count = std::chrono::system_clock::now().time_since_epoch().count();
  std::minstd_rand0 generator(static_cast<std::uint32_t>(count));
  std::shuffle(indexes.begin(), indexes.end(), generator);
}

void RandomIndexes(unsigned int count, std::vector<unsigned int>& indexes) {
  std::vector<unsigned int> pool(count);
  std::iota(pool.begin(), pool.end(), 0U);
  indexes.reserve(indexes.size() + count);
  while (!pool.empty()) {
    const auto chosen = static_cast<std::size_t>(std::rand()) % pool.size();
    indexes.push_back(pool[chosen]);
    pool.erase(pool.begin() + static_cast<std::ptrdiff_t>(chosen));
  }
}

}  // namespace vyn::common
