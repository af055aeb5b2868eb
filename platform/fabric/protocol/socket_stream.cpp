#include "platform/fabric/protocol/socket_stream.h"

#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/sendfile.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace vyn::bm {

namespace {

/// Between two looks at what the kernel tells nobody of.
constexpr int kPauseMilliseconds = 1;

}  // namespace

IoStatus SocketStream::Wait(short events, Deadline deadline) {
  for (;;) {
    const auto left = deadline - std::chrono::steady_clock::now();
    // Rounded up, so that the wait does not turn into a spin at its end.
    const auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(left).count();
    if (milliseconds <= 0) {
      return IoStatus::kTimeout;
    }
    pollfd waited{mSocket.Get(), events, 0};
    const int ready = ::poll(&waited, 1, static_cast<int>(std::min<long long>(milliseconds, 1 << 30)));
    if (ready > 0) {
      return IoStatus::kOk;
    }
    if (ready < 0 && errno != EINTR) {
      return IoStatus::kFailed;
    }
  }
}

IoStatus SocketStream::Receive(void* buffer, std::size_t room, std::size_t& received, Deadline deadline) {
  for (;;) {
    const ssize_t count = mDescriptors ? ReceiveWithDescriptor(buffer, room)
                                       : ::recv(mSocket.Get(), buffer, room, MSG_DONTWAIT);
    if (count > 0) {
      received = static_cast<std::size_t>(count);
      return IoStatus::kOk;
    }
    if (count == 0) {
      return Ended(false);
    }
    if (errno == EAGAIN) {
      if (const IoStatus status = Wait(POLLIN, deadline); status != IoStatus::kOk) {
        return status;
      }
    } else if (errno != EINTR) {
      return Ended(errno == ECONNRESET || errno == EPIPE);
    }
  }
}

IoStatus SocketStream::Ended(bool reset) {
  // Gone before what it was sent has reached it: the refusal may stand behind the end of its own bytes, or
  // still be on its way. Who has read all that it was sent has acknowledged it with its end at the latest.
  int refusal = 0;
  socklen_t length = sizeof(refusal);
  ::getsockopt(mSocket.Get(), SOL_SOCKET, SO_ERROR, &refusal, &length);
  int untaken = 0;
  ::ioctl(mSocket.Get(), SIOCOUTQ, &untaken);
  return (reset || refusal != 0 || untaken > 0) && !mShut ? IoStatus::kReset : IoStatus::kClosed;
}

long SocketStream::ReceiveWithDescriptor(void* buffer, std::size_t room) {
  iovec part{buffer, room};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof(control);
  const ssize_t count = ::recvmsg(mSocket.Get(), &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
  if (count > 0) {
    const cmsghdr* header = CMSG_FIRSTHDR(&message);
    if (header != nullptr && header->cmsg_level == SOL_SOCKET && header->cmsg_type == SCM_RIGHTS &&
        header->cmsg_len >= CMSG_LEN(sizeof(int))) {
      int descriptor = -1;
      std::memcpy(&descriptor, CMSG_DATA(header), sizeof(descriptor));
      mReceived.Reset(descriptor);
    }
  }
  return count;
}

IoStatus SocketStream::WaitUntilTaken(Deadline deadline) {
  for (int untaken = 0; ::ioctl(mSocket.Get(), SIOCOUTQ, &untaken) == 0 && untaken > 0;) {
    if (const IoStatus status = Pause(deadline); status != IoStatus::kOk) {
      return status;
    }
  }
  return IoStatus::kOk;
}

IoStatus SocketStream::Pause(Deadline deadline) {
  if (std::chrono::steady_clock::now() >= deadline) {
    return IoStatus::kTimeout;
  }
  pollfd ended{mSocket.Get(), 0, 0};
  return ::poll(&ended, 1, kPauseMilliseconds) > 0 ? IoStatus::kClosed : IoStatus::kOk;
}

IoStatus SocketStream::Send(iovec* parts, std::size_t count, Deadline deadline, int descriptor) {
  // Descriptors that nobody has taken yet count against the user of this process, whose other connections
  // would be refused theirs: each has at most one on its way.
  if (descriptor >= 0) {
    if (const IoStatus status = WaitUntilTaken(deadline); status != IoStatus::kOk) {
      return status;
    }
  }
  while (count > 0) {
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = count;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    if (descriptor >= 0) {
      message.msg_control = control;
      message.msg_controllen = sizeof(control);
      cmsghdr* header = CMSG_FIRSTHDR(&message);
      header->cmsg_level = SOL_SOCKET;
      header->cmsg_type = SCM_RIGHTS;
      header->cmsg_len = CMSG_LEN(sizeof(int));
      std::memcpy(CMSG_DATA(header), &descriptor, sizeof(descriptor));
    }
    ssize_t sent = ::sendmsg(mSocket.Get(), &message, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent < 0) {
      if (errno == EAGAIN) {
        if (const IoStatus status = Wait(POLLOUT, deadline); status != IoStatus::kOk) {
          return status;
        }
      } else if (errno == ETOOMANYREFS) {
        if (const IoStatus status = Pause(deadline); status != IoStatus::kOk) {
          return status;
        }
      } else if (errno != EINTR) {
        return IoStatus::kClosed;
      }
      continue;
    }
    descriptor = -1;
    while (count > 0 && static_cast<std::size_t>(sent) >= parts->iov_len) {
      sent -= static_cast<ssize_t>(parts->iov_len);
      ++parts;
      --count;
    }
    if (count > 0) {
      parts->iov_base = static_cast<char*>(parts->iov_base) + sent;
      parts->iov_len -= static_cast<std::size_t>(sent);
    }
  }
  return IoStatus::kOk;
}

IoStatus SocketStream::SendFile(int file, std::uint64_t offset, std::uint64_t length, Deadline deadline) {
  off_t position = static_cast<off_t>(offset);
  while (length > 0) {
    const ssize_t sent = ::sendfile(mSocket.Get(), file, &position, length);
    if (sent > 0) {
      length -= static_cast<std::uint64_t>(sent);
    } else if (sent == 0) {
      return IoStatus::kFailed;
    } else if (errno == EAGAIN) {
      if (const IoStatus status = Wait(POLLOUT, deadline); status != IoStatus::kOk) {
        return status;
      }
    } else if (errno != EINTR) {
      return errno == EPIPE || errno == ECONNRESET ? IoStatus::kClosed : IoStatus::kFailed;
    }
  }
  return IoStatus::kOk;
}

bool SocketStream::Quiet() {
  pollfd waited{mSocket.Get(), POLLIN | POLLRDHUP, 0};
  return ::poll(&waited, 1, 0) == 0;
}

bool SocketStream::PeerGone() {
  pollfd waited{mSocket.Get(), POLLRDHUP, 0};
  return ::poll(&waited, 1, 0) != 0;
}

void SocketStream::Shutdown() {
  mShut = true;
  ::shutdown(mSocket.Get(), SHUT_RDWR);
}

}  // namespace vyn::bm
