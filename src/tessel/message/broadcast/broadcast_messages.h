#pragma once

// Messages about broadcast variables: the variable, its blocks with their objects, the choice of nodes.
// common/message/base_message.h says how a message is used and on which threads. Flags that only a service
// interprets have the names of the schema.

#include "common/message/base_message.h"

#include <cstdint>
#include <string>
#include <vector>

namespace vyn::tessel {

struct TBroadcastVar;
struct TBroadcastVarEntry;
struct TVariableClaim;
struct TBroadcastBlockBatch;
struct TBroadcastBlockInfo;
struct TBlockInfoRequest;
struct TBlockBmInfo;
struct TBroadcastRemoteNodeReq;
struct TBroadcastRemoteNodeRsp;

/// The most blocks of a variable. Their list fits into one frame of a reply.
inline constexpr std::uint32_t kMaxBlocks = 500000;

/// One broadcast variable of an application.
class BroadcastVar : public common::Message<TBroadcastVar> {
 public:
  std::string appId;
  std::uint32_t broadcastId = 0;  ///< unique in the application
  std::uint32_t blockNum = 0;     ///< number of blocks
  bool varFlag = true;
  VYN_MESSAGE_FIELDS(appId, broadcastId, blockNum, varFlag)
};

/// BroadcastVar::blockNum of a removal that is refused when the variable has its blocks.
inline constexpr std::uint32_t kOnlyUnpublished = 0xFFFFFFFF;

/// Claims the number of a variable for one writer, or gives it up.
class VariableClaim : public common::Message<TVariableClaim> {
 public:
  std::string appId;
  std::uint32_t broadcastId = 0;
  std::uint32_t blockNum = 0;  ///< of a claim: the number of blocks
  /// The id of the variable's first block. No other writer has it.
  std::string writer;
  bool published = false;  ///< of a give-up: whether the variable is also removed when it is published
  VYN_MESSAGE_FIELDS(appId, broadcastId, blockNum, writer, published)
};

/// One variable as a list entry of the metadata service.
class BroadcastVarEntry : public common::Message<TBroadcastVarEntry> {
 public:
  std::string name;
  std::uint32_t entryId = 0;
  std::vector<std::uint64_t> sizes;  ///< of the blocks, in bytes
  bool entryFlag = false;
  VYN_MESSAGE_FIELDS(name, entryId, entryFlag, sizes)
};

/// Asks the node server to allocate the blocks of a variable.
class BroadcastBlockBatch : public common::Message<TBroadcastBlockBatch> {
 public:
  std::string appId;
  std::uint32_t broadcastId = 0;
  std::vector<std::uint64_t> sizes;  ///< of each block, in bytes
  VYN_MESSAGE_FIELDS(appId, broadcastId, sizes)
};

/// The blocks of a variable with their objects: the reply to a creation or a fetch, and the record that a
/// driver sends to the metadata service. `bmIds` and `sizes` have one entry for each block. Deserialize does
/// not check that they have the same length.
class BroadcastBlockInfo : public common::Message<TBroadcastBlockInfo> {
 public:
  std::string appId;
  std::uint32_t broadcastId = 0;
  std::vector<std::string> bmIds;
  std::vector<std::uint64_t> sizes;  ///< in bytes
  /// The id of the node that holds the blocks, 16 bits. An absent one is read as 0.
  std::uint32_t nodeId = 0xFFFFFFFF;
  VYN_MESSAGE_FIELDS(appId, broadcastId, nodeId, bmIds, sizes)
};

/// Asks the metadata service for the objects of one block.
class BlockInfoRequest : public common::Message<TBlockInfoRequest> {
 public:
  std::string appId;
  std::uint32_t broadcastId = 0;
  std::uint32_t blockIndex = 0;
  VYN_MESSAGE_FIELDS(appId, broadcastId, blockIndex)
};

/// The reply to BlockInfoRequest.
class BlockBmInfo : public common::Message<TBlockBmInfo> {
 public:
  std::vector<std::string> bmIds;
  std::vector<std::string> varToClean;  ///< variables that the receiver shall remove
  bool bmFlag = false;
  VYN_MESSAGE_FIELDS(bmIds, bmFlag, varToClean)
};

/// Asks the metadata service to choose nodes, or whether this node belongs to the memory fabric.
class BroadcastRemoteNodeReq : public common::Message<TBroadcastRemoteNodeReq> {
 public:
  std::string appId;
  std::vector<std::string> candidateNodes;  ///< addresses or names
  bool selectFlag = false;
  VYN_MESSAGE_FIELDS(appId, selectFlag, candidateNodes)
};

/// The chosen nodes. Entry i of each list describes one node. Deserialize does not check that the lists have
/// the same length.
class BroadcastRemoteNodeRsp : public common::Message<TBroadcastRemoteNodeRsp> {
 public:
  std::vector<std::uint16_t> nodeIds;
  std::vector<std::string> selectedNodes;
  std::vector<std::string> hostNames;
  VYN_MESSAGE_FIELDS(selectedNodes, nodeIds, hostNames)
};

}  // namespace vyn::tessel
