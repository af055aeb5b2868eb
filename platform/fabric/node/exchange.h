#pragma once

// The answering side of a connection: takes requests out of it, one after the other, and sends the answers.

#include "platform/fabric/protocol/codec.h"
#include "platform/fabric/protocol/frame_reader.h"

#include <atomic>
#include <functional>
#include <memory>
#include <string>

namespace vyn::bm {

/// One request and its answer. Used by the connection's thread. A method that returns false found the
/// connection broken; the handler then returns false, too.
class Exchange {
 public:
  Exchange(ByteStream& stream, FrameReader& frames, const FrameHeader& header,
           std::unique_ptr<char[]>& buffer)
      : mStream(stream), mFrames(frames), mHeader(header), mBuffer(buffer), mDataLeft(header.dataLength) {}

  Operation What() const { return static_cast<Operation>(mHeader.operation); }
  std::uint32_t DataLength() const { return mHeader.dataLength; }

  /// Takes the request's data block by block. \param sink gets each block; once it has returned false the
  /// rest is thrown away. Null throws all away.
  bool ReceiveData(const std::function<bool(const char* data, std::size_t length)>& sink);

  /// Sends the final answer. What is left of the request's data is thrown away first.
  bool Answer(int result, std::string_view head = {}, int descriptor = -1);
  bool AnswerData(const void* data, std::uint32_t length);
  bool AnswerFile(int file, std::uint64_t offset, std::uint32_t length);
  /// Sends an interim answer if the last sign of life is long ago. Returns: false when nobody waits for the
  /// answer any more: the caller has gone, or the node is about to stop.
  bool Progress();

  /// Whether the caller has gone meanwhile: what it asked for is not wanted any more.
  bool PeerGone() { return mStream.PeerGone(); }

  /// Scratch memory of kFileBlock bytes that belongs to the connection.
  char* Buffer();

 private:
  ByteStream& mStream;
  FrameReader& mFrames;
  const FrameHeader& mHeader;
  std::unique_ptr<char[]>& mBuffer;
  std::uint32_t mDataLeft;
  bool mBroken = false;
  Deadline mLastSign = std::chrono::steady_clock::now();
};

/// Answers one request. Returns: false to end the connection: the request was no request.
using Handler = std::function<bool(Exchange& exchange, Reader& arguments)>;

/// Serves a connection until it ends, breaks a limit, or stays idle for `idle`. \param busy called with true
/// when a request has begun to arrive and with false when it is answered; may be null. Returns: how the wait
/// for the next request ended; kFailed when the connection ended within a request.
IoStatus ServeConnection(ByteStream& stream, const Handler& handler, std::chrono::milliseconds idle,
                         const std::function<void(bool)>& busy = nullptr);

}  // namespace vyn::bm
