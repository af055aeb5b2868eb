#pragma once

// The part of the broadcast surface that leaves the library with C++ signatures: for use inside the library
// and by a glue layer that is built the same way. The plain-named functions stand in vyn/broadcast.h.

#include "common/util/ref.h"
#include "tessel/message/broadcast/broadcast_messages.h"

#include <string>
#include <vector>

/// Asks the metadata service whether this node belongs to the memory fabric; the answer goes to
/// g_mfClientFlag and g_mfNodeId. Returns: 0; 1 without a configuration or the node's addresses; 2120011
/// without a client or an answer; 2000057 without memory.
unsigned int CheckMfNode();

/// Finds the metadata leader for a process of the role `flag`; an executor gets its client of the node-local
/// server, too.
/// Returns: 0, 1, or 2000057. With 1 the claim of initialisation is free again.
unsigned int BroadcastInitRpcCliMetaLeaderIp(unsigned int flag);

/// The leader's address into the process's record: from ZooKeeper for a driver (0), from the node-local
/// server for an executor (bit 0 set). An even flag other than 0 does nothing. Returns: 0, 1, or 2000057.
unsigned int BroadcastGetMetaLeaderIp(unsigned int flag);

/// Asks the node-local server for the leader. Returns: 0, 2000057, 2120009, or the status of the call.
unsigned int BroadcastMetaLeaderInfoGet();

/// Takes the application off the node-local server. Returns: 0; 2120001 for a refused id; 2080009 without a
/// client; or the status of the call.
unsigned int BroadcastUnregisterApp(const char* appId);

/// The record of a variable's blocks for the metadata service. `sizes` is moved into it and comes back empty.
/// Returns: the record, empty without memory.
vyn::common::Ref<vyn::tessel::BroadcastBlockInfo> GenerateBlockInfo(std::string& ns, unsigned int broadcastId,
                                                                    unsigned short nodeId,
                                                                    std::vector<std::string>& bmIds,
                                                                    std::vector<unsigned long>& sizes);

/// Allocates one block of each size, in bytes, on the node and appends their ids, 64 bytes each with NUL
/// padding, to `bmIds`. Waits up to 10 seconds a block while the pool is full. Returns: 0 or 2100029; ids
/// made so far stay.
unsigned int AllocBmForBlockRemotely(const std::string& ns, const std::string& token, unsigned short nodeId,
                                     const std::vector<unsigned long>& sizes,
                                     std::vector<std::string>& bmIds);

/// Frees blocks in one batch. Returns: the status of the batch.
unsigned int BmFreeForBlockRemotely(const std::string& ns, const std::string& token,
                                    std::vector<std::string>& bmIds);
