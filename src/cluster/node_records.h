#pragma once

// The two binary records that ZooKeeper holds about a node of the memory fabric, little-endian. Each vynd
// writes those of its own node.
//
//   /mf/node/<node id>      88 bytes: 4 unused, 4 link port, 16 address, 64 host name; both texts end in NUL
//   /mf/capacity/<node id>  24 bytes: 8 size of the pool, 8 free bytes of it, 8 Unix time in seconds
//
// No shared state: an object belongs to one thread.

#include <cstdint>
#include <string>
#include <string_view>

namespace vyn::cluster {

inline constexpr int kNodeRecordSize = 88;
inline constexpr int kCapacityRecordSize = 24;

struct NodeRecord {
  std::uint32_t linkPort = 0;
  std::string address;   ///< Encode writes at most 15 bytes
  std::string hostName;  ///< Encode writes at most 63 bytes

  std::string Encode() const;
  /// Replaces the members by those in `bytes`. Shorter `bytes` leave the rest unchanged; longer ones are cut.
  void Decode(std::string_view bytes);
};

struct CapacityRecord {
  std::uint64_t size = 0;
  std::uint64_t free = 0;
  std::uint64_t time = 0;

  std::string Encode() const;
  /// As NodeRecord::Decode.
  void Decode(std::string_view bytes);
};

}  // namespace vyn::cluster
