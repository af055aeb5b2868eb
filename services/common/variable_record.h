#pragma once

// The record of one variable in ZooKeeper: a line of JSON, a line feed, and the serialised block list, which
// continues in children of the record when it is longer than one znode takes (zookeeper_layout.h). The line
// names the children, and a list that is written anew goes to new ones, so that the write of the record's own
// znode changes all of it at once.

#include "tessel/message/broadcast/broadcast_messages.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace vyn::services {

/// The bytes of a block list that one znode takes: ZooKeeper refuses packets of a megabyte.
inline constexpr std::size_t kRecordPieceSize = 512 * 1024;

enum class RecordState {
  kNew,      ///< made, its blocks are not known
  kReady,    ///< with its blocks
  kDeleted,  ///< deleted; the record stays until its node has freed the blocks
};

struct VariableRecord {
  RecordState state = RecordState::kNew;
  std::uint32_t blockNum = 0;
  std::uint32_t pieces = 0;           ///< of the block list, the first one included
  std::string list;                   ///< names the children, see PiecePath
  tessel::BroadcastBlockInfo blocks;  ///< empty while the state is kNew
};

/// The line in front of the block list.
std::string RecordHeader(RecordState state, std::uint32_t blockNum, std::uint32_t pieces,
                         const std::string& list = "");
/// Where piece `index` of a list is, from 1 on.
std::string PiecePath(const std::string& record, const std::string& list, std::uint32_t index);
/// `text` without its line.
std::string RecordBody(const std::string& text);

enum class RecordRead {
  kRead,
  kAbsent,   ///< there is no such record
  kDamaged,  ///< it cannot be read; the log tells why
  kFailed,   ///< ZooKeeper did not answer; the log tells why
};

/// Reads the record at `path` with all its pieces.
RecordRead ReadVariableRecord(const std::string& path, VariableRecord& record);

}  // namespace vyn::services
