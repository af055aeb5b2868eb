#pragma once

// The record of one variable in ZooKeeper: a header line of JSON, a line feed, and the serialised block list.
// A list that is too long for one znode continues in children of the record (zookeeper_layout.h). The header
// names the children. A new list goes into new children, so the final write of the record's own znode
// replaces the whole list atomically.
//
// No shared state: any thread may call any function.

#include "tessel/message/broadcast/broadcast_messages.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace vyn::services {

/// The most bytes of a block list in one znode. ZooKeeper refuses packets of a megabyte.
inline constexpr std::size_t kRecordPieceSize = 512 * 1024;

enum class RecordState {
  kNew,      ///< created, its blocks are not known yet
  kReady,    ///< its blocks are known
  kDeleted,  ///< a tombstone, which stays until the owner has freed the blocks
};

struct VariableRecord {
  RecordState state = RecordState::kNew;
  std::uint32_t blockNum = 0;
  std::uint32_t pieces = 0;           ///< how many pieces the block list has, including the first
  std::string list;                   ///< part of the children's names, see PiecePath
  std::string writer;                 ///< see Variable::writer; of kNew only
  tessel::BroadcastBlockInfo blocks;  ///< empty while the state is kNew
};

/// Returns: the header line.
std::string RecordHeader(RecordState state, std::uint32_t blockNum, std::uint32_t pieces,
                         const std::string& list = "", const std::string& writer = "");
/// Returns: the path of piece `index` of a list. Piece 0 is in the record's own znode and has no path.
std::string PiecePath(const std::string& record, const std::string& list, std::uint32_t index);
/// Returns: `text` without its header line.
std::string RecordBody(const std::string& text);

enum class RecordRead {
  kRead,
  kAbsent,      ///< there is no such record
  kDamaged,     ///< its contents are invalid; the log has the reason
  kNewer,       ///< a newer build has written it, in a format that this build cannot read
  kFailed,      ///< ZooKeeper refused to read it; the log has the reason
  kUnanswered,  ///< ZooKeeper did not answer
};

/// Reads the record at `path` with all its pieces.
RecordRead ReadVariableRecord(const std::string& path, VariableRecord& record);

}  // namespace vyn::services
