#include "platform/rpc/wire/rpc_frame_reader.h"

#include <algorithm>
#include <cstring>

namespace vyn::rpc {

RpcFrameReader::State RpcFrameReader::Next(net::Stream& stream, RpcFrame& frame) {
  for (;;) {
    std::size_t needed = sizeof(RpcFrameHeader);
    if (mEnd - mBegin >= sizeof(RpcFrameHeader)) {
      RpcFrameHeader header;
      std::memcpy(&header, mBlock.get() + mBegin, sizeof(header));
      if (const char* wrong = CheckHeader(header, mMaxLength)) {
        return Fail(wrong);
      }
      needed += header.mLength;
      if (mEnd - mBegin >= needed) {
        mAccepted = false;
        return ExtractFrame(header, frame) ? State::kFrame : Fail("no memory for a frame");
      }
      if (needed > kLargeBlock && !mAccepted) {
        mLongLength = header.mLength;
        return State::kLongFrame;
      }
    }
    if (mLastReadWasShort) {
      mLastReadWasShort = false;
      return State::kWantRead;
    }
    if (!MakeRoom(needed)) {
      return Fail("no memory for a frame");
    }
    const net::IoResult result = stream.Read(mBlock.get() + mEnd, mCapacity - mEnd);
    switch (result.mState) {
      case net::IoState::kDone:
        mEnd += result.mBytes;
        mLastReadWasShort = result.mIsShort && mShortReadShortcut;
        break;
      case net::IoState::kWantRead:
        return State::kWantRead;
      case net::IoState::kWantWrite:
        return State::kWantWrite;
      case net::IoState::kClosed:
        return State::kClosed;
      case net::IoState::kFailed:
        return Fail(stream.Error().c_str());
    }
  }
}

/// Makes room in the block for the complete frame that begins at mBegin, with at least one free byte.
bool RpcFrameReader::MakeRoom(std::size_t frameLength) {
  if (mBlock != nullptr && mBegin == mEnd) {
    mBegin = mEnd = mLead;
  }
  if (mBlock != nullptr && mCapacity - mBegin >= frameLength && mEnd < mCapacity) {
    return true;
  }
  // When the length is known, the block gets exactly that room: the frame then ends with the block, and the
  // block becomes its message without a copy.
  const std::size_t capacity = mLead + (frameLength > sizeof(RpcFrameHeader) ? frameLength : mExpected);
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

/// Moves the frame at mBegin to `frame`. Requires: all its bytes have arrived.
bool RpcFrameReader::ExtractFrame(const RpcFrameHeader& header, RpcFrame& frame) {
  const std::size_t length = header.mLength;
  const std::size_t whole = sizeof(RpcFrameHeader) + length;
  frame.mHeader = header;
  frame.mMessage = Message(MessageId(header.mId));
  mExpected = std::clamp(whole, kSmallBlock, kLargeBlock);
  if (length > 0) {
    // Everything that may throw comes first: from here on nobody but `base` owns the memory.
    frame.mMessage.Bl().reserve(1);
    char* base = nullptr;
    char* body = nullptr;
    if (mBegin == mLead && mBegin + whole == mEnd) {
      base = mBlock.release();
      body = base + mLead + sizeof(RpcFrameHeader);
    } else {
      base = static_cast<char*>(std::malloc(mLead + length));
      if (base == nullptr) {
        return false;
      }
      body = base + mLead;
      std::memcpy(body, mBlock.get() + mBegin + sizeof(RpcFrameHeader), length);
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
