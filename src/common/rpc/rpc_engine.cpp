#include "common/rpc/rpc_engine.h"

#include "common/log/logging.h"
#include "common/log/time_counter.h"
#include "common/util/clock.h"

#include <cstring>
#include <memory>
#include <new>

namespace vyn::common {

std::atomic<std::int64_t> RpcEngine::mTimeout{-1};
thread_local int RpcEngine::mTimeSer = 0;
thread_local int RpcEngine::mTimeCall = 0;
thread_local int RpcEngine::mTimeDes = 0;

namespace {

using rpc::Buffer;
using rpc::ClientContext;
using rpc::MessageId;
using ResultWord = std::uint32_t;

constexpr int kMaxReconnectTimes = 3;

/// The RPC version of this side. The first buffer of every request points to it.
std::uint16_t gRpcVersion = 1;

long EffectiveTimeout(long timeout) {
  return timeout == 0 || timeout < -1 ? RpcEngine::mTimeout.load(std::memory_order_relaxed) : timeout;
}

unsigned int ToStatus(int transportStatus) {
  switch (transportStatus) {
    case rpc::kConnectionLost:
    case rpc::kBusy:  // the server has not run the call, so a retry is safe
      return VYN_ERR_RPC_TRANSPORT_A;
    case rpc::kTimedOut:
      return VYN_ERR_RPC_TRANSPORT_B;
    default:
      return VYN_ERR_RPC_TRANSPORT_OTHER;
  }
}

/// Runs one phase of a call. Sets `duration` to its nanoseconds when phases are measured, otherwise to 0.
template <typename Phase>
auto Measured(int& duration, Phase phase) {
  if (TimeCounter::timeCounterLevel.load(std::memory_order_relaxed) <= 1) {
    duration = 0;
    return phase();
  }
  const auto begin = SteadyNow();
  auto result = phase();
  duration = static_cast<int>(std::chrono::nanoseconds(SteadyNow() - begin).count());
  return result;
}

rpc::Message NewRequest(unsigned short opcode) {
  rpc::Message request{MessageId(opcode)};
  request.Bl().reserve(2);
  request.Bl().emplace_back(&gRpcVersion, sizeof(gRpcVersion), nullptr);
  return request;
}

void LogCallError(unsigned short opcode, int status, long timeout) {
  VYN_LOG_ERROR("rpc error. opcode: " << opcode << ", " << status << ": " << VynRpcStatusString(status)
                                      << " timeout " << timeout << "ms.");
}

/// Sends the result word and, after it, `data` if there is any. Returns: whether it was sent.
bool Reply(unsigned short opcode, const std::shared_ptr<rpc::ServerContext>& context, ResultWord result,
           void* data, unsigned int size, long timeout, rpc::Callback* callback = nullptr) {
  rpc::Message reply{MessageId(opcode)};
  reply.Bl().reserve(2);
  reply.Bl().emplace_back(&result, sizeof(result), nullptr);
  if (data != nullptr && size != 0) {
    reply.Bl().emplace_back(data, size, nullptr);
  }
  context->mTimeout = EffectiveTimeout(timeout);
  return rpc::Server::Reply(context, &reply, callback);
}

}  // namespace

unsigned int RpcEngine::Initialize(std::string& ip, short port, long timeout, bool tlsEnable, bool authEnable,
                                   std::map<std::string, const std::string>& securityConf) {
  mIp = ip;
  mPort = port;
  mTimeout = timeout < 1 ? -1 : timeout;
  const auto peerPort = static_cast<unsigned short>(port);
  try {
    auto client = std::make_unique<rpc::SecuredClient>(ip, peerPort, mClientOptions, tlsEnable, authEnable);
    sync::MutexLock lock(mClientMutex);
    mClient = std::move(client);
    if (mAbandoned) {
      mClient->Abandon();
    }
  } catch (const std::bad_alloc&) {
    sync::MutexLock lock(mClientMutex);
    mClient.reset();
    VYN_LOG_ERROR("Failed to create rpc client.");
    return VYN_ERR_GENERIC;
  }
  if (!mClient->Initialize(securityConf, mTimeout)) {
    VYN_LOG_ERROR("Failed to init Rpc client." << rpc::SecuredClient::mLastErrorMessage);
    return VYN_ERR_GENERIC;
  }
  mClient->SetMaxReconnectTimes(kMaxReconnectTimes);
  if (mClient->Connect()) {
    return VYN_OK;
  }
  VYN_LOG_ERROR("Rpc client failed to connect to rpc server "
                << ip << ":" << peerPort << "Err:" << rpc::SecuredClient::mLastErrorMessage
                << ", try to reconnect");
  ClientContext context;
  context.mTimeout = mTimeout;
  return mClient->ReconnectAndAuth(&context, true) ? VYN_OK : ToStatus(context.mStatus);
}

unsigned int RpcEngine::Reconnect(long timeout) {
  VYN_CHECK_POINTER(mClient);
  ClientContext context;
  context.mTimeout = timeout;
  return mClient->ReconnectAndAuth(&context, true) ? VYN_OK : VYN_ERR_RPC_TRANSPORT_B;
}

void RpcEngine::Abandon() {
  sync::MutexLock lock(mClientMutex);
  mAbandoned = true;
  if (mClient != nullptr) {
    mClient->Abandon();
  }
}

unsigned int RpcEngine::SyncRpcCall(unsigned short opcode, const Ref<BaseMessage>& request,
                                    const Ref<BaseMessage>& response, long timeout,
                                    ExpectedRefusals expected) {
  VYN_CHECK_POINTER(mClient);
  VYN_CHECK_POINTER(request);
  // When this fails, SerializedData is null, and the assertion below ends the call.
  Measured(mTimeSer, [&] { return request->Serialize(); });
  rpc::Message requestMessage = NewRequest(opcode);
  rpc::Message responseMessage{MessageId(opcode)};
  VYN_ASSERT(request->SerializedData() != nullptr && request->SerializedDataSize() > 0,
             VYN_ERR_INVALID_PARAM);
  requestMessage.Bl().emplace_back(request->SerializedData(), request->SerializedDataSize(), nullptr);

  ClientContext context;
  context.mTimeout = EffectiveTimeout(timeout);
  const bool done = Measured(
      mTimeCall, [&] { return mClient->SyncCall(&context, &requestMessage, &responseMessage, nullptr); });
  if (!done) {
    LogCallError(opcode, context.mStatus, context.mTimeout);
    return ToStatus(context.mStatus);
  }
  if (const unsigned int result = CheckResult(opcode, responseMessage.Bl(), expected); Failed(result)) {
    return result;
  }
  if (response == nullptr) {
    return VYN_OK;
  }
  const Buffer& reply = responseMessage.Bl().front();
  const auto length = static_cast<std::int64_t>(reply.Len()) - static_cast<std::int64_t>(sizeof(ResultWord));
  if (length < 0) {
    VYN_LOG_ERROR("Response data length is error. which is :" << length);
    return VYN_ERR_INVALID_PARAM;
  }
  const unsigned int result = response->SetInputRawData(static_cast<char*>(reply.Addr()) + sizeof(ResultWord),
                                                        static_cast<unsigned int>(length), false);
  if (Failed(result)) {
    return result;
  }
  return Measured(mTimeDes, [&] { return response->Deserialize(); });
}

unsigned int RpcEngine::SyncRpcCall(unsigned short opcode, char* data, unsigned int size, long timeout) {
  VYN_CHECK_POINTER(mClient);
  rpc::Message request = NewRequest(opcode);
  rpc::Message response{MessageId(opcode)};
  VYN_ASSERT(data != nullptr && size > 0, VYN_ERR_INVALID_PARAM);
  request.Bl().emplace_back(data, size, nullptr);

  ClientContext context;
  context.mTimeout = EffectiveTimeout(timeout);
  if (!mClient->SyncCall(&context, &request, &response, nullptr)) {
    LogCallError(opcode, context.mStatus, context.mTimeout);
    return context.mStatus == rpc::kBusy ? VYN_ERR_RPC_TRANSPORT_A : VYN_ERR_RPC_TRANSPORT_OTHER;
  }
  return CheckResult(opcode, response.Bl());
}

unsigned int RpcEngine::CheckResult(unsigned short opcode, std::vector<rpc::Buffer>& buffers,
                                    ExpectedRefusals expected) {
  if (buffers.size() != 1) {
    VYN_LOG_ERROR("Sync rpc call return size != 1. "
                  << " opcode: " << opcode);
    return VYN_ERR_GENERIC;
  }
  const Buffer& buffer = buffers.front();
  ResultWord word;
  if (buffer.Addr() == nullptr || buffer.Len() < sizeof(word)) {
    VYN_LOG_ERROR("Rpc reply error, opcode: " << opcode << " address " << buffer.Addr() << " data size "
                                              << buffer.Len());
    return VYN_ERR_GENERIC;
  }
  std::memcpy(&word, buffer.Addr(), sizeof(word));
  if (!Failed(word)) {
    return VYN_OK;
  }
  if (Expects(expected, word)) {
    VYN_LOG_DEBUG("Refused as expected with " << word << ", opcode: " << opcode);
  } else {
    VYN_LOG_ERROR("Error code is " << word << " opcode: " << opcode);
  }
  return word;
}

unsigned int RpcEngine::ParseRequest(const std::shared_ptr<rpc::Message>& message, void*& data,
                                     unsigned int& size) {
  std::uint16_t version;
  if (message == nullptr || message->Bl().size() != 1 || message->Bl().front().Addr() == nullptr ||
      message->Bl().front().Len() < sizeof(version)) {
    VYN_LOG_ERROR("Parse request error, input is null.");
    return VYN_ERR_REQUEST_SHAPE;
  }
  const Buffer& buffer = message->Bl().front();
  std::memcpy(&version, buffer.Addr(), sizeof(version));
  if (version > gRpcVersion) {
    VYN_LOG_ERROR("Current low rpc version v" << gRpcVersion << " can't support for high version v"
                                              << version);
    return VYN_ERR_RPC_VERSION;
  }
  data = static_cast<char*>(buffer.Addr()) + sizeof(version);
  size = static_cast<unsigned int>(buffer.Len() - sizeof(version));
  return VYN_OK;
}

unsigned int RpcEngine::ParseRequest(unsigned short opcode,
                                     const std::shared_ptr<rpc::ServerContext>& context,
                                     const std::shared_ptr<rpc::Message>& message,
                                     const Ref<BaseMessage>& request) {
  VYN_CHECK_POINTER(request);
  void* data = nullptr;
  unsigned int size = 0;
  unsigned int code = ParseRequest(message, data, size);
  if (Failed(code)) {
    VYN_LOG_ERROR("Failed to parse request. opcode: " << opcode << ", error code: " << code);
  } else {
    code = request->SetInputRawData(static_cast<char*>(data), size, false);
    if (!Failed(code)) {
      code = request->Deserialize();
    }
    if (!Failed(code)) {
      return VYN_OK;
    }
    VYN_LOG_ERROR("Failed to deserialize request. opcode: " << opcode << ", error code: " << code);
  }
  SyncRpcReply(opcode, context, code, nullptr, 0, 0);
  return VYN_ERR_GENERIC;
}

unsigned int RpcEngine::SyncRpcReply(unsigned short opcode,
                                     const std::shared_ptr<rpc::ServerContext>& context, unsigned int result,
                                     void* data, unsigned int size, long timeout) {
  VYN_CHECK_POINTER(context);
  if (!Reply(opcode, context, result, data, size, timeout)) {
    VYN_LOG_ERROR("rpc error. opcode: " << opcode << ", " << context->mStatus << ": "
                                        << VynRpcStatusString(context->mStatus));
    return VYN_ERR_GENERIC;
  }
  return VYN_OK;
}

unsigned int RpcEngine::SyncRpcReply(unsigned short opcode,
                                     const std::shared_ptr<rpc::ServerContext>& context, unsigned int result,
                                     const Ref<BaseMessage>& response, long timeout) {
  return SyncRpcReply(opcode, context, result, response, timeout, nullptr);
}

unsigned int RpcEngine::SyncRpcReply(unsigned short opcode,
                                     const std::shared_ptr<rpc::ServerContext>& context, unsigned int result,
                                     const Ref<BaseMessage>& response, long timeout,
                                     rpc::Callback* callback) {
  VYN_CHECK_POINTER(context);
  void* data = nullptr;
  unsigned int size = 0;
  if (response != nullptr) {
    response->Serialize();
    data = response->SerializedData();
    size = response->SerializedDataSize();
  }
  if (!Reply(opcode, context, result, data, size, timeout, callback)) {
    VYN_LOG_ERROR("Rpc reply error. opcode: " << opcode << ", " << context->mStatus << ": "
                                              << VynRpcStatusString(context->mStatus));
    return VYN_ERR_GENERIC;
  }
  return VYN_OK;
}

}  // namespace vyn::common
