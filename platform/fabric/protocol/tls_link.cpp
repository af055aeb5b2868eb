#include "platform/fabric/protocol/tls_link.h"

#include "platform/fabric/protocol/file_io.h"

#include <poll.h>

#include <algorithm>

namespace vyn::bm {

namespace {

/// Bytes of a file that are read at a time: four records.
constexpr std::size_t kBlock = 64U << 10U;

}  // namespace

IoStatus TlsLink::After(tls::IoState state, Deadline deadline) {
  switch (state) {
    case tls::IoState::kDone:
      return IoStatus::kOk;
    case tls::IoState::kWantRead:
      return mSocket.Wait(POLLIN, deadline);
    case tls::IoState::kWantWrite:
      return mSocket.Wait(POLLOUT, deadline);
    case tls::IoState::kClosed:
      return mSocket.Ended(mTls->WasReset());
    case tls::IoState::kFailed:
      break;
  }
  return IoStatus::kFailed;
}

IoStatus TlsLink::Handshake(Deadline deadline) {
  for (;;) {
    const tls::IoState state = mTls->Handshake();
    const IoStatus status = After(state, deadline);
    if (state == tls::IoState::kDone || status != IoStatus::kOk) {
      return status;
    }
  }
}

IoStatus TlsLink::Receive(void* buffer, std::size_t room, std::size_t& received, Deadline deadline) {
  for (;;) {
    const tls::IoResult result = mTls->Read(buffer, room);
    if (result.mState == tls::IoState::kDone) {
      received = result.mBytes;
      return IoStatus::kOk;
    }
    if (const IoStatus status = After(result.mState, deadline); status != IoStatus::kOk) {
      return status;
    }
  }
}

IoStatus TlsLink::Send(iovec* parts, std::size_t count, Deadline deadline, int descriptor) {
  if (descriptor >= 0) {
    return IoStatus::kFailed;
  }
  for (std::size_t first = 0; first < count;) {
    const tls::IoResult result = mTls->Write(parts + first, count - first);
    if (result.mState == tls::IoState::kDone) {
      tls::Advance(parts, count, first, result.mBytes);
    } else if (const IoStatus status = After(result.mState, deadline); status != IoStatus::kOk) {
      return status;
    }
  }
  return IoStatus::kOk;
}

IoStatus TlsLink::SendFile(int file, std::uint64_t offset, std::uint64_t length, Deadline deadline) {
  const std::unique_ptr<char[]> block(new char[kBlock]);
  while (length > 0) {
    const std::size_t count = std::min<std::uint64_t>(length, kBlock);
    if (!ReadFile(file, block.get(), count, offset)) {
      return IoStatus::kFailed;
    }
    iovec part{block.get(), count};
    if (const IoStatus status = Send(&part, 1, deadline, -1); status != IoStatus::kOk) {
      return status;
    }
    offset += count;
    length -= count;
  }
  return IoStatus::kOk;
}

}  // namespace vyn::bm
