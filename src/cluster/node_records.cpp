#include "cluster/node_records.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace vyn::cluster {

namespace {

static_assert(std::endian::native == std::endian::little, "the records are read and written as they stand");

struct NodeBytes {
  std::uint32_t unused = 0;
  std::uint32_t linkPort = 0;
  char address[16] = {};
  char hostName[64] = {};
};
static_assert(sizeof(NodeBytes) == kNodeRecordSize);

struct CapacityBytes {
  std::uint64_t size = 0;
  std::uint64_t free = 0;
  std::uint64_t time = 0;
};
static_assert(sizeof(CapacityBytes) == kCapacityRecordSize);

/// Copies `text` and leaves at least the last byte NUL.
template <std::size_t kSize>
void PutText(const std::string& text, char (&field)[kSize]) {
  std::memcpy(field, text.data(), std::min(text.size(), kSize - 1));
}

template <std::size_t kSize>
std::string GetText(const char (&field)[kSize]) {
  return {field, strnlen(field, kSize)};
}

template <typename Bytes>
std::string ToString(const Bytes& bytes) {
  return {reinterpret_cast<const char*>(&bytes), sizeof(bytes)};
}

template <typename Bytes>
void Overwrite(std::string_view value, Bytes& bytes) {
  std::memcpy(&bytes, value.data(), std::min(value.size(), sizeof(bytes)));
}

NodeBytes ToBytes(const NodeRecord& record) {
  NodeBytes bytes;
  bytes.linkPort = record.linkPort;
  PutText(record.address, bytes.address);
  PutText(record.hostName, bytes.hostName);
  return bytes;
}

}  // namespace

std::string NodeRecord::Encode() const { return ToString(ToBytes(*this)); }

void NodeRecord::Decode(std::string_view value) {
  NodeBytes bytes = ToBytes(*this);
  Overwrite(value, bytes);
  linkPort = bytes.linkPort;
  address = GetText(bytes.address);
  hostName = GetText(bytes.hostName);
}

std::string CapacityRecord::Encode() const { return ToString(CapacityBytes{size, free, time}); }

void CapacityRecord::Decode(std::string_view value) {
  CapacityBytes bytes{size, free, time};
  Overwrite(value, bytes);
  size = bytes.size;
  free = bytes.free;
  time = bytes.time;
}

}  // namespace vyn::cluster
