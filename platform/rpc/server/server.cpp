#include "platform/rpc/server/server.h"

#include "platform/rpc/server/server_connection.h"
#include "platform/rpc/server/server_core.h"

namespace vyn::rpc {

thread_local std::string Server::mLastErrorMessage;

Server::Server(ServerOptions options) : mCore(std::make_shared<ServerCore>(this, std::move(options))) {}

Server::~Server() { Stop(); }

void Server::Register(MessageId id, RequestHandler handler, HandlerKind kind) {
  mCore->Register(id, std::move(handler), kind);
}

bool Server::Start(const std::string& address, unsigned short port) {
  RpcOutcome outcome = mCore->Start(address, port);
  if (!outcome.Ok()) {
    mLastErrorMessage = std::move(outcome.mText);
  }
  return outcome.Ok();
}

unsigned short Server::Port() const { return mCore->Port(); }

std::size_t Server::Connections() const { return mCore->Connections(); }

void Server::Stop() { mCore->Stop(); }

bool Server::Reply(std::shared_ptr<ServerContext> context, Message* message, Callback* callback) {
  const bool answered = context == nullptr || context->mReplied.exchange(true);
  if (answered && callback != nullptr) {
    callback->Done(kInvalidArgument);
  }
  if (context == nullptr) {
    return false;
  }
  if (answered) {
    context->mStatus = kInvalidArgument;
  } else {
    context->mStatus = context->mConnection->Send(context->mCall, context->mId, context->mRequestLength, kOk,
                                                  message, context->mTimeout, callback);
  }
  return context->mStatus == kOk;
}

ServerContext::ServerContext(std::shared_ptr<ServerConnection> connection, Server* server, std::uint64_t call,
                             std::uint32_t id, std::uint64_t requestLength)
    : mConnection(std::move(connection)),
      mServer(server),
      mCall(call),
      mId(id),
      mRequestLength(requestLength) {}

ServerContext::~ServerContext() {
  if (!mReplied.load()) {
    mConnection->Send(mCall, mId, mRequestLength, kNoAnswer, nullptr, -1, nullptr);
  }
}

std::string ServerContext::PeerAddress() const { return mConnection->Peer(); }

}  // namespace vyn::rpc
