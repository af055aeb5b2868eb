#pragma once

// The services' own part of the ZooKeeper tree. All of it is persistent.
//
//   /vyn/epoch                        no content; its version counts the leaderships of the metadata service
//   /vyn/nodes/<node id>              every node that ever belonged to the fabric: JSON {host, ip}
//   /vyn/apps/<application>           JSON {heartbeat}, or {removed} while its removal runs
//   /vyn/apps/<application>/token     JSON {salt, hash}: the token that the first registration fixed
//   /vyn/apps/<application>/<variable id>.<unique>      a variable: one line of JSON {state, blockNum,
//                                     pieces, list}, a line feed, and the first piece of its serialised
//                                     block list
//   /vyn/apps/<application>/<variable id>.<unique>/<list>.<n>  its further pieces; <list> is a <unique> too
//   /vyn/reclaim/<node id>/<unique>   what that node has to give back: JSON, see ReclaimEntry
//
// <unique> is never used twice: the epoch of the writer and a counter.

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

/// Reads the id in a znode's name. The tree is open to everybody, so a stranger's znode may be in it. Returns: false for a
/// name that is not written as an id is: decimal, without sign or leading zeros.
bool ParseId(const std::string& name, std::uint32_t& id);

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

/// What a node has to give back.
struct ReclaimEntry {
  std::string application;
  /// Empty: the whole application, its namespace with all objects. Otherwise the path of a deleted variable's
  /// record.
  std::string variablePath;
  std::uint32_t variableId = 0;
  /// The node holds the variable's blocks: it frees them and then deletes the record. Other nodes only forget
  /// what they remember of the variable.
  bool owner = false;

  std::string ToText() const;
  /// Returns: false for a text that is no such entry.
  static bool FromText(const std::string& text, ReclaimEntry& entry);
};

}  // namespace vyn::services
