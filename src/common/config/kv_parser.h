#pragma once

// Reads a file of key=value lines into an ordered table of pairs.
//
//   # a comment: "#" in the first column that is not blank
//   key = value            blanks (0x20 only) around key and value are dropped
//   key = other=value        the first "=" separates; a key that stands twice takes the last value in the
//                            first place
//   path = ${VYN_HOME}/x     ${VYN_HOME} drops what stands before it; ${VYN_BINARY_TYPE} and ${VYN_VERSION}
//                            keep it
//
// Lines without "=" or without a key are skipped. Every operation may be called from any thread.

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
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

  /// Adds the pairs of the file at `path`, which must have less than 4096 characters and exist. A file
  /// without a pair is fine. Returns: whether it could be read to its end; what was read before a failure
  /// stays.
  bool FromFile(const std::string& path);
  /// Adds a pair, or replaces the value of a known key. Returns: false without memory.
  bool SetItem(const std::string& key, const std::string& value);
  /// Returns: whether `key` is known; if so `value` takes a copy.
  bool GetItem(const std::string& key, std::string& value);
  /// Returns: the number of pairs.
  unsigned int Size();
  /// Copies pair number `index`, counted from 0 in the order of first appearance. Past the end nothing is
  /// changed.
  void GetI(unsigned int index, std::string& key, std::string& value);
  /// Prints "key = value" lines to standard output.
  void Dump();

  /// The line format by itself. For a pair, `key` and `value` take its two texts, the markers of the value
  /// replaced; otherwise they are untouched.
  static KVLine ParseLine(std::string line, std::string& key, std::string& value);

 private:
  /// Requires: mLock is held.
  bool SetItemLocked(const std::string& key, const std::string& value);
  std::map<std::string, std::uint32_t> mItemMap;  // guarded by mLock
  std::vector<std::unique_ptr<KvPairs>> mItems;   // guarded by mLock
  std::mutex mLock;
};

}  // namespace vyn::common
