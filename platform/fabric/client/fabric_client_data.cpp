// The client's calls that reach an object's bytes.

#include "platform/fabric/client/arguments.h"
#include "platform/fabric/client/fabric_client.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace vyn::fabric {

namespace {

/// Reads of fewer bytes are not checked: asking for the checksum would take longer than the read.
constexpr std::uint64_t kCheckedLength = 64U << 10U;

/// The result of a transfer between several locations. \param remoteError stands for a failure of a remote
/// node, which a plain read or write reports as kBmRemoteFailed.
int Transferred(int result, int remoteError) { return result == kBmRemoteFailed ? remoteError : result; }

bool IsProtection(int protection) { return protection > PROT_NONE && protection <= (PROT_READ | PROT_WRITE); }

int GetPieces(const BmGatherContext* list, std::vector<BmGatherPiece>& pieces, std::uint64_t& total) {
  if (list == nullptr || list->type != kBmGatherPieces || list->size % sizeof(BmGatherPiece) != 0) {
    return kBmLocalError;
  }
  pieces.resize(list->size / sizeof(BmGatherPiece));
  if (!pieces.empty()) {
    std::memcpy(pieces.data(), list + 1, list->size);
  }
  total = 0;
  for (const BmGatherPiece& piece : pieces) {
    std::string_view id;
    if (piece.bmId[kIdLength] != '\0' || ParseObjectId(piece.bmId, id) != 0 || total + piece.length < total) {
      return kBmLocalError;
    }
    total += piece.length;
  }
  return 0;
}

}  // namespace

int FabricClient::OpenFile(const BmSecContext* context, ObjectName& object, bool& writable,
                           net::Descriptor& file, std::uint64_t& size) {
  if (const int result = ParseObjectName(context, object); result != 0) {
    return result;
  }
  NodePtr broker;
  {
    sync::MutexLock lock(mMutex);
    broker = mBroker;
  }
  return broker == nullptr ? kBmLocalError : broker->Open(object, writable, file, size);
}

int FabricClient::Map(const BmSecContext* context, int protection, int flags, void** address) {
  if (address == nullptr || flags != MAP_SHARED || !IsProtection(protection)) {
    return kBmLocalError;
  }
  ObjectName object;
  bool writable = (protection & PROT_WRITE) != 0;
  net::Descriptor file;
  std::uint64_t size = 0;
  if (const int result = OpenFile(context, object, writable, file, size); result != 0) {
    return result;
  }
  // An empty object gets an address, too: mmap refuses a length of 0.
  const std::size_t length = std::max<std::uint64_t>(size, 1);
  void* mapped = ::mmap(nullptr, length, PROT_READ | (writable ? PROT_WRITE : 0), MAP_SHARED, file.Get(), 0);
  if (mapped == MAP_FAILED) {
    return kBmLocalError;
  }
  mMappings.Add(mapped, object.id, length);
  *address = mapped;
  return 0;
}

int FabricClient::MapAt(const BmSecContext* context, int protection, void* address, std::uint64_t length) {
  if (address == nullptr || !IsProtection(protection)) {
    return kBmLocalError;
  }
  ObjectName object;
  const bool wanted = (protection & PROT_WRITE) != 0;
  bool writable = wanted;
  net::Descriptor file;
  std::uint64_t size = 0;
  if (const int result = OpenFile(context, object, writable, file, size); result != 0) {
    return result;
  }
  if (size != length || length == 0) {
    return -ERANGE;
  }
  if (wanted && !writable) {
    return -EACCES;
  }
  return ::mmap(address, length, protection, MAP_SHARED | MAP_FIXED, file.Get(), 0) == MAP_FAILED
             ? kBmLocalError
             : 0;
}

int FabricClient::Unmap(const char* id, void* address) {
  std::string_view text;
  return ParseObjectId(id, text) != 0 || address == nullptr ? kBmLocalError : mMappings.Remove(address, text);
}

int FabricClient::MappedLength(const char* id, const void* address, std::uint64_t* length) {
  std::string_view text;
  if (ParseObjectId(id, text) != 0 || length == nullptr) {
    return kBmLocalError;
  }
  *length = mMappings.LengthOf(address, text);
  return *length == 0 ? kBmLocalError : 0;
}

int FabricClient::Locate(const ObjectName& object, bool writable, ObjectLocation& place) {
  NodePtr node;
  bool local = false;
  if (const int result = Route(OwnerOf(object.id), node, local); result != 0) {
    return result;
  }
  if (!local) {
    place = ObjectLocation(std::move(node), object);
    return 0;
  }
  net::Descriptor file;
  std::uint64_t size = 0;
  if (const int result = node->Open(object, writable, file, size); result != 0) {
    return result;
  }
  place = ObjectLocation(std::move(file), size);
  return 0;
}

int FabricClient::Locate(const BmSecContext* context, bool writable, ObjectName& object,
                         ObjectLocation& place) {
  const int refused = ParseObjectName(context, object);
  return refused != 0 ? refused : Locate(object, writable, place);
}

int FabricClient::LocateRange(const ObjectName& object, std::uint64_t offset, std::uint64_t length,
                              bool writable, ObjectLocation& place) {
  const int result = Locate(object, writable, place);
  return result != 0 ? result : place.CheckRange(offset, length);
}

