#pragma once

// Reads a file of key=value lines into an ordered table of pairs.
//
//   # a comment              "#" is the first character that is not a blank
//   key = value              blanks (0x20 only) around key and value are dropped
//   key = other=value        the first "=" separates
//   path = ${VYN_HOME}/x     the variable's value replaces ${VYN_HOME} and the text before it, but only the
//                            marker itself for ${VYN_BINARY_TYPE} and ${VYN_VERSION}
//
// A key that appears again takes the last value and keeps its first position. Lines without "=" or without a
// key are skipped. Any thread may call any operation.

#include "platform/sync/mutex.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace vyn::common {

struct KvPairs {
  std::string key;
  std::string value;
};

/// What one line of a file is.
enum class KVLine {
  kBlank,
  kComment,
  kNoSeparator,  ///< text without "="; skipped
  kNoKey,        ///< "=" with nothing before it; skipped
  kPair,
};

class KVParser {
 public:
  KVParser() = default;

  /// Adds the pairs of the regular file at `path`, a path of fewer than 4096 characters. The file may have no
  /// pair. Returns: whether the file was read to its end. Pairs read before a failure stay.
  bool FromFile(const std::string& path);
  /// Adds a pair, or replaces the value of a known key. Returns: false without memory.
  bool SetItem(const std::string& key, const std::string& value);
  /// Copies the value of `key` into `value`. Returns: whether `key` is known.
  bool GetItem(const std::string& key, std::string& value);
  /// Returns: the number of pairs.
  unsigned int Size();
  /// Copies pair number `index`, counted from 0 in the order of first appearance. Past the end, changes
  /// nothing.
  void GetI(unsigned int index, std::string& key, std::string& value);
  /// Prints "key = value" lines to standard output.
  void Dump();

  /// Parses one line. For a pair, fills `key` and `value`, with the markers in the value replaced; otherwise
  /// leaves both unchanged.
  static KVLine ParseLine(std::string line, std::string& key, std::string& value);

 private:
  bool SetItemLocked(const std::string& key, const std::string& value) VYN_REQUIRES(mLock);

  std::map<std::string, std::uint32_t> mItemMap VYN_GUARDED_BY(mLock);
  std::vector<std::unique_ptr<KvPairs>> mItems VYN_GUARDED_BY(mLock);
  sync::Mutex mLock;
};

}  // namespace vyn::common
