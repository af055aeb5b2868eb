#pragma once

// What the sources of the adapter share: the session's handle and the forms of their log and audit lines.

#include "common/log/logging.h"
#include "platform/zk_helper/zk_helper.h"

#include <atomic>
#include <cstdint>
#include <string>

namespace vyn::cluster {

/// The session, null when closed. Changed under mZKHandleLock; read without it by the node list alone.
extern std::atomic<zhandle_t*> g_ZKHandler;

/// The limit on the number of children read at once.
inline constexpr std::int32_t kMaxChildren = 100000;

/// Writes an audit line of this process about ZooKeeper.
void Audit(const char* operation, bool success);

/// How every watcher begins, under mZKHandleLock. Returns: whether it has work to do.
bool WatcherMayRun();

/// The children of a znode, freed at the end.
struct Children {
  Children() = default;
  ~Children() { DoDlDeallocateStringVector(&mNames); }
  Children(const Children&) = delete;
  Children& operator=(const Children&) = delete;

  String_vector mNames{};
};

/// Whether `children` are too many to be taken. The refusal is the caller's to log.
inline bool TooMany(const String_vector& children) { return children.count > kMaxChildren; }

/// Converts a status by the rules of stoi. Returns: false when it is no number.
bool ParseStatus(const std::string& text, int& status);

/// The text of a value that was read: a null value has length -1 and is the empty text.
inline std::string ValueText(const char* buffer, int length) {
  return {buffer, static_cast<std::size_t>(length < 0 ? 0 : length)};
}

}  // namespace vyn::cluster

/// The end of the log line of a failed ZooKeeper call.
#define VYN_ZK_ERROR "zookeeper get error:" << VynZookeeperGetLastMessage()

/// The check of the session. Requires: mZKHandleLock is held.
#define VYN_CHECK_SESSION() VYN_CHECK_POINTER_NAMED(g_ZKHandler.load(), "g_ZKHandler")
