// What both sides make of the frames that a peer sends: every frame that is handed out lies inside what was
// sent, has a sound header, and its bytes are the peer's own. The first byte chooses the side and the size of
// the pieces. The server's frames go on to the engine: the version, then a message of the wire.

#include "common/message/heart_beat_message.h"
#include "common/rpc/rpc_engine.h"
#include "platform/rpc/wire/rpc_frame_reader.h"
#include "support/memory_stream.h"
#include "vyn/status.h"

#include <cstdlib>
#include <vector>

namespace {

void Require(bool condition) {
  if (!condition) {
    std::abort();
  }
}

/// In memory that ends where the request ends, so that a read beyond it is seen.
void ParseRequest(const void* data, std::size_t size) {
  void* copy = std::malloc(size == 0 ? 1 : size);
  std::memcpy(copy, data, size);
  const auto message = std::make_shared<vyn::rpc::Message>(vyn::rpc::MessageId(1));
  message->Bl().emplace_back(copy, size, [](void* address) { std::free(address); });
  void* body = nullptr;
  unsigned int length = 0;
  const auto status = vyn::common::RpcEngine::ParseRequest(message, body, length);
  Require(vyn::Failed(status) || (size >= 2 && length == size - 2));
  const vyn::common::Ref<vyn::common::BaseMessage> request(new vyn::common::HeartBeatMessage);
  vyn::common::RpcEngine::ParseRequest(1, nullptr, message, request);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using vyn::rpc::RpcFrameReader;
  constexpr std::size_t kMaxLength = 1 << 18;
  const bool server = size > 0 && (data[0] & 1) != 0;
  const std::size_t alignment = server ? vyn::rpc::kRequestAlignment : vyn::rpc::kReplyAlignment;
  vyn::test::MemoryStream stream(data, size);
  RpcFrameReader reader(alignment, kMaxLength);
  std::vector<vyn::rpc::RpcFrame> frames;  // kept, so that a reader that hands memory out twice is seen
  std::size_t at = 1;
  for (;;) {
    vyn::rpc::RpcFrame frame;
    const RpcFrameReader::State state = reader.Next(stream, frame);
    if (state == RpcFrameReader::State::kWantRead) {
      continue;
    }
    if (state == RpcFrameReader::State::kLongFrame) {
      Require(reader.LongLength() <= kMaxLength && reader.LongLength() >= RpcFrameReader::kLargeBlock / 2);
      reader.AcceptLongFrame();
      continue;
    }
    if (state != RpcFrameReader::State::kFrame) {
      break;
    }
    const std::size_t length = frame.mHeader.mLength;
    const auto& buffers = frame.mMessage.Bl();
    at += sizeof(frame.mHeader);
    Require(length <= kMaxLength && buffers.size() == (length > 0 ? 1 : 0) && at + length <= size);
    if (length > 0) {
      Require(buffers[0].Len() == length && std::memcmp(buffers[0].Addr(), data + at, length) == 0 &&
              reinterpret_cast<std::uintptr_t>(buffers[0].Addr()) % 8 == alignment);
    }
    if (server) {
      ParseRequest(data + at, length);
    }
    at += length;
    frames.push_back(std::move(frame));
  }
  return 0;
}
