#ifndef VYN_VARIABLE_H
#define VYN_VARIABLE_H

/*
 * Broadcast variables with a commit, through libvyn_broadcast.so. Plain C: this header is C99 and C++17.
 *
 * A writer creates a variable, fills it, and publishes it. Until then nobody else can read it. A reader opens
 * a published variable and gets all its bytes as one contiguous read-only range. The functions are the same
 * on a node of the memory fabric and outside the fabric; on a node no byte is copied in the caller's process.
 *
 * Before the first call: BroadcastInitialize and RegisterBroadcastApp of vyn/broadcast.h, also outside the
 * fabric, where the registration only tells this process the token. A process may register several
 * applications; each variable is used with the token of its own application.
 *
 *   A writer:                                         A reader:
 *     VynVariable* variable = NULL;                     VynVariable* variable = NULL;
 *     VynVariableCreate("app_1", 7, size, &variable);   VynVariableOpen("app_1", 7, &variable);
 *     memcpy(VynVariableData(variable), data, size);    const void* data = VynVariableData(variable);
 *     VynVariablePublish(variable);                     uint64_t size = VynVariableSize(variable);
 *     VynVariableClose(variable);                       VynVariableClose(variable);
 *
 * Statuses. 0 is success; a failure is odd. BroadcastGetLastErrorMessage of vyn/broadcast.h returns the text
 * of the calling thread's last failure, which names the variable and the cause. No function throws.
 *
 * Users of a handle. VynVariableCreate and VynVariableOpen give a handle with one user. VynVariableRetain
 * adds a user, VynVariableClose takes one away, and the last Close ends the mapping. VynVariableOpen of a
 * variable that this process has open already gives the same handle with one more user.
 *
 * Threads. Any thread may call any function, and threads may share a handle. Each must be a user of it.
 * VynVariablePublish, VynVariableFlush and the last VynVariableClose of a handle must not run while another
 * thread writes to the range. No function keeps a pointer to its arguments after it returns.
 *
 * Together with vyn/broadcast.h. A variable made by CreateBroadcastVar and CreateBroadcastBlockBatch can be
 * opened here as soon as its blocks are recorded. Those functions have no commit: a reader that comes before
 * their writer has finished reads what is there. A variable published here can be fetched there.
 *
 * Limits. A variable has 1 to 500000 blocks; one that is written on a node has at most 32768. The
 * default size of a block is 4 MiB; for more than 16 GiB it grows, so that there are at most 4096
 * blocks. Blocks of one variable are on one node.
 *
 * A writer that dies. Its blocks are freed and its number is free again a few seconds after the process
 * has ended, also when it was killed, and also when the node's vynd was restarted meanwhile. For a
 * writer outside the fabric it is at most two minutes after its host has vanished, and five minutes
 * after a restart of the node's vynd. A writer on a node that is killed after the node has allocated
 * its blocks and before it has mapped the first one, normally some milliseconds, leaves them for five
 * minutes. While a writer is only stopped (SIGSTOP, a debugger), the variable stays unpublished, and
 * the writer can go on. A writer outside the fabric loses its blocks when its connection to the node is
 * cut, at the latest when the node cannot reach its host for two minutes, when it makes no call for
 * five minutes after a restart of the node's vynd, and by BroadcastUninitialize: VynVariablePublish
 * then fails.
 */

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** A variable that this process writes or reads. */
typedef struct VynVariable VynVariable;

/** The failures that a caller may want to tell apart. */
enum {
  /** An argument was refused: a null pointer, an application id or a size that cannot be one. */
  VYN_VARIABLE_INVALID = 2120001,
  /** BroadcastInitialize or RegisterBroadcastApp is missing in this process or, for an executor, at its
      node. */
  VYN_VARIABLE_NOT_REGISTERED = 2140005,
  /** The token differs from the one that the application's first registration fixed. */
  VYN_VARIABLE_WRONG_TOKEN = 2140007,
  /** There is no variable of this number. */
  VYN_VARIABLE_UNKNOWN = 2140011,
  /** A variable of this number exists, published or not. */
  VYN_VARIABLE_EXISTS = 2140013,
  /** The variable's writer has not published it yet. */
  VYN_VARIABLE_NOT_PUBLISHED = 2140015,
  /** A pool has no room. The text says how many bytes are needed, how many are free, and on which node. */
  VYN_VARIABLE_POOL_FULL = 2100041,
  /** The application has reached its limit of variables or blocks, or the variable has too many blocks. */
  VYN_VARIABLE_LIMIT = 2140027,
  /** The node that holds the blocks cannot be reached, or no longer has them. */
  VYN_VARIABLE_LOST = 2120007,
  /** The metadata service or the node server did not answer, or failed. */
  VYN_VARIABLE_NO_SERVICE = 2060009,
  /** This process has no memory or no address space left for the range. */
  VYN_VARIABLE_NO_MEMORY = 2000057
};

/** How VynVariableCreateWith makes a variable. Fill it with zeros, then set structSize. */
typedef struct VynVariableOptions {
  uint64_t structSize; /**< sizeof(VynVariableOptions) */
  uint64_t blockSize;  /**< bytes of a block, rounded up to whole pages; 0 for the default */
} VynVariableOptions;

/** What VynVariableStat tells. Set structSize before the call. */
typedef struct VynVariableInfo {
  uint64_t structSize; /**< sizeof(VynVariableInfo) */
  uint64_t size;       /**< bytes of the variable */
  uint32_t blocks;     /**< number of its blocks */
  uint32_t nodeId;     /**< the node that holds the blocks */
} VynVariableInfo;

