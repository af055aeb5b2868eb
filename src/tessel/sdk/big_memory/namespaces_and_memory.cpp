// The exported functions on namespaces, and those that allocate and free objects.

#include "common/log/exceptions.h"
#include "common/log/logging.h"
#include "common/util/input_check.h"
#include "tessel/sdk/big_memory/big_memory_client_api.h"
#include "tessel/sdk/big_memory/binding.h"
#include "tessel/sdk/big_memory/library_retry.h"
#include "vyn/big_memory.h"

#include <cerrno>
#include <sstream>
#include <string>

using vyn::Failed;
using vyn::common::BigMemoryClientApi;
using vyn::tessel::BeginBmCall;
using vyn::tessel::CallWithCommonRetry;

namespace {

/// Reports a failed allocation. The log gets the text twice: here and from VYN_FAIL.
unsigned int FailAllocation(unsigned int code, const std::string& text) {
  VYN_LOG_ERROR(text);
  return VYN_FAIL(code, text);
}

}  // namespace

std::uint32_t BmCreateNamespace(unsigned short nodeId, const char* text, const char* ns, unsigned int flags,
                                const char* token) try {
  if (const unsigned int status = vyn::tessel::CheckBmAccess(ns, token); Failed(status)) {
    return status;
  }
  if (const unsigned int status = vyn::tessel::BmLazyInitialize(); Failed(status)) {
    VYN_LOG_ERROR("Failed to execute BmInitialize(g_vynHome.c_str(), g_clientFlag)");
    return status;
  }
  const int result = BigMemoryClientApi::apiBmCreateNs(nodeId, text, ns, flags, token);
  const int error = errno;
  switch (result) {
    case 0:
      return VYN_OK;
    case kBmNamespaceExists:
      VYN_LOG_WARN("the namespace already exists.");
      return VYN_OK;
    case kBmNamespaceInvalid:
      return VYN_FAIL(VYN_ERR_BM_CALL, "Failed to create namespace, the parameter namespace is invalid.");
    default:
      return VYN_FAIL(VYN_ERR_BM_CALL, "Failed to create namespace, errno <" << error << ">.");
  }
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}

std::uint32_t BmDestroyNamespace(unsigned int nodeId, const char* text, const char* ns,
                                 const char* token) try {
  if (const unsigned int status = BeginBmCall(ns, token); Failed(status)) {
    return status;
  }
  const int result = BigMemoryClientApi::apiBmDestroyNs(nodeId, text, ns, token);
  const int error = errno;
  if (result != 0) {
    return VYN_FAIL(VYN_ERR_BM_CALL, "Failed to destroy namespace, errno is " << error);
  }
  return VYN_OK;
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}

std::uint32_t BmAlloc(const char* ns, unsigned long size, unsigned int flags, unsigned short nodeId,
                      char* bmId, const char* token) try {
  if (bmId == nullptr || token == nullptr || Failed(vyn::common::CheckInputWithCharPtr(ns, false, false))) {
    std::ostringstream text;
    text << "Invalid parameter. bmId is null?" << (bmId == nullptr) << ", token is null?"
         << (token == nullptr);
    return FailAllocation(VYN_ERR_BM_INVALID, text.str());
  }
  if (const unsigned int status = vyn::tessel::BmLazyInitialize(); Failed(status)) {
    return status;
  }
  BmSecContext context{bmId, ns, token};
  BmNodeSelector selector{};
  selector.nodeId = nodeId;
  const int result = CallWithCommonRetry(
      "Bm alloc", [&] { return BigMemoryClientApi::apiBmAlloc(&context, size, flags, &selector); });
  if (result == 0) {
    return VYN_OK;
  }
  if (result == kBmNotEnoughCapacity) {
    return VYN_ERR_OUT_OF_POOL_MEMORY;
  }
  return FailAllocation(VYN_ERR_BM_CALL, "Failed to allocate memory block from memory fabric, with ret :" +
                                             std::to_string(result));
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}

std::uint32_t BmExpand(const char* bmId, unsigned long size, unsigned int flags, const char* ns,
                       const char* token) try {
  if (const unsigned int status = BeginBmCall(ns, token, {bmId}); Failed(status)) {
    return status;
  }
  BmSecContext context{bmId, ns, token};
  const int result = CallWithCommonRetry(
      "Bm expand", [&] { return BigMemoryClientApi::apiBmExpand(&context, size, flags); });
  if (result != 0) {
    return VYN_FAIL(VYN_ERR_BM_CALL, "Failed to expand memory for bm id: " << bmId << " with size: " << size
                                                                           << " and flags: " << flags
                                                                           << " with ret " << result);
  }
  return VYN_OK;
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}

std::uint32_t BmFree(const char* bmId, unsigned int flags, const char* ns, const char* token) try {
  if (const unsigned int status = BeginBmCall(ns, token, {bmId}); Failed(status)) {
    return status;
  }
  VYN_LOG_DEBUG("will BmFree bmId:" << bmId << " flags:" << flags);
  BmSecContext context{bmId, ns, token};
  const int result =
      CallWithCommonRetry("Bm free", [&] { return BigMemoryClientApi::apiBmFree(&context, flags); });
  const int error = errno;
  if (result != 0) {
    return VYN_FAIL(VYN_ERR_BM_CALL, "Failed to free memory for bm id: " << bmId << " with flags: " << flags
                                                                         << ", errno<" << error << ">");
  }
  return VYN_OK;
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}

std::uint32_t BmBatchFree(const char** bmIds, unsigned int count, unsigned int flags, const char* ns,
                          const char* token) try {
  if (const unsigned int status = vyn::tessel::CheckBmAccess(ns, token); Failed(status)) {
    return status;
  }
  const auto apiBmBatchFree = vyn::tessel::WhenBmUp(BigMemoryClientApi::apiBmBatchFree);
  VYN_CHECK_POINTER(apiBmBatchFree);
  const int result =
      CallWithCommonRetry("Bm batch free", [&] { return apiBmBatchFree(bmIds, count, flags, ns, token); });
  const int error = errno;
  if (result != 0) {
    return VYN_FAIL(VYN_ERR_BM_CALL,
                    "Failed to free memory with flags: " << flags << ", errno<" << error << ">");
  }
  return VYN_OK;
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}
