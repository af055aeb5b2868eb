#include "platform/fabric/transport/socket_stream.h"

#include "platform/fabric/transport/file_io.h"
#include "platform/net/sockets.h"

#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/sendfile.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace vyn::fabric {

namespace {

/// The pause between two checks of a state that poll() does not report.
constexpr int kPauseMilliseconds = 1;
/// Bytes of a file that are read at a time when they go under TLS: four records.
constexpr std::size_t kTlsBlock = 64U << 10U;

}  // namespace

/// The plain bytes of a UNIX socket, with the descriptors that come with them.
class SocketStream::DescriptorStream final : public net::PlainStream {
 public:
  DescriptorStream(int socket, net::Descriptor& received) : PlainStream(socket), mReceived(received) {}

  net::IoResult Read(void* data, std::size_t size) override {
    iovec part{data, size};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    const ssize_t count = ::recvmsg(Socket(), &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (count <= 0) {
      return {count == 0 ? net::IoState::kClosed : StateOfError(net::IoState::kWantRead)};
    }
    const cmsghdr* header = CMSG_FIRSTHDR(&message);
    if (header != nullptr && header->cmsg_level == SOL_SOCKET && header->cmsg_type == SCM_RIGHTS &&
        header->cmsg_len >= CMSG_LEN(sizeof(int))) {
      int descriptor = -1;
      std::memcpy(&descriptor, CMSG_DATA(header), sizeof(descriptor));
      mReceived.Reset(descriptor);
    }
    const auto bytes = static_cast<std::size_t>(count);
    return {net::IoState::kDone, bytes, bytes < size};
  }

 private:
  net::Descriptor& mReceived;
};

SocketStream::SocketStream(net::Descriptor socket, bool receivesDescriptors) : mSocket(std::move(socket)) {
  if (receivesDescriptors) {
    mIo.emplace(std::make_unique<DescriptorStream>(mSocket.Get(), mReceived), mSocket.Get());
  } else {
    mIo.emplace(std::make_unique<net::PlainStream>(mSocket.Get()), mSocket.Get());
  }
}

net::IoStatus SocketStream::StartTls(std::unique_ptr<net::Stream> tls, net::Deadline deadline) {
  // The socket is closed later without TLS's closing message. Frames say by themselves where they end, and a
  // forked child that drops its parent's connections must not send on them.
  mIo.emplace(std::move(tls), mSocket.Get());
  mIsTls = true;
  return WithReset(mIo->Handshake(deadline));
}

net::IoStatus SocketStream::Receive(void* buffer, std::size_t room, std::size_t& received,
                                    net::Deadline deadline) {
  return WithReset(mIo->Read(buffer, room, received, deadline));
}

net::IoStatus SocketStream::WithReset(net::IoStatus status) const {
  if (status != net::IoStatus::kClosed && status != net::IoStatus::kReset) {
    return status;
  }
  // A peer that has received everything acknowledges it at the latest with the end of its own bytes. For a
  // peer that closed earlier the kernel answers our bytes with RST. The RST shows as SO_ERROR when it has
  // arrived, also after the peer's end; while it is on its way, as unacknowledged bytes in the send queue.
  int error = 0;
  socklen_t length = sizeof(error);
  ::getsockopt(mSocket.Get(), SOL_SOCKET, SO_ERROR, &error, &length);
  int unacknowledged = 0;
  ::ioctl(mSocket.Get(), SIOCOUTQ, &unacknowledged);
  const bool reset = status == net::IoStatus::kReset || error != 0 || unacknowledged > 0;
  return reset && !mShutDown ? net::IoStatus::kReset : net::IoStatus::kClosed;
}

net::IoStatus SocketStream::WaitUntilReceived(net::Deadline deadline) {
  for (int unread = 0; ::ioctl(mSocket.Get(), SIOCOUTQ, &unread) == 0 && unread > 0;) {
    if (const net::IoStatus status = Pause(deadline); status != net::IoStatus::kOk) {
      return status;
    }
  }
  return net::IoStatus::kOk;
}

net::IoStatus SocketStream::Pause(net::Deadline deadline) {
  if (deadline.IsOver()) {
    return net::IoStatus::kTimeout;
  }
  pollfd ended{mSocket.Get(), 0, 0};
  return ::poll(&ended, 1, kPauseMilliseconds) > 0 ? net::IoStatus::kClosed : net::IoStatus::kOk;
}

net::IoStatus SocketStream::Send(iovec* parts, std::size_t count, net::Deadline deadline, int descriptor) {
  std::size_t first = 0;
  if (descriptor >= 0) {
    const net::IoStatus status =
        mIsTls ? net::IoStatus::kFailed : SendDescriptor(parts, count, first, deadline, descriptor);
    if (status != net::IoStatus::kOk) {
      return status;
    }
  }
  return WithReset(mIo->Write(parts + first, count - first, deadline));
}

net::IoStatus SocketStream::SendDescriptor(iovec* parts, std::size_t count, std::size_t& first,
                                           net::Deadline deadline, int descriptor) {
  // The kernel limits how many descriptors a user may have in flight, over all connections. Waiting here
  // keeps it to one a connection, so that a peer that does not read cannot use the limit up.
  if (const net::IoStatus status = WaitUntilReceived(deadline); status != net::IoStatus::kOk) {
    return status;
  }
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
  msghdr message{};
  message.msg_iov = parts;
  message.msg_iovlen = count;
  message.msg_control = control;
  message.msg_controllen = sizeof(control);
  cmsghdr* header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(sizeof(int));
  std::memcpy(CMSG_DATA(header), &descriptor, sizeof(descriptor));
  for (;;) {
    const ssize_t sent = ::sendmsg(mSocket.Get(), &message, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent >= 0) {
      net::Advance(parts, count, first, static_cast<std::size_t>(sent));
      return net::IoStatus::kOk;
    }
    if (errno == EAGAIN) {
      if (!net::WaitFor(mSocket.Get(), POLLOUT, deadline)) {
        return net::IoStatus::kTimeout;
      }
    } else if (errno == ETOOMANYREFS) {  // too many descriptors in flight
      if (const net::IoStatus status = Pause(deadline); status != net::IoStatus::kOk) {
        return status;
      }
    } else if (errno != EINTR) {
      return net::IoStatus::kClosed;
    }
  }
}

net::IoStatus SocketStream::SendFile(int file, std::uint64_t offset, std::uint64_t length,
                                     net::Deadline deadline) {
  if (mIsTls) {
    return SendBlocks(file, offset, length, deadline);
  }
  off_t position = static_cast<off_t>(offset);
  while (length > 0) {
    const ssize_t sent = ::sendfile(mSocket.Get(), file, &position, length);
    if (sent > 0) {
      length -= static_cast<std::uint64_t>(sent);
    } else if (sent == 0) {
      return net::IoStatus::kFailed;
    } else if (errno == EAGAIN) {
      if (!net::WaitFor(mSocket.Get(), POLLOUT, deadline)) {
        return net::IoStatus::kTimeout;
      }
    } else if (errno != EINTR) {
      return errno == EPIPE || errno == ECONNRESET ? net::IoStatus::kClosed : net::IoStatus::kFailed;
    }
  }
  return net::IoStatus::kOk;
}

net::IoStatus SocketStream::SendBlocks(int file, std::uint64_t offset, std::uint64_t length,
                                       net::Deadline deadline) {
  const std::unique_ptr<char[]> block(new char[kTlsBlock]);
  while (length > 0) {
    const std::size_t count = std::min<std::uint64_t>(length, kTlsBlock);
    if (!ReadFile(file, block.get(), count, offset)) {
      return net::IoStatus::kFailed;
    }
    iovec part{block.get(), count};
    if (const net::IoStatus status = Send(&part, 1, deadline, -1); status != net::IoStatus::kOk) {
      return status;
    }
    offset += count;
    length -= count;
  }
  return net::IoStatus::kOk;
}

bool SocketStream::PeerGone() {
  pollfd ended{mSocket.Get(), POLLRDHUP, 0};
  return ::poll(&ended, 1, 0) != 0;
}

void SocketStream::Shutdown() {
  mShutDown = true;
  ::shutdown(mSocket.Get(), SHUT_RDWR);
}

}  // namespace vyn::fabric