/**
 * Creates a variable and gives a writable range of exactly `size` bytes, which begin as zeros. The blocks are
 * allocated, so that a later VynVariablePublish cannot fail for want of room. The number is taken from now
 * on. On a node the range is shared memory of the node's pool. Outside the fabric it is private memory of
 * this process, and a node is chosen for the blocks.
 * \param appId the application; it must be registered in this process.
 * \param id the variable's number, unique in the application.
 * \param size bytes, at least 1. A variable of 0 bytes is refused.
 * \param out receives the handle; null after a failure. VynVariableClose ends it.
 * \return 0 or VYN_VARIABLE_INVALID, _NOT_REGISTERED, _WRONG_TOKEN, _EXISTS, _POOL_FULL, _LIMIT, _LOST,
 *         _NO_SERVICE, _NO_MEMORY. After a failure nothing is left; only after _NO_SERVICE the number may stay
 *         taken until VynVariableDelete. _NO_SERVICE is also the status when a node that stands still has not
 *         forgotten a deleted variable of this number within 20 seconds. Then the number is still free, and
 *         the call can be repeated.
 */
uint32_t VynVariableCreate(const char* appId, uint32_t id, uint64_t size, VynVariable** out);

/** VynVariableCreate with options. \param options may be null. */
uint32_t VynVariableCreateWith(const char* appId, uint32_t id, uint64_t size,
                               const VynVariableOptions* options, VynVariable** out);

/**
 * Returns: the first byte of the variable; null for a null handle. The range is page-aligned. It is writable
 * between VynVariableCreate and VynVariablePublish, otherwise read-only: a write ends the process with a
 * segmentation fault. It is valid until the last VynVariableClose.
 */
void* VynVariableData(VynVariable* variable);

/** Returns: the bytes of the variable; 0 for a null handle. */
uint64_t VynVariableSize(const VynVariable* variable);

/**
 * Says that the bytes of a part of the range are final. Outside the fabric it sends the blocks that lie
 * wholly in this part and releases their pages, so that a large variable needs little memory. Call it for
 * parts of whole blocks, in any order. Afterwards this process must neither write nor read the part: outside
 * the fabric an access ends the process with a segmentation fault, also after VynVariablePublish. On a node
 * it does nothing. It is never needed.
 * \return 0; VYN_VARIABLE_INVALID for a part beyond the range or a variable that is not being written; _LOST.
 */
uint32_t VynVariableFlush(VynVariable* variable, uint64_t offset, uint64_t length);

/**
 * Makes the variable visible: from now on every process can open it. The range becomes read-only first.
 * Outside the fabric it sends the bytes to the chosen node. A variable that is published already is a
 * success.
 * \return 0; VYN_VARIABLE_UNKNOWN when somebody has deleted the variable meanwhile; _EXISTS when another
 *         writer has published this number meanwhile; _LOST, _NO_SERVICE. After _LOST or _NO_SERVICE the call
 *         can be repeated; only VynVariableClose is left after the others. After _NO_SERVICE it is unknown
 *         whether the variable is visible; a repeated call or VynVariableClose decides it.
 */
uint32_t VynVariablePublish(VynVariable* variable);

/**
 * Opens a published variable as one read-only range. On a node each block is mapped at its place; a block of
 * another node is pulled into this node's pool first, once for all processes. Outside the fabric the bytes
 * are read into private memory. That is also done for a variable of CreateBroadcastBlockBatch with a block,
 * besides the last, that is no whole number of pages, because it cannot be mapped at its place.
 * \param out receives the handle; null after a failure. VynVariableClose ends it.
 * \return 0 or VYN_VARIABLE_INVALID, _NOT_REGISTERED, _WRONG_TOKEN, _UNKNOWN, _NOT_PUBLISHED, _POOL_FULL when
 *         this node has no room for its copy, _LOST, _NO_SERVICE, _NO_MEMORY.
 */
uint32_t VynVariableOpen(const char* appId, uint32_t id, VynVariable** out);

/** Adds a user to a handle that the caller uses already. A null handle is ignored. */
void VynVariableRetain(VynVariable* variable);

/**
 * Takes one user away. The last one ends the mapping; the handle must not be used afterwards. A variable that
 * is not published is abandoned: its blocks are freed and its number is free again. What is published stays.
 * A null handle is ignored.
 */
void VynVariableClose(VynVariable* variable);

/**
 * Deletes a variable, published or not. Processes that have it open keep reading the same bytes until
 * VynVariableClose; the memory is free when the last of them has closed it. A later VynVariableOpen fails
 * with VYN_VARIABLE_UNKNOWN: the call returns when every live node has forgotten the variable. It waits at
 * most 5 seconds. On a node that stands still for longer, for example because ZooKeeper does not answer it,
 * the deleted variable can be opened until the node goes on; the number is not used again before. The writer
 * of an unpublished variable cannot publish it any more.
 * \return 0 or VYN_VARIABLE_INVALID, _NOT_REGISTERED before BroadcastInitialize, _UNKNOWN, _NO_SERVICE.
 */
uint32_t VynVariableDelete(const char* appId, uint32_t id);

/**
 * Asks the metadata service whether a variable is published, and how large it is. Maps nothing, and needs no
 * registration.
 * \param info may be null; unchanged after a failure.
 * \return 0 for a published variable, otherwise VYN_VARIABLE_UNKNOWN, _NOT_PUBLISHED, _INVALID,
 *         _NOT_REGISTERED before BroadcastInitialize, _NO_SERVICE.
 */
uint32_t VynVariableStat(const char* appId, uint32_t id, VynVariableInfo* info);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* VYN_VARIABLE_H */
