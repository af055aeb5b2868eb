#pragma once

// The handlers of a service: take the request apart, refuse what makes no sense, answer exactly once.

#include "common/log/log.h"
#include "common/log/logging.h"
#include "common/rpc/rpc_engine.h"
#include "common/util/input_check.h"
#include "common/util/ref.h"
#include "platform/rpc/server/server.h"
#include "services/common/service_status.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <utility>

namespace vyn::services {

/// Operation codes travel in the low 10 bits of a message id.
inline constexpr std::uint16_t kOperationCodes = 1024;

/// Whether a text that came in a message can name something. A NUL, which ends a C string early, cannot be in
/// it.
inline bool IsName(const std::string& name) {
  return name.find('\0') == std::string::npos && !Failed(common::InputRegularMatching(name.c_str(), false));
}

/// A line of the audit log. \param subject who acted: the caller as "ip:port", or this process's id.
inline void Audit(const std::string& subject, const char* operation, const std::string& target,
                  std::uint32_t status) {
  common::AuditGlog(subject.c_str(), operation, target.c_str(), Failed(status) ? "FAILED" : "SUCCESS");
}

/// The way back to who sent a request. Any thread, also after the handler has returned; all copies together
/// answer once.
class Caller {
 public:
  /// \param name of the operation, for the log.
  Caller(std::uint16_t code, const char* name, std::shared_ptr<rpc::ServerContext> context)
      : mCode(code), mName(name), mContext(std::move(context)) {}

  /// As "ip:port".
  std::string Peer() const { return mContext->PeerAddress(); }
  /// An odd status goes without a message.
  void Refuse(std::uint32_t status) const {
    VYN_LOG_WARN("Refused " << mName << " from " << Peer() << " with " << status << ": "
                            << StatusText(status));
    common::RpcEngine::SyncRpcReply(mCode, mContext, status, nullptr, 0, kReplyTimeout);
  }
  /// \param response may hold null. \param sent may be null; see RpcEngine::SyncRpcReply.
  void Answer(const common::Ref<common::BaseMessage>& response, rpc::Callback* sent = nullptr) const {
    common::RpcEngine::SyncRpcReply(mCode, mContext, VYN_OK, response, kReplyTimeout, sent);
  }

 private:
  /// Milliseconds for the whole of an answer. A caller that takes nothing of it is given up sooner.
  static constexpr long kReplyTimeout = 240000;

  std::uint16_t mCode;
  const char* mName;
  std::shared_ptr<rpc::ServerContext> mContext;
};

/// Serves `code`: `handler` gets each request that can be read, and owes its caller an answer, now or later.
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
    }  // otherwise refused and answered
  });
}

/// One operation: reads `request`, fills `response`, returns 0 or an odd status. An odd status goes to the
/// caller without a response. `peer` is the caller as "ip:port".
template <typename Request, typename Response>
using Operation = std::function<std::uint32_t(Request& request, Response& response, const std::string& peer)>;

/// Takes back what an operation made for a caller that its answer did not reach. Any thread; must not block.
template <typename Request, typename Response>
using Undo = std::function<void(const Request& request, const Response& response)>;

/// Runs `undo` when a reply could not be sent whole. Made with new; its one call deletes it.
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

/// Serves `code` with `operation`. \param undo for an operation that makes what only its answer tells of.
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

/// Serves `code` with an operation that answers no message.
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

/// Answers every operation with `status`. Call it first: what is served later takes the code's place.
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