int FabricClient::Read(const BmSecContext* context, std::uint64_t offset, std::uint64_t length,
                       void* buffer) {
  if (buffer == nullptr && length > 0) {
    return kBmLocalError;
  }
  ObjectName object;
  ObjectLocation place;
  if (const int result = Locate(context, false, object, place); result != 0) {
    return result;
  }
  return offset == 0 && length >= kCheckedLength ? place.ReadChecked(length, buffer)
                                                 : place.Read(offset, length, buffer);
}

int FabricClient::Write(const BmSecContext* context, std::uint64_t offset, std::uint64_t length,
                        const void* buffer) {
  if (buffer == nullptr && length > 0) {
    return kBmLocalError;
  }
  ObjectName object;
  ObjectLocation place;
  const int result = Locate(context, true, object, place);
  return result != 0 ? result : place.Write(offset, length, buffer);
}

int FabricClient::Copy(const BmSecContext* source, std::uint64_t sourceOffset,
                       const BmSecContext* destination, std::uint64_t destinationOffset,
                       std::uint64_t length) {
  ObjectName from;
  if (const int refused = ParseObjectName(source, from); refused != 0) {
    return refused;
  }
  ObjectName to;
  ObjectLocation fromLocation;
  ObjectLocation toLocation;
  if (const int refused = ParseObjectName(destination, to); refused != 0) {
    return refused;
  }
  if (const int result = Locate(from, false, fromLocation); result != 0) {
    return result;
  }
  if (const int result = Locate(to, true, toLocation); result != 0) {
    return result;
  }
  return ObjectLocation::Copy(fromLocation, sourceOffset, toLocation, destinationOffset, length);
}

int FabricClient::SwapIn(const BmFileRecord* file, const BmBlockRecord* block, std::uint64_t length) {
  if (file == nullptr || block == nullptr || file->name == nullptr || file->length > length) {
    return kBmLocalError;
  }
  ObjectName object;
  const BmSecContext context{block->bmId, block->ns, block->token};
  if (const int result = ParseObjectName(&context, object); result != 0) {
    return result;
  }
  // A file of another node cannot be opened here; a negative number means this machine.
  if (file->node >= 0) {
    std::uint16_t own = 0;
    if (const int unknown = LocalNode(own); unknown != 0) {
      return unknown;
    }
    if (file->node != own) {
      return kBmLocalError;
    }
  }
  const net::Descriptor opened(::open(file->name, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat state {};
  if (!opened || ::fstat(opened.Get(), &state) != 0 || !S_ISREG(state.st_mode)) {
    return kBmLocalError;
  }
  const auto size = static_cast<std::uint64_t>(state.st_size);
  if (file->offset > size || file->length > size - file->offset) {
    return kBmLocalError;
  }
  ObjectLocation place;
  int result = Locate(object, true, place);
  if (result == 0) {
    result = place.Fill(opened.Get(), file->offset, file->length);
  }
  return Transferred(result, kBmRemoteSwapInError);
}

int FabricClient::Gather(const BmGatherContext* list, unsigned int flags, const BmSecContext* destination) {
  std::vector<BmGatherPiece> pieces;
  std::uint64_t total = 0;
  if (const int result = GetPieces(list, pieces, total); result != 0) {
    return result;
  }
  ObjectName object;
  if (flags == kGatherExisting) {
    const int refused = ParseObjectName(destination, object);
    return refused != 0 ? refused : Transferred(GatherPieces(pieces, object), kBmRemoteTransferError);
  }
  if (flags != kGatherNew || destination == nullptr || destination->bmId == nullptr) {
    return kBmLocalError;
  }
  if (const int refused = ParseAccess(destination->ns, destination->token, object.access); refused != 0) {
    return refused;
  }
  std::uint16_t where = 0;
  if (const int unknown = LocalNode(where); unknown == kBmLocalError) {  // outside the fabric
    if (pieces.empty()) {
      return kBmLocalError;
    }
    where = OwnerOf(pieces.front().bmId);
  } else if (unknown != 0) {
    return unknown;
  }
  std::string id;
  if (const int result = AllocateAt(where, object.access, total, id); result != 0) {
    return result;
  }
  object.id = id;
  if (const int result = GatherPieces(pieces, object); result != 0) {
    FreeObject(object);
    return Transferred(result, kBmRemoteTransferError);
  }
  std::memcpy(const_cast<char*>(destination->bmId), id.c_str(), id.size() + 1);
  return 0;
}

int FabricClient::GatherPieces(const std::vector<BmGatherPiece>& pieces, const ObjectName& destination) {
  const auto nameOf = [&destination](const BmGatherPiece& piece) {
    return ObjectName{destination.access, {piece.bmId, kIdLength}};
  };
  // All pieces are checked before the first is copied: a refused gather has changed nothing.
  std::uint64_t total = 0;
  for (const BmGatherPiece& piece : pieces) {
    ObjectLocation from;
    if (const int result = LocateRange(nameOf(piece), piece.offset, piece.length, false, from); result != 0) {
      return result;
    }
    total += piece.length;
  }
  ObjectLocation to;
  if (const int result = LocateRange(destination, 0, total, true, to); result != 0) {
    return result;
  }
  std::uint64_t offset = 0;
  for (const BmGatherPiece& piece : pieces) {
    ObjectLocation from;
    int result = Locate(nameOf(piece), false, from);
    if (result == 0) {
      result = ObjectLocation::Copy(from, piece.offset, to, offset, piece.length);
    }
    if (result != 0) {
      return result;
    }
    offset += piece.length;
  }
  return 0;
}

}  // namespace vyn::fabric
