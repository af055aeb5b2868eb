#pragma once

// Index lists in random order.

#include <vector>

namespace vyn::common {

/// Overwrites the elements of `indexes` with 0, 1, 2 ... in random order. The wall clock is the seed. Any
/// thread may call it.
void ShuffleIndex(std::vector<unsigned int>& indexes);

/// Appends a random permutation of 0 to `count` - 1 to `indexes`. Uses rand(). The program calls srand() if
/// the order shall differ between processes. No other thread may use rand() meanwhile.
void RandomIndexes(unsigned int count, std::vector<unsigned int>& indexes);

}  // namespace vyn::common
