#pragma once

// A ByteStream over a connected socket.

#include "platform/fabric/protocol/byte_stream.h"

#include <atomic>

namespace vyn::bm {

class SocketStream : public ByteStream {
 public:
  /// \param socket a connected stream socket, non-blocking. \param descriptors whether to take descriptors
  /// that come with the bytes; otherwise the kernel closes them.
  explicit SocketStream(FileDescriptor socket, bool descriptors = false)
      : mSocket(std::move(socket)), mDescriptors(descriptors) {}

  IoStatus Receive(void* buffer, std::size_t room, std::size_t& received, Deadline deadline) override;
  IoStatus Send(iovec* parts, std::size_t count, Deadline deadline, int descriptor) override;
  IoStatus SendFile(int file, std::uint64_t offset, std::uint64_t length, Deadline deadline) override;
  bool Quiet() override;
  bool PeerGone() override;
  FileDescriptor TakeDescriptor() override { return std::move(mReceived); }
  void Shutdown() override;

  int Socket() const { return mSocket.Get(); }
  /// Waits until the socket is ready for `events` of poll().
  IoStatus Wait(short events, Deadline deadline);
  /// kClosed or kReset, for a socket on which a read found the end. \param reset whether the read said so.
  IoStatus Ended(bool reset);

 private:
  long ReceiveWithDescriptor(void* buffer, std::size_t room);
  /// Waits until the other side has taken all that it was sent.
  IoStatus WaitUntilTaken(Deadline deadline);
  /// A moment of waiting. Returns: kClosed when the connection has ended.
  IoStatus Pause(Deadline deadline);

  FileDescriptor mSocket;
  bool mDescriptors;
  /// This side has shut the connection: a reset that follows says nothing of what the other side has taken.
  std::atomic<bool> mShut{false};
  FileDescriptor mReceived;
};

}  // namespace vyn::bm
