#pragma once

// Helpers of the Bm... functions: whether libbmclient.so is initialised ("up"), its initialisation at first
// use, and the checks of arguments.
//
// Any thread may call these functions.

#include <initializer_list>

namespace vyn::tessel {

/// Whether the library is up. After true, the calling thread sees all pointers of BigMemoryClientApi.
bool IsBmUp();

/// Initialises the library, unless it is up, with the home and the flag of the last successful BmInitialize.
unsigned int BmLazyInitialize();

/// Checks namespace and token. Returns: 0 or VYN_ERR_BM_INVALID.
unsigned int CheckBmAccess(const char* ns, const char* token);

/// Checks namespace, token and ids, in this order, and then calls BmLazyInitialize. Returns: 0, or a failure
/// that the Bm... function must return.
unsigned int BeginBmCall(const char* ns, const char* token, std::initializer_list<const char*> bmIds = {});

/// Checks one object id. Returns: 0 or VYN_ERR_BM_INVALID.
unsigned int CheckBmId(const char* bmId);

/// Returns: `function` while the library is up, else null. For functions that do not initialise the library:
/// a pointer is not reset when the library is closed.
template <typename Function>
Function WhenBmUp(Function& function) {
  return IsBmUp() ? function : nullptr;
}

}  // namespace vyn::tessel
