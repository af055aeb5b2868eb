#pragma once

// Broadcast variables in the cluster's shared memory pool, through libvyn_broadcast.so.
//
// Statuses. 0 is success, a failure has bit 0 set: test with vyn::Failed() of vyn/status.h. The text of a
// failure is the calling thread's BroadcastGetLastErrorMessage().
//
// Threads. Any thread may call any function, unless told otherwise. Nothing that is passed in is kept beyond
// the call; texts are NUL-terminated.
//
// Roles. `flag` of BroadcastInitialize says whether the process is a driver (0) or an executor (1). A driver
// learns at the start whether its node belongs to the memory fabric; an executor always runs on such a node.
// Below is the whole life of variable 7 of the application "app_1" with the token "secret": two blocks of
// 4 MiB, filled from `data`. Failures are left out here, but not in examples/file_broadcast, whose programs
// do the same with a file.
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
//     // Now the executors fetch and read; when they are done:
//     DeleteBroadcastVar("app_1", 7);
//     UnRegisterBroadcastApp("app_1");
//     MarkBroadcastApplicationCompleted("app_1");
//     BroadcastUninitialize();
//
//   A driver outside the fabric:
//     BroadcastInitialize("/opt/vyn", "24.0.0", "linux-x86_64", 0);
//     bool registered = false;
//     RegisterBroadcastApp("app_1", true, "secret", &registered);  // registered is false here: no own node
//     std::vector<std::string> candidates, nodes, hosts, ids;      // no candidates: any node of the fabric
//     std::vector<unsigned short> nodeIds;
//     GetRemoteNodeInfo("app_1", candidates, nodes, nodeIds, hosts, true);
//     const unsigned long sizes[2] = {4194304, 4194304};
//     CreateBroadcastVar("app_1", 7, 2);
//     CreateBroadcastBlockBatchRemote("app_1", "secret", 7, sizes, 2, nodes[0].c_str(), hosts[0].c_str(),
//                                     nodeIds[0], ids);
//     for (unsigned int i = 0; i < 2; ++i) {
//       WriteRemoteBlock("app_1", ids[i].c_str(), data + i * sizes[0], sizes[i], "secret");
//     }
//     // Now the executors fetch and read; when they are done:
//     DeleteBroadcastVar("app_1", 7);
//     MarkBroadcastApplicationCompleted("app_1");
//     BroadcastUninitialize();
//
//   An executor, which has been told application, token, variable and the number of blocks:
//     BroadcastInitialize("/opt/vyn", "24.0.0", "linux-x86_64", 1);
//     bool registered = false;
//     RegisterBroadcastApp("app_1", false, "secret", &registered);
//     unsigned long sizes[2];
//     FetchBroadcastBlockBatch("app_1", 7, sizes);
//     for (unsigned int i = 0; i < 2; ++i) {
//       void* address = nullptr;
//       ObtainBroadcastBlockAddr("app_1", 7, i, &address);
//       // Read sizes[i] bytes in place; other threads may obtain the same address. When the last is done:
//       ReleaseBroadcastBlockAddr("app_1", 7, i, address);
//     }
//     UnRegisterBroadcastApp("app_1");
//     BroadcastUninitialize();
//
// This header is plain C++17 and needs no library. The functions have C linkage; two take C++ containers, so
// that a glue layer for them is built with the same standard library.

#include <cstdint>
#include <string>
#include <vector>

