// The exported functions for gather, swap-in and the node id, which do not initialise the library themselves.

#include "common/log/exceptions.h"
#include "common/log/logging.h"
#include "platform/secure_memory/secure_memory.h"
#include "tessel/sdk/big_memory/big_memory_client_api.h"
#include "tessel/sdk/big_memory/binding.h"
#include "tessel/sdk/big_memory/library_retry.h"
#include "tessel/sdk/big_memory/result_class.h"
#include "vyn/big_memory.h"

#include <cstdlib>
#include <sstream>

using vyn::common::BigMemoryClientApi;
using vyn::tessel::CallWithCommonRetry;

namespace {

constexpr unsigned int kGatherIntoExisting = 0x80;
constexpr unsigned int kGatherIntoNew = 0x100;

/// Returns: `text`, or "" for null, which a stream must not be given. For texts that nothing has checked.
const char* Shown(const char* text) { return text == nullptr ? "" : text; }

}  // namespace

BmGatherContext* GenerateBmGatherContext(unsigned int type, const void* data, unsigned int size) try {
  auto* context = static_cast<BmGatherContext*>(std::malloc(sizeof(BmGatherContext) + size));
  if (context == nullptr) {
    return nullptr;
  }
  context->type = type;
  context->size = size;
  if (memcpy_s(context + 1, size, data, size) != 0) {
    VYN_LOG_ERROR("Failed to memory copy for bm user context");
    std::free(context);
    return nullptr;
  }
  return context;
} catch (...) {
  static_cast<void>(vyn::common::StatusOfException(__func__));
  return nullptr;
}

std::uint32_t BmGather(const BmGatherContext* context, unsigned char kind, bool isDstExist, const char* bmId,
                       const char* ns, const char* token, void* argument) try {
  if (context == nullptr) {
    (void)VYN_FAIL(VYN_ERR_BM_CALL, "Invalid context as null");
    return VYN_ERR_GENERIC;
  }
  const auto apiBmGather = vyn::tessel::WhenBmUp(BigMemoryClientApi::apiBmGather);
  VYN_CHECK_POINTER(apiBmGather);
  const unsigned int flags = isDstExist ? kGatherIntoExisting : kGatherIntoNew;
  BmSecContext destination{bmId, ns, token};
  const int result = CallWithCommonRetry(
      "Bm gather", [&] { return apiBmGather(context, kind, flags, &destination, argument); });
  if (result == 0) {
    return VYN_OK;
  }
  std::ostringstream text;
  text << "Failed to gather bm as dst bmId: " << Shown(bmId) << " ns: " << Shown(ns) << " token: ";
  if (vyn::tessel::IsRemoteGatherError(result)) {
    return VYN_FAIL(VYN_ERR_BM_REMOTE, text.str()
                                           << "*** isDstExist: " << isDstExist << ", remote error occurred");
  }
  return VYN_FAIL(VYN_ERR_BM_LOCAL, text.str() << " mf return local error: " << (result == kBmLocalError)
                                               << " ret is: " << result);
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}

std::uint32_t BmSpecificObjectSwapIn(const BmFileRecord* file, const BmBlockRecord* block, unsigned int flags,
                                     void* argument, unsigned long length) try {
  if (file == nullptr || block == nullptr || file->name == nullptr || file->name[0] == '\0') {
    return VYN_FAIL(VYN_ERR_BM_SWAP_PARAM, "Invalid Params for specific object swap in");
  }
  const auto apiBmSpecificObjectSwapIn = vyn::tessel::WhenBmUp(BigMemoryClientApi::apiBmSpecificObjectSwapIn);
  VYN_CHECK_POINTER(apiBmSpecificObjectSwapIn);
  VYN_LOG_DEBUG("Execute swap in from file { node: "
                << file->node << ", name: " << file->name << ", length: " << file->length << ", offset: "
                << file->offset << ", mode: " << Shown(file->mode) << " }; bm { bmId: " << Shown(block->bmId)
                << ", length: " << length << " }; flags: " << flags);

  constexpr vyn::tessel::RetryPauses kPauses{std::chrono::seconds(0), std::chrono::seconds(5),
                                             std::chrono::seconds(10)};
  const int result = vyn::tessel::CallWithRetry(
      kPauses, [&] { return apiBmSpecificObjectSwapIn(file, block, flags, argument, length); },
      [](int last) { return last == kBmUnconnected || last == kBmNotEnoughCapacity; },
      [](unsigned int attempt, int last) {
        VYN_LOG_WARN(
            "Bm capacity is not enough or rpc connection unconnected, retry to swap in from disk, attempt: "
            << attempt << "/3 is not enough: " << (last == kBmNotEnoughCapacity)
            << " is connection unconnected: " << (last == kBmUnconnected));
      });
  if (result == 0) {
    return VYN_OK;
  }
  std::ostringstream text;
  text << "Failed swap in from file node is: " << file->node << " name: " << file->name
       << " length is: " << file->length << " offset is: " << file->offset
       << " mode is: " << Shown(file->mode) << " bmId is: " << Shown(block->bmId) << " length is: " << length
       << " flags is: " << flags;
  if (vyn::tessel::IsRemoteSwapInError(result)) {
    return VYN_FAIL(VYN_ERR_BM_REMOTE, text.str() << " mf ret code: " << result << ", remote error occurred");
  }
  return VYN_FAIL(VYN_ERR_BM_LOCAL, text.str() << " mf return local error: " << (result == kBmLocalError)
                                               << " ret is: " << result);
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}

std::uint32_t BmQueryNodeId(unsigned int* nodeId) try {
  const auto apiBmQueryResAttri = vyn::tessel::WhenBmUp(BigMemoryClientApi::apiBmQueryResAttri);
  VYN_CHECK_POINTER(apiBmQueryResAttri);
  VYN_CHECK_POINTER(nodeId);
  BmResourceAttributes attributes{};
  const int result = CallWithCommonRetry("query nodeId", [&] { return apiBmQueryResAttri(0, &attributes); });
  if (result != 0) {
    return VYN_FAIL(VYN_ERR_BM_LOCAL, "Failed to get machine id,  mf ret code: " << result);
  }
  *nodeId = attributes.nodeId;
  return VYN_OK;
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}
