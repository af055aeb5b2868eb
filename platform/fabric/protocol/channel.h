#pragma once

// The requesting side of a connection: requests go out, answers come back in their order. One thread at a
// time.

#include "platform/fabric/protocol/fabric_frame_reader.h"
#include "platform/fabric/protocol/protocol.h"

#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace vyn::fabric {

class Channel {
 public:
  /// Asked whether the answer is still wanted.
  using Progress = std::function<bool()>;

  explicit Channel(std::unique_ptr<ByteStream> stream) : mStream(std::move(stream)), mReader(*mStream) {}

  net::IoStatus SendRequest(FabricOperation operation, std::string_view head, const void* data,
                            std::uint32_t dataLength, std::chrono::milliseconds timeout);

  /// A Progress for an answer that is wanted in any case.
  static bool AlwaysWanted() { return true; }

  /// Waits for the next answer; its data, if any, must be read before the next call. An interim answer is
  /// dropped: it calls `progress` and starts the wait again, up to kLongestAnswer in all. When `progress` is
  /// null, interim answers do not extend the wait. \param result the answer's result. Returns: kFailed when
  /// something else arrived than that answer, or `progress` returned false.
  net::IoStatus ReadAnswer(FabricOperation operation, int& result, std::string& head,
                           std::uint32_t& dataLength, std::chrono::milliseconds timeout,
                           const Progress& progress = nullptr);

  net::IoStatus ReadData(void* buffer, std::size_t length, std::chrono::milliseconds timeout) {
    return mReader.ReadData(buffer, length, net::Deadline::After(timeout));
  }

  net::Descriptor TakeDescriptor() { return mStream->TakeDescriptor(); }

  /// Whether the channel can take another request: every answer was read and the peer is there.
  bool Usable() { return mSent == mAnswered && !mReader.HasBuffered() && mStream->Quiet(); }

  /// Since when the channel has been idle, and whether it was used before. For RemoteNode, which keeps
  /// channels.
  net::Deadline::Clock::time_point mIdleSince{};
  bool mReused = false;

 private:
  std::unique_ptr<ByteStream> mStream;
  FabricFrameReader mReader;
  std::uint32_t mSent = 0;
  std::uint32_t mAnswered = 0;
};

}  // namespace vyn::fabric
