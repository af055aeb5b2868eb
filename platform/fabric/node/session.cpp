#include "platform/fabric/node/session.h"

#include "platform/fabric/protocol/names.h"

#include <cerrno>

namespace vyn::bm {

namespace {

/// How long after its answer an allocation is undone by a reset: longer than any caller waits for the answer.
constexpr std::chrono::seconds kFreshTime{30};

}  // namespace

bool Session::Handle(Exchange& exchange, Reader& arguments) {
  mFresh.reset();
  if (!mGreeted) {
    return exchange.What() == Operation::kHello && Hello(exchange, arguments);
  }
  switch (exchange.What()) {
    case Operation::kHello:
      return false;
    case Operation::kQuery:
      return Query(exchange, arguments);
    case Operation::kCreateNamespace:
      return CreateNamespace(exchange, arguments);
    case Operation::kDestroyNamespace:
      return DestroyNamespace(exchange, arguments);
    case Operation::kAllocate:
      return Allocate(exchange, arguments);
    case Operation::kExpand:
      return Expand(exchange, arguments);
    case Operation::kFree:
      return Free(exchange, arguments);
    case Operation::kFreeBatch:
      return FreeBatch(exchange, arguments);
    case Operation::kOpen:
      return Open(exchange, arguments);
    case Operation::kStat:
      return Stat(exchange, arguments);
    case Operation::kRead:
      return Read(exchange, arguments);
    case Operation::kWrite:
      return Write(exchange, arguments);
    case Operation::kCopy:
      return Copy(exchange, arguments);
    case Operation::kExist:
      return Exist(exchange, arguments);
  }
  return false;
}

int Session::Route(std::uint16_t owner, std::shared_ptr<RemoteNode>& other) const {
  if (owner == mParts.nodeId) {
    return 0;
  }
  if (mDoor == DoorKind::kLink) {
    return kBmRemoteProtocol;
  }
  other = mParts.neighbours.Find(owner);
  return other == nullptr ? kBmUnconnected : 0;
}

int Session::Seen(int result) const {
  if (result != -EIO) {
    return result;
  }
  return mDoor == DoorKind::kBroker ? kBmLocalError : kBmRemoteFailed;
}

bool Session::Hello(Exchange& exchange, Reader& arguments) {
  const auto version = arguments.Get<std::uint16_t>();
  arguments.Get<std::uint16_t>();  // the role: both may do the same
  const auto expected = arguments.Get<std::uint32_t>();
  if (!arguments.Complete()) {
    return false;
  }
  if (version != kProtocolVersion || (expected != kAnyNode && expected != mParts.nodeId)) {
    exchange.Answer(kBmRemoteProtocol);
    return false;
  }
  mGreeted = true;
  return exchange.Answer(0, Writer().Put(mParts.nodeId).Bytes());
}

bool Session::Query(Exchange& exchange, Reader& arguments) {
  if (!arguments.Complete()) {
    return false;
  }
  Writer answer;
  const Capacity& bytes = mParts.pool.Bytes();
  answer.Put(mParts.nodeId).Put(bytes.Limit()).Put(bytes.Used()).Put(mParts.pool.ObjectCount());
  return exchange.Answer(0, answer.Bytes());
}

int Session::MakeNamespace(const Access& access) {
  NamespacePtr known;
  if (mParts.namespaceGuard != nullptr && IsNamespaceName(access.ns) &&
      mParts.pool.Enter(access, known) != 0) {
    const int refusal = mParts.namespaceGuard(std::string(access.ns), std::string(access.token));
    if (refusal != 0) {
      return refusal;
    }
  }
  return mParts.pool.CreateNamespace(access.ns, access.token);
}

bool Session::CreateNamespace(Exchange& exchange, Reader& arguments) {
  const auto node = arguments.Get<std::uint16_t>();
  const Access access = GetAccess(arguments);
  if (!arguments.Complete()) {
    return false;
  }
  std::shared_ptr<RemoteNode> other;
  int result = Route(node, other);
  if (result == 0) {
    result = other != nullptr ? other->CreateNamespace(node, access) : Seen(MakeNamespace(access));
  }
  return exchange.Answer(result);
}

bool Session::DestroyNamespace(Exchange& exchange, Reader& arguments) {
  const auto node = arguments.Get<std::uint16_t>();
  const Access access = GetAccess(arguments);
  if (!arguments.Complete()) {
    return false;
  }
  std::shared_ptr<RemoteNode> other;
  int result = Route(node, other);
  if (result == 0 && other != nullptr) {
    result = other->DestroyNamespace(node, access, [&exchange] { return exchange.Progress(); });
  } else if (result == 0) {
    NamespacePtr space;
    result = mParts.pool.Enter(access, space);
    result = result == 0
                 ? Seen(mParts.pool.DestroyNamespace(space, [&exchange] { return exchange.Progress(); }))
                 : result;
  }
  return exchange.Answer(result);
}

bool Session::Allocate(Exchange& exchange, Reader& arguments) {
  const auto node = arguments.Get<std::uint16_t>();
  const Access access = GetAccess(arguments);
  const auto size = arguments.Get<std::uint64_t>();
  if (!arguments.Complete() || exchange.PeerGone()) {
    return false;
  }
  std::shared_ptr<RemoteNode> other;
  std::string id;
  NamespacePtr space;
  int result = Route(node, other);
  if (result == 0 && other != nullptr) {
    result = other->Allocate(node, access, size, id);
  } else if (result == 0) {
    result = mParts.pool.Enter(access, space);
    result = result == 0 ? Seen(mParts.pool.Allocate(space, size, id)) : result;
  }
  if (result != 0) {
    return exchange.Answer(result);
  }
  // Without an answer nobody knows the id: the object would stay for ever.
  Fresh fresh{other, space, {}, {}, id, After(kFreshTime)};
  if (other != nullptr) {
    fresh.ns = access.ns;
    fresh.token = access.token;
  }
  if (exchange.PeerGone() || !exchange.Answer(0, Writer().Text(id).Bytes())) {
    Undo(fresh);
    return false;
  }
  mFresh = std::move(fresh);
  return true;
}

void Session::Undo(const Fresh& fresh) {
  if (fresh.other != nullptr) {
    const int result = fresh.other->Free({{fresh.ns, fresh.token}, fresh.id});
    if (result != 0 && result != -ENOENT && mParts.warn != nullptr) {
      mParts.warn("the object " + fresh.id + " stays though nobody knows it: it could not be freed, result " +
                  std::to_string(result));
    }
  } else {
    mParts.pool.Free(fresh.space, fresh.id);
  }
}

void Session::End(IoStatus how) {
  if (how == IoStatus::kReset && mFresh.has_value() && std::chrono::steady_clock::now() < mFresh->believed) {
    Undo(*mFresh);
  }
}

bool Session::Expand(Exchange& exchange, Reader& arguments) {
  const ObjectName object = GetObject(arguments);
  const auto size = arguments.Get<std::uint64_t>();
  if (!arguments.Complete() || !IsObjectId(object.id)) {
    return false;
  }
  std::shared_ptr<RemoteNode> other;
  int result = Route(OwnerOf(object.id), other);
  if (result == 0 && other != nullptr) {
    result = other->Expand(object, size);
  } else if (result == 0) {
    NamespacePtr space;
    result = mParts.pool.Enter(object.access, space);
    result = result == 0 ? Seen(mParts.pool.Expand(space, object.id, size)) : result;
  }
  return exchange.Answer(result);
}

bool Session::Free(Exchange& exchange, Reader& arguments) {
  const ObjectName object = GetObject(arguments);
  if (!arguments.Complete() || !IsObjectId(object.id)) {
    return false;
  }
  std::shared_ptr<RemoteNode> other;
  int result = Route(OwnerOf(object.id), other);
  if (result == 0 && other != nullptr) {
    result = other->Free(object);
    if (result == 0) {
      mParts.copies.Drop(object.id);
    }
  } else if (result == 0) {
    NamespacePtr space;
    result = mParts.pool.Enter(object.access, space);
    result = result == 0 ? mParts.pool.Free(space, object.id) : result;
  }
  return exchange.Answer(result);
}

bool Session::FreeBatch(Exchange& exchange, Reader& arguments) {
  const Access access = GetAccess(arguments);
  const auto count = arguments.Get<std::uint16_t>();
  std::vector<std::string_view> ids;
  for (std::uint32_t index = 0; index < count && count <= kMaxIdsPerFrame; ++index) {
    ids.push_back(arguments.Text());
    if (!IsObjectId(ids.back()) || OwnerOf(ids.back()) != OwnerOf(ids.front())) {
      return false;
    }
  }
  if (!arguments.Complete()) {
    return false;
  }
  std::shared_ptr<RemoteNode> other;
  NamespacePtr space;
  int result = ids.empty() ? 0 : Route(OwnerOf(ids.front()), other);
  if (result == 0 && other != nullptr) {
    result = other->FreeBatch(access, ids, [&exchange] { return exchange.Progress(); });
    for (const std::string_view id : ids) {
      if (result == 0) {
        mParts.copies.Drop(id);
      }
    }
  } else if (result == 0 && (result = mParts.pool.Enter(access, space)) == 0) {
    for (const std::string_view id : ids) {
      const int freed = mParts.pool.Free(space, id);
      result = result == 0 ? freed : result;
      exchange.Progress();
    }
  }
  return exchange.Answer(result);
}

int Session::EnterAndOpen(const ObjectName& object, bool writable, FileDescriptor& file,
                          std::uint64_t& size) const {
  NamespacePtr space;
  const int result = mParts.pool.Enter(object.access, space);
  return result != 0 ? result : Seen(mParts.pool.OpenObject(space, object.id, writable, file, size));
}

bool Session::Open(Exchange& exchange, Reader& arguments) {
  const ObjectName object = GetObject(arguments);
  bool writable = arguments.Get<std::uint8_t>() != 0;
  if (!arguments.Complete() || !IsObjectId(object.id) || mDoor != DoorKind::kBroker) {
    return false;
  }
  FileDescriptor file;
  std::uint64_t size = 0;
  int result = 0;
  if (OwnerOf(object.id) == mParts.nodeId) {
    result = EnterAndOpen(object, writable, file, size);
  } else {
    writable = false;
    result = Seen(mParts.copies.Open(
        object, [&exchange] { return exchange.Progress(); }, file, size));
  }
  if (result != 0) {
    return exchange.Answer(result);
  }
  Writer answer;
  answer.Put(size).Put(static_cast<std::uint8_t>(writable));
  return exchange.Answer(0, answer.Bytes(), file.Get());
}

bool Session::Stat(Exchange& exchange, Reader& arguments) {
  const ObjectName object = GetObject(arguments);
  if (!arguments.Complete() || !IsObjectId(object.id)) {
    return false;
  }
  std::shared_ptr<RemoteNode> other;
  std::uint64_t size = 0;
  int result = Route(OwnerOf(object.id), other);
  if (result == 0 && other != nullptr) {
    result = other->Stat(object, size);
  } else if (result == 0) {
    NamespacePtr space;
    result = mParts.pool.Enter(object.access, space);
    result = result == 0 ? mParts.pool.Stat(space, object.id, size) : result;
  }
  return exchange.Answer(result, result == 0 ? Writer().Put(size).Bytes() : std::string_view());
}

bool Session::Exist(Exchange& exchange, Reader& arguments) {
  const auto count = arguments.Get<std::uint16_t>();
  std::vector<std::string> ids;
  for (std::uint32_t index = 0; index < count && count <= kMaxIdsPerFrame; ++index) {
    const std::string_view id = arguments.Text();
    ids.emplace_back(IsObjectId(id) ? id : "");  // what is no id is nobody's
  }
  if (!arguments.Complete() || mDoor != DoorKind::kLink) {
    return false;
  }
  Writer answer;
  for (const bool exists : mParts.pool.Exist(ids)) {
    answer.Put(static_cast<std::uint8_t>(exists));
  }
  return exchange.Answer(0, answer.Bytes());
}

}  // namespace vyn::bm
