#pragma once

// The ZooKeeper client as the system uses it: the published C client, made safe against its own session's
// end.
//
// The DoDlZoo... family takes the arguments and gives the results of the published calls of the same name.
// Beyond them:
//
// - A handle is a ticket, not a pointer into the client: it names one session for the life of the process and
//   is never used again for another. A call on a handle that is unknown or closed gives ZINVALIDSTATE, or
//   zeros where it gives no result (DoDlZooClientId, DoDlZooRecvTimeout).
// - No call hangs on a session that has gone. A thread that belongs to the session and holds no lock closes
//   the client as soon as the session has expired; every call then under way, and every later one, gives
//   ZINVALIDSTATE. The handle stays valid as a ticket until DoDlZookeeperClose.
// - Watchers run one at a time, in the order of their events, on a thread of the session that no completion
//   needs. So a watcher may call every function of this header, and wait for any lock.
// - A watch that could not be set because the connection was lost is not forgotten: once the session is
//   connected again its watcher gets a session event (ZOO_SESSION_EVENT, ZOO_CONNECTED_STATE) with the path
//   that was asked for. It gets the same event when the watch was set after the call had timed out. Every
//   other session event has an empty path.
//
// All functions may be called from any thread. None but DoDlZookeeperClose waits for a watcher.

#include <zookeeper/zookeeper.h>

#include <cstddef>
#include <cstdint>

extern "C" {

/// How the session is secured. All texts are the caller's, needed for the call only; a null text counts as
/// empty.
struct VynZookeeperSecurity {
  const char* principleName;      ///< service part of the server's principal
  const char* principleHostname;  ///< host part of the server's principal
  const char* strategy;           ///< "tls" or "sasl"
  const char* certificates;       ///< for TLS: "ca,certificate,key,password", as the client takes it
  bool enable;                    ///< false: a plain connection, and nothing else here counts
  const char* clientPrincipal;
  const char* clientKeytab;
};

/// Key stores, and what else the connection needs.
struct VynZookeeperKeys {
  const char* primaryKeyStore;
  const char* standbyKeyStore;
  const char* backupKeyStore;
  std::int32_t connectTimeout;  ///< how long VynZookeeperInit waits for the connection, in seconds
  bool isKeytabEncrypted;
};

static_assert(offsetof(VynZookeeperSecurity, enable) == 32 &&
              offsetof(VynZookeeperSecurity, clientPrincipal) == 40);
static_assert(offsetof(VynZookeeperKeys, connectTimeout) == 24 &&
              offsetof(VynZookeeperKeys, isKeytabEncrypted) == 28);

/// Connects, and waits until the session is established. There is one connection at a time: the previous one
/// must have been removed, and this call waits until it is closed.
/// \param url "host:port[,host:port...][/root]".
/// \param sessionTimeout in milliseconds.
/// \param libraryDirectory where the companions of this library stand; a client that can secure the
/// connection must have been loaded from there.
/// \return 0, or a ZOO_ERRORS value below 0: the ensemble cannot be resolved, does not answer or refuses;
/// security is asked for and cannot be had. VynZookeeperGetLastMessage tells which.
int VynZookeeperInit(const char* url, int sessionTimeout, const VynZookeeperSecurity* security,
                     const VynZookeeperKeys* keys, const char* libraryDirectory);
/// Returns: the handle of the connection, null when there is none.
zhandle_t* VynGetZkHandle();
/// Forgets the handle of the connection, which stays usable until DoDlZookeeperClose. There is no next one
/// before that.
void VynRemoveZkHandle();
/// Returns: why the last call of this thread that failed here did so. Never null; valid until the thread's
/// next failure.
const char* VynZookeeperGetLastMessage();

int DoDlZooCreate(zhandle_t* handle, const char* path, const char* value, int valueLength,
                  const ACL_vector* acl, int flags, char* pathBuffer, int pathBufferLength);
int DoDlZooDelete(zhandle_t* handle, const char* path, int version);
int DoDlZooExists(zhandle_t* handle, const char* path, int watch, Stat* stat);
/// `length` holds the room of `buffer` before, the bytes read after; a longer value is cut, a null value
/// gives -1.
int DoDlZooGet(zhandle_t* handle, const char* path, int watch, char* buffer, int* length, Stat* stat);
int DoDlZooSet(zhandle_t* handle, const char* path, const char* buffer, int length, int version);
/// All of `operations` or none (zoo_multi). Texts and data of the operations are needed for the call only;
/// operations that give something back (a path, a stat) do not. Returns: ZOK, or the result of the operation
/// that refused.
int DoDlZooMulti(zhandle_t* handle, int count, const zoo_op_t* operations);
/// On success `children` is to be freed with DoDlDeallocateStringVector; after a failure it is as it was. It
/// may be null.
int DoDlZooGetChildren(zhandle_t* handle, const char* path, int watch, String_vector* children);
int DoDlZooWexists(zhandle_t* handle, const char* path, watcher_fn watcher, void* context, Stat* stat);
int DoDlZooWget(zhandle_t* handle, const char* path, watcher_fn watcher, void* context, char* buffer,
                int* length, Stat* stat);
int DoDlZooWgetChildren(zhandle_t* handle, const char* path, watcher_fn watcher, void* context,
                        String_vector* children);
/// Ends the session. Calls under way end with ZCLOSING. Waits for the watcher that is running, unless called
/// from it: call it without a lock that a watcher takes. Returns: ZOK, also for a session that had gone
/// before; the client's result when the servers could not be told, which then keep the session until its
/// time-out. The handle is closed in any case.
int DoDlZookeeperClose(zhandle_t* handle);
void DoDlZooSetDebugLevel(int level);
/// Frees the texts of `vector` and leaves it empty. It may be called again.
int DoDlDeallocateStringVector(String_vector* vector);
/// The session's id and password, zeros when the handle is unknown or closed.
clientid_t DoDlZooClientId(zhandle_t* handle);
/// The session time-out that the servers granted, in milliseconds; 0 when the session has gone or the handle
/// is unknown.
int DoDlZooRecvTimeout(zhandle_t* handle);

}  // extern "C"
