#include "platform/net/blocking_stream.h"

#include "platform/net/sockets.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>

namespace vyn::net {

namespace {

/// How long one read or write waits in the kernel.
constexpr std::chrono::milliseconds kKernelWait{500};

}  // namespace

int BlockingStream::UseKernelWait() {
  const timeval wait{0, std::chrono::microseconds(kKernelWait).count()};
  int off = 0;
  if (::setsockopt(mSocket, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof(wait)) != 0 ||
      ::setsockopt(mSocket, SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof(wait)) != 0 ||
      ::ioctl(mSocket, FIONBIO, &off) != 0) {
    return errno;
  }
  mPlain = static_cast<PlainStream*>(mStream.get());
  return 0;
}

IoStatus BlockingStream::Handshake(const Deadline& deadline) {
  for (;;) {
    const IoState state = mStream->Handshake();
    const IoStatus status = Await(state, deadline);
    if (state == IoState::kDone || status != IoStatus::kOk) {
      return status;
    }
  }
}

IoStatus BlockingStream::Read(void* data, std::size_t size, std::size_t& received, const Deadline& deadline) {
  for (;;) {
    const IoResult result = mStream->Read(data, size);
    if (result.mState == IoState::kDone) {
      received = result.mBytes;
      return IoStatus::kOk;
    }
    if (const IoStatus status = Await(result.mState, deadline); status != IoStatus::kOk) {
      return status;
    }
  }
}

IoStatus BlockingStream::ReadExactly(void* data, std::size_t size, const Deadline& deadline) {
  for (std::size_t have = 0, received = 0; have < size; have += received) {
    if (const IoStatus status = Read(static_cast<char*>(data) + have, size - have, received, deadline);
        status != IoStatus::kOk) {
      return status;
    }
  }
  return IoStatus::kOk;
}

IoStatus BlockingStream::Write(iovec* parts, std::size_t count, const Deadline& deadline) {
  for (std::size_t first = 0; first < count;) {
    const IoResult result = mStream->Write(parts + first, count - first);
    if (result.mState == IoState::kDone) {
      Advance(parts, count, first, result.mBytes);
      if (first < count) {
        if (deadline.IsOver()) {
          return IoStatus::kTimeout;  // a peer that takes a little each time
        }
        ChooseWait(deadline);
      }
    } else if (const IoStatus status = Await(result.mState, deadline); status != IoStatus::kOk) {
      return status;
    }
  }
  return IoStatus::kOk;
}

IoStatus BlockingStream::Await(IoState state, const Deadline& deadline) {
  switch (state) {
    case IoState::kDone:
      return IoStatus::kOk;
    case IoState::kWantRead:
    case IoState::kWantWrite:
      if (mPlain != nullptr && mPlain->KernelWait()) {
        if (deadline.Exceeds(kAmpleTime)) {
          return IoStatus::kOk;  // the next step waits
        }
        mPlain->SetKernelWait(false);
      }
      return WaitFor(mSocket, state == IoState::kWantRead ? POLLIN : POLLOUT, deadline) ? IoStatus::kOk
                                                                                        : IoStatus::kTimeout;
    case IoState::kClosed:
      return mStream->WasReset() ? IoStatus::kReset : IoStatus::kClosed;
    case IoState::kFailed:
      break;
  }
  return IoStatus::kFailed;
}

}  // namespace vyn::net
