// The requests of a session that move an object's bytes.

#include "platform/fabric/node/fabric_session.h"
#include "platform/fabric/node/pool/file_state.h"
#include "platform/fabric/protocol/names.h"
#include "platform/fabric/transport/file_io.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

namespace vyn::fabric {

namespace {

/// Whether `length` bytes at `offset` lie in an object of `size` bytes.
bool InRange(std::uint64_t offset, std::uint64_t length, std::uint64_t size) {
  return offset <= size && length <= size - offset;
}

}  // namespace

int FabricSession::OpenLocal(const ObjectName& object, bool writable, net::Descriptor& file,
                             std::uint64_t& size) const {
  return InNamespace(object.access, [&](const NamespacePtr& space) {
    return mParts.pool.OpenObject(space, object.id, writable, file, size);
  });
}

int FabricSession::OpenRange(const ObjectName& object, bool writable, std::uint64_t offset,
                             std::uint64_t length, net::Descriptor& file) const {
  std::uint64_t size = 0;
  const int result = OpenLocal(object, writable, file, size);
  return result == 0 && !InRange(offset, length, size) ? kBmLocalError : result;
}

bool FabricSession::Read(ServerCall& call, Reader& arguments) {
  const ObjectName object = ReadObjectName(arguments);
  const auto offset = arguments.Get<std::uint64_t>();
  const auto rest = arguments.Get<std::uint64_t>();
  const auto length = arguments.Get<std::uint32_t>();
  if (!arguments.Complete() || !IsObjectId(object.id) || length > kMaxDataLength || length > rest) {
    return false;
  }
  std::unique_ptr<char[]> data;  // the bytes, when another node is the owner
  net::Descriptor file;          // the object, when this node is
  const int result = Forward(
      OwnerOf(object.id),
      [&](const NodePtr& other) {
        data.reset(new char[length]);
        return other->Read(object, offset, length, data.get(), rest - length);
      },
      [&] {
        const int refusal = OpenRange(object, false, offset, rest, file);
        if (refusal != 0) {
          return refusal;
        }
        // A client that has the object open for writing can make its file shorter. We look now: found in the
        // middle of the answer, the missing bytes would end the connection.
        struct stat state {};
        const bool whole = ::fstat(file.Get(), &state) == 0 &&
                           InRange(offset, length, static_cast<std::uint64_t>(state.st_size));
        return whole ? 0 : -EIO;
      });
  if (result != 0) {
    return call.Answer(result);
  }
  return data != nullptr ? call.AnswerData(data.get(), length) : call.AnswerFile(file.Get(), offset, length);
}

bool FabricSession::Write(ServerCall& call, Reader& arguments) {
  const ObjectName object = ReadObjectName(arguments);
  const auto offset = arguments.Get<std::uint64_t>();
  const auto rest = arguments.Get<std::uint64_t>();
  const std::uint32_t length = call.DataLength();
  if (!arguments.Complete() || !IsObjectId(object.id) || length > rest) {
    return false;
  }
  bool received = true;
  const int result = Forward(
      OwnerOf(object.id),
      [&](const NodePtr& other) {
        const std::unique_ptr<char[]> data(new char[length]);
        std::size_t filled = 0;
        received = call.ReceiveData([&](const char* block, std::size_t count) {
          std::copy_n(block, count, data.get() + filled);
          filled += count;
          return true;
        });
        return received ? other->Write(object, offset, length, data.get(), rest - length) : 0;
      },
      [&] {
        net::Descriptor file;
        int outcome = OpenRange(object, true, offset, rest, file);
        if (outcome == 0) {
          std::uint64_t position = offset;
          received = call.ReceiveData([&](const char* block, std::size_t count) {
            outcome = WriteFile(file.Get(), block, count, position) ? 0 : -EIO;
            position += count;
            return outcome == 0;
          });
          NewStamp(file.Get());  // the kernel's own is as coarse as its clock tick
        }
        return outcome;
      });
  return received && call.Answer(result);
}

bool FabricSession::Copy(ServerCall& call, Reader& arguments) {
  const ObjectName source = ReadObjectName(arguments);
  const auto sourceOffset = arguments.Get<std::uint64_t>();
  const ObjectName destination = ReadObjectName(arguments);
  const auto destinationOffset = arguments.Get<std::uint64_t>();
  const auto length = arguments.Get<std::uint64_t>();
  if (!arguments.Complete() || !IsObjectId(source.id) || !IsObjectId(destination.id) ||
      OwnerOf(source.id) != OwnerOf(destination.id)) {
    return false;
  }
  const auto progress = [&call] { return call.SendProgress(); };
  return call.Answer(Forward(
      OwnerOf(source.id),
      [&](const NodePtr& other) {
        return other->Copy(source, sourceOffset, destination, destinationOffset, length, progress);
      },
      [&] {
        net::Descriptor from;
        net::Descriptor to;
        std::uint64_t fromSize = 0;
        std::uint64_t toSize = 0;
        int result = OpenLocal(source, false, from, fromSize);
        if (result == 0) {
          result = OpenLocal(destination, true, to, toSize);
        }
        if (result != 0) {
          return result;
        }
        if (!InRange(sourceOffset, length, fromSize) || !InRange(destinationOffset, length, toSize)) {
          return kBmLocalError;
        }
        const bool copied =
            CopyFile(from.Get(), sourceOffset, to.Get(), destinationOffset, length, call.Buffer(), progress);
        NewStamp(to.Get());
        return copied ? 0 : -EIO;
      }));
}

}  // namespace vyn::fabric
