#pragma once

// Registers the handlers of a service: each parses its request, refuses an invalid one and replies exactly
// once.
//
// Register handlers before the server starts. The server runs them on its worker threads, several at a time.

#include "common/log/log.h"
#include "common/log/logging.h"
#include "common/rpc/rpc_engine.h"
#include "common/util/ref.h"
#include "platform/rpc/server/server.h"
#include "services/common/service_status.h"
#include "services/common/zookeeper_layout.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <utility>

namespace vyn::services {

/// Operation codes travel in the low 10 bits of a message id.
inline constexpr std::uint16_t kOperationCodes = 1024;

/// Writes a line of the audit log. \param subject who acted: the caller as "ip:port", or this process's id.
inline void Audit(const std::string& subject, const char* operation, const std::string& target,
                  std::uint32_t status) {
  common::AuditGlog(subject.c_str(), operation, target.c_str(), Failed(status) ? "FAILED" : "SUCCESS");
}

/// Sends the reply to one request. Any thread may use it, also after the handler has returned. Exactly one of
/// Refuse and Answer must be called, on one of the copies.
class Caller {
 public:
  /// \param name of the operation, for the log.
  Caller(std::uint16_t code, const char* name, std::shared_ptr<rpc::ServerContext> context)
      : mCode(code), mName(name), mContext(std::move(context)) {}

  /// The caller's address as "ip:port".
  std::string Peer() const { return mContext->PeerAddress(); }
  /// Replies with a failure and without a message. Logs the refusal; that a variable is not there, or not yet,
  /// is an answer and no warning. \param status odd.
  void Refuse(std::uint32_t status) const {
    if (status == kStatusUnknownVariable || status == kStatusNotReady) {
      VYN_LOG_DEBUG("Refused " << mName << " from " << Peer() << " with " << status << ": "
                               << StatusText(status));
    } else {
      VYN_LOG_WARN("Refused " << mName << " from " << Peer() << " with " << status << ": "
                              << StatusText(status));
    }
    common::RpcEngine::SyncRpcReply(mCode, mContext, status, nullptr, 0, kReplyTimeout);
  }
  /// \param response may hold null. \param sent may be null; see RpcEngine::SyncRpcReply.
  void Answer(const common::Ref<common::BaseMessage>& response, rpc::Callback* sent = nullptr) const {
    common::RpcEngine::SyncRpcReply(mCode, mContext, VYN_OK, response, kReplyTimeout, sent);
  }

 private:
  /// Milliseconds for sending a whole reply. The transport gives up sooner on a caller that reads nothing.
  static constexpr long kReplyTimeout = 240000;

  std::uint16_t mCode;
  const char* mName;
  std::shared_ptr<rpc::ServerContext> mContext;
};

/// Serves `code`. `handler` gets each request that can be parsed and must reply to `caller`, now or later.
template <typename Request>
void ServeRequests(rpc::Server& server, std::uint16_t code, const char* name,
                   std::function<void(const common::Ref<Request>& request, const Caller& caller)> handler) {
  server.Register(rpc::MessageId(code), [code, name, handler = std::move(handler)](
                                            const std::shared_ptr<rpc::ServerContext>& context,
                                            const std::shared_ptr<rpc::Message>& message) {
    const Caller caller(code, name, context);
    common::Ref<Request> request(new (std::nothrow) Request());
    if (request == nullptr) {
      caller.Refuse(VYN_ERR_NULL_POINTER);
    } else if (!Failed(common::RpcEngine::ParseRequest(code, context, message, request))) {
      handler(request, caller);
    }  // otherwise ParseRequest has sent the refusal
  });
}

/// One operation: reads `request`, fills `response`, returns 0 or an odd status. An odd status goes to the
/// caller without a response. `peer` is the caller as "ip:port".
template <typename Request, typename Response>
using Operation = std::function<std::uint32_t(Request& request, Response& response, const std::string& peer)>;

/// Undoes an operation whose reply did not reach the caller. Runs on any thread; must not block.
template <typename Request, typename Response>
using Undo = std::function<void(const Request& request, const Response& response)>;

/// Runs `undo` if the reply could not be sent completely. Allocate it with new; Done deletes it.
class UndoUnsent : public rpc::Callback {
 public:
  explicit UndoUnsent(std::function<void()> undo) : mUndo(std::move(undo)) {}
  void Done(int status) override {
    const std::unique_ptr<UndoUnsent> self(this);
    if (status != 0) {
      mUndo();
    }
  }

 private:
  const std::function<void()> mUndo;
};

/// Serves `code` with `operation`. \param undo for an operation that creates objects whose ids only the reply
/// holds: without the reply nobody could free them.
template <typename Request, typename Response>
void Serve(rpc::Server& server, std::uint16_t code, const char* name, Operation<Request, Response> operation,
           Undo<Request, Response> undo = {}) {
  ServeRequests<Request>(
      server, code, name,
      [operation = std::move(operation), undo = std::move(undo)](const common::Ref<Request>& request,
                                                                 const Caller& caller) {
        common::Ref<Response> response(new (std::nothrow) Response());
        const std::uint32_t status =
            response == nullptr ? VYN_ERR_NULL_POINTER : operation(*request, *response, caller.Peer());
        if (Failed(status)) {
          caller.Refuse(status);
          return;
        }
        auto unsent =
            undo ? std::make_unique<UndoUnsent>([undo, request, response] { undo(*request, *response); })
                 : nullptr;
        caller.Answer(response, unsent.release());
      });
}

/// Serves `code` with an operation whose reply is a status without a message.
template <typename Request>
void ServeWithoutReply(rpc::Server& server, std::uint16_t code, const char* name,
                       std::function<std::uint32_t(Request& request, const std::string& peer)> operation) {
  ServeRequests<Request>(
      server, code, name,
      [operation = std::move(operation)](const common::Ref<Request>& request, const Caller& caller) {
        const std::uint32_t status = operation(*request, caller.Peer());
        if (Failed(status)) {
          caller.Refuse(status);
        } else {
          caller.Answer(nullptr);
        }
      });
}

/// Registers a handler that replies `status` for every operation code. Call it first: a later registration of
/// a code replaces this one.
inline void RefuseAll(rpc::Server& server, std::uint32_t status) {
  for (std::uint16_t code = 0; code < kOperationCodes; ++code) {
    server.Register(
        rpc::MessageId(code),
        [code, status](const std::shared_ptr<rpc::ServerContext>& context,
                       const std::shared_ptr<rpc::Message>&) {
          common::RpcEngine::SyncRpcReply(code, context, status, nullptr, 0, 0);
        },
        rpc::HandlerKind::kQuick);
  }
}

}  // namespace vyn::services
