#pragma once

// Big memory: objects in the shared memory of the memory fabric, through libvyn_broadcast.so.
//
// Every function here wraps one function of the fabric's client library, libbmclient.so, which is opened at
// run time: <VYN_HOME>/tessel/<VYN_VERSION>/<VYN_BINARY_TYPE>/lib/mf/libbmclient.so. A function checks its
// arguments, initialises the library if necessary (with the home and the flag of the last successful
// BmInitialize), retries when the library has lost its connection, and converts the library's result into a
// status of vyn/status.h.
//
// An object has an id of exactly 60 characters and is in a namespace. Every access names the namespace and
// presents its token. A namespace is 1 to 255 letters, digits, "_" and "-"; the library refuses a longer
// one, and more than 1024 characters are an invalid argument. A token may be empty, never null.
//
// Statuses. 0 is success, a failure has bit 0 set (vyn::Failed). These are common to all functions, unless a
// function says otherwise:
//   2080001  an argument was refused; the library was not called
//   2080003  libbmclient.so could not be found, opened, or lacks a function
//   2100021  libbmclient.so refused to initialise
//   2080007  the library failed; its result is in the message
// BmGetLastErrorMessage() returns the text of the calling thread's last failure. "Logged, not recorded" means
// that this text does not change.
//
// A lost connection. Functions marked "Retries" call the library up to 4 times while it reports that its
// connection is not up. In between they sleep 5, 10 and 15 seconds in the calling thread. A call whose answer
// was lost may have taken effect. So the retry of a free can fail with 2080007 although the object was freed,
// and a copy between overlapping ranges of one object can be made twice.
//
// Threads. Any thread may call any function; no lock is held during a call of the library. BmUninitialize
// must not run during another big-memory call. No function keeps a pointer to its arguments after it returns.
//
// This header is plain C++17 and needs no library. The functions have C linkage.

#include <cstdint>

/// The input of a gather; GenerateBmGatherContext makes it. `size` bytes of the caller's data follow the two
/// members.
struct BmGatherContext {
  std::uint64_t type;
  std::uint64_t size;
};

/// The `type` of a context whose data are BmGatherPiece records.
inline constexpr unsigned int kBmGatherPieces = 1;

/// One piece of a gather. The pieces are written one after the other into the destination, from its
/// beginning. They are read with the destination's namespace and token.
struct BmGatherPiece {
  char bmId[64];         ///< the source's id and a NUL
  std::uint64_t offset;  ///< offset of the first byte to copy
  std::uint64_t length;  ///< bytes to copy
};

/// The file that a swap-in reads.
struct BmFileRecord {
  std::int64_t node;       ///< the fabric node that holds the file
  std::uint64_t reserved;  ///< not read by the function
  const char* name;        ///< the file's path; neither null nor empty
  const char* mode;        ///< the mode, a text that the library defines
  std::uint64_t offset;    ///< offset in the file of the first byte to copy
  std::uint64_t length;    ///< bytes to copy from the file
};

/// The object that a swap-in fills. The function reads only `bmId`, the library all three.
struct BmBlockRecord {
  const char* bmId;
  const char* ns;
  const char* token;
};

