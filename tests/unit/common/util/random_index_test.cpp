#include "common/util/random_index.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>

namespace vyn::common {
namespace {

TEST(RandomIndexTest, MakesPermutations) {
  std::vector<unsigned int> expected(100);
  for (unsigned int i = 0; i < expected.size(); ++i) {
    expected[i] = i;
  }
  std::vector<unsigned int> shuffled(100, 7);
  ShuffleIndex(shuffled);
  EXPECT_NE(shuffled, expected);
  EXPECT_TRUE(std::is_permutation(shuffled.begin(), shuffled.end(), expected.begin(), expected.end()));

  std::vector<unsigned int> drawn{7};
  RandomIndexes(0, drawn);
  EXPECT_EQ(drawn, std::vector<unsigned int>{7});
  std::srand(1);
  RandomIndexes(100, drawn);
  EXPECT_TRUE(std::is_permutation(drawn.begin() + 1, drawn.end(), expected.begin(), expected.end()));
  std::srand(1);
  EXPECT_EQ(drawn[1], static_cast<unsigned int>(std::rand()) % 100);
}

}  // namespace
}  // namespace vyn::common
