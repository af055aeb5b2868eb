#pragma once

// The exported broadcast functions with C++ signatures. The library itself uses them, and a glue layer that
// is built with the same compiler and standard library may. The functions with C linkage are in
// vyn/broadcast.h.
//
// Threads: any thread may call the functions on blocks. The others follow the rules of the functions in
// vyn/broadcast.h that use them: initialisation and registration run on one thread at a time.

#include "common/util/ref.h"
#include "tessel/message/broadcast/broadcast_messages.h"

#include <string>
#include <vector>

/// Asks the metadata service whether this node belongs to the memory fabric and sets g_mfClientFlag and
/// g_mfNodeId. Returns: 0; 1 without a configuration or the node's addresses; 2120011 without a client or an
/// answer; 2000057 without memory.
unsigned int CheckMfNode();

/// Finds the metadata leader. In an executor, first makes the client of the node server. \param flag 0 for a
/// driver, 1 for an executor. Returns: 0, 1 or 2000057. Before it returns 1, it releases the claim of
/// initialisation.
unsigned int BroadcastInitRpcCliMetaLeaderIp(unsigned int flag);

/// Stores the leader's address in the process's record: from ZooKeeper when `flag` is 0, from the node server
/// when bit 0 of `flag` is set. Any other `flag` does nothing. Returns: 0, 1 or 2000057.
unsigned int BroadcastGetMetaLeaderIp(unsigned int flag);

/// Asks the node server for the leader. Returns: 0, 2000057, 2120009, or the status of the call.
unsigned int BroadcastMetaLeaderInfoGet();

/// Unregisters the application from the node server. Returns: 0; 2120001 for a refused id; 2080009 without a
/// client; or the status of the call.
unsigned int BroadcastUnregisterApp(const char* appId);

/// Makes the record of a variable's blocks for the metadata service. Moves `sizes` into it and leaves `sizes`
/// empty. Returns: the record; null without memory.
vyn::common::Ref<vyn::tessel::BroadcastBlockInfo> GenerateBlockInfo(std::string& ns, unsigned int broadcastId,
                                                                    unsigned short nodeId,
                                                                    std::vector<std::string>& bmIds,
                                                                    std::vector<unsigned long>& sizes);

/// Allocates one block of each size, in bytes, on the node and appends the ids to `bmIds`, each padded with
/// NULs to 64 bytes. Waits up to 10 seconds for each block while the pool is full. Returns: 0 or 2100029.
/// After a failure `bmIds` has the ids of the blocks allocated before.
unsigned int AllocBmForBlockRemotely(const std::string& ns, const std::string& token, unsigned short nodeId,
                                     const std::vector<unsigned long>& sizes,
                                     std::vector<std::string>& bmIds);

/// Frees blocks in one batch. Returns: the status of the batch.
unsigned int BmFreeForBlockRemotely(const std::string& ns, const std::string& token,
                                    std::vector<std::string>& bmIds);