extern "C" {

/// The text of the calling thread's last failure, or null when the thread has none. A later success does not
/// clear it: read it only after a call has reported failure, on the thread that got the failure. Not the
/// caller's to free; valid until the thread's next failure.
const char* BroadcastGetLastErrorMessage();

/// Writes five lines to standard output: component, version, platform, library and the source revision that
/// it was built from. Needs no initialisation.
void VynBroadcastVersion();

// --- start and end ---------------------------------------------------------------------------------------

/// Takes the SDK into use: environment, configuration, logger, transport, leader of the metadata service, its
/// client, and the client of the memory fabric, in this order. Call it again after a failure, or after
/// BroadcastUninitialize; when the SDK is ready already it only sets the environment again. Of several
/// callers at once one works and the others wait for it; one that waited for a first initialisation that
/// failed tries it itself, one that waited for a later one gets its result.
/// \param vynHome the installation, whose conf/vyn.conf is read.
/// \param vynVersion "24.0.0" or another release of the installation. \param vynBinaryType "linux-x86_64" or
///        "linux-aarch64". The three become VYN_HOME, VYN_VERSION and VYN_BINARY_TYPE of the process.
/// \param flag 0 for a driver, 1 for an executor.
/// \return 0; 2000057 for a null argument or without memory; 1 when the home, the environment, the
///         configuration, the logger, the TLS libraries or the leader could not be had (until the logger is
///         up told on standard output, then in the log); 2120003 when the metadata service could not say
///         whether the node belongs to the fabric; 2100021 when the fabric's client could not be brought up.
unsigned int BroadcastInitialize(const char* vynHome, const char* vynVersion, const char* vynBinaryType,
                                 unsigned int flag);

/// Closes the fabric's client and forgets all variables. Mapped blocks stay mapped; connections,
/// configuration, logger and heartbeats stay until the process ends. No other call may be under way. A second
/// call does nothing.
/// \return 0.
unsigned int BroadcastUninitialize();

// --- applications ----------------------------------------------------------------------------------------
//
// An application is 1 to 1024 letters, digits, "_" and "-". The registration functions run one at a time, and
// not beside the functions on blocks: the process has one token, that of the application registered last.

/// Registers the application with the server of this node. A name that this process has registered is a
/// success without a call, and its new token is ignored.
/// \param flag handed on to the server. \param token the application's secret, may be empty, not null.
/// \param registered says whether this node took part: false on a node outside the fabric, where nothing
///        happens.
/// \return 0; 2120001 for a refused argument; 2120009 without a client of the server; 2000057 without memory;
///         1 when the server refused or did not answer.
unsigned int RegisterBroadcastApp(const char* appId, bool flag, const char* token, bool* registered);

/// Takes the application off the server of this node and forgets the token, whatever comes of it. The name
/// stays registered in this process until MarkBroadcastApplicationCompleted.
/// \return 0; 2120001; 2080009 without a client of the server; 2000057 without memory; 1 when the server
///         refused or did not answer.
unsigned int UnRegisterBroadcastApp(const char* appId);

/// Ends the application: the metadata service drops it and gives all its memory back on every node; this
/// process forgets its variables, and those of every application whose name begins with `appId`. Needs no
/// registration.
/// \return 0; 2120001; 2120011 without a client of the metadata service; 2000057 before initialisation;
///         2120013 when the service refused or did not answer: nothing has changed here then, and the call
///         can be repeated.
unsigned int MarkBroadcastApplicationCompleted(const char* appId);

/// Asks which nodes a driver may place blocks on. Entry i of the three lists describes one node. On a node of
/// the fabric the answer is this node, appended to the lists; outside it the lists are replaced.
/// \param candidateNodes addresses or host names to choose among, none: all nodes. Comes back empty.
/// \param selectedNodes receives "ip:port", to be given to CreateBroadcastBlockBatchRemote with the other
///        two.
/// \param nodeIds, hostNames receive id and name of each. \param selectFlag true: only the best node.
/// \return 0; 2120001; 2120011; 2000057 without memory; 2120013 when the service refused or did not answer.
unsigned int GetRemoteNodeInfo(const char* appId, std::vector<std::string>& candidateNodes,
                               std::vector<std::string>& selectedNodes, std::vector<unsigned short>& nodeIds,
                               std::vector<std::string>& hostNames, bool selectFlag);

// --- variables -------------------------------------------------------------------------------------------

/// Makes a variable known to the metadata service.
/// \param broadcastId the caller's number, unique in the application. \param blockNum how many blocks it will
///        have.
/// \return 0; 2120001; 2120011; 2000057 without memory; 2000013 when the client refused the name; 2060009
///         when the service refused or did not answer, after its retries.
unsigned int CreateBroadcastVar(const char* appId, unsigned int broadcastId, unsigned int blockNum);

/// Removes a variable. This process forgets it first, also when the service then fails; mappings stay valid,
/// and other processes that map its blocks keep their pages until they release them.
/// \return as CreateBroadcastVar; 2000057 also before initialisation.
unsigned int DeleteBroadcastVar(const char* appId, unsigned int broadcastId);

// --- creating and fetching blocks ------------------------------------------------------------------------

/// Creates the blocks of a variable on this node, which belongs to the fabric. Once a variable.
/// \param sizes bytes of each block, `blockNum` of them, in block order.
/// \return 0; 2120001; 2000057 before initialisation or without memory; 2120009 without a client of the
///         server; 1 when the server refused (no blocks or a full pool among the reasons) or did not answer,
///         and also when the blocks exist and this process's table had no memory for them; 2120011, 2000013
///         or 2060009 when the blocks exist and the metadata service could not be told. Nothing that exists
///         is taken back.
unsigned int CreateBroadcastBlockBatch(const char* appId, unsigned int broadcastId,
                                       const unsigned long* sizes, unsigned int blockNum);

/// Creates the blocks of a variable on a chosen node, from a process outside the fabric. Waits up to 10
/// seconds a block while that node's pool is full. What was made is taken back when a later step fails, but
/// for the last: see `bmIds`. Taking back destroys the application's namespace on that node, and with it the
/// blocks of its earlier variables there, which the metadata service still lists.
/// \param selectedNode, hostName, nodeId one entry of the lists of GetRemoteNodeInfo; the port must be below
///        32768.
/// \param bmIds receives the blocks' ids for WriteRemoteBlock, also when only the metadata service could not
///        be told.
/// \return 0; 2120001; 2000057 before initialisation; 2000039 or 2000013 for a `selectedNode` that is no
///         "ip:port"; 2120025 when the node could not be linked; 2120023 when the namespace could not be
///         made; 2120027 when a block could not be had; 1 when there was no memory for the entry of the table
///         (the insert failed) or for the record; 2120011, 2000013 or 2060009 when the metadata service
///         could not be told.
unsigned int CreateBroadcastBlockBatchRemote(const char* appId, const char* token, unsigned int broadcastId,
                                             const unsigned long* sizes, unsigned int blockNum,
                                             const char* selectedNode, const char* hostName,
                                             unsigned short nodeId, std::vector<std::string>& bmIds);

/// Brings a variable's blocks into this process's table; needed before ObtainBroadcastBlockAddr in a process
/// that did not create them. From the second time on it makes no call.
/// \param blockSizes receives the bytes of each block; must have room for all blocks of the variable.
/// \return 0; 2120001; 2000057 before initialisation or without memory; 2120009; 1 when the server refused,
///         does not know the variable or did not answer, and also when the insert into this process's table
///         failed for want of memory: `blockSizes` is filled then, and the next fetch asks the server again.
unsigned int FetchBroadcastBlockBatch(const char* appId, unsigned int broadcastId, unsigned long* blockSizes);

// --- heartbeats ------------------------------------------------------------------------------------------

/// Starts or stops the sender that tells a service that an application is alive: once at the start and every
/// 2 seconds from then on, a thread for each application, until it is stopped or the process ends. A stop
/// says farewell; the end of the process does not.
/// \param appName the application; it has one sender, whatever the other arguments are. 1 to 1024 letters,
///        digits, "_" and "-", as `processName`.
/// \param processType 0 sends to the metadata service, 1 to the tuning service, any other sends nothing.
/// \param content sent with each heartbeat; the same characters, may be empty, not null.
/// \param start true starts, false stops. Both take a call of the service themselves; a stop first waits for
///        the sender's call in progress, at most as long as calls may take.
/// \return 0; 2080001 for a refused argument; 1 without a client of the metadata service (logged, not
///         recorded); 2080011 when the application has a sender already, has none to stop, or no thread can
///         be had. A heartbeat that does not arrive is logged and changes nothing.
std::uint32_t HeartBeat(const char* appName, unsigned char processType, const char* processName,
                        const char* content, bool start);

// --- access to blocks ------------------------------------------------------------------------------------
//
// The blocks of a variable are numbered from 0. Common statuses: 2120001 for a refused argument; 2000057
// before BroadcastInitialize has succeeded (logged, not recorded). An application id is 1 to 1024 letters,
// digits, "_" and "-".

/// Maps a block into this process, or finds the mapping that it has. All callers get the same address; no
/// count is kept. A mapped block costs two lookups and no call.
/// \param addr receives the address; null after a failure, but for a refused `appId` and before
///        initialisation, which leave it alone. Null itself gives 2000057.
/// \return 0; 2120001 also for a block id that the variable does not have; 2120013 for a variable that this
///         process has neither created nor fetched; the status of BmMmap when mapping failed.
std::uint32_t ObtainBroadcastBlockAddr(const char* appId, unsigned int broadcastId, unsigned int blockId,
                                       void** addr);

/// Unmaps a block at once, whoever else obtained its address: release only what nobody uses any more. What is
/// unknown or not mapped is a success.
/// \param addr the address that was obtained.
/// \return 0; 2120001 also for a null address or a block id that the variable does not have; the status of
///         BmUnmap, and the block stays mapped.
std::uint32_t ReleaseBroadcastBlockAddr(const char* appId, unsigned int broadcastId, unsigned int blockId,
                                        void* addr);

/// Copies a whole block into `buffer`, which must have room for it. For processes outside the memory fabric.
/// \param token the application's token; may be empty, not null.
/// \return 0; 1 for a variable or a block that this process does not know (logged, not recorded); 2120007
///         when the copy failed, the record telling why.
std::uint32_t ReadRemoteBlock(const char* appId, unsigned int broadcastId, unsigned int blockId, void* buffer,
                              const char* token);

/// Copies `size` bytes of `data` to the beginning of the block `bmId`, an id that
/// CreateBroadcastBlockBatchRemote gave. For processes outside the memory fabric. Needs no table of
/// variables.
/// \return 0; 2120001; 2120007 when the copy failed or `bmId` or `token` was refused, the record telling why.
std::uint32_t WriteRemoteBlock(const char* appId, const char* bmId, const void* data, unsigned long size,
                               const char* token);

}  // extern "C"
