#include "platform/rpc/stream.h"

#include <limits.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace vyn::rpc {

namespace {

class PlainStream : public Stream {
 public:
  explicit PlainStream(int descriptor) : mDescriptor(descriptor) {}

  IoState Handshake() override { return IoState::kDone; }

  IoResult Read(void* data, std::size_t size) override {
    const ssize_t count = Retry([&] { return recv(mDescriptor, data, size, 0); });
    if (count > 0) {
      const auto bytes = static_cast<std::size_t>(count);
      return {IoState::kDone, bytes, bytes < size};
    }
    return {count == 0 ? IoState::kClosed : Refusal(IoState::kWantRead)};
  }

  IoResult Write(const iovec* parts, std::size_t count) override {
    msghdr message{};
    message.msg_iov = const_cast<iovec*>(parts);
    message.msg_iovlen = std::min<std::size_t>(count, IOV_MAX);
    const ssize_t sent = Retry([&] { return sendmsg(mDescriptor, &message, MSG_NOSIGNAL); });
    if (sent >= 0) {
      return {IoState::kDone, static_cast<std::size_t>(sent)};
    }
    return {Refusal(IoState::kWantWrite)};
  }

  bool HasBuffered() const override { return false; }

  bool IsStale() override {
    char byte;
    const ssize_t count = Retry([&] { return recv(mDescriptor, &byte, 1, MSG_PEEK | MSG_DONTWAIT); });
    return count >= 0 || (errno != EAGAIN && errno != EWOULDBLOCK);
  }

  void Close() override {}

 private:
  template <typename Call>
  static ssize_t Retry(Call call) {
    ssize_t result;
    do {
      result = call();
    } while (result < 0 && errno == EINTR);
    return result;
  }

  IoState Refusal(IoState wait) {
    if (errno == EAGAIN || errno == EWOULDBLOCK) {
      return wait;
    }
    mError = strerror(errno);
    return IoState::kClosed;
  }

  int mDescriptor;
};

}  // namespace

std::unique_ptr<Stream> NewPlainStream(int descriptor) { return std::make_unique<PlainStream>(descriptor); }

}  // namespace vyn::rpc
