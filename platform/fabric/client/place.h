#pragma once

// Where an object's bytes are reached: in a file of this machine's pool, whose descriptor the broker has
// handed over, or at a node, through frames. Used by one thread, for one call.

#include "platform/fabric/protocol/remote_node.h"

#include <cstdint>
#include <memory>

namespace vyn::bm {

class Place {
 public:
  Place() = default;
  /// A file with an object of `size` bytes.
  Place(FileDescriptor file, std::uint64_t size) : mFile(std::move(file)), mSize(size) {}
  /// At `node`. The texts behind `name` must outlive this.
  Place(std::shared_ptr<RemoteNode> node, const ObjectName& name) : mNode(std::move(node)), mName(name) {}

  /// Bytes into and out of `buffer`. `beyond`: see RemoteNode. Returns: 0, kBmLocalError for a range that
  /// does not lie in the object, or a node's result.
  int Read(std::uint64_t offset, std::uint64_t length, void* buffer, std::uint64_t beyond = 0);
  int Write(std::uint64_t offset, std::uint64_t length, const void* buffer, std::uint64_t beyond = 0);
  /// Whether the range lies in the object. Returns: 0, kBmLocalError, or a node's result.
  int CheckRange(std::uint64_t offset, std::uint64_t length);
  /// `length` bytes of an open file, from `fileOffset` on, to the object's beginning.
  int Fill(int file, std::uint64_t fileOffset, std::uint64_t length);

  /// Copies between two places; ranges of one object may overlap.
  static int Copy(Place& source, std::uint64_t sourceOffset, Place& destination,
                  std::uint64_t destinationOffset, std::uint64_t length);

 private:
  bool InRange(std::uint64_t offset, std::uint64_t length) const {
    return offset <= mSize && length <= mSize - offset;
  }

  FileDescriptor mFile;  // valid: the object is in it
  std::uint64_t mSize = 0;
  std::shared_ptr<RemoteNode> mNode;  // otherwise it is there
  ObjectName mName;
};

}  // namespace vyn::bm
