#include "platform/fabric/protocol/remote_node.h"

#include "platform/fabric/protocol/access.h"
#include "platform/fabric/protocol/names.h"

#include <algorithm>

namespace vyn::fabric {

namespace {

constexpr std::size_t kMaxIdle = 16;
// Well below the time after which a node closes idle connections.
constexpr std::chrono::seconds kMaxIdleTime{240};

int ResultOf(net::IoStatus status) {
  switch (status) {
    case net::IoStatus::kOk:
      return 0;
    case net::IoStatus::kClosed:
    case net::IoStatus::kReset:
    case net::IoStatus::kTimeout:
      return kBmUnconnected;
    case net::IoStatus::kFailed:
      break;
  }
  return kBmRemoteProtocol;
}

}  // namespace

int RemoteNode::Hello(Channel& channel, net::Deadline deadline) {
  const auto left = [&deadline] { return std::chrono::milliseconds(deadline.PollTime()); };
  Writer head;
  head.Put(kProtocolVersion).Put(static_cast<std::uint16_t>(mRole)).Put(mExpectedNode);
  net::IoStatus status = channel.SendRequest(FabricOperation::kHello, head.Bytes(), nullptr, 0, left());
  std::string answer;
  int result = 0;
  std::uint32_t dataLength = 0;
  if (status == net::IoStatus::kOk) {
    status = channel.ReadAnswer(FabricOperation::kHello, result, answer, dataLength, left());
  }
  if (status != net::IoStatus::kOk || result != 0) {
    return status != net::IoStatus::kOk ? ResultOf(status) : result;
  }
  Reader reader(answer);
  const auto nodeId = reader.Get<std::uint16_t>();
  if (!reader.Complete() || dataLength != 0 || (mExpectedNode != kAnyNode && nodeId != mExpectedNode)) {
    return kBmRemoteProtocol;
  }
  sync::MutexLock lock(mMutex);
  mNodeId = nodeId;
  return 0;
}

int RemoteNode::Acquire(std::unique_ptr<Channel>& channel) {
  for (;;) {
    {
      sync::MutexLock lock(mMutex);
      if (mIdle.empty()) {
        break;
      }
      channel = std::move(mIdle.back());
      mIdle.pop_back();
    }
    if (std::chrono::steady_clock::now() - channel->mIdleSince < kMaxIdleTime && channel->Usable()) {
      channel->mReused = true;
      return 0;
    }
  }
  int result = kBmUnconnected;
  const net::Deadline deadline = net::Deadline::After(mTimeouts.connect);
  auto stream = mConnect(deadline, result);
  if (stream == nullptr) {
    return result;
  }
  channel = std::make_unique<Channel>(std::move(stream));
  return Hello(*channel, deadline);
}

int RemoteNode::ResultOfBroken(const Channel& channel, net::IoStatus status) {
  if (channel.mReused && status != net::IoStatus::kFailed) {
    std::vector<std::unique_ptr<Channel>> dropped;  // outside the lock
    sync::MutexLock lock(mMutex);
    dropped.swap(mIdle);
  }
  return ResultOf(status);
}

void RemoteNode::Release(std::unique_ptr<Channel> channel) {
  channel->mIdleSince = std::chrono::steady_clock::now();
  sync::MutexLock lock(mMutex);
  if (mIdle.size() < kMaxIdle) {
    mIdle.push_back(std::move(channel));
  }
}

void RemoteNode::UnlockAfterFork(bool child) {
  if (child) {
    mIdle.clear();
  }
  mMutex.unlock();
}

int RemoteNode::Reach(std::uint16_t* nodeId) {
  std::unique_ptr<Channel> channel;
  if (const int result = Acquire(channel); result != 0) {
    return result;
  }
  const bool reused = channel->mReused;
  Release(std::move(channel));
  if (reused) {
    // That a host was lost shows only when an answer does not come. The host may be back by then: the failure
    // has dropped the idle channels, so the second query goes over a new connection.
    NodeAttributes attributes;
    if (Query(attributes) != 0) {
      if (const int result = Query(attributes); result != 0) {
        return result;
      }
    }
  }
  if (nodeId != nullptr) {
    sync::MutexLock lock(mMutex);
    *nodeId = mNodeId;
  }
  return 0;
}

int RemoteNode::Call(FabricOperation operation, std::string_view head, std::string& answer,
                     std::chrono::milliseconds extra, net::Descriptor* descriptor, const Progress& progress) {
  std::unique_ptr<Channel> channel;
  const int result = CallOver(channel, operation, head, answer, extra, descriptor, progress);
  if (channel != nullptr) {
    Release(std::move(channel));
  }
  return result;
}

int RemoteNode::CallOver(std::unique_ptr<Channel>& channel, FabricOperation operation, std::string_view head,
                         std::string& answer, std::chrono::milliseconds extra, net::Descriptor* descriptor,
                         const Progress& progress) {
  if (channel == nullptr) {
    if (const int result = Acquire(channel); result != 0) {
      channel.reset();
      return result;
    }
  }
  net::IoStatus status = channel->SendRequest(operation, head, nullptr, 0, mTimeouts.answer);
  int result = 0;
  std::uint32_t dataLength = 0;
  if (status == net::IoStatus::kOk) {
    status = channel->ReadAnswer(operation, result, answer, dataLength, mTimeouts.answer + extra, progress);
  }
  if (status == net::IoStatus::kOk && dataLength != 0) {
    status = net::IoStatus::kFailed;
  }
  if (status != net::IoStatus::kOk) {
    const int broken = ResultOfBroken(*channel, status);
    channel.reset();
    return broken;
  }
  net::Descriptor received = channel->TakeDescriptor();
  if (descriptor != nullptr) {
    *descriptor = std::move(received);
  }
  return result;
}

int RemoteNode::Query(NodeAttributes& attributes) {
  std::string answer;
  if (const int result = Call(FabricOperation::kQuery, {}, answer); result != 0) {
    return result;
  }
  Reader reader(answer);
  attributes = {};
  attributes.nodeId = reader.Get<std::uint16_t>();
  attributes.capacity = reader.Get<std::uint64_t>();
  attributes.used = reader.Get<std::uint64_t>();
  attributes.objects = reader.Get<std::uint64_t>();
  return reader.Complete() ? 0 : kBmRemoteProtocol;
}

int RemoteNode::CreateNamespace(std::uint16_t node, const Access& access) {
  Writer head;
  Put(head.Put(node), access);
  std::string answer;
  return Call(FabricOperation::kCreateNamespace, head.Bytes(), answer);
}

int RemoteNode::DestroyNamespace(std::uint16_t node, const Access& access, const Progress& progress) {
  Writer head;
  Put(head.Put(node), access);
  std::string answer;
  return Call(FabricOperation::kDestroyNamespace, head.Bytes(), answer, {}, nullptr, progress);
}

int RemoteNode::Allocate(std::uint16_t node, const Access& access, std::uint64_t size, std::string& id) {
  if (size > kMaxObjectSize) {
    return kBmNotEnoughCapacity;
  }
  Writer head;
  Put(head.Put(node), access).Put(size);
  std::string answer;
  if (const int result = Call(FabricOperation::kAllocate, head.Bytes(), answer, ReserveTime(size));
      result != 0) {
    return result;
  }
  Reader reader(answer);
  id = reader.Text();
  return reader.Complete() && id.size() == kIdLength ? 0 : kBmRemoteProtocol;
}

int RemoteNode::Expand(const ObjectName& object, std::uint64_t size) {
  if (size > kMaxObjectSize) {
    return kBmNotEnoughCapacity;
  }
  Writer head;
  Put(head, object).Put(size);
  std::string answer;
  return Call(FabricOperation::kExpand, head.Bytes(), answer, ReserveTime(size));
}

int RemoteNode::Free(const ObjectName& object) {
  Writer head;
  Put(head, object);
  std::string answer;
  return Call(FabricOperation::kFree, head.Bytes(), answer);
}

int RemoteNode::FreeBatch(const Access& access, const std::vector<std::string_view>& ids,
                          const Progress& progress) {
  int first = 0;
  for (std::size_t begin = 0; begin < ids.size(); begin += kMaxIdsPerFrame) {
    const std::size_t count = std::min<std::size_t>(kMaxIdsPerFrame, ids.size() - begin);
    Writer head;
    Put(head, access).Put(static_cast<std::uint16_t>(count));
    for (std::size_t index = 0; index < count; ++index) {
      head.Text(ids[begin + index]);
    }
    std::string answer;
    const int result = Call(FabricOperation::kFreeBatch, head.Bytes(), answer, {}, nullptr, progress);
    first = first == 0 ? result : first;
  }
  return first;
}

int RemoteNode::Open(const ObjectName& object, bool& writable, net::Descriptor& descriptor,
                     std::uint64_t& size) {
  Writer head;
  Put(head, object).Put(static_cast<std::uint8_t>(writable));
  std::string answer;
  if (const int result =
          Call(FabricOperation::kOpen, head.Bytes(), answer, {}, &descriptor, Channel::AlwaysWanted);
      result != 0) {
    return result;
  }
  Reader reader(answer);
  size = reader.Get<std::uint64_t>();
  writable = reader.Get<std::uint8_t>() != 0;
  return reader.Complete() && descriptor ? 0 : kBmRemoteProtocol;
}

int RemoteNode::Stat(const ObjectName& object, std::uint64_t& size) {
  Writer head;
  Put(head, object);
  std::string answer;
  if (const int result = Call(FabricOperation::kStat, head.Bytes(), answer); result != 0) {
    return result;
  }
  Reader reader(answer);
  size = reader.Get<std::uint64_t>();
  return reader.Complete() ? 0 : kBmRemoteProtocol;
}

int RemoteNode::State(const ObjectName& object, bool withChecksum, ObjectState& state,
                      const Progress& progress) {
  Writer head;
  Put(head, object).Put(static_cast<std::uint8_t>(withChecksum));
  std::string answer;
  if (const int result = Call(FabricOperation::kState, head.Bytes(), answer, {}, nullptr, progress);
      result != 0) {
    return result;
  }
  Reader reader(answer);
  state.size = reader.Get<std::uint64_t>();
  state.stamp = reader.Get<std::uint64_t>();
  state.beingWritten = reader.Get<std::uint8_t>() != 0;
  state.checksum = reader.Get<std::uint64_t>();
  return reader.Complete() ? 0 : kBmRemoteProtocol;
}

int RemoteNode::Copy(const ObjectName& source, std::uint64_t sourceOffset, const ObjectName& destination,
                     std::uint64_t destinationOffset, std::uint64_t length, const Progress& progress) {
  Writer head;
  Put(head, source).Put(sourceOffset);
  Put(head, destination).Put(destinationOffset).Put(length);
  std::string answer;
  return Call(FabricOperation::kCopy, head.Bytes(), answer, {}, nullptr, progress);
}

int RemoteNode::Exist(const std::vector<std::string>& ids, std::vector<bool>& exist) {
  Writer head;
  head.Put(static_cast<std::uint16_t>(ids.size()));
  for (const std::string& id : ids) {
    head.Text(id);
  }
  std::string answer;
  if (const int result = Call(FabricOperation::kExist, head.Bytes(), answer); result != 0) {
    return result;
  }
  Reader reader(answer);
  exist.clear();
  for (std::size_t index = 0; index < ids.size(); ++index) {
    exist.push_back(reader.Get<std::uint8_t>() != 0);
  }
  return reader.Complete() ? 0 : kBmRemoteProtocol;
}

int RemoteNode::Sizes(std::string_view ns, const std::vector<std::string>& ids,
                      std::vector<std::uint64_t>& sizes) {
  const net::Deadline limit = net::Deadline::After(kSizesTimeout);
  sizes.clear();
  while (sizes.size() < ids.size()) {
    const std::size_t begin = sizes.size();
    const std::size_t count = std::min<std::size_t>(kMaxIdsPerFrame, ids.size() - begin);
    Writer head;
    head.Text(ns).Put(static_cast<std::uint16_t>(count));
    for (std::size_t index = 0; index < count; ++index) {
      head.Text(ids[begin + index]);
    }
    std::string answer;
    int result = kBmUnconnected;
    for (int tries = 2; tries > 0 && result == kBmUnconnected && !limit.IsOver(); --tries) {
      result = Call(FabricOperation::kSizes, head.Bytes(), answer);
    }
    if (result != 0) {
      return result;
    }
    Reader reader(answer);
    for (std::size_t index = 0; index < count; ++index) {
      sizes.push_back(reader.Get<std::uint64_t>());
    }
    if (!reader.Complete()) {
      return kBmRemoteProtocol;
    }
  }
  return 0;
}

int RemoteNode::Transfer(FabricOperation operation, const ObjectName& object, std::uint64_t offset,
                         std::uint64_t length, std::uint64_t beyond, const Sink* sink, const Source* source) {
  std::unique_ptr<Channel> channel;
  if (const int result = Acquire(channel); result != 0) {
    return result;
  }
  std::uint64_t requested = 0;
  std::uint64_t done = 0;
  std::uint32_t inFlight = 0;
  do {
    // A transfer of no bytes is one request, too: it finds out whether the caller may reach the object.
    while (inFlight < kPipelineDepth && (requested < length || (length == 0 && inFlight == 0))) {
      const auto chunk =
          static_cast<std::uint32_t>(std::min<std::uint64_t>(kMaxDataLength, length - requested));
      Writer head;
      Put(head, object).Put(offset + requested).Put(length - requested + beyond);
      const void* data = nullptr;
      if (source == nullptr) {
        head.Put(chunk);
      } else if (data = (*source)(requested, chunk); data == nullptr) {
        return kBmLocalError;
      }
      const net::IoStatus sent = channel->SendRequest(operation, head.Bytes(), data,
                                                      source == nullptr ? 0 : chunk, mTimeouts.answer);
      if (sent != net::IoStatus::kOk) {
        return ResultOfBroken(*channel, sent);
      }
      requested += chunk;
      ++inFlight;
    }
    int result = 0;
    std::uint32_t dataLength = 0;
    std::string answer;
    if (const net::IoStatus status =
            channel->ReadAnswer(operation, result, answer, dataLength, mTimeouts.answer);
        status != net::IoStatus::kOk) {
      return ResultOfBroken(*channel, status);
    }
    --inFlight;
    const std::uint64_t chunk = std::min<std::uint64_t>(kMaxDataLength, length - done);
    if (dataLength != (result == 0 && sink != nullptr ? chunk : 0)) {
      return kBmRemoteProtocol;
    }
    if (result != 0) {
      if (inFlight == 0) {
        Release(std::move(channel));
      }
      return result;  // the other requests in flight end with the channel
    }
    if (sink != nullptr) {
      if (const net::IoStatus status = (*sink)(*channel, done, dataLength); status != net::IoStatus::kOk) {
        return status == net::IoStatus::kFailed ? kBmLocalError : ResultOf(status);
      }
    }
    done += chunk;
  } while (inFlight > 0 || done < length);
  Release(std::move(channel));
  return 0;
}

int RemoteNode::Read(const ObjectName& object, std::uint64_t offset, std::uint64_t length, const Sink& sink) {
  return Transfer(FabricOperation::kRead, object, offset, length, 0, &sink, nullptr);
}

int RemoteNode::Write(const ObjectName& object, std::uint64_t offset, std::uint64_t length,
                      const Source& source) {
  return Transfer(FabricOperation::kWrite, object, offset, length, 0, nullptr, &source);
}

int RemoteNode::Read(const ObjectName& object, std::uint64_t offset, std::uint64_t length, void* buffer,
                     std::uint64_t beyond) {
  const Sink sink = [&](Channel& channel, std::uint64_t position, std::uint32_t count) {
    return channel.ReadData(static_cast<char*>(buffer) + position, count, mTimeouts.answer);
  };
  return Transfer(FabricOperation::kRead, object, offset, length, beyond, &sink, nullptr);
}

int RemoteNode::Write(const ObjectName& object, std::uint64_t offset, std::uint64_t length,
                      const void* buffer, std::uint64_t beyond) {
  static const char kNothing = 0;
  const Source source = [&](std::uint64_t position, std::uint32_t) -> const void* {
    return length == 0 ? &kNothing : static_cast<const char*>(buffer) + position;
  };
  return Transfer(FabricOperation::kWrite, object, offset, length, beyond, nullptr, &source);
}

}  // namespace vyn::fabric
