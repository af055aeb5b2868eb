#include "tessel/sdk/variable/fabric_calls.h"

#include "platform/fabric/protocol/protocol.h"
#include "tessel/sdk/big_memory/big_memory_client_api.h"
#include "tessel/sdk/big_memory/binding.h"
#include "tessel/sdk/big_memory/library_retry.h"
#include "vyn/status.h"

#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <cstring>

namespace vyn::tessel {

namespace {

using Api = common::BigMemoryClientApi;

/// The flags for allocating and freeing blocks.
constexpr unsigned int kBlockFlags = 0x10;

template <typename Call>
int WhenUp(Call call) {
  return Failed(BmLazyInitialize()) ? kBmLocalError : call();
}

/// Calls `function` with the object, again while the connection is not up.
template <typename Function, typename... Arguments>
int OnBlock(const char* operation, const Function& function, const FabricAccess& access,
            const std::string& id, Arguments... arguments) {
  return WhenUp([&] {
    BmSecContext context{id.c_str(), access.application.c_str(), access.token.c_str()};
    return function == nullptr
               ? kBmLocalError
               : CallWithCommonRetry(operation, [&] { return function(&context, arguments...); });
  });
}

}  // namespace

int LinkNode(std::uint16_t nodeId, const std::string& ip, std::uint16_t port) {
  return WhenUp([&] { return Api::apiBmCreateLink(nodeId, "", ip.c_str(), port, 0); });
}

int MakeNamespace(std::uint16_t nodeId, const FabricAccess& access) {
  return WhenUp([&] {
    const int result = Api::apiBmCreateNs(nodeId, "", access.application.c_str(), 0, access.token.c_str());
    return result == kBmNamespaceExists ? 0 : result;
  });
}

namespace {

int AllocateBlock(std::uint16_t nodeId, const FabricAccess& access, std::uint64_t size, std::string& id) {
  std::array<char, kBmIdLength + 4> made{};
  const int result = WhenUp([&] {
    BmSecContext context{made.data(), access.application.c_str(), access.token.c_str()};
    BmNodeSelector selector{0, nodeId, 0};
    return Api::apiBmAlloc(&context, size, kBlockFlags, &selector);
  });
  if (result == 0) {
    id.assign(made.data(), kBmIdLength);
  }
  return result;
}

int AllocateOneByOne(std::uint16_t nodeId, const FabricAccess& access,
                     const std::vector<std::uint64_t>& sizes, std::vector<std::string>& ids) {
  int result = 0;
  for (std::size_t i = 0; result == 0 && i < sizes.size(); ++i) {
    std::string id;
    result = AllocateBlock(nodeId, access, sizes[i], id);
    if (result == 0) {
      ids.push_back(std::move(id));
    }
  }
  return result;
}

}  // namespace

int AllocateBlocks(std::uint16_t nodeId, const FabricAccess& access, std::uint32_t variable,
                   const std::vector<std::uint64_t>& sizes, std::vector<std::string>& ids) {
  if (Failed(BmLazyInitialize())) {
    return kBmLocalError;
  }
  if (Api::apiBmAllocBatch == nullptr) {
    return AllocateOneByOne(nodeId, access, sizes, ids);
  }
  std::string made(sizes.size() * kBmIdLength, '\0');
  // Never repeated: a node that has made the blocks and could not answer takes the writer for dead.
  const int result = Api::apiBmAllocBatch(nodeId, access.application.c_str(), access.token.c_str(), variable,
                                          sizes.data(), static_cast<unsigned int>(sizes.size()), made.data());
  for (std::size_t i = 0; result == 0 && i < sizes.size(); ++i) {
    ids.push_back(made.substr(i * kBmIdLength, kBmIdLength));
  }
  return result;
}

int KeepBlocks(const FabricAccess& access, const std::string& first) {
  return WhenUp([&] {
    BmSecContext context{first.c_str(), access.application.c_str(), access.token.c_str()};
    return Api::apiBmKeepBatch == nullptr
               ? 0
               : CallWithCommonRetry("Bm keep batch", [&] { return Api::apiBmKeepBatch(&context); });
  });
}

void EndBlocks(const std::string& first) {
  if (IsBmUp() && Api::apiBmEndBatch != nullptr) {
    static_cast<void>(Api::apiBmEndBatch(first.c_str()));
  }
}

int FreeBlocks(const FabricAccess& access, const std::vector<std::string>& ids) {
  std::vector<const char*> texts;
  texts.reserve(ids.size());
  for (const std::string& id : ids) {
    texts.push_back(id.c_str());
  }
  return WhenUp([&] {
    return Api::apiBmBatchFree(texts.data(), static_cast<unsigned int>(texts.size()), kBlockFlags,
                               access.application.c_str(), access.token.c_str());
  });
}

int MapBlockAt(const FabricAccess& access, const std::string& id, bool writable, void* address,
               std::uint64_t length) {
  return OnBlock("Bm map at", Api::apiBmMapAt, access, id, writable ? PROT_READ | PROT_WRITE : PROT_READ,
                 address, length);
}

int ReadBlock(const FabricAccess& access, const std::string& id, void* buffer, std::uint64_t length) {
  return OnBlock("Bm read", Api::apiBmRead, access, id, 0UL, length, buffer, 0U);
}

int WriteBlock(const FabricAccess& access, const std::string& id, const void* data, std::uint64_t length) {
  return OnBlock("Bm write", Api::apiBmWrite, access, id, 0UL, length, const_cast<void*>(data), 0U);
}

int FreeBytes(std::uint32_t nodeId, std::uint64_t& bytes) {
  BmResourceAttributes answer{};
  const int result = WhenUp([&] {
    return Api::apiBmQueryNode == nullptr ? kBmLocalError
                                          : Api::apiBmQueryNode(static_cast<unsigned short>(nodeId), &answer);
  });
  if (result == 0) {
    fabric::NodeAttributes attributes{};
    std::memcpy(&attributes, &answer, sizeof(attributes));
    bytes = attributes.capacity - std::min(attributes.used, attributes.capacity);
  }
  return result;
}

}  // namespace vyn::tessel
