#pragma once

// Where an object's bytes can be reached: in a file of this machine's pool, whose descriptor the broker has
// sent, or at a node, by requests. Used by one thread, for one call.

#include "platform/fabric/protocol/remote_node.h"

#include <cstdint>
#include <memory>

namespace vyn::fabric {

class ObjectLocation {
 public:
  ObjectLocation() = default;
  /// In a file, with `size` bytes.
  ObjectLocation(net::Descriptor file, std::uint64_t size) : mFile(std::move(file)), mSize(size) {}
  /// At `node`. The texts that `name` refers to must outlive this.
  ObjectLocation(std::shared_ptr<RemoteNode> node, const ObjectName& name)
      : mNode(std::move(node)), mName(name) {}

  /// Bytes into and out of `buffer`. `beyond`: see RemoteNode. Returns: 0, kBmLocalError for a range that
  /// does not lie in the object, or a node's result.
  int Read(std::uint64_t offset, std::uint64_t length, void* buffer, std::uint64_t beyond = 0);
  int Write(std::uint64_t offset, std::uint64_t length, const void* buffer, std::uint64_t beyond = 0);
  /// The first `length` bytes of the object. When these are the whole object and it is at a node, they are
  /// compared with that node's checksum and read once more if they differ. Returns also -EBADMSG, when they
  /// differ twice though nobody writes.
  int ReadChecked(std::uint64_t length, void* buffer);
  /// Whether the range lies in the object. Returns: 0, kBmLocalError, or a node's result.
  int CheckRange(std::uint64_t offset, std::uint64_t length);
  /// `length` bytes of an open file, from `fileOffset` on, to the object's beginning.
  int Fill(int file, std::uint64_t fileOffset, std::uint64_t length);

  /// Copies between two locations; ranges of one object may overlap.
  static int Copy(ObjectLocation& source, std::uint64_t sourceOffset, ObjectLocation& destination,
                  std::uint64_t destinationOffset, std::uint64_t length);

 private:
  bool InRange(std::uint64_t offset, std::uint64_t length) const {
    return offset <= mSize && length <= mSize - offset;
  }

  net::Descriptor mFile;  // valid when the object is in a file of this machine
  std::uint64_t mSize = 0;
  std::shared_ptr<RemoteNode> mNode;  // otherwise the node to call
  ObjectName mName;
};

}  // namespace vyn::fabric
