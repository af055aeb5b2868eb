// A libbmclient.so that does what a test's script says.

#include "platform/fabric/client/bm_functions.h"
#include "support/client/bm_script.h"

using vyn::test::Joined;

namespace {

std::atomic<vyn::test::BmScript*> gScript{nullptr};

// An argument as text.
template <typename Argument>
const Argument& Shown(const Argument& argument) {
  return argument;
}
std::string Shown(BmSecContext* context) { return Joined(context->bmId, context->ns, context->token); }
unsigned int Shown(BmNodeSelector* selector) { return selector->nodeId; }
const char* Shown(void**) { return ""; }
const char* Shown(BmResourceAttributes*) { return ""; }

template <typename... Arguments>
void Give(const Arguments&...) {}

/// The new object's id.
void Give(BmSecContext* context, unsigned long, unsigned int, BmNodeSelector*) {
  std::memset(const_cast<char*>(context->bmId), 'n', kBmIdLength);
}

/// Every mapping has an address of its own, which nobody may touch.
void Give(BmSecContext*, int, int, void** address) {
  static std::atomic<std::uintptr_t> mappings{0};
  *address = reinterpret_cast<void*>(++mappings * 4096);
}

void Give(int, BmResourceAttributes* attributes) { attributes->nodeId = 77; }

template <typename... Arguments>
int Take(const char* function, Arguments... arguments) {
  auto* script = gScript.load();
  const int result = script == nullptr ? 0 : script->Take(function, Joined(Shown(arguments)...));
  if (result == 0) {
    Give(arguments...);
  }
  return result;
}

}  // namespace

extern "C" void ScriptedBmUse(vyn::test::BmScript* script) { gScript = script; }

using Int = unsigned int;
using Long = unsigned long;
using Short = unsigned short;
using Text = const char*;
using Object = BmSecContext*;

#define FUNCTION(NAME, PARAMETERS, ...) \
  int NAME PARAMETERS { return Take(#NAME, __VA_ARGS__); }
FUNCTION(BM_Init, (Text home, int flag), home, flag)
FUNCTION(BM_CreateLink, (Short node, Text host, Text ip, Short port, Int flags), node, host, ip, port, flags)
FUNCTION(BM_CreateNSSec, (Short node, Text text, Text ns, Int flags, Text token), node, text, ns, flags,
         token)
FUNCTION(BM_DestroyNSSec, (Int node, Text text, Text ns, Text token), node, text, ns, token)
FUNCTION(BM_AllocSec, (Object id, Long size, Int flags, BmNodeSelector* node), id, size, flags, node)
FUNCTION(BM_ExpandSec, (Object id, Long size, Int flags), id, size, flags)
FUNCTION(BM_FreeSec, (Object id, Int flags), id, flags)
FUNCTION(BM_BatchFreeSec, (const char** ids, Int n, Int flags, Text ns, Text token), ids, n, flags, ns, token)
FUNCTION(BM_MapSec, (Object id, int protection, int flags, void** address), id, protection, flags, address)
/// The script's result is the length; without one it is unknown.
int BM_MappedLength(Text id, const void*, Long* length) {
  *length = static_cast<Long>(Take("BM_MappedLength", id));
  return *length == 0 ? kBmLocalError : 0;
}
FUNCTION(BM_Unmap, (Text id, void* address), id, address)
FUNCTION(BM_QueryResAttri, (int zero, BmResourceAttributes* attributes), zero, attributes)
FUNCTION(BM_CopySec, (Object id, Long at, Object to, Long toAt, Long n, Int one), id, at, to, toAt, n, one)
FUNCTION(BM_ReadSec, (Object id, Long at, Long n, void* into, Int flags), id, at, n, into, flags)
FUNCTION(BM_WriteSec, (Object id, Long at, Long n, void* from, Int flags), id, at, n, from, flags)
FUNCTION(BM_SpecificObjSwapInSec,
         (const BmFileRecord* file, const BmBlockRecord* block, Int flags, void* argument, Long n), file,
         block, flags, argument, n)
FUNCTION(BM_GatherSec,
         (const BmGatherContext* context, unsigned char kind, Int flags, Object to, void* argument), context,
         int{kind}, flags, to, argument)
