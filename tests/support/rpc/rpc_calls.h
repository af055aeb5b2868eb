#pragma once

// Calls and replies of the RPC transport as texts.

#include "platform/rpc/client/client.h"
#include "platform/rpc/server/server.h"
#include "support/net/raw_socket.h"
#include "support/test.h"

namespace vyn::test {

/// The message of every call that Call makes.
constexpr std::uint32_t kCallId = 9;

inline std::string TextOf(const rpc::Message& message) {
  std::string text;
  for (const rpc::Buffer& buffer : message.Bl()) {
    text.append(static_cast<const char*>(buffer.Addr()), buffer.Len());
  }
  return text;
}

/// Returns: what Server::Reply returned.
inline bool Reply(const std::shared_ptr<rpc::ServerContext>& context, std::uint32_t id, std::string text) {
  rpc::Message reply{rpc::MessageId(id)};
  reply.Bl().emplace_back(text.data(), text.size(), nullptr);
  return rpc::Server::Reply(context, &reply, nullptr);
}

/// A handler that answers with what came.
inline void Echo(const std::shared_ptr<rpc::ServerContext>& context,
                 const std::shared_ptr<rpc::Message>& request) {
  Reply(context, request->Id().Value(), TextOf(*request));
}

/// Sends the text in two buffers. Returns: the text of the reply, or the status of the failure as a number.
inline std::string Call(rpc::Client& client, std::string text, std::int64_t timeout = RawSocket::kPatience) {
  rpc::ClientContext context;
  context.mTimeout = timeout;
  rpc::Message request{rpc::MessageId(kCallId)};
  rpc::Message response{rpc::MessageId(kCallId)};
  const std::size_t half = text.size() / 2;
  request.Bl().emplace_back(text.data(), half, nullptr);
  request.Bl().emplace_back(text.data() + half, text.size() - half, nullptr);
  const bool done = client.SyncCall(&context, &request, &response, nullptr);
  EXPECT_EQ(done, context.mStatus == 0);
  return done ? TextOf(response) : std::to_string(context.mStatus);
}

}  // namespace vyn::test
