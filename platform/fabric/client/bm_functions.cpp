// The functions that libbmclient.so exports. Each failure also sets errno, which callers show.

#include "platform/fabric/client/bm_functions.h"

#include "platform/fabric/client/arguments.h"
#include "platform/fabric/client/fabric_client.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <exception>
#include <new>

namespace {

using vyn::fabric::FabricClient;

static_assert(sizeof(vyn::fabric::NodeAttributes) == sizeof(BmResourceAttributes));

/// The process's client. It is never destroyed, and its memory is part of the library: threads may be in a
/// call while the process ends.
alignas(FabricClient) char gStorage[sizeof(FabricClient)];
std::atomic<FabricClient*> gClient{nullptr};

FabricClient& Get() {
  static const bool gMade = [] {
    gClient = new (gStorage) FabricClient;
    return ::pthread_atfork([] { gClient.load()->LockForFork(); },
                            [] { gClient.load()->UnlockAfterFork(false); },
                            [] { gClient.load()->UnlockAfterFork(true); }) == 0;
  }();
  static_cast<void>(gMade);
  return *gClient;
}

/// Runs when the library is closed, or at the end of the process.
__attribute__((destructor)) void CloseClient() {
  if (FabricClient* client = gClient.load(); client != nullptr) {
    client->Close();
    client->ForgetMappings();
  }
}

int ErrnoOf(int result) {
  switch (result) {
    case kBmUnconnected:
      return ENOTCONN;
    case kBmNotEnoughCapacity:
      return ENOSPC;
    case kBmNamespaceExists:
      return EEXIST;
    case kBmNamespaceInvalid:
    case kBmLocalError:
      return EINVAL;
    case kBmRemoteErrorA:
    case kBmRemoteErrorB:
    case kBmRemoteErrorC:
    case kBmRemoteSwapInError:
    case kBmRemoteTransferError:
      return EREMOTEIO;
    default:
      return -result;
  }
}

/// Calls the client and catches what it throws (it may run out of memory).
template <typename Function>
int Guarded(Function function) {
  int result = kBmLocalError;
  try {
    result = function(Get());
  } catch (const std::exception&) {
    errno = ENOMEM;
    return result;
  }
  if (result != 0) {
    errno = ErrnoOf(result);
  }
  return result;
}

}  // namespace

int BM_Init(const char* home, int clientFlag) {
  return Guarded([&](FabricClient& client) {
    return client.Initialize(home, clientFlag, vyn::tls::GetClientSetting());
  });
}

int BM_CreateLink(unsigned short nodeId, const char*, const char* ip, unsigned short port, unsigned int) {
  return Guarded([&](FabricClient& client) { return client.CreateLink(nodeId, ip, port); });
}

int BM_CreateNSSec(unsigned short nodeId, const char*, const char* ns, unsigned int, const char* token) {
  return Guarded([&](FabricClient& client) { return client.CreateNamespace(nodeId, ns, token); });
}

int BM_DestroyNSSec(unsigned int nodeId, const char*, const char* ns, const char* token) {
  return Guarded([&](FabricClient& client) { return client.DestroyNamespace(nodeId, ns, token); });
}

int BM_AllocSec(BmSecContext* context, unsigned long size, unsigned int, BmNodeSelector* selector) {
  return Guarded([&](FabricClient& client) {
    return selector == nullptr ? kBmLocalError : client.Allocate(context, size, selector->nodeId);
  });
}

int BM_ExpandSec(BmSecContext* context, unsigned long size, unsigned int) {
  return Guarded([&](FabricClient& client) { return client.Expand(context, size); });
}

int BM_FreeSec(BmSecContext* context, unsigned int) {
  return Guarded([&](FabricClient& client) { return client.Free(context); });
}

int BM_BatchFreeSec(const char** bmIds, unsigned int count, unsigned int, const char* ns, const char* token) {
  return Guarded([&](FabricClient& client) { return client.FreeBatch(bmIds, count, ns, token); });
}

int BM_MapSec(BmSecContext* context, int prot, int flags, void** addr) {
  return Guarded([&](FabricClient& client) { return client.Map(context, prot, flags, addr); });
}

int BM_Unmap(const char* bmId, void* addr) {
  return Guarded([&](FabricClient& client) { return client.Unmap(bmId, addr); });
}

int BM_QueryResAttri(int zero, BmResourceAttributes* attributes) {
  return Guarded([&](FabricClient& client) {
    return zero != 0 ? kBmLocalError
                     : client.Query(reinterpret_cast<vyn::fabric::NodeAttributes*>(attributes));
  });
}

int BM_CopySec(BmSecContext* source, unsigned long srcOffset, BmSecContext* destination,
               unsigned long dstOffset, unsigned long length, unsigned int) {
  return Guarded(
      [&](FabricClient& client) { return client.Copy(source, srcOffset, destination, dstOffset, length); });
}

int BM_ReadSec(BmSecContext* context, unsigned long offset, unsigned long length, void* buffer,
               unsigned int) {
  return Guarded([&](FabricClient& client) { return client.Read(context, offset, length, buffer); });
}

int BM_WriteSec(BmSecContext* context, unsigned long offset, unsigned long length, void* buffer,
                unsigned int) {
  return Guarded([&](FabricClient& client) { return client.Write(context, offset, length, buffer); });
}

int BM_SpecificObjSwapInSec(const BmFileRecord* file, const BmBlockRecord* block, unsigned int, void*,
                            unsigned long length) {
  return Guarded([&](FabricClient& client) { return client.SwapIn(file, block, length); });
}

int BM_GatherSec(const BmGatherContext* context, unsigned char, unsigned int flags, BmSecContext* destination,
                 void*) {
  return Guarded([&](FabricClient& client) { return client.Gather(context, flags, destination); });
}

int BM_MappedLength(const char* bmId, const void* addr, unsigned long* length) {
  return Guarded([&](FabricClient& client) { return client.MappedLength(bmId, addr, length); });
}

int BM_MapAtSec(BmSecContext* context, int prot, void* address, unsigned long length) {
  return Guarded([&](FabricClient& client) { return client.MapAt(context, prot, address, length); });
}

int BM_QueryNode(unsigned short nodeId, BmResourceAttributes* attributes) {
  return Guarded([&](FabricClient& client) {
    return client.QueryNode(nodeId, reinterpret_cast<vyn::fabric::NodeAttributes*>(attributes));
  });
}

int BM_AllocBatchSec(unsigned short nodeId, const char* ns, const char* token, unsigned int variable,
                     const unsigned long* sizes, unsigned int count, char* ids) {
  return Guarded([&](FabricClient& client) {
    vyn::fabric::Access access;
    if (const int refused = vyn::fabric::ParseAccess(ns, token, access); refused != 0) {
      return refused;
    }
    if (sizes == nullptr || count == 0 || ids == nullptr) {
      return kBmLocalError;
    }
    std::vector<std::string> made;
    const int result = client.AllocateBatch(nodeId, access, variable, {sizes, count}, made);
    for (const std::string& id : made) {
      ids = std::copy(id.begin(), id.end(), ids);
    }
    return result;
  });
}

int BM_KeepBatchSec(BmSecContext* first) {
  return Guarded([&](FabricClient& client) { return client.KeepBatch(first); });
}

int BM_EndBatch(const char* first) {
  return Guarded([&](FabricClient& client) {
    client.EndBatch(first);
    return 0;
  });
}
