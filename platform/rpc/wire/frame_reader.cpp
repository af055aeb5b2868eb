#include "platform/rpc/wire/frame_reader.h"

#include <algorithm>
#include <cstring>

namespace vyn::rpc {

FrameReader::State FrameReader::Next(Stream& stream, Frame& frame) {
  for (;;) {
    std::size_t needed = sizeof(FrameHeader);
    if (mEnd - mBegin >= sizeof(FrameHeader)) {
      FrameHeader header;
      std::memcpy(&header, mBlock.get() + mBegin, sizeof(header));
      if (const char* wrong = CheckHeader(header, mMaxLength)) {
        return Fail(wrong);
      }
      needed += header.mLength;
      if (mEnd - mBegin >= needed) {
        mAccepted = false;
        return Take(header, frame) ? State::kFrame : Fail("no memory for a frame");
      }
      if (needed > kLargeBlock && !mAccepted) {
        mLongLength = header.mLength;
        return State::kLongFrame;
      }
    }
    if (mDrained) {
      mDrained = false;
      return State::kWantRead;
    }
    if (!MakeRoom(needed)) {
      return Fail("no memory for a frame");
    }
    const IoResult result = stream.Read(mBlock.get() + mEnd, mCapacity - mEnd);
    switch (result.mState) {
      case IoState::kDone:
        mEnd += result.mBytes;
        mDrained = result.mDrained && !mToEnd;
        break;
      case IoState::kWantRead:
        return State::kWantRead;
      case IoState::kWantWrite:
        return State::kWantWrite;
      case IoState::kClosed:
        return State::kClosed;
      case IoState::kFailed:
        return Fail(stream.Error().c_str());
    }
  }
}

/// Sees to it that the frame that begins at mBegin fits into the block as a whole, with at least one free
/// byte.
bool FrameReader::MakeRoom(std::size_t frameLength) {
  if (mBlock != nullptr && mBegin == mEnd) {
    mBegin = mEnd = mLead;
  }
  if (mBlock != nullptr && mCapacity - mBegin >= frameLength && mEnd < mCapacity) {
    return true;
  }
  // A known length gets exactly its room, so that the frame ends with the block and becomes its message as it
  // is.
  const std::size_t capacity = mLead + (frameLength > sizeof(FrameHeader) ? frameLength : mExpected);
  Block block(static_cast<char*>(std::malloc(capacity)));
  if (block == nullptr) {
    return false;
  }
  const std::size_t have = mEnd - mBegin;
  if (have > 0) {
    std::memcpy(block.get() + mLead, mBlock.get() + mBegin, have);
  }
  mBlock = std::move(block);
  mCapacity = capacity;
  mBegin = mLead;
  mEnd = mLead + have;
  return true;
}

/// Hands the frame at mBegin over, all of whose bytes are there.
bool FrameReader::Take(const FrameHeader& header, Frame& frame) {
  const std::size_t length = header.mLength;
  const std::size_t whole = sizeof(FrameHeader) + length;
  frame.mHeader = header;
  frame.mMessage = Message(MessageId(header.mId));
  mExpected = std::clamp(whole, kSmallBlock, kLargeBlock);
  if (length > 0) {
    char* base = nullptr;
    char* body = nullptr;
    if (mBegin == mLead && mBegin + whole == mEnd) {
      base = mBlock.release();
      body = base + mLead + sizeof(FrameHeader);
    } else {
      base = static_cast<char*>(std::malloc(mLead + length));
      if (base == nullptr) {
        return false;
      }
      body = base + mLead;
      std::memcpy(body, mBlock.get() + mBegin + sizeof(FrameHeader), length);
    }
    frame.mMessage.Bl().emplace_back(body, length, [base](void*) { std::free(base); });
  }
  mBegin += whole;
  if (mBlock == nullptr) {
    mCapacity = mBegin = mEnd = 0;
  }
  return true;
}

}  // namespace vyn::rpc
