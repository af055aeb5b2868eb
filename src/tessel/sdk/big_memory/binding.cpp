#include "tessel/sdk/big_memory/binding.h"

#include "common/log/logging.h"
#include "common/util/clock.h"
#include "common/util/input_check.h"
#include "tessel/sdk/big_memory/big_memory_client_api.h"
#include "tessel/sdk/big_memory/link_security.h"
#include "vyn/big_memory.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>

using vyn::Failed;
using vyn::common::BigMemoryClientApi;

namespace {

constexpr auto kPollInterval = std::chrono::microseconds(10);
// How long a thread waits for another one's attempt before it gives up.
constexpr auto kPollLimit = std::chrono::minutes(1);

// Home and flag of the last successful BmInitialize. Never destroyed: a thread may be inside a call at the
// process's end.
std::mutex g_savedMutex;  // guards both
std::string& g_vynHome = *new std::string;
std::int32_t g_clientFlag = 0;

// 1 while initialisation is claimed or done.
std::atomic<std::uint8_t> g_bmInitClaim{0};
// 0 while the library is up. Its release publishes the function table.
std::atomic<std::uint8_t> g_bmInitInProgress{1};
// 1 once BmUninitialize has run.
std::atomic<std::uint8_t> g_bmUninitClaim{0};

/// What the thread with the claim does.
unsigned int BringUp(const char* home, int clientFlag) {
  std::string error;
  if (!BigMemoryClientApi::Open(error)) {
    return VYN_FAIL(VYN_ERR_BM_INIT, "Failed to initialize mf bm client with error: " << error);
  }
  vyn::tessel::SecureLinks(home);
  if (BigMemoryClientApi::apiBmInit(home, clientFlag) != 0) {
    return VYN_FAIL(VYN_ERR_BM_UNAVAILABLE, "Call BM_Init failed");
  }
  return VYN_OK;
}

}  // namespace

namespace vyn::tessel {

bool IsBmUp() { return g_bmInitInProgress.load(std::memory_order_acquire) == 0; }

unsigned int BmLazyInitialize() {
  if (IsBmUp()) {
    return VYN_OK;
  }
  std::string home;
  std::int32_t clientFlag = 0;
  {
    std::lock_guard lock(g_savedMutex);
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

std::uint32_t BmInitialize(const char* home, int clientFlag) {
  VYN_CHECK_POINTER(home);
  g_bmUninitClaim.store(0);
  const auto deadline = vyn::common::SteadyNow() + kPollLimit;
  while (g_bmInitClaim.exchange(1) == 1) {
    // Another thread is at it. When it fails it lets go of the claim, which is then free for this one.
    do {
      if (vyn::tessel::IsBmUp()) {
        return VYN_OK;
      }
      if (vyn::common::SteadyNow() > deadline) {
        return VYN_FAIL(VYN_ERR_BM_UNAVAILABLE, "Timed out while another thread initializes mf bm client");
      }
      vyn::common::SleepFor(kPollInterval);
    } while (g_bmInitClaim.load() == 1);
  }

  const unsigned int status = BringUp(home, clientFlag);
  if (Failed(status)) {
    // Closed, so that the next attempt loads what stands in the installation by then.
    BigMemoryClientApi::Close();
    g_bmInitClaim.store(0);
    return status;
  }
  {
    std::lock_guard lock(g_savedMutex);
    g_vynHome = home;
    g_clientFlag = clientFlag;
  }
  g_bmUninitClaim.store(0);  // another thread may have uninitialised since this call began
  g_bmInitInProgress.store(0, std::memory_order_release);
  return VYN_OK;
}

std::uint32_t BmUninitialize() {
  if (!vyn::tessel::IsBmUp() || g_bmUninitClaim.exchange(1) == 1) {
    return VYN_OK;
  }
  // The claim is let go last: who initialises beside this call waits for it instead of opening what it
  // closes.
  g_bmInitInProgress.store(1);
  BigMemoryClientApi::Close();
  g_bmInitClaim.store(0);
  return VYN_OK;
}

const char* BmGetLastErrorMessage() {
  const auto* info = vyn::common::RetrieveErrorInfo();
  return info == nullptr ? nullptr : info->mMessage.c_str();
}

std::uint32_t BmCreateLink(unsigned short nodeId, const char* hostName, const char* ip, unsigned short port,
                           unsigned int flags) {
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
}
