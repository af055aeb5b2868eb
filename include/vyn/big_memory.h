#pragma once

// Big memory: blocks of shared pages in the memory fabric, through libvyn_broadcast.so.
//
// Every function here wraps one function of the fabric's client library, libbmclient.so, which is opened at
// run time: <VYN_HOME>/tessel/<VYN_VERSION>/<VYN_BINARY_TYPE>/lib/mf/libbmclient.so. The wrappers check the
// arguments, bring the library up when it is not (lazily, with the home and the flag of the last successful
// BmInitialize), try again when its connection is lost, and turn its results into the status codes of
// vyn/status.h.
//
// An object is named by its id, a text of exactly 60 characters, within a namespace; every access presents
// the namespace and its token. A namespace is 1 to 1024 letters, digits, "_" and "-". A token may be empty,
// never null.
//
// Statuses. 0 is success, a failure has bit 0 set (vyn::Failed). Common to all functions, unless told
// otherwise:
//   2080001  an argument was refused; the library was not touched
//   2080003  libbmclient.so could not be found, opened, or lacks a function
//   2100021  libbmclient.so refused to initialise
//   2080007  the library failed; its own result stands in the message
// The text of a failure is the calling thread's BmGetLastErrorMessage().
//
// A lost connection. Functions marked "retries" call the library up to 4 times while it reports that its
// connection is not up, and sleep 5, 10 and 15 seconds in between, in the calling thread. A call whose answer
// was lost may have taken effect: a free tried again can so fail with 2080007 although the object is gone,
// and a copy within one object whose ranges overlap can be done twice.
//
// Threads. Any thread may call any function; nothing is locked around the library's calls. BmUninitialize
// must not run beside another big-memory call: end that work first. Nothing that is passed in is kept beyond
// the call.
//
// This header is plain C++17 and needs no library. The functions have C linkage.

#include <cstdint>

/// What a gather takes, as GenerateBmGatherContext makes it. `size` bytes of the caller's data follow the two
/// words.
struct BmGatherContext {
  std::uint64_t type;
  std::uint64_t size;
};

/// The `type` of a context whose data are BmGatherPiece records.
inline constexpr unsigned int kBmGatherPieces = 1;

/// One piece of a gather. The pieces are laid one behind the other into the destination, from its beginning,
/// and are read with the namespace and the token of the destination.
struct BmGatherPiece {
  char bmId[64];         ///< the source's id and a NUL
  std::uint64_t offset;  ///< first byte to take
  std::uint64_t length;  ///< bytes to take
};

/// The file that a swap-in reads.
struct BmFileRecord {
  std::int64_t node;       ///< the fabric node that holds the file
  std::uint64_t reserved;  ///< not read by the wrapper
  const char* name;        ///< the file's path; neither null nor empty
  const char* mode;        ///< the mode text of the library
  std::uint64_t offset;    ///< first byte to take, from the beginning of the file
  std::uint64_t length;    ///< bytes to take from the file
};

/// The object that a swap-in fills. The wrapper reads `bmId` only, the library all three.
struct BmBlockRecord {
  const char* bmId;
  const char* ns;
  const char* token;
};

