#include "tessel/sdk/variable/variable_writer.h"

#include "common/log/error_info.h"
#include "common/log/exceptions.h"
#include "common/log/logging.h"
#include "common/wait/retry.h"
#include "tessel/message/service_status.h"
#include "tessel/sdk/start_up/sdk_state.h"
#include "vyn/status.h"
#include "vyn/variable.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>

namespace vyn::tessel {

namespace {

constexpr std::uint64_t kDefaultBlockSize = std::uint64_t{4} << 20U;
/// The default size grows so that there are no more blocks than this.
constexpr std::uint64_t kDefaultBlocks = 4096;
/// The most blocks of a variable that is written on a node. Each is a mapping, and a process has 65530 of them
/// (vm.max_map_count).
constexpr std::uint64_t kMaxBlocksOnNode = 32768;
/// Attempts to claim a number that a node has not forgotten. In each the leader waits up to 5 seconds.
constexpr unsigned int kClaimAttempts = 4;

/// Whether the leader has refused a claim, and so has written nothing.
bool IsRefusal(std::uint32_t status) {
  constexpr std::array kRefusals{service_status::kStatusUnknownOperation,
                                 service_status::kStatusInvalidRequest,
                                 service_status::kStatusVariableExists,
                                 service_status::kStatusTooLarge,
                                 service_status::kStatusLimit,
                                 service_status::kStatusNotForgotten};
  return std::find(kRefusals.begin(), kRefusals.end(), status) != kRefusals.end();
}

std::uint64_t RoundUp(std::uint64_t value, std::uint64_t unit) {
  return value / unit * unit + (value % unit == 0 ? 0 : unit);
}

std::uint64_t BlockSizeFor(std::uint64_t size, std::uint64_t wanted) {
  if (wanted == 0) {
    return RoundUp(std::max(kDefaultBlockSize, size / kDefaultBlocks), kDefaultBlockSize);
  }
  const auto page = static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
  return RoundUp(std::min(wanted, size), page);
}

}  // namespace

VariableWriter::~VariableWriter() {
  try {
    Abandon();
  } catch (...) {
    static_cast<void>(common::StatusOfException(__func__));
  }
}

std::uint32_t VariableWriter::Create(std::uint64_t size, std::uint64_t blockSize) {
  mOnNode = g_mfClientFlag == 0;
  mBlockSize = BlockSizeFor(size, blockSize);
  const std::uint64_t count = (size - 1) / mBlockSize + 1;
  if (const std::uint64_t most = mOnNode ? kMaxBlocksOnNode : kMaxBlocks; count > most) {
    return VYN_FAIL(VYN_VARIABLE_LIMIT, mKey.Text() << " would have " << count << " blocks, more than "
                                                    << most << "; choose a larger block size");
  }
  mBlocks.sizes.assign(count, mBlockSize);
  mBlocks.sizes.back() = size - (count - 1) * mBlockSize;
  if (!mRange.Reserve(size, !mOnNode)) {
    return VYN_FAIL(VYN_VARIABLE_NO_MEMORY, "no addresses for the " << size << " bytes of " << mKey.Text());
  }
  if (const std::uint32_t status = CheckUnused(); Failed(status)) {
    return status;
  }
  // The blocks come first. The node frees them when this process dies, and with them gives up the claim, which
  // names the first block.
  std::uint32_t status = VYN_OK;
  if (mOnNode) {
    status = AllocateLocally();
    status = Failed(status) ? status : MapBlocks(true);
  } else {
    mSending.assign(count, Sending::kUnsent);
    status = AllocateRemotely();
  }
  return Failed(status) ? status : Claim();
}

std::uint32_t VariableWriter::CheckUnused() {
  VariableBlocks others;
  const std::uint32_t status = LookUpAtLeader(mKey, others);
  if (status == VYN_VARIABLE_UNKNOWN) {
    return VYN_OK;
  }
  if (status == VYN_VARIABLE_NOT_PUBLISHED) {
    return VYN_FAIL(VYN_VARIABLE_EXISTS, mKey.Text() << " exists already: a writer has created it and not "
                                                     << "published it yet");
  }
  return FailService(mKey, Service::kMetadata, Failed(status) ? status : std::uint32_t{VYN_VARIABLE_EXISTS});
}

std::uint32_t VariableWriter::Claim() {
  std::uint32_t status = VYN_OK;
  auto retry = common::Retry::Times(kClaimAttempts, std::chrono::seconds(1));
  do {
    status = MakeRecord(mKey, mBlocks);
  } while (status == service_status::kStatusNotForgotten && retry.Again());
  if (Failed(status)) {
    // Without a refusal nobody knows whether the record was made. Abandon removes it.
    mState = IsRefusal(status) ? State::kNothing : State::kClaimed;
    return FailService(mKey, Service::kMetadata, status);
  }
  mState = State::kClaimed;
  return VYN_OK;
}

std::uint32_t VariableWriter::AllocateLocally() {
  const std::uint32_t status = AllocateAtNode(mKey, mBlocks);
  if (status == VYN_VARIABLE_POOL_FULL) {
    return FailPoolFull(mKey, g_mfNodeId, mBlocks.Total());
  }
  return Failed(status) ? FailService(mKey, Service::kNodeServer, status) : VYN_OK;
}

std::uint32_t VariableWriter::AllocateRemotely() {
  std::vector<NodeEndpoint> nodes;
  if (const std::uint32_t status = ListNodes(mKey, true, nodes); Failed(status)) {
    return FailService(mKey, Service::kMetadata, status);
  }
  if (nodes.empty()) {
    return VYN_FAIL(VYN_VARIABLE_NO_SERVICE, mKey.Text() << ": no node of the fabric is alive");
  }
  const NodeEndpoint& node = nodes.front();
  mBlocks.nodeId = node.nodeId;
  int result = LinkNode(node.nodeId, node.ip, node.port);
  if (result == 0) {
    result = MakeNamespace(node.nodeId, mAccess);
  }
  if (result == 0) {
    result = AllocateBlocks(node.nodeId, mAccess, mKey.id, mBlocks.sizes, mBlocks.ids);
  }
  if (result == kBmNotEnoughCapacity) {
    static_cast<void>(FreeBlocks(mAccess, mBlocks.ids));
    mBlocks.ids.clear();
    return FailPoolFull(mKey, node.nodeId, mBlocks.Total());
  }
  return result == 0 ? VYN_OK : FailFabric(mKey, "allocating its blocks", node.nodeId, result);
}

std::uint32_t VariableWriter::MapBlocks(bool writable) {
  for (std::size_t i = 0; i < mBlocks.ids.size(); ++i) {
    const int result =
        MapBlockAt(mAccess, mBlocks.ids[i], writable, Data() + i * mBlockSize, mBlocks.sizes[i]);
    if (result != 0) {
      return FailFabric(mKey, "mapping block " + std::to_string(i), mBlocks.nodeId, result);
    }
  }
  return VYN_OK;
}

std::uint32_t VariableWriter::SendBlock(std::size_t index) {
  if (const std::uint32_t status = KeepBlocksOfNode(); Failed(status)) {
    return status;
  }
  const int result =
      WriteBlock(mAccess, mBlocks.ids[index], Data() + index * mBlockSize, mBlocks.sizes[index]);
  if (result != 0) {
    return FailFabric(mKey, "writing block " + std::to_string(index), mBlocks.nodeId, result);
  }
  mSending[index] = Sending::kSent;
  return VYN_OK;
}

std::uint32_t VariableWriter::KeepBlocksOfNode() {
  const int result = KeepBlocks(mAccess, mBlocks.ids.front());
  return result == 0 ? VYN_OK
                     : FailFabric(mKey, "keeping its blocks until the publication", mBlocks.nodeId, result);
}

std::uint32_t VariableWriter::Flush(std::uint64_t offset, std::uint64_t length) {
  const std::uint64_t end = offset + length;
  std::uint64_t begin = 0;
  for (std::size_t i = 0; i < mSending.size(); begin += mBlocks.sizes[i], ++i) {
    if (mSending[i] != Sending::kUnsent || begin < offset || begin + mBlocks.sizes[i] > end) {
      continue;
    }
    if (const std::uint32_t status = SendBlock(i); Failed(status)) {
      return status;
    }
    mRange.Discard(begin, mBlocks.sizes[i]);
    mSending[i] = Sending::kSentAndDiscarded;
  }
  return VYN_OK;
}

std::uint32_t VariableWriter::Publish() {
  if (mState == State::kPublished) {
    return VYN_OK;
  }
  MakeReadOnly();
  for (std::size_t i = 0; i < mSending.size(); ++i) {
    if (mSending[i] != Sending::kUnsent) {
      continue;
    }
    if (const std::uint32_t status = SendBlock(i); Failed(status)) {
      return status;
    }
  }
  const std::uint32_t status = mOnNode ? VYN_OK : KeepBlocksOfNode();
  return Failed(status) ? status : Commit();
}

void VariableWriter::MakeReadOnly() {
  if (mOnNode) {
    mRange.MakeReadOnly(0, mBlocks.Total());
    return;
  }
  std::uint64_t begin = 0;
  for (std::size_t i = 0; i < mSending.size(); begin += mBlocks.sizes[i], ++i) {
    if (mSending[i] != Sending::kSentAndDiscarded) {
      mRange.MakeReadOnly(begin, mBlocks.sizes[i]);
    }
  }
}

std::uint32_t VariableWriter::Commit() {
  mState = State::kUncertain;
  const std::uint32_t status = CompleteRecord(mKey, mBlocks);
  if (status == VYN_VARIABLE_UNKNOWN) {
    mState = State::kNothing;
    return VYN_FAIL(status, mKey.Text() << " was deleted before it was published");
  }
  // The leader refuses a list of blocks as invalid when its length is not that of the record.
  if (status == VYN_VARIABLE_EXISTS || status == service_status::kStatusInvalidRequest) {
    mState = State::kNothing;
    return VYN_FAIL(VYN_VARIABLE_EXISTS, mKey.Text() << " is another writer's: it was deleted and created "
                                                     << "anew, or two created it at the same time");
  }
  if (Failed(status)) {
    return FailService(mKey, Service::kMetadata, status);
  }
  mState = State::kPublished;
  if (!mOnNode) {
    EndBlocks(mBlocks.ids.front());
  }
  // The writable mappings end, which tells the node that the bytes are final.
  if (mOnNode && Failed(MapBlocks(false))) {
    VYN_LOG_WARN(mKey.Text() << " stays mapped for writing, though it is published");
  }
  return VYN_OK;
}

void VariableWriter::Abandon() {
  if (mState == State::kPublished || mBlocks.ids.empty() || mOwner != ::getpid()) {
    return;
  }
  mRange = AddressRange();
  bool mine = mState == State::kNothing;  // whether nobody else can know the blocks
  if (!mine) {
    // Without an answer, and after a commit that may have succeeded, the blocks stay. The node frees them and
    // gives the claim up, because this process does not write them any more.
    mine = !Failed(GiveUpRecord(mKey, mBlocks)) && mState == State::kClaimed;
  }
  if (mine) {
    static_cast<void>(FreeBlocks(mAccess, mBlocks.ids));
  }
  mState = State::kNothing;
  if (!mOnNode) {
    EndBlocks(mBlocks.ids.front());
  }
}

}  // namespace vyn::tessel
