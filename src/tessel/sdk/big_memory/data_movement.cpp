// The exported functions that map objects and copy bytes to, from and between them.

#include "common/log/error_info.h"
#include "common/log/exceptions.h"
#include "common/log/logging.h"
#include "tessel/sdk/big_memory/big_memory_client_api.h"
#include "tessel/sdk/big_memory/binding.h"
#include "tessel/sdk/big_memory/library_retry.h"
#include "tessel/sdk/big_memory/result_class.h"
#include "vyn/big_memory.h"

#include <sstream>
#include <string>

using vyn::Failed;
using vyn::common::BigMemoryClientApi;
using vyn::tessel::BeginBmCall;
using vyn::tessel::CallWithCommonRetry;
using vyn::tessel::IsRemoteError;

namespace {

/// Keeps the library's result in the thread's error record, for callers that need to know why.
void KeepResult(int result) {
  if (auto* info = vyn::common::RetrieveErrorInfo(); info != nullptr) {
    info->mDetail = result;
  }
}

/// Returns: the status of a read or a write that ended with `result`. \param verb "read" or "write", for the
/// message.
unsigned int TransferStatus(const char* verb, int result, const char* bmId, unsigned long offset,
                            unsigned long length) {
  if (result == 0) {
    return VYN_OK;
  }
  std::ostringstream text;
  text << "Failed to " << verb << " bm id is: " << bmId << " offset is: " << offset
       << " length is: " << length;
  if (IsRemoteError(result)) {
    return VYN_FAIL(VYN_ERR_BM_REMOTE, text.str() << " mf ret is " << result << ", remote error occurred");
  }
  return VYN_FAIL(VYN_ERR_BM_LOCAL, text.str() << " mf return local error: " << (result == kBmLocalError)
                                               << " ret is: " << result);
}

/// A read or a write. \param function a pointer to the library's function, which is set once the library is
/// up.
std::uint32_t Transfer(const char* verb, const decltype(BigMemoryClientApi::apiBmRead)& function,
                       BmSecContext object, unsigned long offset, unsigned long length, void* buffer,
                       unsigned int flags) {
  if (const unsigned int status = BeginBmCall(object.ns, object.token, {object.bmId}); Failed(status)) {
    return status;
  }
  const std::string operation = std::string("Bm ") + verb;
  const int result = CallWithCommonRetry(operation.c_str(),
                                         [&] { return function(&object, offset, length, buffer, flags); });
  const unsigned int status = TransferStatus(verb, result, object.bmId, offset, length);
  if (Failed(status)) {
    KeepResult(result);
  }
  return status;
}

}  // namespace

std::uint32_t BmMmap(const char* bmId, int prot, int flags, void** addr, const char* ns,
                     const char* token) try {
  if (const unsigned int status = BeginBmCall(ns, token, {bmId}); Failed(status)) {
    return status;
  }
  BmSecContext context{bmId, ns, token};
  const int result = CallWithCommonRetry(
      "Bm mmap", [&] { return BigMemoryClientApi::apiBmMap(&context, prot, flags, addr); });
  if (result != 0) {
    static_cast<void>(VYN_FAIL(VYN_ERR_BM_CALL, "Failed to map bm id: " << bmId << " with prot: " << prot
                                                                        << " flags: " << flags
                                                                        << " ret is: " << result));
    KeepResult(result);
    return VYN_ERR_BM_CALL;
  }
  return VYN_OK;
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}

std::uint32_t BmUnmap(const char* bmId, void* addr) try {
  if (const unsigned int status = vyn::tessel::CheckBmId(bmId); Failed(status)) {
    return status;
  }
  if (addr == nullptr) {
    return VYN_FAIL(VYN_ERR_BM_INVALID, "Invalid address that is nullptr, bm_id is " << bmId);
  }
  if (const unsigned int status = vyn::tessel::BmLazyInitialize(); Failed(status)) {
    return status;
  }
  const int result =
      CallWithCommonRetry("Bm unmap", [&] { return BigMemoryClientApi::apiBmUnmap(bmId, addr); });
  if (result != 0) {
    return VYN_FAIL(VYN_ERR_BM_CALL, "Failed to unmap bm id: " << bmId << " ret is: " << result);
  }
  return VYN_OK;
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}

std::uint32_t BmCopy(const char* srcBmId, unsigned long srcOffset, const char* dstBmId,
                     unsigned long dstOffset, unsigned long length, const char* ns, const char* token) try {
  if (const unsigned int status = BeginBmCall(ns, token, {srcBmId, dstBmId}); Failed(status)) {
    return status;
  }
  BmSecContext source{srcBmId, ns, token};
  BmSecContext destination{dstBmId, ns, token};
  const int result = CallWithCommonRetry("Bm copy", [&] {
    return BigMemoryClientApi::apiBmCopy(&source, srcOffset, &destination, dstOffset, length, 1);
  });
  if (result == 0) {
    return VYN_OK;
  }
  std::ostringstream text;
  text << "Failed to copy src bm id: " << srcBmId << " from offset: " << srcOffset
       << " to dst bm id: " << dstBmId << " offset is: " << dstOffset << " length is: " << length
       << " mf ret is " << result;
  if (IsRemoteError(result)) {
    return VYN_FAIL(VYN_ERR_BM_REMOTE, text.str() << ", remote error occurred");
  }
  return VYN_FAIL(VYN_ERR_BM_LOCAL, text.str() << " mf return local error: " << (result == kBmLocalError));
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}

std::uint32_t BmRead(const char* bmId, unsigned long offset, unsigned long length, void* buffer,
                     unsigned int flags, const char* ns, const char* token) try {
  return Transfer("read", BigMemoryClientApi::apiBmRead, {bmId, ns, token}, offset, length, buffer, flags);
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}

std::uint32_t BmWrite(const char* bmId, unsigned long offset, unsigned long length, void* buffer,
                      unsigned int flags, const char* ns, const char* token) try {
  return Transfer("write", BigMemoryClientApi::apiBmWrite, {bmId, ns, token}, offset, length, buffer, flags);
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}
