// The exported functions of vyn/variable.h.

#include "vyn/variable.h"

#include "common/log/error_info.h"
#include "common/log/exceptions.h"
#include "common/util/input_check.h"
#include "common/util/text.h"
#include "platform/sync/mutex.h"
#include "tessel/sdk/start_up/sdk_frame.h"
#include "tessel/sdk/variable/application_tokens.h"
#include "tessel/sdk/variable/variable_reader.h"
#include "tessel/sdk/variable/variable_writer.h"
#include "vyn/status.h"

#include <cstring>
#include <map>
#include <memory>

using vyn::Failed;
using namespace vyn::tessel;

namespace {

// Never destroyed: a thread may still be inside a call while the process exits.
vyn::sync::Mutex& gHandlesMutex = *new vyn::sync::Mutex;

}  // namespace

/// A handle.
struct VynVariable {
  VariableKey key;
  std::uint64_t size = 0;
  unsigned int users VYN_GUARDED_BY(gHandlesMutex) = 1;
  /// Held by Flush and Publish, which change the writer.
  vyn::sync::Mutex writing;
  /// Null for a reader.
  std::unique_ptr<VariableWriter> writer;
  // Of a reader; constant.
  VariableBlocks blocks;
  AddressRange range;
};

namespace {

/// The variables that this process has open, so that a second open finds the first. Never destroyed.
std::map<VariableKey, VynVariable*>& gReaders VYN_GUARDED_BY(gHandlesMutex) =
    *new std::map<VariableKey, VynVariable*>;

/// Checks the name, and that the SDK has been started.
std::uint32_t CheckName(const char* appId) {
  VYN_CHECK_TEXT(appId, false);
  if (g_broadcastCache == nullptr) {
    return VYN_FAIL(VYN_VARIABLE_NOT_REGISTERED, "BroadcastInitialize has not run in this process");
  }
  return VYN_OK;
}

/// CheckName, and the application's token.
std::uint32_t CheckAccess(const char* appId, VynVariable** out, FabricAccess& access) {
  if (out == nullptr) {
    return VYN_FAIL(VYN_VARIABLE_INVALID, "the place for the handle is null");
  }
  *out = nullptr;
  if (const std::uint32_t status = CheckName(appId); Failed(status)) {
    return status;
  }
  const auto token = FindToken(appId);
  if (!token.has_value()) {
    return VYN_FAIL(VYN_VARIABLE_NOT_REGISTERED,
                    "application " << appId << " is not registered in this process");
  }
  access = {appId, *token};
  return VYN_OK;
}

/// Returns: the reader of these blocks with one more user; null when there is none.
VynVariable* ShareReader(const VariableKey& key, const VariableBlocks& blocks) VYN_REQUIRES(gHandlesMutex) {
  const auto found = gReaders.find(key);
  if (found == gReaders.end() || found->second->blocks.ids != blocks.ids) {
    return nullptr;
  }
  ++found->second->users;
  return found->second;
}

std::uint32_t FailNoHandle() { return VYN_FAIL(VYN_VARIABLE_INVALID, "the handle of the variable is null"); }

}  // namespace

std::uint32_t VynVariableCreate(const char* appId, std::uint32_t id, std::uint64_t size, VynVariable** out) {
  return VynVariableCreateWith(appId, id, size, nullptr, out);
}

std::uint32_t VynVariableCreateWith(const char* appId, std::uint32_t id, std::uint64_t size,
                                    const VynVariableOptions* options, VynVariable** out) try {
  FabricAccess access;
  if (const std::uint32_t status = CheckAccess(appId, out, access); Failed(status)) {
    return status;
  }
  if (size == 0 || size > INT64_MAX) {
    return VYN_FAIL(VYN_VARIABLE_INVALID, "a variable has at least 1 byte and less than 8 EiB, not " << size);
  }
  if (options != nullptr && options->structSize < sizeof(VynVariableOptions)) {
    return VYN_FAIL(VYN_VARIABLE_INVALID, "structSize of the options is "
                                              << options->structSize << ", not sizeof(VynVariableOptions)");
  }
  auto made = std::make_unique<VynVariable>();
  made->key = {appId, id};
  made->size = size;
  made->writer = std::make_unique<VariableWriter>(made->key, std::move(access));
  if (const std::uint32_t status = made->writer->Create(size, options == nullptr ? 0 : options->blockSize);
      Failed(status)) {
    return status;
  }
  *out = made.release();
  return VYN_OK;
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}

