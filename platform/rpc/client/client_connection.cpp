#include "platform/rpc/client/client_connection.h"

#include "platform/net/dialer.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

namespace vyn::rpc {

namespace {

/// Between two attempts to connect to a peer that refuses: the time that a restarting server is given.
constexpr int kReconnectPause = 20;

/// How long a read or a write of a plain socket waits by itself, which spares a poll. A call that has less
/// than kAmple left polls, so that it ends in time.
constexpr std::chrono::milliseconds kOwnWait{500};
constexpr std::chrono::milliseconds kAmple{1000};

/// A connection on which a call began so recently is taken to stand. A server that went meanwhile would not
/// be back yet either.
constexpr std::chrono::microseconds kFresh{100};

/// Whether a failed call was answered: then its connection is as good as before.
bool IsAnswer(std::int32_t status) {
  return status == kNoAnswer || status == kNoHandler || status == kMessageTooLong;
}

}  // namespace

ClientConnection::ClientConnection(std::string ip, std::uint16_t port)
    : mIp(std::move(ip)), mPort(port), mSettingOutcome(TransportSetting::FromEnvironment(mSetting)) {}

ClientConnection::~ClientConnection() { Close(); }

Outcome ClientConnection::Connect() { return Named(Open(Deadline(mConnectTimeout))); }

Outcome ClientConnection::Reconnect(const Deadline& deadline) {
  Outcome outcome;
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
  return Named(std::move(outcome));
}

Outcome ClientConnection::Call(const Message& request, Message& response, const Deadline& deadline) {
  response.Bl().clear();
  std::uint64_t length = 0;
  for (const Buffer& buffer : request.Bl()) {
    if (buffer.Addr() == nullptr && buffer.Len() != 0) {
      return {kInvalidArgument, "a buffer of the request has no address"};
    }
    length += buffer.Len();
  }
  auto now = Deadline::Clock::now();
  if (mStream != nullptr && now - mLastBegin > kFresh && mStream->IsStale()) {
    Close();
  }
  mLastBegin = now;
  if (mStream == nullptr) {
    if (Outcome outcome = Reconnect(deadline); !outcome.Ok()) {
      return outcome;
    }
    now = Deadline::Clock::now();
  }
  if (length > mPeerMaxLength) {
    return Named({kMessageTooLong, "a request of " + std::to_string(length) + " bytes; the server takes " +
                                       std::to_string(mPeerMaxLength)});
  }
  if (mPlain != nullptr) {
    mPlain->SetWaits(deadline.Exceeds(kAmple, now));
  }
  Outcome outcome = Exchange(request, static_cast<std::uint32_t>(length), response, deadline);
  if (outcome.Ok()) {
    return outcome;
  }
  if (!IsAnswer(outcome.mStatus)) {
    // Whatever was under way on it could not be told from what comes next.
    Close();
  }
  return Named(std::move(outcome));
}

Outcome ClientConnection::Open(const Deadline& deadline) {
  Close();
  if (!mRefusal.Ok()) {
    return mRefusal;
  }
  if (!mSettingOutcome.Ok()) {
    return mSettingOutcome;
  }
  Outcome outcome = Establish(deadline);
  if (!outcome.Ok()) {
    Close();
  }
  return outcome;
}

Outcome ClientConnection::Establish(const Deadline& deadline) {
  if (Outcome outcome = Dial(mIp, mPort, mSetting, deadline, mSocket); !outcome.Ok()) {
    return outcome;
  }
  if (mTls != nullptr) {
    mStream = mTls->NewStream(mSocket.Get());
    if (mStream == nullptr) {
      return {kNoMemory, "no memory for a TLS connection"};
    }
  } else {
    auto plain = std::make_unique<PlainStream>(mSocket.Get());
    mPlain = plain.get();
    mStream = std::move(plain);
    if (Outcome outcome = MakeWaiting(); !outcome.Ok()) {
      return outcome;
    }
  }
  for (IoState state = mStream->Handshake(); state != IoState::kDone; state = mStream->Handshake()) {
    if (Outcome outcome = After(state, deadline); !outcome.Ok()) {
      if (state == IoState::kFailed) {
        outcome.mStatus = kTlsError;
      }
      outcome.mText = "TLS handshake: " + outcome.mText;
      return outcome;
    }
  }

  Greeting own;
  own.mMaxLength = kLongestReply;
  std::vector<iovec> parts{{&own, sizeof(own)}};
  if (Outcome outcome = Send(parts, deadline); !outcome.Ok()) {
    return outcome;
  }
  Greeting peer;
  if (Outcome outcome = ReceiveExactly(&peer, sizeof(peer), deadline); !outcome.Ok()) {
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

Outcome ClientConnection::MakeWaiting() const {
  const timeval wait{0, std::chrono::microseconds(kOwnWait).count()};
  int off = 0;
  if (setsockopt(mSocket.Get(), SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof(wait)) != 0 ||
      setsockopt(mSocket.Get(), SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof(wait)) != 0 ||
      ioctl(mSocket.Get(), FIONBIO, &off) != 0) {
    return {kNoMemory, std::string("cannot set a socket up: ") + strerror(errno)};
  }
  return {};
}

Outcome ClientConnection::Exchange(const Message& request, std::uint32_t length, Message& response,
                                   const Deadline& deadline) {
  FrameHeader header;
  header.mLength = length;
  header.mCall = ++mLastCall;
  header.mId = request.Id().Value();
  mParts.clear();
  mParts.push_back({&header, sizeof(header)});
  for (const Buffer& buffer : request.Bl()) {
    mParts.push_back({buffer.Addr(), buffer.Len()});
  }
  if (Outcome outcome = Send(mParts, deadline); !outcome.Ok()) {
    return outcome;
  }
  return ReceiveReply(header, response, deadline);
}

Outcome ClientConnection::Send(std::vector<iovec>& parts, const Deadline& deadline) {
  for (std::size_t first = 0; first < parts.size();) {
    const IoResult result = mStream->Write(parts.data() + first, parts.size() - first);
    if (result.mState == IoState::kDone) {
      Advance(parts.data(), parts.size(), first, result.mBytes);
      if (first < parts.size() && deadline.IsOver()) {
        return {kTimedOut, VynRpcStatusString(kTimedOut)};  // a peer that takes a little each time
      }
      if (first < parts.size() && mPlain != nullptr) {
        mPlain->SetWaits(deadline.Exceeds(kAmple));
      }
    } else if (Outcome outcome = After(result.mState, deadline); !outcome.Ok()) {
      return outcome;
    }
  }
  return {};
}

Outcome ClientConnection::ReceiveExactly(void* data, std::size_t size, const Deadline& deadline) {
  for (std::size_t have = 0; have < size;) {
    const IoResult result = mStream->Read(static_cast<char*>(data) + have, size - have);
    if (result.mState == IoState::kDone) {
      have += result.mBytes;
    } else if (Outcome outcome = After(result.mState, deadline); !outcome.Ok()) {
      return outcome;
    }
  }
  return {};
}

Outcome ClientConnection::ReceiveReply(const FrameHeader& sent, Message& response, const Deadline& deadline) {
  Frame frame;
  // The reply cannot be there yet, so the wait comes first, and it counts for more than what the last read
  // found.
  mReader->Woken();
  auto state = FrameReader::State::kWantRead;
  while (state != FrameReader::State::kFrame) {
    switch (state) {
      case FrameReader::State::kFailed:
        return {kProtocolError, mReader->Error()};
      case FrameReader::State::kClosed:
        return After(IoState::kClosed, deadline);
      case FrameReader::State::kLongFrame:
        mReader->Accept();
        break;
      default:
        if (Outcome outcome = After(
                state == FrameReader::State::kWantWrite ? IoState::kWantWrite : IoState::kWantRead, deadline);
            !outcome.Ok()) {
          return outcome;
        }
    }
    state = mReader->Next(*mStream, frame);
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

Outcome ClientConnection::After(IoState state, const Deadline& deadline) {
  switch (state) {
    case IoState::kWantRead:
    case IoState::kWantWrite:
      if (mPlain != nullptr && mPlain->Waits()) {
        if (deadline.Exceeds(kAmple)) {
          break;  // the next step waits
        }
        mPlain->SetWaits(false);
      }
      if (!WaitFor(mSocket.Get(), state == IoState::kWantRead ? POLLIN : POLLOUT, deadline)) {
        return {kTimedOut, VynRpcStatusString(kTimedOut)};
      }
      break;
    case IoState::kClosed:
      return {kConnectionLost,
              mStream->Error().empty() ? "the peer closed the connection" : mStream->Error()};
    case IoState::kFailed:
      return {kProtocolError, mStream->Error()};
    case IoState::kDone:
      break;
  }
  return {};
}

void ClientConnection::Close() {
  if (mStream != nullptr) {
    mStream->Close();
    mStream.reset();
    mPlain = nullptr;
  }
  mReader.reset();
  mSocket.Close();
}

Outcome ClientConnection::Named(Outcome outcome) const {
  if (!outcome.Ok()) {
    outcome.mText = mIp + ":" + std::to_string(mPort) + ": " + outcome.mText;
  }
  return outcome;
}

}  // namespace vyn::rpc