extern "C" {

// --- the library ---------------------------------------------------------------------------------------

/// Opens the client library and prepares it for this process. Once it is up, further calls return 0 at once
/// and keep the first home and flag. Of several threads that call at the same time one does the work and the
/// others wait for it; when it fails, one of those waiting tries in its place. A failure leaves the library
/// closed, so that the next call starts afresh. Links are under TLS when the process's configuration says so
/// (vyn.tessel.rpc.enableTLS); a process without one takes conf/vyn.conf of `home`.
/// \param home the home text handed to the library; not null, copied.
/// \param clientFlag 0 on a node of the fabric, 1 outside it.
/// \return 0; 2080003; 2100021, also when another thread's attempt does not end within a minute; 2000057 for
///         a null home.
std::uint32_t BmInitialize(const char* home, int clientFlag);

/// Closes the client library. Does nothing when it is not up. Mappings must not be used afterwards. Undo them
/// first: nothing can unmap them any more then, and the pages of a freed object that is still mapped stay
/// until the process ends.
/// \return always 0.
std::uint32_t BmUninitialize();

/// \return the text of this thread's last failure, or null when the thread has none. The same record as
/// BroadcastGetLastErrorMessage. Not the caller's to free; valid until the thread's next failure.
const char* BmGetLastErrorMessage();

/// Links this process to a fabric node. No retry.
/// \param nodeId the node. \param hostName its host name. \param port its link port.
/// \param ip its address; 1 to 1024 letters, digits, "_", "-", "." and ";".
/// \param flags handed to the library unchanged.
/// \return 0, 2080001 (`ip` refused), 2080003, 2100021, 2080007.
std::uint32_t BmCreateLink(unsigned short nodeId, const char* hostName, const char* ip, unsigned short port,
                           unsigned int flags);

/// Asks the library for this node's id. Retries. Does not bring the library up.
/// \param nodeId receives the id on success, is left alone otherwise.
/// \return 0; 2000057 when the library is not up or `nodeId` is null (logged, not recorded); 2080021.
std::uint32_t BmQueryNodeId(unsigned int* nodeId);

// --- namespaces and memory -----------------------------------------------------------------------------

/// Creates a namespace on a node. One that exists already counts as success. No retry.
/// \param text, flags handed to the library unchanged.
/// \return 0, 2080001, 2080003, 2100021, 2080007.
std::uint32_t BmCreateNamespace(unsigned short nodeId, const char* text, const char* ns, unsigned int flags,
                                const char* token);

/// Destroys a namespace on a node. No retry.
/// \param text handed to the library unchanged.
/// \return 0, 2080001, 2080003, 2100021, 2080007.
std::uint32_t BmDestroyNamespace(unsigned int nodeId, const char* text, const char* ns, const char* token);

/// Allocates an object. Retries a lost connection, never a full pool.
/// \param size bytes. \param flags handed to the library unchanged. \param nodeId the node to allocate on.
/// \param bmId receives the id; at least 61 bytes, which the caller zeroes first.
/// \return 0; 2100041 when the pool has no room (no failure text: wait and try again); 2080001, 2080003,
/// 2100021, 2080007.
std::uint32_t BmAlloc(const char* ns, unsigned long size, unsigned int flags, unsigned short nodeId,
                      char* bmId, const char* token);

/// Makes an object larger. Existing mappings stay valid. Retries.
/// \param size the new size in bytes.
/// \return 0, 2080001, 2080003, 2100021, 2080007.
std::uint32_t BmExpand(const char* bmId, unsigned long size, unsigned int flags, const char* ns,
                       const char* token);

/// Frees an object. Retries.
/// \return 0, 2080001, 2080003, 2100021, 2080007.
std::uint32_t BmFree(const char* bmId, unsigned int flags, const char* ns, const char* token);

/// Frees `count` objects of one namespace, which may be 0. Retries. Does not bring the library up, and does
/// not look at the ids.
/// \return 0, 2080001, 2080007; 2000057 when the library is not up (logged, not recorded).
std::uint32_t BmBatchFree(const char** bmIds, unsigned int count, unsigned int flags, const char* ns,
                          const char* token);

// --- mapping and data movement -------------------------------------------------------------------------

/// Maps a whole object into this process. Retries.
/// \param prot protection: 1 read, 3 read and write. \param flags 1 for a shared mapping.
/// \param addr receives the address. The mapping is undone by BmUnmap.
/// \return 0, 2080001, 2080003, 2100021, 2080007.
std::uint32_t BmMmap(const char* bmId, int prot, int flags, void** addr, const char* ns, const char* token);

/// Removes a mapping that BmMmap made. Retries.
/// \return 0, 2080001 (also for a null `addr`), 2080003, 2100021, 2080007.
std::uint32_t BmUnmap(const char* bmId, void* addr);

/// Copies `length` bytes between two objects of one namespace. Offsets and length in bytes. Retries.
/// \return 0; 2080019 when the remote side failed, 2080021 when this side did; 2080001, 2080003, 2100021.
std::uint32_t BmCopy(const char* srcBmId, unsigned long srcOffset, const char* dstBmId,
                     unsigned long dstOffset, unsigned long length, const char* ns, const char* token);

/// Copies `length` bytes from `offset` of the object to `buffer`, which holds at least as many. Retries.
/// \return as BmCopy.
std::uint32_t BmRead(const char* bmId, unsigned long offset, unsigned long length, void* buffer,
                     unsigned int flags, const char* ns, const char* token);

/// Copies `length` bytes from `buffer`, which is only read, to `offset` of the object. Retries.
/// \return as BmCopy.
std::uint32_t BmWrite(const char* bmId, unsigned long offset, unsigned long length, void* buffer,
                      unsigned int flags, const char* ns, const char* token);

// --- gather and swap-in --------------------------------------------------------------------------------

/// Makes a gather context out of `size` bytes of `data`, which are copied. \param type kBmGatherPieces.
/// \return the context, which the caller frees with free(); null without memory or when there was nothing to
/// copy from.
BmGatherContext* GenerateBmGatherContext(unsigned int type, const void* data, unsigned int size);

/// Gathers the pieces that `context` tells of into one object. Retries. Does not bring the library up.
/// \param kind, argument handed to the library unchanged.
/// \param isDstExist whether the destination exists already. `bmId` is its id then; otherwise the library
///        makes an object and writes its id to `bmId`, a buffer of at least 61 bytes.
/// \return 0; 1 for a null context (recorded under 2080007); 2080019 when the remote side failed, 2080021
///         when this side did; 2000057 when the library is not up (logged, not recorded).
std::uint32_t BmGather(const BmGatherContext* context, unsigned char kind, bool isDstExist, const char* bmId,
                       const char* ns, const char* token, void* argument);

/// Fills an object from a file. A lost connection and a full pool are tried again up to 3 times, after 0, 5
/// and 10 seconds. Does not bring the library up.
/// \param flags, argument handed to the library unchanged. \param length bytes of the object.
/// \return 0; 2080005 when a record, or the file's name, is missing; 2080019 when the remote side failed,
///         2080021 when this side did; 2000057 when the library is not up (logged, not recorded).
std::uint32_t BmSpecificObjectSwapIn(const BmFileRecord* file, const BmBlockRecord* block, unsigned int flags,
                                     void* argument, unsigned long length);

}  // extern "C"
