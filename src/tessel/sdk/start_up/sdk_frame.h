#pragma once

// What the exported broadcast functions have in common: the refresh of the client that a call needs, and
// messages made without throwing. A function checks its text arguments, refreshes its client, builds its
// messages, calls the typed client and then changes the local state.

#include "common/log/logging.h"
#include "common/util/input_check.h"
#include "common/util/ref.h"
#include "tessel/sdk/start_up/sdk_state.h"

#include <new>
#include <utility>

namespace vyn::tessel {

/// Takes the current metadata client into g_ShuffleMetaRPCEngine. Returns: whether there is one.
bool RefreshMetaClient();

/// Takes the client of the node-local server into g_shuffleServerRPCEngine. Returns: whether there is one.
bool RefreshServerClient();

/// A message, or an empty reference without memory.
template <typename T, typename... Arguments>
common::Ref<T> NewMessage(Arguments&&... arguments) {
  return common::Ref<T>(new (std::nothrow) T(std::forward<Arguments>(arguments)...));
}

}  // namespace vyn::tessel

/// Ends the function with 2120001 when a text argument is refused. The check has left its own message.
#define VYN_CHECK_TEXT(ARGUMENT, ALLOW_EMPTY)                                                \
  do {                                                                                       \
    if (::vyn::Failed(::vyn::common::CheckInputWithCharPtr(ARGUMENT, ALLOW_EMPTY, false))) { \
      return VYN_ERR_BC_INVALID_PARAM;                                                       \
    }                                                                                        \
  } while (false)

/// Ends the function with 2120001 when a pointer that the caller has to provide is null; like a null text, it
/// is only logged.
#define VYN_CHECK_ARGUMENT(ARGUMENT)                           \
  do {                                                         \
    if ((ARGUMENT) == nullptr) {                               \
      VYN_LOG_ERROR("Unexpected nullptr value " << #ARGUMENT); \
      return VYN_ERR_BC_INVALID_PARAM;                         \
    }                                                          \
  } while (false)
