#pragma once

// Broadcast variables in the cluster's shared memory pool, through libvyn_broadcast.so.
//
// Statuses. 0 is success, a failure has bit 0 set: test with vyn::Failed() of vyn/status.h.
// BroadcastGetLastErrorMessage() returns the text of the calling thread's last failure. "Logged, not
// recorded" means that this text does not change.
//
// Threads. Any thread may call any function, unless its comment says otherwise. No function keeps a pointer
// to its arguments after it returns. Texts are NUL-terminated.
//
// Roles. `flag` of BroadcastInitialize says whether the process is a driver (0) or an executor (1).
// BroadcastInitialize finds out whether a driver's node belongs to the memory fabric; an executor always runs
// on such a node. The code below shows the whole life of variable 7 of the application "app_1" with the token
// "secret": two blocks of 4 MiB, filled from `data`. It does not check statuses; the programs in
// examples/file_broadcast do, and share a file.
//
//   A driver on a node of the fabric:
//     BroadcastInitialize("/opt/vyn", "24.0.0", "linux-x86_64", 0);
//     bool registered = false;
//     RegisterBroadcastApp("app_1", true, "secret", &registered);  // registered is true here
//     const unsigned long sizes[2] = {4194304, 4194304};
//     CreateBroadcastVar("app_1", 7, 2);
//     CreateBroadcastBlockBatch("app_1", 7, sizes, 2);
//     for (unsigned int i = 0; i < 2; ++i) {
//       void* address = nullptr;
//       ObtainBroadcastBlockAddr("app_1", 7, i, &address);
//       std::memcpy(address, data + i * sizes[0], sizes[i]);
//       ReleaseBroadcastBlockAddr("app_1", 7, i, address);
//     }
//     // Now the executors fetch and read. When they have finished:
//     DeleteBroadcastVar("app_1", 7);
//     UnRegisterBroadcastApp("app_1");
//     MarkBroadcastApplicationCompleted("app_1");
//     BroadcastUninitialize();
//
//   A driver outside the fabric:
//     BroadcastInitialize("/opt/vyn", "24.0.0", "linux-x86_64", 0);
//     bool registered = false;
//     RegisterBroadcastApp("app_1", true, "secret", &registered);  // registered is false: outside the fabric
//     std::vector<std::string> candidates, nodes, hosts, ids;      // no candidates: all nodes
//     std::vector<unsigned short> nodeIds;
//     GetRemoteNodeInfo("app_1", candidates, nodes, nodeIds, hosts, true);
//     const unsigned long sizes[2] = {4194304, 4194304};
//     CreateBroadcastVar("app_1", 7, 2);
//     CreateBroadcastBlockBatchRemote("app_1", "secret", 7, sizes, 2, nodes[0].c_str(), hosts[0].c_str(),
//                                     nodeIds[0], ids);
//     for (unsigned int i = 0; i < 2; ++i) {
//       WriteRemoteBlock("app_1", ids[i].c_str(), data + i * sizes[0], sizes[i], "secret");
//     }
//     // Now the executors fetch and read. When they have finished:
//     DeleteBroadcastVar("app_1", 7);
//     MarkBroadcastApplicationCompleted("app_1");
//     BroadcastUninitialize();
//
//   An executor, which the engine has given application, token, variable and number of blocks:
//     BroadcastInitialize("/opt/vyn", "24.0.0", "linux-x86_64", 1);
//     bool registered = false;
//     RegisterBroadcastApp("app_1", false, "secret", &registered);
//     unsigned long sizes[2];
//     unsigned int count = 0;
//     FetchBroadcastBlockBatchInto("app_1", 7, sizes, 2, &count);  // count is 2 now
//     for (unsigned int i = 0; i < 2; ++i) {
//       void* address = nullptr;
//       ObtainBroadcastBlockAddr("app_1", 7, i, &address);
//       // Read sizes[i] bytes in place; other threads may obtain the same address. After the last use:
//       ReleaseBroadcastBlockAddr("app_1", 7, i, address);
//     }
//     UnRegisterBroadcastApp("app_1");
//     BroadcastUninitialize();
//
// This header is plain C++17 and needs no library. The functions have C linkage. Two take C++ containers, so
// their caller must be built with the same standard library as libvyn_broadcast.so.

#include <cstdint>
#include <string>
#include <vector>

