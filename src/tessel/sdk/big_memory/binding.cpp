#include "tessel/sdk/big_memory/binding.h"

#include "common/log/exceptions.h"
#include "common/log/logging.h"
#include "common/util/input_check.h"
#include "common/wait/claim_once.h"
#include "platform/sync/mutex.h"
#include "tessel/sdk/big_memory/big_memory_client_api.h"
#include "tessel/sdk/big_memory/link_security.h"
#include "vyn/big_memory.h"

#include <chrono>
#include <cstdint>
#include <string>

using vyn::Failed;
using vyn::common::BigMemoryClientApi;
using vyn::common::ClaimOnce;
using vyn::common::StatusOfException;

namespace {

// How long a thread waits for an initialisation by another thread.
constexpr auto kClaimLimit = std::chrono::minutes(1);

// Home and flag of the last successful BmInitialize. Never destroyed: a thread may still be inside a call
// while the process exits.
vyn::sync::Mutex g_savedMutex;
std::string& g_vynHome VYN_GUARDED_BY(g_savedMutex) = *new std::string;
std::int32_t g_clientFlag VYN_GUARDED_BY(g_savedMutex) = 0;

// Up while the library is initialised. IsUp makes the pointers of BigMemoryClientApi visible. Never
// destroyed, as above.
ClaimOnce& g_bmClaim = *new ClaimOnce;

/// Opens and initialises the library. Requires: g_bmClaim.
unsigned int InitializeLibrary(const char* home, int clientFlag) {
  std::string error;
  if (!BigMemoryClientApi::Open(error)) {
    return VYN_FAIL(VYN_ERR_BM_INIT, "Failed to initialize mf bm client with error: " << error);
  }
  vyn::tessel::SecureLinks(home);
  if (BigMemoryClientApi::apiBmInit(home, clientFlag) != 0) {
    return VYN_FAIL(VYN_ERR_BM_UNAVAILABLE, "Call BM_Init failed");
  }
  vyn::sync::MutexLock lock(g_savedMutex);
  g_vynHome = home;
  g_clientFlag = clientFlag;
  return VYN_OK;
}

}  // namespace

namespace vyn::tessel {

bool IsBmUp() { return g_bmClaim.IsUp(); }

unsigned int BmLazyInitialize() {
  if (IsBmUp()) {
    return VYN_OK;
  }
  std::string home;
  std::int32_t clientFlag = 0;
  {
    vyn::sync::MutexLock lock(g_savedMutex);
    home = g_vynHome;
    clientFlag = g_clientFlag;
  }
  return BmInitialize(home.c_str(), clientFlag);
}

unsigned int CheckBmAccess(const char* ns, const char* token) {
  if (Failed(common::CheckInputWithCharPtr(ns, false, false))) {
    return VYN_ERR_BM_INVALID;
  }
  if (token == nullptr) {
    return VYN_FAIL(VYN_ERR_BM_INVALID, "Unexpected nullptr value token");
  }
  return VYN_OK;
}

unsigned int CheckBmId(const char* bmId) {
  return Failed(common::CheckInputWithCharPtrLength(bmId, kBmIdLength)) ? VYN_ERR_BM_INVALID : VYN_OK;
}

unsigned int BeginBmCall(const char* ns, const char* token, std::initializer_list<const char*> bmIds) {
  if (const unsigned int status = CheckBmAccess(ns, token); Failed(status)) {
    return status;
  }
  for (const char* bmId : bmIds) {
    if (const unsigned int status = CheckBmId(bmId); Failed(status)) {
      return status;
    }
  }
  return BmLazyInitialize();
}

}  // namespace vyn::tessel

std::uint32_t BmInitialize(const char* home, int clientFlag) try {
  VYN_CHECK_POINTER(home);
  switch (g_bmClaim.Take(kClaimLimit)) {
    case ClaimOnce::Result::kUp:
      return VYN_OK;
    case ClaimOnce::Result::kTimedOut:
    case ClaimOnce::Result::kFailed:
      return VYN_FAIL(VYN_ERR_BM_UNAVAILABLE, "Timed out while another thread initializes mf bm client");
    case ClaimOnce::Result::kClaimed:
      break;
  }
  unsigned int status = VYN_OK;
  try {
    status = InitializeLibrary(home, clientFlag);
  } catch (...) {
    status = StatusOfException("BmInitialize");
  }
  if (Failed(status)) {
    // Closed, so that the next attempt opens the library's file again.
    BigMemoryClientApi::Close();
    g_bmClaim.Fail(status);
    return status;
  }
  g_bmClaim.Succeed();
  return VYN_OK;
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}

std::uint32_t BmUninitialize() try {
  if (!g_bmClaim.TakeDown()) {
    return VYN_OK;
  }
  // The claim is released last: a thread that calls BmInitialize meanwhile waits for it.
  BigMemoryClientApi::Close();
  g_bmClaim.Free();
  return VYN_OK;
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}

const char* BmGetLastErrorMessage() {
  const auto* info = vyn::common::RetrieveErrorInfo();
  return info == nullptr ? nullptr : info->mMessage.c_str();
}

std::uint32_t BmCreateLink(unsigned short nodeId, const char* hostName, const char* ip, unsigned short port,
                           unsigned int flags) try {
  if (Failed(vyn::common::CheckInputWithCharPtr(ip, false, true))) {
    return VYN_ERR_BM_INVALID;
  }
  if (const unsigned int status = vyn::tessel::BmLazyInitialize(); Failed(status)) {
    return status;
  }
  const int result = BigMemoryClientApi::apiBmCreateLink(nodeId, hostName, ip, port, flags);
  if (result != 0) {
    return VYN_FAIL(VYN_ERR_BM_CALL, "Failed to create link to " << ip << ":" << port << ", ret=" << result);
  }
  return VYN_OK;
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}
