#pragma once

// What the Bm... wrappers share: whether the library is up, lazy initialisation, the checks at their door.
//
// Everything here may be called from any thread.

#include <initializer_list>

namespace vyn::tessel {

/// Whether the library is up. True makes the whole function table visible to the calling thread.
bool IsBmUp();

/// Brings the library up with the home and flag of the last successful BmInitialize unless it is up. One load
/// then.
unsigned int BmLazyInitialize();

/// Checks namespace and token. Returns: 0 or VYN_ERR_BM_INVALID.
unsigned int CheckBmAccess(const char* ns, const char* token);

/// Checks namespace, token and ids, in this order, then brings the library up. A wrapper ends with an odd
/// result.
unsigned int BeginBmCall(const char* ns, const char* token, std::initializer_list<const char*> bmIds = {});

/// Checks one object id. Returns: 0 or VYN_ERR_BM_INVALID.
unsigned int CheckBmId(const char* bmId);

/// Returns: `function` while the library is up, else null. The pointers outlive the library, so a wrapper
/// that does not bring it up asks here.
template <typename Function>
Function WhenBmUp(Function& function) {
  return IsBmUp() ? function : nullptr;
}

}  // namespace vyn::tessel
