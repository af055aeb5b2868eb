// A libbmclient.so that does what a test's script says.

#include "platform/fabric/client/bm_functions.h"
#include "tests/support/bm_script.h"

#include <atomic>
#include <cstring>

using vyn::test::Joined;

namespace {

std::atomic<vyn::test::BmScript*> gScript{nullptr};
std::atomic<std::uintptr_t> gMappings{0};

template <typename... Arguments>
int Take(const char* function, const Arguments&... arguments) {
  auto* script = gScript.load();
  return script == nullptr ? 0 : script->Take(function, Joined(arguments...));
}

std::string Shown(const BmSecContext* context) { return Joined(context->bmId, context->ns, context->token); }

}  // namespace

extern "C" void ScriptedBmUse(vyn::test::BmScript* script) { gScript = script; }

int BM_Init(const char* home, int clientFlag) { return Take("BM_Init", home, clientFlag); }

int BM_CreateLink(unsigned short nodeId, const char* hostName, const char* ip, unsigned short port,
                  unsigned int flags) {
  return Take("BM_CreateLink", nodeId, hostName, ip, port, flags);
}

int BM_CreateNSSec(unsigned short nodeId, const char* text, const char* ns, unsigned int flags,
                   const char* token) {
  return Take("BM_CreateNSSec", nodeId, text, ns, flags, token);
}

int BM_DestroyNSSec(unsigned int nodeId, const char* text, const char* ns, const char* token) {
  return Take("BM_DestroyNSSec", nodeId, text, ns, token);
}

int BM_AllocSec(BmSecContext* context, unsigned long size, unsigned int flags, BmNodeSelector* selector) {
  const int result = Take("BM_AllocSec", context->ns, context->token, size, flags, selector->nodeId);
  if (result == 0) {
    std::memset(const_cast<char*>(context->bmId), 'n', kBmIdLength);
  }
  return result;
}

int BM_ExpandSec(BmSecContext* context, unsigned long size, unsigned int flags) {
  return Take("BM_ExpandSec", Shown(context), size, flags);
}

int BM_FreeSec(BmSecContext* context, unsigned int flags) {
  return Take("BM_FreeSec", Shown(context), flags);
}

int BM_BatchFreeSec(const char** bmIds, unsigned int count, unsigned int flags, const char* ns,
                    const char* token) {
  return Take("BM_BatchFreeSec", bmIds, count, flags, ns, token);
}

/// Every mapping has an address of its own, which nobody may touch.
int BM_MapSec(BmSecContext* context, int prot, int flags, void** addr) {
  const int result = Take("BM_MapSec", Shown(context), prot, flags);
  if (result == 0) {
    *addr = reinterpret_cast<void*>(++gMappings * 4096);
  }
  return result;
}

/// The script's result is the length; without one it is unknown.
int BM_MappedLength(const char* bmId, const void*, unsigned long* length) {
  const int result = Take("BM_MappedLength", bmId);
  *length = static_cast<unsigned long>(result);
  return result == 0 ? kBmLocalError : 0;
}

int BM_Unmap(const char* bmId, void* addr) { return Take("BM_Unmap", bmId, addr); }

int BM_QueryResAttri(int zero, BmResourceAttributes* attributes) {
  const int result = Take("BM_QueryResAttri", zero);
  if (result == 0) {
    std::memset(attributes, 0xff, sizeof(*attributes));
    attributes->nodeId = 77;
  }
  return result;
}

int BM_CopySec(BmSecContext* source, unsigned long srcOffset, BmSecContext* destination,
               unsigned long dstOffset, unsigned long length, unsigned int one) {
  return Take("BM_CopySec", Shown(source), srcOffset, Shown(destination), dstOffset, length, one);
}

int BM_ReadSec(BmSecContext* context, unsigned long offset, unsigned long length, void* buffer,
               unsigned int flags) {
  return Take("BM_ReadSec", Shown(context), offset, length, buffer, flags);
}

int BM_WriteSec(BmSecContext* context, unsigned long offset, unsigned long length, void* buffer,
                unsigned int flags) {
  return Take("BM_WriteSec", Shown(context), offset, length, buffer, flags);
}

int BM_SpecificObjSwapInSec(const BmFileRecord* file, const BmBlockRecord* block, unsigned int flags,
                            void* argument, unsigned long length) {
  return Take("BM_SpecificObjSwapInSec", file, block, flags, argument, length);
}

int BM_GatherSec(const BmGatherContext* context, unsigned char kind, unsigned int flags,
                 BmSecContext* destination, void* argument) {
  return Take("BM_GatherSec", context, static_cast<int>(kind), flags, Shown(destination), argument);
}
