#pragma once

// The search for the leader of the metadata service during BroadcastInitialize. Only the thread that
// initialises calls it.

namespace vyn::tessel {

/// Does the work of BroadcastInitRpcCliMetaLeaderIp but does not release the claim of initialisation:
/// BroadcastInitialize releases it itself. \param flag 0 for a driver, 1 for an executor. Returns: 0, 1 or
/// 2000057.
unsigned int InitServerClientAndLeader(unsigned int flag);

}  // namespace vyn::tessel
