// What both sides make of the frames that a peer sends: every frame that is handed out lies inside what was
// sent, has a sound header, and its bytes are the peer's own. The first byte chooses the side and the size of
// the pieces.

#include "platform/rpc/wire/frame_reader.h"
#include "support/memory_stream.h"

#include <cstdlib>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using vyn::rpc::FrameReader;
  constexpr std::size_t kMaxLength = 1 << 18;
  const bool server = size > 0 && (data[0] & 1) != 0;
  const std::size_t alignment = server ? vyn::rpc::kRequestAlignment : vyn::rpc::kReplyAlignment;
  vyn::test::MemoryStream stream(data, size);
  FrameReader reader(alignment, kMaxLength);
  std::vector<vyn::rpc::Frame> frames;  // kept, so that a reader that hands memory out twice is seen
  std::size_t at = 1;
  for (;;) {
    vyn::rpc::Frame frame;
    const FrameReader::State state = reader.Next(stream, frame);
    if (state == FrameReader::State::kWantRead) {
      continue;
    }
    if (state == FrameReader::State::kLongFrame) {
      if (reader.LongLength() > kMaxLength || reader.LongLength() < FrameReader::kLargeBlock / 2) {
        std::abort();
      }
      reader.Accept();
      continue;
    }
    if (state != FrameReader::State::kFrame) {
      break;
    }
    const std::size_t length = frame.mHeader.mLength;
    const auto& buffers = frame.mMessage.Bl();
    if (length > kMaxLength || buffers.size() != (length > 0 ? 1 : 0) ||
        at + sizeof(frame.mHeader) + length > size) {
      std::abort();
    }
    at += sizeof(frame.mHeader);
    if (length > 0 && (buffers[0].Len() != length || std::memcmp(buffers[0].Addr(), data + at, length) != 0 ||
                       reinterpret_cast<std::uintptr_t>(buffers[0].Addr()) % 8 != alignment)) {
      std::abort();
    }
    at += length;
    frames.push_back(std::move(frame));
  }
  return 0;
}
