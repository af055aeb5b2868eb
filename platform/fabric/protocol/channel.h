#pragma once

// The asking side of a connection: requests go out, answers come back in order. One thread at a time.

#include "platform/fabric/protocol/frame_reader.h"
#include "platform/fabric/protocol/protocol.h"

#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace vyn::bm {

class Channel {
 public:
  /// Asked whether the answer is still wanted.
  using Progress = std::function<bool()>;

  explicit Channel(std::unique_ptr<ByteStream> stream) : mStream(std::move(stream)), mReader(*mStream) {}

  IoStatus SendRequest(Operation operation, std::string_view head, const void* data, std::uint32_t dataLength,
                       std::chrono::milliseconds timeout);

  /// A Progress for what is wanted to its end.
  static bool Wanted() { return true; }

  /// Waits for the answer that is due next; its data, if any, must be read before the next call. Interim
  /// answers are swallowed; each asks `progress` and starts the wait anew, up to kLongestAnswer; when that is
  /// null none makes the wait longer. \param result the answer's result. Returns: kFailed when what came is
  /// not that answer, or nobody wants it any more.
  IoStatus ReadAnswer(Operation operation, int& result, std::string& head, std::uint32_t& dataLength,
                      std::chrono::milliseconds timeout, const Progress& progress = nullptr);

  IoStatus ReadData(void* buffer, std::size_t length, std::chrono::milliseconds timeout) {
    return mReader.ReadData(buffer, length, After(timeout));
  }

  FileDescriptor TakeDescriptor() { return mStream->TakeDescriptor(); }

  /// Whether the channel can take another request: every answer was read and the other side is there.
  bool Usable() { return mSent == mAnswered && !mReader.HasBuffered() && mStream->Quiet(); }

  /// When the channel was put aside; and whether it was taken up again. Used by its pool.
  Deadline mIdleSince{};
  bool mReused = false;

 private:
  std::unique_ptr<ByteStream> mStream;
  FrameReader mReader;
  std::uint32_t mSent = 0;
  std::uint32_t mAnswered = 0;
};

}  // namespace vyn::bm
