#pragma once

// Asks the node server for the blocks of a variable, and again when the blocks that this process knows are
// gone. Threads: any.

#include "common/util/ref.h"
#include "tessel/message/broadcast/broadcast_messages.h"
#include "tessel/sdk/broadcast/broadcast_sdk_cache.h"

#include <string>

namespace vyn::tessel {

/// Whether the answer is about this variable and has one size for each block. If not, records why.
bool IsAnswerAbout(const BroadcastBlockInfo& answer, const char* appId, unsigned int broadcastId);

/// Asks the node server for a variable. Returns: 0; 2120009 without a client; 2000057 without memory; 1 when
/// the node server refused or did not answer, or when IsAnswerAbout refuses its answer.
unsigned int AskForBlocks(const char* appId, unsigned int broadcastId,
                          common::Ref<BroadcastBlockInfo>& answer);

/// To be called when a big-memory call for a block of `known` has failed. If the fabric has no such object,
/// the variable may have been deleted and created anew: asks the node server. When the blocks are others
/// now, the entry leaves the cache, so that the next fetch asks again.
/// Returns: the new entry, if no block of `known` was ever used and the sizes are the same, so that the
/// caller can go on with it; else null, and the thread's error record is as before.
common::Ref<BroadcastVarInfo> RenewIfStale(const char* appId, unsigned int broadcastId,
                                           const std::string& name,
                                           const common::Ref<BroadcastVarInfo>& known);

}  // namespace vyn::tessel
