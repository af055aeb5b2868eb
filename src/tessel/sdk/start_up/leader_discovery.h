#pragma once

namespace vyn::tessel {

/// The work of BroadcastInitRpcCliMetaLeaderIp without touching the claim of initialisation, which
/// BroadcastInitialize frees once, at its end. Returns: 0, 1, or 2000057.
unsigned int InitServerClientAndLeader(unsigned int flag);

}  // namespace vyn::tessel
