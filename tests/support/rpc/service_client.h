#pragma once

// A client of the metadata service or of a node server that sends any message.

#include "common/rpc/rpc_engine.h"
#include "support/test.h"

namespace vyn::test {

using common::BaseMessage;
using common::Ref;

/// A message whose first members, in the order in which its class names them, have these values.
template <typename Message, typename... Values>
Ref<Message> Make(const Values&... values) {
  Ref<Message> message(new Message);
  [&]<std::size_t... kAt>(std::index_sequence<kAt...>) { ((std::get<kAt>(message->Fields()) = values), ...); }
  (std::index_sequence_for<Values...>());
  return message;
}

class ServiceClient {
 public:
  explicit ServiceClient(int port) {
    std::string ip = "127.0.0.1";
    std::map<std::string, const std::string> security;
    EXPECT_EQ(mEngine->Initialize(ip, static_cast<short>(port), kTimeout, false, false, security), 0U);
  }
  /// Sends the message that Make makes. Returns: the status.
  template <typename Request, typename... Values>
  std::uint32_t Send(std::uint16_t code, BaseMessage* response, const Values&... values) const {
    return mEngine->SyncRpcCall(code, Make<Request>(values...).Get(), response, kTimeout);
  }

 private:
  static constexpr long kTimeout = 60000;
  const Ref<common::RpcEngine> mEngine{new common::RpcEngine()};
};

}  // namespace vyn::test
