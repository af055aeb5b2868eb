#include "platform/fabric/node/fabric_session.h"

#include "platform/fabric/protocol/names.h"

#include <cerrno>
#include <map>

namespace vyn::fabric {

namespace {

/// How long after its answer an allocation is undone by a reset: longer than any caller waits for the answer.
constexpr std::chrono::seconds kUnacknowledgedTime{30};

std::string AnswerOf(const ObjectState& state) {
  Writer answer;
  answer.Put(state.size).Put(state.stamp).Put(static_cast<std::uint8_t>(state.beingWritten));
  return std::string(answer.Put(state.checksum).Bytes());
}

}  // namespace

bool FabricSession::Handle(ServerCall& call, Reader& arguments) {
  mUnacknowledged.reset();
  if (!mGreeted) {
    return call.Operation() == FabricOperation::kHello && Hello(call, arguments);
  }
  using Handler = bool (FabricSession::*)(ServerCall&, Reader&);
  static const std::map<FabricOperation, Handler> kHandlers = {
      {FabricOperation::kQuery, &FabricSession::Query},
      {FabricOperation::kCreateNamespace, &FabricSession::CreateNamespace},
      {FabricOperation::kDestroyNamespace, &FabricSession::DestroyNamespace},
      {FabricOperation::kAllocate, &FabricSession::Allocate},
      {FabricOperation::kExpand, &FabricSession::Expand},
      {FabricOperation::kFree, &FabricSession::Free},
      {FabricOperation::kFreeBatch, &FabricSession::FreeBatch},
      {FabricOperation::kOpen, &FabricSession::Open},
      {FabricOperation::kStat, &FabricSession::Stat},
      {FabricOperation::kRead, &FabricSession::Read},
      {FabricOperation::kWrite, &FabricSession::Write},
      {FabricOperation::kCopy, &FabricSession::Copy},
      {FabricOperation::kExist, &FabricSession::Exist},
      {FabricOperation::kState, &FabricSession::State},
      {FabricOperation::kSizes, &FabricSession::Sizes},
      {FabricOperation::kAllocateBatch, &FabricSession::AllocateBatch},
      {FabricOperation::kHold, &FabricSession::Hold},
  };
  const auto handler = kHandlers.find(call.Operation());
  return handler != kHandlers.end() && (this->*handler->second)(call, arguments);
}

int FabricSession::Route(std::uint16_t owner, NodePtr& other) const {
  if (owner == mParts.nodeId) {
    return 0;
  }
  if (mKind == ListenerKind::kLink) {
    return kBmRemoteProtocol;
  }
  other = mParts.neighbours.Find(owner);
  return other == nullptr ? kBmUnconnected : 0;
}

int FabricSession::ResultForCaller(int result) const {
  if (result != -EIO) {
    return result;
  }
  return mKind == ListenerKind::kBroker ? kBmLocalError : kBmRemoteFailed;
}

bool FabricSession::Hello(ServerCall& call, Reader& arguments) {
  const auto version = arguments.Get<std::uint16_t>();
  arguments.Get<std::uint16_t>();  // the role: both roles have the same rights
  const auto expected = arguments.Get<std::uint32_t>();
  if (!arguments.Complete()) {
    return false;
  }
  if (version != kProtocolVersion || (expected != kAnyNode && expected != mParts.nodeId)) {
    call.Answer(kBmRemoteProtocol);
    return false;
  }
  mGreeted = true;
  return call.Answer(0, Writer().Put(mParts.nodeId).Bytes());
}

bool FabricSession::Query(ServerCall& call, Reader& arguments) {
  if (!arguments.Complete()) {
    return false;
  }
  Writer answer;
  const Capacity& bytes = mParts.pool.Bytes();
  answer.Put(mParts.nodeId).Put(bytes.Limit()).Put(bytes.Used()).Put(mParts.pool.ObjectCount());
  return call.Answer(0, answer.Bytes());
}

int FabricSession::CreateGuardedNamespace(const Access& access) {
  NamespacePtr known;
  if (mParts.namespaceGuard != nullptr && IsNamespaceName(access.ns) &&
      mParts.pool.Authorize(access, known) != 0) {
    const int refusal = mParts.namespaceGuard(std::string(access.ns), std::string(access.token));
    if (refusal != 0) {
      return refusal;
    }
  }
  return mParts.pool.CreateNamespace(access.ns, access.token);
}

bool FabricSession::CreateNamespace(ServerCall& call, Reader& arguments) {
  const auto node = arguments.Get<std::uint16_t>();
  const Access access = ReadAccess(arguments);
  if (!arguments.Complete()) {
    return false;
  }
  return call.Answer(Forward(
      node, [&](const NodePtr& other) { return other->CreateNamespace(node, access); },
      [&] { return CreateGuardedNamespace(access); }));
}

bool FabricSession::DestroyNamespace(ServerCall& call, Reader& arguments) {
  const auto node = arguments.Get<std::uint16_t>();
  const Access access = ReadAccess(arguments);
  if (!arguments.Complete()) {
    return false;
  }
  const auto progress = [&call] { return call.SendProgress(); };
  return call.Answer(Forward(
      node, [&](const NodePtr& other) { return other->DestroyNamespace(node, access, progress); },
      [&] {
        return InNamespace(
            access, [&](const NamespacePtr& space) { return mParts.pool.DestroyNamespace(space, progress); });
      }));
}

bool FabricSession::Allocate(ServerCall& call, Reader& arguments) {
  const auto node = arguments.Get<std::uint16_t>();
  const Access access = ReadAccess(arguments);
  const auto size = arguments.Get<std::uint64_t>();
  if (!arguments.Complete() || call.PeerGone()) {
    return false;
  }
  UnacknowledgedAllocation made{{}, {}, {}, {}, {}, net::Deadline::After({})};
  const int result = Forward(
      node,
      [&](const NodePtr& other) {
        made.other = other;
        made.ns = access.ns;
        made.token = access.token;
        return other->Allocate(node, access, size, made.id);
      },
      [&] {
        return InNamespace(access, [&](const NamespacePtr& space) {
          made.space = space;
          return mParts.pool.Allocate(space, size, made.id);
        });
      });
  if (result != 0) {
    return call.Answer(result);
  }
  // Without an answer nobody would know the id, and the object would stay for ever.
  made.undoUntil = net::Deadline::After(kUnacknowledgedTime);
  if (call.PeerGone() || !call.Answer(0, Writer().Text(made.id).Bytes())) {
    FreeUnacknowledged(made);
    return false;
  }
  mUnacknowledged = std::move(made);
  return true;
}

void FabricSession::FreeUnacknowledged(const UnacknowledgedAllocation& allocation) {
  if (allocation.other == nullptr) {
    mParts.pool.Free(allocation.space, allocation.id);
    return;
  }
  const int result = allocation.other->Free({{allocation.ns, allocation.token}, allocation.id});
  if (result != 0 && result != -ENOENT && mParts.warn != nullptr) {
    mParts.warn("the object " + allocation.id +
                " stays though nobody knows it: it could not be freed, result " + std::to_string(result));
  }
}

void FabricSession::OnConnectionEnd(net::IoStatus how) {
  if (how == net::IoStatus::kReset && mUnacknowledged.has_value() && !mUnacknowledged->undoUntil.IsOver()) {
    FreeUnacknowledged(*mUnacknowledged);
  }
}

bool FabricSession::AllocateBatch(ServerCall& call, Reader& arguments) {
  const Access access = ReadAccess(arguments);
  const auto variable = arguments.Get<std::uint32_t>();
  const auto count = arguments.Get<std::uint16_t>();
  std::vector<std::uint64_t> sizes;
  for (std::uint32_t index = 0; index < count && count <= kMaxIdsPerFrame; ++index) {
    sizes.push_back(arguments.Get<std::uint64_t>());
  }
  if (!arguments.Complete() || sizes.empty() || mKind != ListenerKind::kLink || mHeld.size() >= kMaxHeld) {
    return false;
  }
  std::vector<std::string> ids;
  if (const int result = AllocateAll(access, variable, sizes, ids, call); result != 0) {
    return call.Answer(ResultForCaller(result));
  }
  Writer answer;
  for (const std::string& id : ids) {
    answer.Text(id);
  }
  return call.Answer(0, answer.Bytes());
}

int FabricSession::AllocateAll(const Access& access, std::uint32_t variable,
                               const std::vector<std::uint64_t>& sizes, std::vector<std::string>& ids,
                               ServerCall& call) {
  return InNamespace(access, [&](const NamespacePtr& space) {
    int result = 0;
    for (std::size_t index = 0; index < sizes.size() && result == 0; ++index) {
      std::string id;
      result = call.SendProgress() ? mParts.pool.Allocate(space, sizes[index], id) : -EPIPE;
      if (result == 0) {
        ids.push_back(std::move(id));
      }
    }
    if (result == 0 && mParts.unpublished != nullptr) {
      // Before the first object is open for writing: a change of its stamp tells that it was.
      mParts.unpublished(std::string(access.ns), variable, ids);
    }
    if (result == 0) {
      result = HoldLocal({access, ids.front()});
    }
    if (result != 0) {
      for (const std::string& id : ids) {
        mParts.pool.Free(space, id);
      }
    }
    return result;
  });
}

int FabricSession::HoldLocal(const ObjectName& object) {
  net::Descriptor file;
  std::uint64_t size = 0;
  const int result = OpenLocal(object, true, file, size);
  if (result == 0) {
    mHeld.push_back(std::move(file));
  }
  return result;
}

bool FabricSession::Hold(ServerCall& call, Reader& arguments) {
  const ObjectName object = ReadObjectName(arguments);
  if (!arguments.Complete() || !IsObjectId(object.id) || mKind != ListenerKind::kLink ||
      mHeld.size() >= kMaxHeld) {
    return false;
  }
  return call.Answer(OwnerOf(object.id) == mParts.nodeId ? ResultForCaller(HoldLocal(object))
                                                         : kBmRemoteProtocol);
}

bool FabricSession::Expand(ServerCall& call, Reader& arguments) {
  const ObjectName object = ReadObjectName(arguments);
  const auto size = arguments.Get<std::uint64_t>();
  if (!arguments.Complete() || !IsObjectId(object.id)) {
    return false;
  }
  return call.Answer(Forward(
      OwnerOf(object.id), [&](const NodePtr& other) { return other->Expand(object, size); },
      [&] {
        return InNamespace(object.access, [&](const NamespacePtr& space) {
          return mParts.pool.Expand(space, object.id, size);
        });
      }));
}

bool FabricSession::Free(ServerCall& call, Reader& arguments) {
  const ObjectName object = ReadObjectName(arguments);
  if (!arguments.Complete() || !IsObjectId(object.id)) {
    return false;
  }
  return call.Answer(Forward(
      OwnerOf(object.id),
      [&](const NodePtr& other) {
        const int result = other->Free(object);
        if (result == 0) {
          mParts.copies.Drop(object.id);
        }
        return result;
      },
      [&] {
        return InNamespace(object.access,
                           [&](const NamespacePtr& space) { return mParts.pool.Free(space, object.id); });
      }));
}

bool FabricSession::FreeBatch(ServerCall& call, Reader& arguments) {
  const Access access = ReadAccess(arguments);
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
  return call.Answer(Forward(
      ids.empty() ? mParts.nodeId : OwnerOf(ids.front()),
      [&](const NodePtr& other) {
        const int result = other->FreeBatch(access, ids, [&call] { return call.SendProgress(); });
        for (const std::string_view id : ids) {
          if (result == 0) {
            mParts.copies.Drop(id);
          }
        }
        return result;
      },
      [&] {
        return InNamespace(access, [&](const NamespacePtr& space) {
          int first = 0;
          for (const std::string_view id : ids) {
            const int result = mParts.pool.Free(space, id);
            first = first != 0 ? first : result;
            call.SendProgress();
          }
          return first;
        });
      }));
}

bool FabricSession::Open(ServerCall& call, Reader& arguments) {
  const ObjectName object = ReadObjectName(arguments);
  bool writable = arguments.Get<std::uint8_t>() != 0;
  if (!arguments.Complete() || !IsObjectId(object.id) || mKind != ListenerKind::kBroker) {
    return false;
  }
  net::Descriptor file;
  std::uint64_t size = 0;
  int result = 0;
  if (OwnerOf(object.id) == mParts.nodeId) {
    result = OpenLocal(object, writable, file, size);
  } else {
    writable = false;
    result = mParts.copies.Open(
        object, [&call] { return call.SendProgress(); }, file, size);
  }
  if (result != 0) {
    return call.Answer(ResultForCaller(result));
  }
  Writer answer;
  answer.Put(size).Put(static_cast<std::uint8_t>(writable));
  return call.Answer(0, answer.Bytes(), file.Get());
}

bool FabricSession::Stat(ServerCall& call, Reader& arguments) {
  const ObjectName object = ReadObjectName(arguments);
  if (!arguments.Complete() || !IsObjectId(object.id)) {
    return false;
  }
  std::uint64_t size = 0;
  const int result = Forward(
      OwnerOf(object.id), [&](const NodePtr& other) { return other->Stat(object, size); },
      [&] {
        return InNamespace(object.access, [&](const NamespacePtr& space) {
          return mParts.pool.Stat(space, object.id, size);
        });
      });
  Writer answer;
  answer.Put(size);
  return call.Answer(result, result == 0 ? answer.Bytes() : std::string_view());
}

bool FabricSession::State(ServerCall& call, Reader& arguments) {
  const ObjectName object = ReadObjectName(arguments);
  const bool withChecksum = arguments.Get<std::uint8_t>() != 0;
  if (!arguments.Complete() || !IsObjectId(object.id)) {
    return false;
  }
  const auto progress = [&call] { return call.SendProgress(); };
  ObjectState state;
  if (mKind == ListenerKind::kLink && OwnerOf(object.id) != mParts.nodeId) {
    const int kept = mParts.copies.StateOfCopy(object, progress, state);
    return call.Answer(kept, kept == 0 ? AnswerOf(state) : std::string());
  }
  const int result = Forward(
      OwnerOf(object.id),
      [&](const NodePtr& other) { return other->State(object, withChecksum, state, progress); },
      [&] {
        return InNamespace(object.access, [&](const NamespacePtr& space) {
          return mParts.pool.State(space, object.id, withChecksum ? progress : Pool::Between(), state);
        });
      });
  return call.Answer(result, result == 0 ? AnswerOf(state) : std::string());
}

bool FabricSession::ReadIds(Reader& arguments, std::vector<std::string>& ids) const {
  const auto count = arguments.Get<std::uint16_t>();
  for (std::uint32_t index = 0; index < count && count <= kMaxIdsPerFrame; ++index) {
    const std::string_view id = arguments.Text();
    ids.emplace_back(IsObjectId(id) ? id : "");  // a text that is no id names no object
  }
  return arguments.Complete() && mKind == ListenerKind::kLink;
}

bool FabricSession::Exist(ServerCall& call, Reader& arguments) {
  std::vector<std::string> ids;
  if (!ReadIds(arguments, ids)) {
    return false;
  }
  Writer answer;
  for (const bool exists : mParts.pool.Exist(ids)) {
    answer.Put(static_cast<std::uint8_t>(exists));
  }
  return call.Answer(0, answer.Bytes());
}

bool FabricSession::Sizes(ServerCall& call, Reader& arguments) {
  const std::string_view ns = arguments.Text();
  std::vector<std::string> ids;
  if (!ReadIds(arguments, ids)) {
    return false;
  }
  Writer answer;
  for (const std::uint64_t size : mParts.pool.Sizes(ns, ids)) {
    answer.Put(size);
  }
  return call.Answer(0, answer.Bytes());
}

}  // namespace vyn::fabric
