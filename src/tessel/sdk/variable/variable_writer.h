#pragma once

// A variable that this process writes: the claim of its blocks, the claim of its number, the range to fill, the commit.
// The destructor abandons what is not published. Used by one thread at a time.

#include "tessel/sdk/variable/address_range.h"
#include "tessel/sdk/variable/fabric_calls.h"
#include "tessel/sdk/variable/variable_records.h"

#include <sys/types.h>
#include <unistd.h>

#include <cstdint>
#include <vector>

namespace vyn::tessel {

class VariableWriter {
 public:
  VariableWriter(VariableKey key, FabricAccess access) : mKey(std::move(key)), mAccess(std::move(access)) {}
  ~VariableWriter();
  VariableWriter(const VariableWriter&) = delete;
  VariableWriter& operator=(const VariableWriter&) = delete;

  /// \param blockSize bytes; 0 for the default. Records a failure.
  std::uint32_t Create(std::uint64_t size, std::uint64_t blockSize);
  std::uint32_t Flush(std::uint64_t offset, std::uint64_t length);
  std::uint32_t Publish();
  bool Published() const { return mState == State::kPublished; }
  char* Data() const { return mRange.Begin(); }

 private:
  enum class State {
    kNothing,    ///< nothing to undo but blocks
    kClaimed,    ///< the record without blocks is there
    kUncertain,  ///< the commit was sent and not answered
    kPublished,
  };

  /// What became of a block's bytes in this process's private memory; only outside the fabric.
  enum class Sending : std::uint8_t { kUnsent, kSent, kSentAndDiscarded };

  std::uint32_t CheckUnused();
  std::uint32_t Claim();
  std::uint32_t AllocateLocally();
  std::uint32_t AllocateRemotely();
  std::uint32_t MapBlocks(bool writable);
  std::uint32_t SendBlock(std::size_t index);
  void MakeReadOnly();
  /// Makes sure that the node has not given up the blocks of this process outside the fabric.
  std::uint32_t KeepBlocksOfNode();
  std::uint32_t Commit();
  void Abandon();

  const VariableKey mKey;
  const FabricAccess mAccess;
  VariableBlocks mBlocks;
  std::uint64_t mBlockSize = 0;  ///< of all blocks but the last
  AddressRange mRange;
  /// Whether the blocks are in the pool of this machine.
  bool mOnNode = false;
  std::vector<Sending> mSending;  ///< of each block; empty when the blocks are here
  State mState = State::kNothing;
  const pid_t mOwner = ::getpid();  ///< a forked child abandons nothing
};

}  // namespace vyn::tessel
