#pragma once

// Helpers of the exported broadcast functions. Such a function checks its arguments, assigns the client that
// it needs (Refresh...), builds its messages, calls the client and then changes this process's own state.
//
// Threads: any, but not during an initialisation (sdk_state.h).

#include "common/log/logging.h"
#include "common/util/input_check.h"
#include "common/util/ref.h"
#include "tessel/sdk/start_up/sdk_state.h"

#include <new>
#include <utility>

namespace vyn::tessel {

/// Assigns the process's metadata client to g_ShuffleMetaRPCEngine. Returns: whether there is one.
bool RefreshMetaClient();

/// Assigns the process's client of the node server to g_shuffleServerRPCEngine. Returns: whether there is
/// one.
bool RefreshServerClient();

/// Makes a message. Returns: the message, or an empty Ref without memory.
template <typename T, typename... Arguments>
common::Ref<T> NewMessage(Arguments&&... arguments) {
  return common::Ref<T>(new (std::nothrow) T(std::forward<Arguments>(arguments)...));
}

}  // namespace vyn::tessel

/// Makes the function return 2120001 when a text argument is refused. The check has reported why.
#define VYN_CHECK_TEXT(ARGUMENT, ALLOW_EMPTY)                                                \
  do {                                                                                       \
    if (::vyn::Failed(::vyn::common::CheckInputWithCharPtr(ARGUMENT, ALLOW_EMPTY, false))) { \
      return VYN_ERR_BC_INVALID_PARAM;                                                       \
    }                                                                                        \
  } while (false)

/// The same for a token, which the report does not show.
#define VYN_CHECK_TOKEN(TOKEN)                             \
  do {                                                     \
    if (::vyn::Failed(::vyn::common::CheckToken(TOKEN))) { \
      return VYN_ERR_BC_INVALID_PARAM;                     \
    }                                                      \
  } while (false)

/// Makes the function return 2120001 when a required pointer is null. That is only logged, as for a null
/// text.
#define VYN_CHECK_ARGUMENT(ARGUMENT)                           \
  do {                                                         \
    if ((ARGUMENT) == nullptr) {                               \
      VYN_LOG_ERROR("Unexpected nullptr value " << #ARGUMENT); \
      return VYN_ERR_BC_INVALID_PARAM;                         \
    }                                                          \
  } while (false)
