// The requests of a session that move an object's bytes.

#include "platform/fabric/node/session.h"
#include "platform/fabric/protocol/file_io.h"
#include "platform/fabric/protocol/names.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

namespace vyn::bm {

namespace {

/// Whether `length` bytes at `offset` lie in an object of `size` bytes.
bool InRange(std::uint64_t offset, std::uint64_t length, std::uint64_t size) {
  return offset <= size && length <= size - offset;
}

}  // namespace

bool Session::Read(Exchange& exchange, Reader& arguments) {
  const ObjectName object = GetObject(arguments);
  const auto offset = arguments.Get<std::uint64_t>();
  const auto rest = arguments.Get<std::uint64_t>();
  const auto length = arguments.Get<std::uint32_t>();
  if (!arguments.Complete() || !IsObjectId(object.id) || length > kMaxDataLength || length > rest) {
    return false;
  }
  std::shared_ptr<RemoteNode> other;
  FileDescriptor file;
  std::uint64_t size = 0;
  int result = Route(OwnerOf(object.id), other);
  if (result == 0 && other != nullptr) {
    return ForwardRead(exchange, *other, object, offset, length, rest - length);
  }
  result = result == 0 ? EnterAndOpen(object, false, file, size) : result;
  if (result == 0 && !InRange(offset, rest, size)) {
    result = kBmLocalError;
  }
  // Who has the object for writing can make its file smaller; in the middle of an answer that would end the
  // connection.
  struct stat state {};
  if (result == 0 && (::fstat(file.Get(), &state) != 0 ||
                      !InRange(offset, length, static_cast<std::uint64_t>(state.st_size)))) {
    result = Seen(-EIO);
  }
  return result != 0 ? exchange.Answer(result) : exchange.AnswerFile(file.Get(), offset, length);
}

bool Session::ForwardRead(Exchange& exchange, RemoteNode& other, const ObjectName& object,
                          std::uint64_t offset, std::uint32_t length, std::uint64_t beyond) {
  const std::unique_ptr<char[]> data(new char[length]);
  const int result = other.Read(object, offset, length, data.get(), beyond);
  return result != 0 ? exchange.Answer(result) : exchange.AnswerData(data.get(), length);
}

bool Session::Write(Exchange& exchange, Reader& arguments) {
  const ObjectName object = GetObject(arguments);
  auto offset = arguments.Get<std::uint64_t>();
  const auto rest = arguments.Get<std::uint64_t>();
  if (!arguments.Complete() || !IsObjectId(object.id) || exchange.DataLength() > rest) {
    return false;
  }
  std::shared_ptr<RemoteNode> other;
  FileDescriptor file;
  std::uint64_t size = 0;
  int result = Route(OwnerOf(object.id), other);
  if (result == 0 && other != nullptr) {
    return ForwardWrite(exchange, *other, object, offset, rest - exchange.DataLength());
  }
  result = result == 0 ? EnterAndOpen(object, true, file, size) : result;
  if (result == 0 && !InRange(offset, rest, size)) {
    result = kBmLocalError;
  }
  if (result == 0) {
    const bool received = exchange.ReceiveData([&](const char* data, std::size_t length) {
      result = WriteFile(file.Get(), data, length, offset) ? 0 : Seen(-EIO);
      offset += length;
      return result == 0;
    });
    if (!received) {
      return false;
    }
  }
  return exchange.Answer(result);
}

bool Session::ForwardWrite(Exchange& exchange, RemoteNode& other, const ObjectName& object,
                           std::uint64_t offset, std::uint64_t beyond) {
  const std::uint32_t length = exchange.DataLength();
  const std::unique_ptr<char[]> data(new char[length]);
  std::size_t filled = 0;
  const bool received = exchange.ReceiveData([&](const char* block, std::size_t count) {
    std::copy_n(block, count, data.get() + filled);
    filled += count;
    return true;
  });
  return received && exchange.Answer(other.Write(object, offset, length, data.get(), beyond));
}

bool Session::Copy(Exchange& exchange, Reader& arguments) {
  const ObjectName source = GetObject(arguments);
  const auto sourceOffset = arguments.Get<std::uint64_t>();
  const ObjectName destination = GetObject(arguments);
  const auto destinationOffset = arguments.Get<std::uint64_t>();
  const auto length = arguments.Get<std::uint64_t>();
  if (!arguments.Complete() || !IsObjectId(source.id) || !IsObjectId(destination.id) ||
      OwnerOf(source.id) != OwnerOf(destination.id)) {
    return false;
  }
  std::shared_ptr<RemoteNode> other;
  int result = Route(OwnerOf(source.id), other);
  if (result == 0 && other != nullptr) {
    return exchange.Answer(other->Copy(source, sourceOffset, destination, destinationOffset, length,
                                       [&exchange] { return exchange.Progress(); }));
  }
  FileDescriptor from;
  FileDescriptor to;
  std::uint64_t fromSize = 0;
  std::uint64_t toSize = 0;
  result = result == 0 ? EnterAndOpen(source, false, from, fromSize) : result;
  result = result == 0 ? EnterAndOpen(destination, true, to, toSize) : result;
  if (result == 0 &&
      (!InRange(sourceOffset, length, fromSize) || !InRange(destinationOffset, length, toSize))) {
    result = kBmLocalError;
  }
  if (result == 0 && !CopyFile(from.Get(), sourceOffset, to.Get(), destinationOffset, length,
                               exchange.Buffer(), [&exchange] { return exchange.Progress(); })) {
    result = Seen(-EIO);
  }
  return exchange.Answer(result);
}

}  // namespace vyn::bm
