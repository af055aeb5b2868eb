#pragma once

// What the adapter's sources share: the session's handle, helpers for znodes, and macros for checks and log
// lines.
//
// Threads: callers hold ClusterZKAdapter::mZKHandleLock, except for Audit and the functions without state.

#include "common/log/logging.h"
#include "platform/zk_helper/zk_helper.h"

#include <atomic>
#include <cstdint>
#include <string>

namespace vyn::cluster {

/// The session's handle; null while there is no session. Written under mZKHandleLock. ClusterZKGetNodeList
/// alone reads it without that lock.
extern std::atomic<zhandle_t*> g_ZKHandler;

/// The most children of a znode that are accepted.
inline constexpr std::int32_t kMaxChildren = 100000;

/// Writes an audit line of this process about ZooKeeper.
void Audit(const char* operation, bool success);

/// Every watcher calls this first, under mZKHandleLock. Returns: whether there is a session and isRunning is
/// true.
bool WatcherMayRun();

/// The children of a znode. The destructor frees them.
struct Children {
  Children() = default;
  ~Children() { DoDlDeallocateStringVector(&mNames); }
  Children(const Children&) = delete;
  Children& operator=(const Children&) = delete;

  String_vector mNames{};
};

/// Whether `children` are more than kMaxChildren. The caller logs it.
inline bool TooMany(const String_vector& children) { return children.count > kMaxChildren; }

/// Reads a status with std::stoi. Returns: false when it is no number.
bool ParseStatus(const std::string& text, int& status);

/// Returns: the text that the client read into `buffer`. `length` is -1 for a znode without a value, which is
/// the empty text.
inline std::string ValueText(const char* buffer, int length) {
  return {buffer, static_cast<std::size_t>(length < 0 ? 0 : length)};
}

}  // namespace vyn::cluster

/// The last part of a log line about a failed ZooKeeper call.
#define VYN_ZK_ERROR "zookeeper get error:" << VynZookeeperGetLastMessage()

/// Makes the function return 2000057 when there is no session. Requires: mZKHandleLock is held.
#define VYN_CHECK_SESSION() VYN_CHECK_POINTER_NAMED(g_ZKHandler.load(), "g_ZKHandler")
