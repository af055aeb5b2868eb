#pragma once

// A stream of the transport whose bytes come from memory, in pieces that the bytes themselves decide.

#include "platform/net/stream.h"
#include "support/test.h"

namespace vyn::test {

class MemoryStream : public net::Stream {
 public:
  /// The first byte of `data` says how large the pieces are; the rest is what the peer sends before it
  /// closes.
  MemoryStream(const std::uint8_t* data, std::size_t size)
      : mPiece(size > 0 ? data[0] * std::size_t{7} + 1 : 1), mData(data, data + size) {
    mRead = std::min<std::size_t>(1, size);
  }

  net::IoState Handshake() override { return net::IoState::kDone; }
  net::IoResult Read(void* data, std::size_t size) override {
    mWait = !mWait;
    if (mWait) {
      return {net::IoState::kWantRead};
    }
    const std::size_t count = std::min({size, mPiece, mData.size() - mRead});
    if (count == 0) {
      return {net::IoState::kClosed};
    }
    std::memcpy(data, mData.data() + mRead, count);
    mRead += count;
    return {net::IoState::kDone, count, count < size};
  }
  net::IoResult Write(const iovec* parts, std::size_t /*count*/) override {
    return {net::IoState::kDone, parts->iov_len};
  }
  bool HasBuffered() const override { return false; }
  bool IsStale() override { return false; }
  void Close() override {}

 private:
  std::size_t mPiece;
  std::basic_string<std::uint8_t> mData;
  std::size_t mRead = 0;
  bool mWait = false;
};

}  // namespace vyn::test
