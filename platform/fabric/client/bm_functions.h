#pragma once

// The functions that libbmclient.so exports and that its user resolves by name at run time. The last three
// were added later: a user that finds another libbmclient.so does without them.
//
// All return 0 on success, otherwise one of the results of results.h or a negative errno. Any thread may call
// any of them after BM_Init. Functions that end in Sec act within a namespace and present its token. Nothing
// passed in is kept beyond the call.

#include "platform/fabric/protocol/names.h"
#include "platform/fabric/protocol/results.h"
#include "vyn/big_memory.h"

#include <cstdint>

/// Characters of an object's id, without the final NUL.
inline constexpr unsigned long kBmIdLength = vyn::fabric::kIdLength;

/// Names an object and proves the right to it.
struct BmSecContext {
  const char* bmId;  ///< in BM_AllocSec a buffer of at least 61 bytes that receives the new id
  const char* ns;
  const char* token;
};

/// The node that BM_AllocSec allocates on.
struct BmNodeSelector {
  std::uint16_t reserved0;
  std::uint16_t nodeId;
  std::uint32_t reserved1;
};

/// What BM_QueryResAttri fills.
struct BmResourceAttributes {
  std::uint32_t nodeId;  ///< this node's id
  std::uint32_t reserved[7];
};

static_assert(sizeof(BmSecContext) == 24 && sizeof(BmNodeSelector) == 8);
static_assert(sizeof(BmResourceAttributes) == 32 && sizeof(BmGatherPiece) == 80);

extern "C" {

/// Prepares the library for this process. \param clientFlag 0 on a node of the fabric, 1 outside it. Links
/// are secured as platform/tls/client_setting.h says at this moment.
int BM_Init(const char* home, int clientFlag);
/// Links this process to a node.
int BM_CreateLink(unsigned short nodeId, const char* hostName, const char* ip, unsigned short port,
                  unsigned int flags);
int BM_CreateNSSec(unsigned short nodeId, const char* text, const char* ns, unsigned int flags,
                   const char* token);
int BM_DestroyNSSec(unsigned int nodeId, const char* text, const char* ns, const char* token);
/// Allocates `size` bytes on the selected node and writes the new id to `context->bmId`.
int BM_AllocSec(BmSecContext* context, unsigned long size, unsigned int flags, BmNodeSelector* selector);
int BM_ExpandSec(BmSecContext* context, unsigned long size, unsigned int flags);
int BM_FreeSec(BmSecContext* context, unsigned int flags);
int BM_BatchFreeSec(const char** bmIds, unsigned int count, unsigned int flags, const char* ns,
                    const char* token);
/// Maps the object and writes its address to `*addr`.
int BM_MapSec(BmSecContext* context, int prot, int flags, void** addr);
int BM_Unmap(const char* bmId, void* addr);
/// \param zero 0.
int BM_QueryResAttri(int zero, BmResourceAttributes* attributes);
/// \param one 1.
int BM_CopySec(BmSecContext* source, unsigned long srcOffset, BmSecContext* destination,
               unsigned long dstOffset, unsigned long length, unsigned int one);
int BM_ReadSec(BmSecContext* context, unsigned long offset, unsigned long length, void* buffer,
               unsigned int flags);
int BM_WriteSec(BmSecContext* context, unsigned long offset, unsigned long length, void* buffer,
                unsigned int flags);
/// Fills the object from the file.
int BM_SpecificObjSwapInSec(const BmFileRecord* file, const BmBlockRecord* block, unsigned int flags,
                            void* argument, unsigned long length);
/// Gathers into the destination object as the context says. \param flags 0x80 for an existing object, 0x100
/// for a new one.
int BM_GatherSec(const BmGatherContext* context, unsigned char kind, unsigned int flags,
                 BmSecContext* destination, void* argument);

/// Finds out how many bytes BM_MapSec has mapped at `addr`: the length of the object, at least 1.
int BM_MappedLength(const char* bmId, const void* addr, unsigned long* length);
/// Maps an object of exactly `length` bytes over the pages at `address`, which the caller has reserved. The
/// caller ends the mapping with munmap; BM_Unmap does not know it. \param prot 1 read, 3 read and write.
/// Returns also: -ERANGE for an object of another length; -EACCES, too, for a copy of another node's object
/// that is wanted writable.
int BM_MapAtSec(BmSecContext* context, int prot, void* address, unsigned long length);
/// Asks a node for its state. \param nodeId this machine's node, or one that BM_CreateLink has linked.
int BM_QueryNode(unsigned short nodeId, BmResourceAttributes* attributes);

/// Allocates the blocks of a variable that this process writes from outside the fabric, on a linked node, all
/// or none. The node frees them when this process ends, closes the library, or is lost, before it has
/// published the variable; the daemon then removes its record. \param ids receives the ids as `count` times 60
/// characters, without NUL. The first id names the batch; one thread at a time uses a batch.
int BM_AllocBatchSec(unsigned short nodeId, const char* ns, const char* token, unsigned int variable,
                     const unsigned long* sizes, unsigned int count, char* ids);
/// Makes sure that the node holds the blocks, also after it was restarted. Returns: -ENOENT when it has freed
/// them, or this process does not know the batch.
int BM_KeepBatchSec(BmSecContext* first);
/// The variable is published, or its blocks are freed. Does nothing for a batch that is not known.
int BM_EndBatch(const char* first);

}  // extern "C"