extern "C" {

/// Returns: the text of the calling thread's last failure, or null when the thread has none. A later success
/// does not clear it: read it only after a call has reported a failure, on the same thread. The caller must
/// not free it. It is valid until the thread's next failure.
const char* BroadcastGetLastErrorMessage();

/// Writes five lines to standard output: component, version, platform, library and the source revision of its
/// build. Needs no initialisation.
void VynBroadcastVersion();

// --- start and end ---------------------------------------------------------------------------------------

/// Initialises the SDK: environment, configuration, logger, transport, leader of the metadata service, its
/// client, and the client of the memory fabric, in this order. It can be called again after a failure or
/// after BroadcastUninitialize. When the SDK is initialised already, it only sets the environment again. Of
/// several threads that call at the same time, one does the work and the others wait for it. If it fails, the
/// waiting threads return its status.
/// A forked child connects anew, and has neither the ZooKeeper session nor the heartbeats of its parent. Fork
/// while no other thread is inside a call of this library.
/// \param vynHome the folder of the installation; its conf/vyn.conf is read.
/// \param vynVersion "24.0.0" or another release of the installation. \param vynBinaryType "linux-x86_64" or
///        "linux-aarch64". The three are stored in the environment as VYN_HOME, VYN_VERSION and
///        VYN_BINARY_TYPE.
/// \param flag 0 for a driver, 1 for an executor.
/// \return 0; 2000057 for a null argument or without memory; 1 when the home, the environment, the
///         configuration, the logger or the OpenSSL libraries could not be used or the leader was not found
///         (printed to standard output before the logger runs, then logged); 2120003 when the metadata
///         service did not say whether the node belongs to the fabric; 2100021 when the fabric's client could
///         not be initialised.
unsigned int BroadcastInitialize(const char* vynHome, const char* vynVersion, const char* vynBinaryType,
                                 unsigned int flag);

/// Closes the fabric's client and empties the cache of variables. Mapped blocks stay mapped. Connections,
/// configuration, logger and heartbeats stay until the process ends. It must not run during another call. A
/// second call does nothing.
/// \return 0.
unsigned int BroadcastUninitialize();

// --- applications ----------------------------------------------------------------------------------------
//
// An application id is 1 to 255 letters, digits, "_" and "-". Leader, node server and pool refuse a longer
// one; each function returns what it returns for their refusal. More than 1024 characters are
// an invalid argument.
//
// Tokens. A process may register several applications. The functions of vyn/variable.h use the token of the
// variable's own application. The functions of this header on blocks that take no `token` use one token for
// all applications: that of the last RegisterBroadcastApp that asked the node server. So a process that uses
// these functions registers one application, or gives all its applications the same token.
//
// Threads. Run the registration functions one at a time, and not during a call of a function on blocks.

/// Registers the application with the node server. For an application that this process has registered
/// already, it makes no call, returns 0 and ignores the token; after UnRegisterBroadcastApp it keeps the
/// token for vyn/variable.h.
/// \param flag passed to the node server. \param token the application's secret; may be empty, not null.
/// \param registered receives false in a process outside the fabric, where the call only keeps the token for
///        vyn/variable.h, otherwise true.
/// \return 0; 2120001 for a refused argument; 2120009 without a client of the node server; 2000057 without
///         memory; 1 when the node server refused or did not answer.
unsigned int RegisterBroadcastApp(const char* appId, bool flag, const char* token, bool* registered);

/// Unregisters the application from the node server, with the token that the functions of this header share.
/// Also after a failure it clears that token, whichever application it was of, and forgets this application's
/// token for vyn/variable.h. RegisterBroadcastApp treats the application as registered until
/// MarkBroadcastApplicationCompleted.
/// \return 0; 2120001; 2080009 without a client of the node server; 2000057 without memory; 1 when the
///         node server refused or did not answer.
unsigned int UnRegisterBroadcastApp(const char* appId);

/// Ends the application. The metadata service removes it and has all its memory freed on every node. This
/// process removes its variables from the cache, and also those of every application whose id begins with
/// `appId`. It forgets the application's token for vyn/variable.h. Needs no registration.
/// \return 0; 2120001; 2120011 without a client of the metadata service; 2000057 before initialisation;
///         2120013 when the service refused or did not answer. Then this process has changed nothing, and the
///         call can be repeated.
unsigned int MarkBroadcastApplicationCompleted(const char* appId);

/// Asks the metadata service on which nodes a driver may create blocks. Entry i of the three lists describes
/// one node. On a node of the fabric it appends this node to the lists; outside the fabric it replaces the
/// lists.
/// \param candidateNodes addresses or host names of the nodes to choose from; empty means all nodes. The call
/// empties it.
/// \param selectedNodes receives "ip:port" of each node. Pass it to CreateBroadcastBlockBatchRemote with its
///        id and host name.
/// \param nodeIds, hostNames receive id and host name of each node. \param selectFlag true for the best node
/// only.
/// \return 0; 2120001; 2120011; 2000057 without memory; 2120013 when the service refused or did not answer.
unsigned int GetRemoteNodeInfo(const char* appId, std::vector<std::string>& candidateNodes,
                               std::vector<std::string>& selectedNodes, std::vector<unsigned short>& nodeIds,
                               std::vector<std::string>& hostNames, bool selectFlag);

// --- variables -------------------------------------------------------------------------------------------

/// Creates a variable at the metadata service.
/// \param broadcastId the variable's number, unique in the application. \param blockNum number of its blocks.
/// \return 0; 2120001; 2120011; 2000057 without memory; 2000013 when the client refused the id; 2060009 when
///         the service refused or did not answer, after its retries.
unsigned int CreateBroadcastVar(const char* appId, unsigned int broadcastId, unsigned int blockNum);

/// Deletes a variable. First removes it from this process's cache, even if the service then fails. Mappings
/// stay valid, and other processes that have mapped its blocks keep the pages until they release them.
/// \return as CreateBroadcastVar; 2000057 also before initialisation.
unsigned int DeleteBroadcastVar(const char* appId, unsigned int broadcastId);

// --- creating and fetching blocks ------------------------------------------------------------------------

// The functions of this header have no commit; those of vyn/variable.h have one. A reader that maps a block
// before its creator has filled it sees what is there, with status 0. What it saw is never kept: the next
// reader sees the bytes of its own time.

/// Creates the blocks of a variable on this node, which must belong to the fabric. Call it once for each
/// variable.
/// \param sizes bytes of each block, `blockNum` of them, in block order.
/// \return 0; 2120001; 2000057 before initialisation or without memory; 2120009 without a client of the node
///         server; 1 when the node server refused (for example for 0 blocks or a full pool) or did not
///         answer, or when the blocks were created but the cache had no memory for them; 2120011, 2000013 or
///         2060009 when the blocks were created but the metadata service did not record them. After a
///         failure, blocks that were created stay.
unsigned int CreateBroadcastBlockBatch(const char* appId, unsigned int broadcastId,
                                       const unsigned long* sizes, unsigned int blockNum);

/// Creates the blocks of a variable on a chosen node, from a process outside the fabric. Waits up to 10
/// seconds for each block while that node's pool is full. When a block cannot be allocated, or there is no
/// memory for the cache or the record, the call frees the blocks that it has allocated; the application's
/// namespace stays with the blocks of its earlier variables. When only the metadata service fails to record
/// the blocks, they stay: see `bmIds`.
/// \param selectedNode, hostName, nodeId one entry of the lists of GetRemoteNodeInfo; the port must be below
///        32768.
/// \param bmIds receives the blocks' ids for WriteRemoteBlock, also when only the record at the metadata
///        service fails.
/// \return 0; 2120001; 2000057 before initialisation; 2000039 or 2000013 for a `selectedNode` that is no
///         "ip:port"; 2120025 when the node could not be linked; 2120023 when the namespace could not be
///         created; 2120027 when a block could not be allocated; 1 when there was no memory for the entry of
///         the cache or for the record; 2120011, 2000013 or 2060009 when the metadata service did not record
///         the blocks.
unsigned int CreateBroadcastBlockBatchRemote(const char* appId, const char* token, unsigned int broadcastId,
                                             const unsigned long* sizes, unsigned int blockNum,
                                             const char* selectedNode, const char* hostName,
                                             unsigned short nodeId, std::vector<std::string>& bmIds);

/// Fetches ids and sizes of a variable's blocks into this process's cache. A process that did not create the
/// variable needs it before ObtainBroadcastBlockAddr. When the cache has the variable, it makes no call.
/// \param blockSizes receives the size of each block in bytes; must have room for all blocks of the variable.
///        May be null for a variable without blocks.
/// \return 0; 2120001; 2000057 before initialisation or without memory; 2120009; 1 when the node server
///         refused, does not know the variable or did not answer, or when the cache had no memory for the
///         variable. In the last case `blockSizes` is filled, and the next fetch asks the node server again.
///         1, too, when the node server's answer is about another variable, or has not one size for each
///         block.
unsigned int FetchBroadcastBlockBatch(const char* appId, unsigned int broadcastId, unsigned long* blockSizes);

/// As FetchBroadcastBlockBatch, for a caller that does not trust the number of blocks that it was told: a
/// record can say another one, and FetchBroadcastBlockBatch would then write beyond `blockSizes`.
/// \param room how many sizes `blockSizes` has room for; with 0 it may be null.
/// \param blockNum receives the number of blocks of the variable, also when it exceeds `room`; 0 after any
///        other failure.
/// \return as FetchBroadcastBlockBatch; 2120001, too, when the variable has more than `room` blocks.
///         `blockSizes` is unchanged then.
unsigned int FetchBroadcastBlockBatchInto(const char* appId, unsigned int broadcastId,
                                          unsigned long* blockSizes, unsigned int room,
                                          unsigned int* blockNum);

// --- heartbeats ------------------------------------------------------------------------------------------

/// Starts or stops the heartbeats of an application. A thread for each application sends one at the start and
/// then one every 2 seconds, until they are stopped or the process ends. A stop sends a last heartbeat, which
/// says that the application is no longer alive; the end of the process does not.
/// \param appName the application. It has one sender at most, whatever the other arguments are.
///        `processName` is 1 to 1024 letters, digits, "_" and "-".
/// \param processType 0 sends to the metadata service, 1 to the tuning service, any other sends nothing.
/// \param content sent with each heartbeat; of the same characters; may be empty, not null.
/// \param start true starts, false stops. Both make one call to the service themselves. A stop first waits
///        until the sender's call in progress has ended or timed out.
/// \return 0; 2080001 for a refused argument; 1 without a client of the metadata service (logged, not
///         recorded); 2080011 when the application already has a sender, has none to stop, or no thread could
///         be started. A heartbeat that fails is logged and changes nothing.
std::uint32_t HeartBeat(const char* appName, unsigned char processType, const char* processName,
                        const char* content, bool start);

// --- access to blocks ------------------------------------------------------------------------------------
//
// The blocks of a variable are numbered from 0. Common statuses: 2120001 for a refused argument; 2000057
// before BroadcastInitialize has succeeded (logged, not recorded).

/// Maps a block into this process, or finds its existing mapping. All callers get the same address, and the
/// callers are not counted. For a mapped block it makes no call.
/// \param addr receives the address, or null after a failure. A refused `appId`, and a call before
///        initialisation, leave it unchanged. A null `addr` gives 2000057.
/// \return 0; 2120001 also for a block id that the variable does not have; 2120013 for a variable that this
///         process has neither created nor fetched, and for a block that is shorter than its record says; the
///         status of BmMmap when mapping failed. If the block does not exist any more, the call asks the node
///         server again. When the variable was deleted and created anew, it goes on with the new one, or, if
///         blocks of the old one were used or the sizes differ, fails and forgets the variable: fetch it
///         again then.
std::uint32_t ObtainBroadcastBlockAddr(const char* appId, unsigned int broadcastId, unsigned int blockId,
                                       void** addr);

/// Unmaps a block at once, even if other callers have obtained its address: release a block after its last
/// use only. An unknown variable or a block that is not mapped is a success.
/// \param addr the address from ObtainBroadcastBlockAddr.
/// \return 0; 2120001 also for a null address or a block id that the variable does not have; the status of
///         BmUnmap when it failed; the block stays mapped then.
std::uint32_t ReleaseBroadcastBlockAddr(const char* appId, unsigned int broadcastId, unsigned int blockId,
                                        void* addr);

/// Copies a whole block into `buffer`, which must have room for it. For processes outside the memory fabric.
/// \param token the application's token; may be empty, not null.
/// \return 0; 1 for a variable or a block that this process does not know (logged, not recorded); 2120007
///         when the copy failed; BroadcastGetLastErrorMessage says why.
std::uint32_t ReadRemoteBlock(const char* appId, unsigned int broadcastId, unsigned int blockId, void* buffer,
                              const char* token);

/// Copies `size` bytes of `data` to the beginning of the block `bmId`, an id from
/// CreateBroadcastBlockBatchRemote. For processes outside the memory fabric. Does not use the cache of
/// variables.
/// \return 0; 2120001; 2120007 when the copy failed or `bmId` or `token` was refused;
/// BroadcastGetLastErrorMessage says why.
std::uint32_t WriteRemoteBlock(const char* appId, const char* bmId, const void* data, unsigned long size,
                               const char* token);

}  // extern "C"
