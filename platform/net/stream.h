#pragma once

// The streams that a connection runs over: bytes as they are, or inside TLS.

#include "platform/tls/stream.h"

#include <sys/socket.h>

#include <memory>

namespace vyn::rpc {

using tls::Advance;
using tls::IoResult;
using tls::IoState;
using tls::Stream;

/// The bytes as they are.
class PlainStream : public Stream {
 public:
  explicit PlainStream(int descriptor) : mDescriptor(descriptor) {}

  /// From here on a read or a write that finds nothing to do waits, as long as the socket's own time limits
  /// say; it says kWantRead or kWantWrite behind them. Requires: a blocking socket.
  void SetWaits(bool waits) { mWaits = waits; }
  bool Waits() const { return mWaits; }

  IoState Handshake() override { return IoState::kDone; }
  IoResult Read(void* data, std::size_t size) override;
  IoResult Write(const iovec* parts, std::size_t count) override;
  bool HasBuffered() const override { return false; }
  bool IsStale() override;
  void Close() override {}

 private:
  int WaitFlag() const { return mWaits ? 0 : MSG_DONTWAIT; }
  IoState Refusal(IoState wait);

  const int mDescriptor;
  bool mWaits = false;
};

}  // namespace vyn::rpc
