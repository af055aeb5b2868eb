#pragma once

// The answering side of a connection: reads requests from it, one after the other, and sends the answers.

#include "platform/fabric/protocol/codec.h"
#include "platform/fabric/protocol/fabric_frame_reader.h"

#include <functional>
#include <memory>
#include <string>

namespace vyn::fabric {

/// One request and its answer. Used by the connection's thread. A method that returns false found the
/// connection broken; the handler then returns false, too.
class ServerCall {
 public:
  ServerCall(ByteStream& stream, FabricFrameReader& frames, const FabricFrameHeader& header,
             std::unique_ptr<char[]>& buffer)
      : mStream(stream), mFrames(frames), mHeader(header), mBuffer(buffer), mDataLeft(header.dataLength) {}

  FabricOperation Operation() const { return static_cast<FabricOperation>(mHeader.operation); }
  std::uint32_t DataLength() const { return mHeader.dataLength; }

  /// Reads the request's data block by block. \param sink gets each block; once it has returned false the
  /// rest is discarded. Null discards everything.
  bool ReceiveData(const std::function<bool(const char* data, std::size_t length)>& sink);

  /// Sends the final answer. What is left of the request's data is discarded first.
  bool Answer(int result, std::string_view head = {}, int descriptor = -1);
  bool AnswerData(const void* data, std::uint32_t length);
  bool AnswerFile(int file, std::uint64_t offset, std::uint32_t length);
  /// Sends an interim answer when kProgressInterval has passed since the last one. Returns: false when nobody
  /// waits for the answer any more: the caller has gone, or the node is about to stop.
  bool SendProgress();

  /// Whether the caller has closed the connection meanwhile and so does not want the answer any more.
  bool PeerGone() { return mStream.PeerGone(); }

  /// Scratch memory of kFileBlock bytes that belongs to the connection.
  char* Buffer();

 private:
  ByteStream& mStream;
  FabricFrameReader& mFrames;
  const FabricFrameHeader& mHeader;
  std::unique_ptr<char[]>& mBuffer;
  std::uint32_t mDataLeft;
  bool mBroken = false;
  net::Deadline::Clock::time_point mLastProgress = net::Deadline::Clock::now();
};

/// Answers one request. Returns: false to end the connection, because the bytes were no request or the answer
/// could not be sent.
using CallHandler = std::function<bool(ServerCall& call, Reader& arguments)>;

/// Serves a connection until it ends, breaks a limit, or stays idle for `idle`. \param busy called with true
/// when a request has begun to arrive and with false when it is answered; may be null. \param keep asked when
/// the connection was idle for that long; true keeps it. May be null. Returns: how the wait for the next
/// request ended; kFailed when the connection ended within a request.
net::IoStatus ServeConnection(ByteStream& stream, const CallHandler& handler, std::chrono::milliseconds idle,
                              const std::function<void(bool)>& busy = nullptr,
                              const std::function<bool()>& keep = nullptr);

}  // namespace vyn::fabric
