#pragma once

// Finds a published variable and brings its bytes into one range. Any thread may call the functions.

#include "tessel/sdk/variable/address_range.h"
#include "tessel/sdk/variable/fabric_calls.h"
#include "tessel/sdk/variable/variable_records.h"

#include <cstdint>

namespace vyn::tessel {

/// Finds the blocks: at the node server, or outside the fabric at the leader. Records a failure.
std::uint32_t FindPublished(const VariableKey& key, VariableBlocks& blocks);

/// Maps or reads the blocks into `range`. When a block is gone, asks the leader whether the variable was made
/// anew, and goes on with the new blocks, which it puts into `blocks`. Records a failure.
std::uint32_t LoadBlocks(const VariableKey& key, const FabricAccess& access, VariableBlocks& blocks,
                         AddressRange& range);

}  // namespace vyn::tessel
