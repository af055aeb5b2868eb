#pragma once

// A Stream whose steps wait for the socket until a deadline: the one place where both transports wait for
// bytes. One thread uses it at a time.

#include "platform/net/deadline.h"
#include "platform/net/stream.h"

#include <chrono>
#include <cstddef>
#include <memory>

namespace vyn::net {

enum class IoStatus {
  kOk,
  kClosed,   ///< the peer has closed the connection
  kReset,    ///< the peer has gone and has not received everything that it was sent
  kTimeout,  ///< the deadline has passed
  kFailed,   ///< the peer's bytes were refused, or this side gave up; the stream is of no use any more
};

class BlockingStream {
 public:
  /// \param socket the descriptor that `stream` runs over; its owner outlives this.
  BlockingStream(std::unique_ptr<Stream> stream, int socket) : mSocket(socket), mStream(std::move(stream)) {}

  /// Lets the kernel wait in reads and writes of a plain stream, which spares a poll, whenever the deadline
  /// leaves ample time. The socket becomes a blocking one. Requires: the stream is a PlainStream. Returns: 0
  /// or errno.
  int UseKernelWait();
  /// Before a call: chooses by the time that is left whether the kernel waits.
  void ChooseWait(const Deadline& deadline, Deadline::Clock::time_point now = Deadline::Clock::now()) {
    if (mPlain != nullptr) {
      mPlain->SetKernelWait(deadline.Exceeds(kAmpleTime, now));
    }
  }

  /// Each of these waits as long as it must, and fails with any other IoStatus than kOk.
  IoStatus Handshake(const Deadline& deadline);
  /// \param received 1 to `size` on success. Requires: size > 0.
  IoStatus Read(void* data, std::size_t size, std::size_t& received, const Deadline& deadline);
  IoStatus ReadExactly(void* data, std::size_t size, const Deadline& deadline);
  /// Writes all bytes. The entries of `parts` are used up.
  IoStatus Write(iovec* parts, std::size_t count, const Deadline& deadline);
  /// After a step of Get() that ended in `state`: waits until the step can go on. Returns: kOk when it can,
  /// or was complete.
  IoStatus Await(IoState state, const Deadline& deadline);

  Stream& Get() { return *mStream; }
  int Socket() const { return mSocket; }

 private:
  /// What a deadline must leave, so that a wait in the kernel ends well before it.
  static constexpr std::chrono::milliseconds kAmpleTime{1000};

  const int mSocket;
  const std::unique_ptr<Stream> mStream;
  PlainStream* mPlain = nullptr;  // mStream, once the kernel may wait
};

}  // namespace vyn::net