extern "C" {

// --- the library ---------------------------------------------------------------------------------------

/// Opens and initialises the client library. Once it is initialised, further calls return 0 at once and keep
/// the first home and flag. Of several threads that call at the same time, one does the work and the others
/// wait for it; if it fails, one of them tries next. A failure leaves the library closed, so that the next
/// call opens it again. The key vyn.tessel.rpc.enableTLS decides whether links use TLS; a process without a
/// configuration reads conf/vyn.conf in `home`.
/// \param home the home folder, passed to the library; not null.
/// \param clientFlag 0 on a node of the fabric, 1 outside it.
/// \return 0; 2080003; 2100021, also when another thread's attempt does not end within a minute; 2000057 for
///         a null home.
std::uint32_t BmInitialize(const char* home, int clientFlag);

/// Closes the client library. Does nothing when it is not initialised. Unmap everything first: mappings must
/// not be used afterwards, nothing can unmap them, and the pages of a freed object that is still mapped stay
/// until the process ends.
/// \return always 0.
std::uint32_t BmUninitialize();

/// \return the text of this thread's last failure, or null when the thread has none. The same text as that of
/// BroadcastGetLastErrorMessage. The caller must not free it. It is valid until the thread's next failure.
const char* BmGetLastErrorMessage();

/// Links this process to a fabric node. No retry.
/// \param nodeId the node. \param hostName its host name. \param port its link port.
/// \param ip its address; 1 to 1024 letters, digits, "_", "-", "." and ";".
/// \param flags passed to the library unchanged.
/// \return 0, 2080001 (`ip` refused), 2080003, 2100021, 2080007.
std::uint32_t BmCreateLink(unsigned short nodeId, const char* hostName, const char* ip, unsigned short port,
                           unsigned int flags);

/// Asks the library for this node's id. Retries. Does not initialise the library.
/// \param nodeId receives the id; unchanged after a failure.
/// \return 0; 2080021; 2000057 when the library is not initialised or `nodeId` is null (logged, not
///         recorded).
std::uint32_t BmQueryNodeId(unsigned int* nodeId);

// --- namespaces and memory -----------------------------------------------------------------------------

/// Creates a namespace on a node. An existing namespace is a success. No retry.
/// \param text, flags passed to the library unchanged.
/// \return 0, 2080001, 2080003, 2100021, 2080007.
std::uint32_t BmCreateNamespace(unsigned short nodeId, const char* text, const char* ns, unsigned int flags,
                                const char* token);

/// Destroys a namespace on a node. No retry.
/// \param text passed to the library unchanged.
/// \return 0, 2080001, 2080003, 2100021, 2080007.
std::uint32_t BmDestroyNamespace(unsigned int nodeId, const char* text, const char* ns, const char* token);

/// Allocates an object. Retries when the connection is lost, but not when the pool is full.
/// \param size bytes. \param flags passed to the library unchanged. \param nodeId the node to allocate on.
/// \param bmId receives the id; a buffer of at least 61 bytes, which the caller fills with zeros first.
/// \return 0; 2100041 when the pool is full (neither recorded nor logged; wait and try again); 2080001,
/// 2080003, 2100021, 2080007.
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

/// Frees `count` objects of one namespace; `count` may be 0. Retries. Does not initialise the library and
/// does not check the ids.
/// \return 0, 2080001, 2080007; 2000057 when the library is not initialised (logged, not recorded).
std::uint32_t BmBatchFree(const char** bmIds, unsigned int count, unsigned int flags, const char* ns,
                          const char* token);

// --- mapping and data movement -------------------------------------------------------------------------

/// Maps a whole object into this process. Retries.
/// \param prot protection: 1 read, 3 read and write. \param flags 1 for a shared mapping.
/// \param addr receives the address. BmUnmap removes the mapping.
/// \return 0, 2080001, 2080003, 2100021, 2080007.
std::uint32_t BmMmap(const char* bmId, int prot, int flags, void** addr, const char* ns, const char* token);

/// Removes a mapping that BmMmap made. Retries.
/// \return 0, 2080001 (also for a null `addr`), 2080003, 2100021, 2080007.
std::uint32_t BmUnmap(const char* bmId, void* addr);

/// Copies `length` bytes between two objects of one namespace. Offsets and length in bytes. Retries.
/// \return 0; 2080019 when the remote side failed, 2080021 when this side did; 2080001, 2080003, 2100021.
std::uint32_t BmCopy(const char* srcBmId, unsigned long srcOffset, const char* dstBmId,
                     unsigned long dstOffset, unsigned long length, const char* ns, const char* token);

/// Copies `length` bytes from `offset` of the object to `buffer`, which must have room for them. Retries.
/// \return as BmCopy.
std::uint32_t BmRead(const char* bmId, unsigned long offset, unsigned long length, void* buffer,
                     unsigned int flags, const char* ns, const char* token);

/// Copies `length` bytes from `buffer`, which is only read, to `offset` of the object. Retries.
/// \return as BmCopy.
std::uint32_t BmWrite(const char* bmId, unsigned long offset, unsigned long length, void* buffer,
                      unsigned int flags, const char* ns, const char* token);

// --- gather and swap-in --------------------------------------------------------------------------------

/// Makes a gather context with a copy of `size` bytes of `data`. \param type kBmGatherPieces.
/// \return the context, which the caller frees with free(); null without memory or for a null `data`.
BmGatherContext* GenerateBmGatherContext(unsigned int type, const void* data, unsigned int size);

/// Copies the pieces in `context` into one object. Retries. Does not initialise the library.
/// \param kind, argument passed to the library unchanged.
/// \param isDstExist true when the destination exists, with the id `bmId`. With false the library allocates
///        an object and writes its id to `bmId`, a buffer of at least 61 bytes.
/// \return 0; 1 for a null context (the error record has 2080007); 2080019 when the remote side failed,
///         2080021 when this side did; 2000057 when the library is not initialised (logged, not recorded).
std::uint32_t BmGather(const BmGatherContext* context, unsigned char kind, bool isDstExist, const char* bmId,
                       const char* ns, const char* token, void* argument);

/// Fills an object from a file. Retries up to 3 times when the connection is lost or the pool is full, after
/// 0, 5 and 10 seconds. Does not initialise the library.
/// \param flags, argument passed to the library unchanged. \param length size of the object in bytes.
/// \return 0; 2080005 when a record is null, or the file's name null or empty; 2080019 when the remote side
///         failed, 2080021 when this side did; 2000057 when the library is not initialised (logged, not
///         recorded).
std::uint32_t BmSpecificObjectSwapIn(const BmFileRecord* file, const BmBlockRecord* block, unsigned int flags,
                                     void* argument, unsigned long length);

}  // extern "C"
