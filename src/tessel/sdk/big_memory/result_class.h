#pragma once

// Which results of libbmclient.so mean that the remote side failed. Every other failure is local. No state.

#include "platform/fabric/client/bm_functions.h"

namespace vyn::tessel {

/// For copies, reads and writes. Gather and swap-in have more such results.
inline bool IsRemoteError(int result) {
  return result == kBmRemoteErrorA || result == kBmRemoteErrorB || result == kBmRemoteErrorC;
}

inline bool IsRemoteGatherError(int result) {
  return IsRemoteError(result) || result == kBmRemoteTransferError;
}

inline bool IsRemoteSwapInError(int result) {
  return IsRemoteGatherError(result) || result == kBmRemoteSwapInError;
}

}  // namespace vyn::tessel
