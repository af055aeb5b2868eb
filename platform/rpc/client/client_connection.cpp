#include "platform/rpc/client/client_connection.h"

#include "platform/net/dialer.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

namespace vyn::rpc {

namespace {

/// The pause between two attempts to connect to a peer that refuses, for example while it restarts.
constexpr int kReconnectPause = 20;

/// A connection on which a call began so recently is used without a check whether the server has closed it. A
/// server that was restarted meanwhile would not be back yet either.
constexpr std::chrono::microseconds kUncheckedTime{100};

/// Whether the server answered a failed call: then the connection can be used further.
bool IsAnswer(std::int32_t status) {
  return status == kNoAnswer || status == kNoHandler || status == kMessageTooLong;
}

std::int32_t StatusOf(net::NetStatus status) {
  switch (status) {
    case net::NetStatus::kOk:
      return kOk;
    case net::NetStatus::kBadAddress:
      return kInvalidArgument;
    case net::NetStatus::kBadSetting:
      return kBadSetting;
    case net::NetStatus::kNoSocket:
      return kNoMemory;
    case net::NetStatus::kRefused:
      return kConnectionLost;
    case net::NetStatus::kTimedOut:
      break;
  }
  return kTimedOut;
}

}  // namespace

ClientConnection::ClientConnection(std::string ip, std::uint16_t port)
    : mIp(std::move(ip)), mPort(port), mSettingOutcome(TransportSetting::FromEnvironment(mSetting)) {}

ClientConnection::~ClientConnection() { Close(); }

RpcOutcome ClientConnection::Connect() { return WithPeerName(Open(net::Deadline(mConnectTimeout))); }

RpcOutcome ClientConnection::Reconnect(const net::Deadline& deadline) {
  RpcOutcome outcome;
  for (int attempt = 0; attempt < std::max(mReconnectLimit, 1); ++attempt) {
    if (attempt > 0) {
      poll(nullptr, 0,
           deadline.HasLimit() ? std::min(kReconnectPause, deadline.PollTime()) : kReconnectPause);
    }
    outcome = Open(deadline);
    if (outcome.mStatus != kConnectionLost || deadline.IsOver()) {
      break;
    }
  }
  return WithPeerName(std::move(outcome));
}

RpcOutcome ClientConnection::Call(const Message& request, Message& response, const net::Deadline& deadline) {
  response.Bl().clear();
  std::uint64_t length = 0;
  for (const Buffer& buffer : request.Bl()) {
    if (buffer.Addr() == nullptr && buffer.Len() != 0) {
      return {kInvalidArgument, "a buffer of the request has no address"};
    }
    length += buffer.Len();
  }
  auto now = net::Deadline::Clock::now();
  if (mStream != nullptr &&
      (mOwner != sync::ForkCount() || (now - mLastCallBegan > kUncheckedTime && mStream->Get().IsStale()))) {
    Close();
  }
  mLastCallBegan = now;
  if (mStream == nullptr) {
    if (RpcOutcome outcome = Reconnect(deadline); !outcome.Ok()) {
      return outcome;
    }
    now = net::Deadline::Clock::now();
  }
  if (length > mPeerMaxLength) {
    return WithPeerName({kMessageTooLong, "a request of " + std::to_string(length) +
                                              " bytes; the server takes " + std::to_string(mPeerMaxLength)});
  }
  mStream->ChooseWait(deadline, now);
  RpcOutcome outcome = SendAndReceive(request, static_cast<std::uint32_t>(length), response, deadline);
  if (outcome.Ok()) {
    return outcome;
  }
  if (!IsAnswer(outcome.mStatus)) {
    // A late reply could otherwise be taken for the reply to the next call.
    Close();
  }
  return WithPeerName(std::move(outcome));
}

RpcOutcome ClientConnection::Open(const net::Deadline& deadline) {
  Close();
  if (!mRefusal.Ok()) {
    return mRefusal;
  }
  if (!mSettingOutcome.Ok()) {
    return mSettingOutcome;
  }
  RpcOutcome outcome = Establish(deadline);
  if (!outcome.Ok()) {
    Close();
  }
  return outcome;
}

RpcOutcome ClientConnection::Establish(const net::Deadline& deadline) {
  net::Descriptor socket;
  if (net::NetOutcome dialed = net::Dial(mIp, mPort, mSetting, deadline, socket); !dialed.Ok()) {
    return {StatusOf(dialed.mStatus), std::move(dialed.mText)};
  }
  {
    sync::MutexLock lock(mSocketMutex);
    if (mAbandoned) {
      return {kConnectionLost, "the client has turned to another server"};
    }
    mSocket = std::move(socket);
    mOwner = sync::ForkCount();
  }
  auto stream =
      mTls != nullptr ? mTls->NewStream(mSocket.Get()) : std::make_unique<net::PlainStream>(mSocket.Get());
  if (stream == nullptr) {
    return {kNoMemory, "no memory for a TLS connection"};
  }
  mStream = std::make_unique<net::BlockingStream>(std::move(stream), mSocket.Get());
  if (mTls == nullptr) {
    if (const int error = mStream->UseKernelWait(); error != 0) {
      return {kNoMemory, std::string("cannot set a socket up: ") + strerror(error)};
    }
  }
  if (const net::IoStatus status = mStream->Handshake(deadline); status != net::IoStatus::kOk) {
    RpcOutcome outcome = OutcomeOf(status);
    if (status == net::IoStatus::kFailed) {
      outcome.mStatus = kTlsError;
    }
    outcome.mText = "TLS handshake: " + outcome.mText;
    return outcome;
  }

  Greeting own;
  own.mMaxLength = kLongestReply;
  iovec part{&own, sizeof(own)};
  if (RpcOutcome outcome = OutcomeOf(mStream->Write(&part, 1, deadline)); !outcome.Ok()) {
    return outcome;
  }
  Greeting peer;
  if (RpcOutcome outcome = OutcomeOf(mStream->ReadExactly(&peer, sizeof(peer), deadline)); !outcome.Ok()) {
    outcome.mText += " (before the server's greeting";
    outcome.mText += mTls != nullptr ? ")" : "; does it expect TLS?)";
    return outcome;
  }
  if (const char* wrong = CheckGreeting(peer)) {
    return {kProtocolError, wrong};
  }
  if (peer.mStatus != kOk) {
    return {peer.mStatus, VynRpcStatusString(peer.mStatus)};
  }
  mPeerMaxLength = peer.mMaxLength;
  mReader.emplace(kReplyAlignment, kLongestReply);
  return {};
}

RpcOutcome ClientConnection::SendAndReceive(const Message& request, std::uint32_t length, Message& response,
                                            const net::Deadline& deadline) {
  RpcFrameHeader header;
  header.mLength = length;
  header.mCall = ++mLastCall;
  header.mId = request.Id().Value();
  mParts.clear();
  mParts.push_back({&header, sizeof(header)});
  for (const Buffer& buffer : request.Bl()) {
    mParts.push_back({buffer.Addr(), buffer.Len()});
  }
  if (RpcOutcome outcome = OutcomeOf(mStream->Write(mParts.data(), mParts.size(), deadline)); !outcome.Ok()) {
    return outcome;
  }
  return ReceiveReply(header, response, deadline);
}

RpcOutcome ClientConnection::ReceiveReply(const RpcFrameHeader& sent, Message& response,
                                          const net::Deadline& deadline) {
  RpcFrame frame;
  // The reply cannot have arrived yet, so we wait first. Whatever the last read found no longer counts then.
  mReader->OnReadable();
  auto state = RpcFrameReader::State::kWantRead;
  while (state != RpcFrameReader::State::kFrame) {
    switch (state) {
      case RpcFrameReader::State::kFailed:
        return {kProtocolError, mReader->Error()};
      case RpcFrameReader::State::kClosed:
        return OutcomeOf(net::IoStatus::kClosed);
      case RpcFrameReader::State::kLongFrame:
        mReader->AcceptLongFrame();
        break;
      default:
        if (RpcOutcome outcome =
                OutcomeOf(mStream->Await(state == RpcFrameReader::State::kWantWrite ? net::IoState::kWantWrite
                                                                                    : net::IoState::kWantRead,
                                         deadline));
            !outcome.Ok()) {
          return outcome;
        }
    }
    state = mReader->Next(mStream->Get(), frame);
  }
  if (frame.mHeader.mCall != sent.mCall || frame.mHeader.mId != sent.mId || mReader->IsInFrame()) {
    return {kProtocolError, "a reply that belongs to no call"};
  }
  if (frame.mHeader.mStatus != kOk) {
    return {frame.mHeader.mStatus, VynRpcStatusString(frame.mHeader.mStatus)};
  }
  response.Bl() = std::move(frame.mMessage.Bl());
  return {};
}

RpcOutcome ClientConnection::OutcomeOf(net::IoStatus status) {
  switch (status) {
    case net::IoStatus::kOk:
      return {};
    case net::IoStatus::kTimeout:
      return {kTimedOut, VynRpcStatusString(kTimedOut)};
    case net::IoStatus::kClosed:
    case net::IoStatus::kReset: {
      const std::string& error = mStream->Get().Error();
      return {kConnectionLost, error.empty() ? "the peer closed the connection" : error};
    }
    case net::IoStatus::kFailed:
      break;
  }
  return {kProtocolError, mStream->Get().Error()};
}

void ClientConnection::Close() {
  if (mStream != nullptr) {
    if (mOwner == sync::ForkCount()) {  // TLS's closing message from a child would end its parent's stream
      mStream->Get().Close();
    }
    mStream.reset();
  }
  mReader.reset();
  sync::MutexLock lock(mSocketMutex);
  mSocket.Close();
}

void ClientConnection::Abandon() {
  sync::MutexLock lock(mSocketMutex);
  mAbandoned = true;
  if (mSocket && mOwner == sync::ForkCount()) {  // a shutdown would end the parent's connection, too
    ::shutdown(mSocket.Get(), SHUT_RDWR);
  }
}

RpcOutcome ClientConnection::WithPeerName(RpcOutcome outcome) const {
  if (!outcome.Ok()) {
    outcome.mText = mIp + ":" + std::to_string(mPort) + ": " + outcome.mText;
  }
  return outcome;
}

}  // namespace vyn::rpc
