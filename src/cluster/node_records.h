#pragma once

// The two binary records of a node of the memory fabric in ZooKeeper, little-endian. The node writes them, everybody else
// reads them.
//
//   /mf/node/<node id>      88 bytes: 4 unused, 4 link port, 16 address, 64 host name; both texts end in NUL
//   /mf/capacity/<node id>  24 bytes: 8 size of the pool, 8 free bytes of it, 8 seconds since the epoch
//
// Threads: any.

#include <cstdint>
#include <string>
#include <string_view>

namespace vyn::cluster {

inline constexpr int kNodeRecordSize = 88;
inline constexpr int kCapacityRecordSize = 24;

struct NodeRecord {
  std::uint32_t linkPort = 0;
  std::string address;   ///< at most 15 bytes are written
  std::string hostName;  ///< at most 63 bytes are written

  std::string Encode() const;
  /// Reads `bytes` over what the record holds: of a shorter value it keeps the rest.
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
