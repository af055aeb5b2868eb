#pragma once

// Index lists in random order.

#include <vector>

namespace vyn::common {

/// Fills `indexes`, whose size stays, with 0, 1, 2 ... in random order, seeded by the wall clock. Re-entrant.
void ShuffleIndex(std::vector<unsigned int>& indexes);

/// Appends a random permutation of 0 to `count` - 1 to `indexes`. Draws from rand(), which the host program
/// seeds if it wants sequences that differ between processes; not to be called beside other users of rand().
void RandomIndexes(unsigned int count, std::vector<unsigned int>& indexes);

}  // namespace vyn::common
