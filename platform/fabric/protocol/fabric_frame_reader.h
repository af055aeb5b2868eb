#pragma once

// Reads frames from a byte stream. Limits are checked before anything is allocated for a frame.
//
// One thread uses a reader at a time.

#include "platform/fabric/protocol/byte_stream.h"
#include "platform/fabric/protocol/protocol.h"

#include <array>
#include <string>

namespace vyn::fabric {

class FabricFrameReader {
 public:
  /// \param stream stays the caller's.
  explicit FabricFrameReader(ByteStream& stream) : mStream(stream) {}

  /// Waits for the next frame's first byte. Returns: kOk once one is there.
  net::IoStatus WaitForFrame(net::Deadline deadline);

  /// Reads a frame's header and arguments; its data is left for ReadData. Returns: kFailed when the bytes are
  /// no header or break a limit.
  net::IoStatus ReadFrame(FabricFrameHeader& header, std::string& head, net::Deadline deadline);

  /// Reads exactly `length` bytes.
  net::IoStatus ReadData(void* buffer, std::size_t length, net::Deadline deadline);

  /// Whether bytes have arrived after the last frame.
  bool HasBuffered() const { return mBegin < mEnd; }

 private:
  ByteStream& mStream;
  // Large enough for a small frame in one read. Of the data that follows a header, only its first bytes are
  // copied through this buffer.
  std::array<char, 2048> mBuffer;
  std::size_t mBegin = 0;
  std::size_t mEnd = 0;
};

/// Sends one frame in one write.
net::IoStatus SendFrame(ByteStream& stream, const FabricFrameHeader& header, std::string_view head,
                        const void* data, net::Deadline deadline, int descriptor = -1);

}  // namespace vyn::fabric
