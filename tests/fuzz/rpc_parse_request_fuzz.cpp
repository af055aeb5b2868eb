// The server half of the engine on whatever a client puts into a frame: the version, then a message of the
// wire.

#include "common/message/heart_beat_message.h"
#include "common/rpc/rpc_engine.h"
#include "vyn/status.h"

#include <cstdlib>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using vyn::common::RpcEngine;
  // A block of its own, so that a read beside it is seen.
  auto* block = static_cast<std::uint8_t*>(std::malloc(size == 0 ? 1 : size));
  if (size > 0) {
    std::memcpy(block, data, size);
  }
  auto message = std::make_shared<vyn::rpc::Message>(vyn::rpc::MessageId(1));
  message->Bl().emplace_back(block, size, [](void* address) { std::free(address); });
  void* body = nullptr;
  unsigned int length = 0;
  if (!vyn::Failed(RpcEngine::ParseRequest(message, body, length)) && (size < 2 || length != size - 2)) {
    std::abort();
  }
  const vyn::common::Ref<vyn::common::BaseMessage> request(new vyn::common::HeartBeatMessage);
  RpcEngine::ParseRequest(1, nullptr, message, request);
  return 0;
}