void* VynVariableData(VynVariable* variable) {
  if (variable == nullptr) {
    return nullptr;
  }
  return variable->writer != nullptr ? variable->writer->Data() : variable->range.Begin();
}

std::uint64_t VynVariableSize(const VynVariable* variable) {
  return variable == nullptr ? 0 : variable->size;
}

std::uint32_t VynVariableFlush(VynVariable* variable, std::uint64_t offset, std::uint64_t length) try {
  if (variable == nullptr) {
    return FailNoHandle();
  }
  vyn::sync::MutexLock lock(variable->writing);
  if (variable->writer == nullptr || variable->writer->Published() || offset > variable->size ||
      length > variable->size - offset) {
    return VYN_FAIL(VYN_VARIABLE_INVALID,
                    "no part of the range of " << variable->key.Text() << " while it is written");
  }
  return variable->writer->Flush(offset, length);
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}

std::uint32_t VynVariablePublish(VynVariable* variable) try {
  if (variable == nullptr) {
    return FailNoHandle();
  }
  vyn::sync::MutexLock lock(variable->writing);
  return variable->writer == nullptr ? VYN_OK : variable->writer->Publish();
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}

std::uint32_t VynVariableOpen(const char* appId, std::uint32_t id, VynVariable** out) try {
  FabricAccess access;
  if (const std::uint32_t status = CheckAccess(appId, out, access); Failed(status)) {
    return status;
  }
  auto made = std::make_unique<VynVariable>();
  made->key = {appId, id};
  if (const std::uint32_t status = FindPublished(made->key, made->blocks); Failed(status)) {
    return status;
  }
  {
    vyn::sync::MutexLock lock(gHandlesMutex);
    *out = ShareReader(made->key, made->blocks);
  }
  if (*out != nullptr) {
    return VYN_OK;
  }
  if (const std::uint32_t status = LoadBlocks(made->key, access, made->blocks, made->range); Failed(status)) {
    return status;
  }
  made->size = made->blocks.Total();
  vyn::sync::MutexLock lock(gHandlesMutex);
  *out = ShareReader(made->key, made->blocks);  // another thread may have opened it meanwhile
  if (*out == nullptr) {
    gReaders.insert_or_assign(made->key, made.get());
    *out = made.release();
  }
  return VYN_OK;
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}

void VynVariableRetain(VynVariable* variable) {
  if (variable != nullptr) {
    vyn::sync::MutexLock lock(gHandlesMutex);
    ++variable->users;
  }
}

void VynVariableClose(VynVariable* variable) {
  if (variable == nullptr) {
    return;
  }
  {
    vyn::sync::MutexLock lock(gHandlesMutex);
    if (--variable->users != 0) {
      return;
    }
    const auto found = gReaders.find(variable->key);
    if (found != gReaders.end() && found->second == variable) {
      gReaders.erase(found);
    }
  }
  delete variable;
}

std::uint32_t VynVariableDelete(const char* appId, std::uint32_t id) try {
  if (const std::uint32_t status = CheckName(appId); Failed(status)) {
    return status;
  }
  const VariableKey key{appId, id};
  g_broadcastCache->RemoveVarInfo(vyn::common::GenBcVarName(key.application, id));
  VariableBlocks blocks;
  std::uint32_t status = LookUpAtLeader(key, blocks);
  if (!Failed(status) || status == VYN_VARIABLE_NOT_PUBLISHED || status == VYN_ERR_MESSAGE_DECODE) {
    status = RemoveRecord(key);
  }
  return Failed(status) ? FailService(key, Service::kMetadata, status) : VYN_OK;
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}

std::uint32_t VynVariableStat(const char* appId, std::uint32_t id, VynVariableInfo* info) try {
  if (const std::uint32_t status = CheckName(appId); Failed(status)) {
    return status;
  }
  if (info != nullptr && info->structSize < sizeof(VynVariableInfo)) {
    return VYN_FAIL(VYN_VARIABLE_INVALID, "structSize of the information is "
                                              << info->structSize << ", not sizeof(VynVariableInfo)");
  }
  const VariableKey key{appId, id};
  VariableBlocks blocks;
  if (const std::uint32_t status = LookUpAtLeader(key, blocks); Failed(status)) {
    return FailService(key, Service::kMetadata, status);
  }
  if (info != nullptr) {
    info->size = blocks.Total();
    info->blocks = static_cast<std::uint32_t>(blocks.sizes.size());
    info->nodeId = blocks.nodeId;
  }
  return VYN_OK;
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}
