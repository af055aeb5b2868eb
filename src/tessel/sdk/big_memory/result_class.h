#pragma once

// Which results of the library tell of a failure on the remote side. Every other failure is this side's.

#include "platform/fabric/client/bm_functions.h"

namespace vyn::tessel {

/// For copies, reads and writes; gather and swap-in have more.
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
