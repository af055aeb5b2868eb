#pragma once

// What the services know about a variable: its record at the metadata service, and its blocks. The functions
// return the services' own statuses and record no text; variable_failure.h converts them into the
// failures of vyn/variable.h. Any thread may call any function.

#include "tessel/sdk/variable/variable_failure.h"

#include <cstdint>
#include <string>
#include <vector>

namespace vyn::tessel {

/// The blocks of a variable, in order; all are on one node.
struct VariableBlocks {
  std::vector<std::string> ids;
  std::vector<std::uint64_t> sizes;  ///< bytes
  std::uint32_t nodeId = 0;

  /// Returns: the bytes of all blocks; 0 when they are more than 64 bits can tell.
  std::uint64_t Total() const;
};

/// Asks the metadata leader. Returns: 0, VYN_VARIABLE_UNKNOWN, VYN_VARIABLE_NOT_PUBLISHED, another failure.
std::uint32_t LookUpAtLeader(const VariableKey& key, VariableBlocks& blocks);
/// Asks the node server, which keeps what the leader has told it.
std::uint32_t LookUpAtNode(const VariableKey& key, VariableBlocks& blocks);
/// Makes the record without blocks for the writer of `blocks`. Succeeds, too, when this writer has made it
/// before. From now on no other writer can complete or remove the record.
std::uint32_t MakeRecord(const VariableKey& key, const VariableBlocks& blocks);
/// Removes the record of the writer of `blocks`, published or not. Leaves another writer's record. Returns: 0,
/// also when there was nothing to remove; another failure.
std::uint32_t GiveUpRecord(const VariableKey& key, const VariableBlocks& blocks);
/// Completes the record: from now on readers find the variable.
std::uint32_t CompleteRecord(const VariableKey& key, const VariableBlocks& blocks);
std::uint32_t RemoveRecord(const VariableKey& key);

/// Lets the node server allocate the blocks of `blocks.sizes`, all or none, and fills in their ids.
std::uint32_t AllocateAtNode(const VariableKey& key, VariableBlocks& blocks);

/// Where a live node of the fabric can be linked.
struct NodeEndpoint {
  std::uint16_t nodeId = 0;
  std::string ip;
  std::uint16_t port = 0;
};
/// Asks the metadata leader for the node with most room, or for all live nodes.
std::uint32_t ListNodes(const VariableKey& key, bool best, std::vector<NodeEndpoint>& nodes);

}  // namespace vyn::tessel
