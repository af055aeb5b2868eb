#include "platform/net/stream.h"

#include <limits.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace vyn::net {

IoResult PlainStream::Read(void* data, std::size_t size) {
  const ssize_t count = ::recv(mDescriptor, data, size, WaitFlag());
  if (count > 0) {
    const auto bytes = static_cast<std::size_t>(count);
    return {IoState::kDone, bytes, bytes < size};
  }
  return {count == 0 ? IoState::kClosed : StateOfError(IoState::kWantRead)};
}

IoResult PlainStream::Write(const iovec* parts, std::size_t count) {
  msghdr message{};
  message.msg_iov = const_cast<iovec*>(parts);
  message.msg_iovlen = std::min<std::size_t>(count, IOV_MAX);
  const ssize_t sent = ::sendmsg(mDescriptor, &message, MSG_NOSIGNAL | WaitFlag());
  if (sent >= 0) {
    return {IoState::kDone, static_cast<std::size_t>(sent)};
  }
  return {StateOfError(IoState::kWantWrite)};
}

bool PlainStream::IsStale() {
  char byte;
  const ssize_t count = ::recv(mDescriptor, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  return count >= 0 || (errno != EAGAIN && errno != EWOULDBLOCK);
}

IoState PlainStream::StateOfError(IoState wait) {
  // An interrupted wait goes back to the caller, who knows the time that is left.
  if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) {
    return wait;
  }
  mWasReset = errno == ECONNRESET || errno == EPIPE;
  mError = std::strerror(errno);
  return IoState::kClosed;
}

}  // namespace vyn::net
