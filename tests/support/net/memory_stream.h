#pragma once

// A stream of the transport whose bytes come from memory, in pieces that the bytes themselves decide.

#include "platform/net/stream.h"
#include "support/test.h"

namespace vyn::test {

class MemoryStream : public net::Stream {
 public:
  /// \param bytes the first says how large the pieces are; the rest is what the peer sends before it closes.
  explicit MemoryStream(std::string bytes) : mBytes(std::move(bytes)) {}

  net::IoState Handshake() override { return net::IoState::kDone; }
  net::IoResult Read(void* data, std::size_t size) override {
    mWait = !mWait;
    if (mWait) {
      return {net::IoState::kWantRead};
    }
    const std::size_t piece = static_cast<unsigned char>(mBytes[0]) * std::size_t{7} + 1;
    const std::size_t count = mBytes.copy(static_cast<char*>(data), std::min(size, piece), mRead);
    mRead += count;
    return {count == 0 ? net::IoState::kClosed : net::IoState::kDone, count, count < size};
  }
  /// Takes a single byte.
  net::IoResult Write(const iovec* /*parts*/, std::size_t /*count*/) override {
    return {net::IoState::kDone, 1};
  }
  bool HasBuffered() const override { return false; }
  bool IsStale() override { return false; }
  void Close() override {}

 private:
  const std::string mBytes;
  std::size_t mRead = 1;
  bool mWait = false;
};

}  // namespace vyn::test
