#pragma once

// The znodes below /vyn, which only the services use. All are persistent.
//
//   /vyn/epoch                        no content; its version is the epoch, the fencing token of the leader
//   /vyn/nodes/<node id>              every node that ever belonged to the fabric: JSON {host, ip}
//   /vyn/apps/<application>           JSON {heartbeat}, or {removed} while the leader removes it
//   /vyn/apps/<application>/token     JSON {salt, hash}: the token that the first registration fixed
//   /vyn/apps/<application>/<variable id>.<unique>      a variable: one line of JSON {state, blockNum,
//                                     pieces, list}, a line feed, and the first piece of its serialised
//                                     block list
//   /vyn/apps/<application>/<variable id>.<unique>/<list>.<n>  its further pieces; <list> is a <unique> too
//   /vyn/reclaim/<node id>/<unique>   one entry of that node's reclaim list: JSON, see ReclaimEntry
//
// Each JSON of an application, a variable and an entry may have a field {format}; without it the format is 1.
// A build that finds a format above kRecordFormat cannot read the record. It changes and deletes nothing of
// it: a leader gives the leadership up, a node keeps the entry.
//
// <unique> is the epoch of the writer and a counter, so no two writes use the same one.
//
// No shared state: any thread may call any function.

#include "common/util/input_check.h"
#include "platform/fabric/protocol/names.h"
#include "vyn/status.h"

#include <cstdint>
#include <string>

namespace vyn::services {

inline constexpr const char* kVynRoot = "/vyn";
inline constexpr const char* kEpochPath = "/vyn/epoch";
inline constexpr const char* kNodesPath = "/vyn/nodes";
inline constexpr const char* kAppsPath = "/vyn/apps";
inline constexpr const char* kReclaimPath = "/vyn/reclaim";
inline constexpr const char* kTokenName = "token";
inline constexpr const char* kRemovedFlag = "removed";
/// The field of the format, and the highest format that this build can read. It writes this format. Raise it
/// with each change after which an older build would misunderstand a record.
inline constexpr const char* kFormatField = "format";
inline constexpr std::uint32_t kRecordFormat = 1;

/// Whether a text of a message or a record is a valid identifier. A text with a NUL is not:
/// InputRegularMatching would check only the part before it.
inline bool IsName(const std::string& name) {
  return name.find('\0') == std::string::npos && !Failed(common::InputRegularMatching(name.c_str(), false));
}

/// Whether a text of a message or a record is a valid application id: it also names a namespace of the pools.
inline bool IsApplication(const std::string& name) {
  return name.size() <= fabric::kMaxNamespaceLength && IsName(name);
}

/// Parses the id in a znode's name. Other programs can create znodes in the tree as well. Returns: false
/// unless the name is a decimal number without sign or leading zeros.
bool ParseId(const std::string& name, std::uint32_t& id);
/// Parses the variable's id in the name of its record. Returns: false if the record is no variable's.
inline bool ParseVariableId(const std::string& name, std::uint32_t& id) {
  return ParseId(name.substr(0, name.find('.')), id);
}

inline std::string NodePath(std::uint32_t nodeId) {
  return std::string(kNodesPath) + "/" + std::to_string(nodeId);
}
inline std::string ReclaimPath(std::uint32_t nodeId) {
  return std::string(kReclaimPath) + "/" + std::to_string(nodeId);
}
inline std::string AppPath(const std::string& application) {
  return std::string(kAppsPath) + "/" + application;
}
inline std::string TokenPath(const std::string& application) {
  return AppPath(application) + "/" + kTokenName;
}

/// An entry of a node's reclaim list: what the node has to free or to drop from its cache.
struct ReclaimEntry {
  std::string application;
  /// The path of a deleted variable's record. Empty when the whole application has ended: the node destroys
  /// its namespace with all objects.
  std::string variablePath;
  std::uint32_t variableId = 0;
  /// Whether the node holds the variable's blocks. If so, it frees them and then deletes the record. Other
  /// nodes only drop the variable from their caches.
  bool owner = false;
  /// Whether the node has forgotten the variable, or all variables of the application: it no longer answers
  /// from its cache. The node sets this before it frees anything, which may take long.
  bool forgotten = false;

  std::string ToText() const;
  /// Returns: false if this build cannot read the entry: it is no entry, or has a newer format.
  static bool FromText(const std::string& text, ReclaimEntry& entry);
  /// Whether the entry can be believed: `variablePath` is empty or the path of a record of that variable of
  /// that application. Other programs can write entries as well.
  bool IsPlausible() const;
};

}  // namespace vyn::services
