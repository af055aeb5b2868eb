#include "platform/rpc/client/client.h"

#include "platform/rpc/client/client_connection.h"

namespace vyn::rpc {

thread_local std::string SecuredClient::mLastErrorMessage;

namespace {

/// Passes an outcome on as the public calls do: last error message, context, callback, result.
bool ReportOutcome(const RpcOutcome& outcome, Context* context, Callback* callback) {
  if (!outcome.Ok()) {
    SecuredClient::mLastErrorMessage = outcome.mText;
  }
  if (context != nullptr) {
    context->mStatus = outcome.mStatus;
  }
  if (callback != nullptr) {
    callback->Done(outcome.mStatus);
  }
  return outcome.Ok();
}

}  // namespace

Client::Client(std::string ip, unsigned short port, std::map<std::string, std::string> /*options*/)
    : mConnection(std::make_unique<ClientConnection>(std::move(ip), port)) {}

Client::~Client() = default;

void Client::SetMaxReconnectTimes(int times) {
  if (times >= 0 && times <= kMaxReconnectCeiling) {
    mConnection->SetReconnectLimit(times);
  }
}

void Client::Abandon() { mConnection->Abandon(); }

bool Client::Connect() { return ReportOutcome(mConnection->Connect(), nullptr, nullptr); }

bool Client::SyncCall(ClientContext* context, Message* request, Message* response, Callback* callback) {
  if (context == nullptr || request == nullptr || response == nullptr) {
    return ReportOutcome({kInvalidArgument, "a call without context, request or response"}, context,
                         callback);
  }
  return ReportOutcome(mConnection->Call(*request, *response, net::Deadline(context->mTimeout)), context,
                       callback);
}

SecuredClient::SecuredClient(std::string ip, unsigned short port, std::map<std::string, std::string> options,
                             bool tls, bool authentication)
    : Client(std::move(ip), port, std::move(options)), mTls(tls), mAuthentication(authentication) {
  mConnection->Refuse({kInvalidArgument, "the client is not initialised"});
}

SecuredClient::~SecuredClient() = default;

bool SecuredClient::Initialize(const std::map<std::string, const std::string>& securityConf, long timeout) {
  RpcOutcome outcome;
  if (mAuthentication) {
    const auto type = securityConf.find("auth.type");
    outcome = {kBadSetting, "authentication is on, but no mechanism is present for auth.type \"" +
                                (type == securityConf.end() ? std::string() : type->second) + "\""};
  } else if (mTls) {
    std::string error;
    auto context = tls::TlsContext::ForClient(securityConf, error);
    if (context == nullptr) {
      outcome = {kTlsError, std::move(error)};
    }
    mConnection->UseTls(std::move(context));
  }
  mConnection->SetConnectTimeout(timeout < 1 ? -1 : timeout);
  mConnection->Refuse(outcome);
  return ReportOutcome(outcome, nullptr, nullptr);
}

bool SecuredClient::ReconnectAndAuth(ClientContext* context, bool /*authenticate*/) {
  if (context == nullptr) {
    return ReportOutcome({kInvalidArgument, "a reconnect without context"}, nullptr, nullptr);
  }
  return ReportOutcome(mConnection->Reconnect(net::Deadline(context->mTimeout)), context, nullptr);
}

}  // namespace vyn::rpc
