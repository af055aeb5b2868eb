#pragma once

// Takes frames out of a byte stream. Limits are checked before anything is allocated for a frame.

#include "platform/fabric/protocol/byte_stream.h"
#include "platform/fabric/protocol/protocol.h"

#include <array>
#include <string>

namespace vyn::bm {

class FrameReader {
 public:
  /// \param stream stays the caller's.
  explicit FrameReader(ByteStream& stream) : mStream(stream) {}

  /// Waits for the next frame's first byte. Returns: kOk once one is there.
  IoStatus WaitForFrame(Deadline deadline);

  /// Takes a frame's header and arguments; its data stays to be read by ReadData. Returns: kFailed when the
  /// header is none or breaks a limit.
  IoStatus ReadFrame(FrameHeader& header, std::string& head, Deadline deadline);

  /// Takes exactly `length` bytes.
  IoStatus ReadData(void* buffer, std::size_t length, Deadline deadline);

  /// Whether bytes have arrived beyond the last frame.
  bool HasBuffered() const { return mBegin < mEnd; }

 private:
  ByteStream& mStream;
  // A small frame arrives in one piece. Of data that follows, only its first bytes take the way through here.
  std::array<char, 2048> mBuffer;
  std::size_t mBegin = 0;
  std::size_t mEnd = 0;
};

/// Sends one frame in one write.
IoStatus SendFrame(ByteStream& stream, const FrameHeader& header, std::string_view head, const void* data,
                   Deadline deadline, int descriptor = -1);

}  // namespace vyn::bm
