#include "platform/rpc/server/server_connection.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <new>
#include <utility>

namespace vyn::rpc {

namespace {

/// Requests taken from one connection before others get their turn.
constexpr int kFramesInTurn = 32;

using Clock = Deadline::Clock;

bool Passed(Clock::time_point since, Clock::time_point now, std::int64_t milliseconds) {
  return now - since > std::chrono::milliseconds(milliseconds);
}

}  // namespace

ServerConnection::ServerConnection(std::shared_ptr<ServerCore> core, Descriptor descriptor, std::string peer,
                                   std::unique_ptr<Stream> stream)
    : mCore(std::move(core)),
      mPeer(std::move(peer)),
      mSocket(std::move(descriptor)),
      mStream(std::move(stream)),
      mReader(kRequestAlignment, mCore->Options().mMaxFrameLength) {
  if (mCore->Options().mTls) {
    // That a record ends where the bytes end does not mean that the socket has no more.
    mReader.ReadToEnd();
  }
}

void ServerConnection::Begin() {
  try {
    mCore->Remember(shared_from_this());
  } catch (const std::bad_alloc&) {
    mCore->Forget(shared_from_this());
    throw;
  }
  bool good = !mCore->IsStopping();
  if (good) {
    std::lock_guard lock(mMutex);
    good = mPhase == Phase::kClosed || mCore->Events().Watch(mSocket.Get(), shared_from_this());
  }
  if (good) {
    Pump();
  } else {
    Shut("");
  }
}

void ServerConnection::OnReady(std::uint32_t events) {
  if ((events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0) {
    bool gone = false;
    {
      std::lock_guard lock(mMutex);
      if (mPhase == Phase::kClosed) {
        return;
      }
      mReader.ReadToEnd();  // the end is told only once
      if (mPaused || mParked || mCore->IsStopping()) {
        pollfd now{mSocket.Get(), 0, 0};
        gone = poll(&now, 1, 0) == 1 && (now.revents & (POLLHUP | POLLERR)) != 0;
      }
    }
    if (gone) {
      // Nobody is left to take the answers that are being waited for.
      Shut("");
      return;
    }
  }
  Pump();
}

void ServerConnection::Pump() {
  {
    std::lock_guard lock(mMutex);
    if (mPumping) {
      mPumpAgain = true;
      return;
    }
    mPumping = true;
  }
  try {
    for (int turn = 1; PumpOnce(); ++turn) {
      if (turn == kFramesInTurn) {  // others of this thread's events wait, too
        {
          std::lock_guard lock(mMutex);
          mPumping = false;
        }
        PostPump();
        return;
      }
    }
  } catch (const std::exception& error) {
    Shut(error.what());  // no memory, most likely
  }
}

/// Returns: whether there may be more to do.
bool ServerConnection::PumpOnce() {
  Ended ended;
  std::string error;
  Step step;
  {
    std::lock_guard lock(mMutex);
    mPumpAgain = false;
    mReader.Woken();
    try {
      step = mPhase == Phase::kClosed ? Step::kEnd : StepHandshake(error);
      if (step == Step::kGo && Flush(ended, error) == Step::kEnd) {
        step = Step::kEnd;
      }
      if (step == Step::kGo) {
        step = StepGreeting(error);
      }
    } catch (const std::exception& failure) {  // those that have ended are settled all the same
      error = failure.what();
      step = Step::kEnd;
    }
  }
  Settle(ended, kOk);
  for (int turn = 0; step == Step::kGo; ++turn) {
    Frame frame;
    {
      std::lock_guard lock(mMutex);
      if (turn == kFramesInTurn) {
        mPumping = false;
        break;
      }
      step = mPhase == Phase::kOpen ? NextFrame(frame, error) : Step::kWait;
    }
    if (step == Step::kGo) {
      mCore->Dispatch(shared_from_this(), frame.mHeader, std::move(frame.mMessage));
    }
  }
  if (step == Step::kGo) {
    PostPump();
    return false;
  }
  if (step == Step::kEnd) {
    Shut(error);
    return false;
  }
  std::lock_guard lock(mMutex);
  mPumping = mPumpAgain;
  return mPumpAgain;
}

void ServerConnection::PostPump() {
  try {
    mCore->Events().Post([self = shared_from_this()] { self->Pump(); });
  } catch (const std::bad_alloc&) {
    Shut("no memory");
  }
}

void ServerConnection::Resume() {
  {
    std::lock_guard lock(mMutex);
    mParked = false;
    mLastActivity = mCore->Events().Now();
    if (mFrameBegan != Clock::time_point{}) {
      mFrameBegan = mCore->Events().Now();  // it was not read from meanwhile
    }
  }
  PostPump();
}

ServerConnection::Step ServerConnection::StepHandshake(std::string& error) {
  if (mPhase != Phase::kHandshake) {
    return Step::kGo;
  }
  const IoState state = mStream->Handshake();
  if (state != IoState::kDone) {
    const Step step = After(state, error);
    if (step == Step::kEnd && !error.empty()) {
      error = "TLS handshake: " + error;
    }
    return step;
  }
  mPhase = Phase::kGreeting;
  Greeting own;
  own.mMaxLength = static_cast<std::uint32_t>(mCore->Options().mMaxFrameLength);
  Output output;
  if (const char* wrong = Keep({{&own, sizeof(own)}}, 0, nullptr, output)) {
    error = wrong;
    return Step::kEnd;
  }
  return Step::kGo;
}

ServerConnection::Step ServerConnection::StepGreeting(std::string& error) {
  while (mPhase == Phase::kGreeting) {
    const IoResult result = mStream->Read(reinterpret_cast<char*>(&mPeerGreeting) + mGreetingRead,
                                          sizeof(mPeerGreeting) - mGreetingRead);
    if (result.mState != IoState::kDone) {
      return After(result.mState, error);
    }
    mGreetingRead += result.mBytes;
    if (mGreetingRead < sizeof(mPeerGreeting)) {
      continue;
    }
    if (const char* wrong = CheckGreeting(mPeerGreeting)) {
      error = wrong;
      return Step::kEnd;
    }
    mPhase = Phase::kOpen;
    mLastActivity = mCore->Events().Now();
  }
  return Step::kGo;
}

ServerConnection::Step ServerConnection::NextFrame(Frame& frame, std::string& error) {
  if (mCore->IsStopping() || mParked) {
    return Step::kWait;
  }
  if (mPending >= mCore->Options().mMaxPendingCalls) {
    mPaused = true;
    return Step::kWait;
  }
  // A request that was let in must be able to end, or those that wait for it would wait for ever.
  if (mArriving == 0 && !mCore->AdmitOrPark(shared_from_this())) {
    mParked = true;
    return Step::kWait;
  }
  FrameReader::State state = mReader.Next(*mStream, frame);
  if (state == FrameReader::State::kLongFrame) {
    mArriving = mReader.LongLength();
    mCore->Hold(mArriving);
    mReader.Accept();
    state = mReader.Next(*mStream, frame);
  }
  switch (state) {
    case FrameReader::State::kFrame:
      mLastActivity = mCore->Events().Now();
      mFrameBegan = {};
      ++mPending;
      mCore->BeginCall(frame.mHeader.mLength - std::exchange(mArriving, 0));
      return Step::kGo;
    case FrameReader::State::kLongFrame:
      break;  // only once in a frame
    case FrameReader::State::kWantRead:
      if (mReader.IsInFrame() && mFrameBegan == Clock::time_point{}) {
        mFrameBegan = mCore->Events().Now();
      }
      return After(IoState::kWantRead, error);
    case FrameReader::State::kWantWrite:
      return After(IoState::kWantWrite, error);
    case FrameReader::State::kClosed:
      if (mReader.IsInFrame()) {
        error = "the connection ended in the middle of a frame";
      }
      return Step::kEnd;
    case FrameReader::State::kFailed:
      error = mReader.Error();
      return Step::kEnd;
  }
  return Step::kEnd;
}

ServerConnection::Step ServerConnection::Write(std::vector<iovec>& parts, std::size_t& first,
                                               std::string& error) {
  while (first < parts.size()) {
    const IoResult result = mStream->Write(parts.data() + first, parts.size() - first);
    if (result.mState != IoState::kDone) {
      return After(result.mState, error);
    }
    Advance(parts.data(), parts.size(), first, result.mBytes);
    mLastWritten = mCore->Events().Now();
  }
  return Step::kGo;
}

ServerConnection::Step ServerConnection::Flush(Ended& ended, std::string& error) {
  while (!mOutput.empty()) {
    Output& output = mOutput.front();
    if (const Step step = Write(output.mParts, output.mFirst, error); step != Step::kGo) {
      return step;
    }
    if (output.mIsReply) {
      mLastActivity = mLastWritten;
      CountDown();
    }
    ended.splice(ended.end(), mOutput, mOutput.begin());
  }
  return Step::kGo;
}

const char* ServerConnection::Keep(const std::vector<iovec>& parts, std::size_t first, Message* message,
                                   Output& output) {
  try {
    std::size_t copied = 0;
    for (std::size_t i = first; i < parts.size(); ++i) {
      output.mHeld += output.mIsReply ? parts[i].iov_len : 0;
      if (i == 0 || !message->Bl()[i - 1].Owns()) {
        copied += parts[i].iov_len;
      }
    }
    output.mCopied.reset(new char[copied]);
    char* to = output.mCopied.get();
    for (std::size_t i = first; i < parts.size(); ++i) {
      iovec part = parts[i];
      if (i > 0 && message->Bl()[i - 1].Owns()) {
        output.mBuffers.push_back(std::move(message->Bl()[i - 1]));
      } else if (part.iov_len > 0) {
        std::memcpy(to, part.iov_base, part.iov_len);
        part.iov_base = to;
        to += part.iov_len;
      }
      output.mParts.push_back(part);
    }
    mOutput.push_back(std::move(output));
  } catch (const std::bad_alloc&) {
    return "no memory for a reply";
  }
  if (mOutput.back().mIsReply && !mCore->HoldReply(mOutput.back().mHeld)) {
    mOutput.pop_back();
    return "a reply has to wait, and those that wait fill the limit of bytes already";
  }
  if (mOutput.size() == 1) {  // the client's time for taking something begins
    mLastWritten = mCore->Events().Now();
  }
  return nullptr;
}

const char* ServerConnection::KeepReply(std::size_t first, std::int32_t status, Message* message,
                                        std::int64_t timeout, Callback* callback, std::size_t requestLength) {
  Output output;
  output.mStatus = status;
  output.mDeadline = Deadline(timeout < 1 ? -1 : timeout);
  output.mCallback = callback;
  output.mRequestLength = requestLength;
  output.mIsReply = true;
  return Keep(mParts, first, message, output);
}

bool ServerConnection::CountDown() {
  --mPending;
  return std::exchange(mPaused, false);
}

ServerConnection::Step ServerConnection::After(IoState state, std::string& error) const {
  switch (state) {
    case IoState::kDone:
      return Step::kGo;
    case IoState::kWantRead:
    case IoState::kWantWrite:
      return Step::kWait;
    case IoState::kFailed:
      error = mStream->Error();
      return Step::kEnd;
    case IoState::kClosed:
      return Step::kEnd;
  }
  return Step::kEnd;
}

std::int32_t ServerConnection::Send(std::uint64_t call, std::uint32_t id, std::size_t requestLength,
                                    std::int32_t status, Message* message, std::int64_t timeout,
                                    Callback* callback) {
  Ended ended;  // of other calls
  std::int32_t result = kConnectionLost;
  Step step = Step::kEnd;
  std::string error;
  bool closed = false;
  bool pump = false;
  {
    std::lock_guard lock(mMutex);
    if (mPhase != Phase::kClosed) {
      FrameHeader header;
      header.mCall = call;
      header.mId = id;
      header.mStatus = status;
      try {
        result = LayOut(header, status == kOk ? message : nullptr);
        std::size_t first = 0;
        step = mOutput.empty() ? Write(mParts, first, error) : Step::kWait;
        if (step == Step::kWait) {
          if (const char* wrong = KeepReply(first, result, message, timeout, callback, requestLength)) {
            step = Step::kEnd;
            error = wrong;
          }
        }
      } catch (const std::bad_alloc&) {
        step = Step::kEnd;
      }
      if (step == Step::kGo) {
        mLastActivity = mLastWritten;
        pump = CountDown();
      }
      if (step == Step::kEnd) {
        result = kConnectionLost;
        closed = true;
        Close(ended);
      }
    }
  }
  if (pump) {
    PostPump();
  }
  if (closed) {
    Buried(ended, error);
  }
  if (step != Step::kWait) {
    if (callback != nullptr) {
      callback->Done(result);
    }
    mCore->EndCall(requestLength);
  }
  return result;
}

/// Makes mParts of a reply, whose length goes into `header`. Returns: kOk; kMessageTooLong for a message that
/// the peer would not take, kInvalidArgument for a buffer without an address; the reply then tells that there
/// is no answer.
std::int32_t ServerConnection::LayOut(FrameHeader& header, Message* message) {
  mParts.assign(1, {&header, sizeof(header)});
  if (message == nullptr) {
    return kOk;
  }
  std::uint64_t length = 0;
  for (const Buffer& buffer : message->Bl()) {
    if (buffer.Addr() == nullptr && buffer.Len() != 0) {
      mParts.resize(1);
      header.mStatus = kNoAnswer;
      return kInvalidArgument;
    }
    mParts.push_back({buffer.Addr(), buffer.Len()});
    length += buffer.Len();
  }
  if (length > std::min<std::uint64_t>(mPeerGreeting.mMaxLength, kLongestFrame)) {
    mParts.resize(1);
    header.mStatus = kMessageTooLong;
    return kMessageTooLong;
  }
  header.mLength = static_cast<std::uint32_t>(length);
  return kOk;
}

void ServerConnection::Close(Ended& ended) {
  mPhase = Phase::kClosed;
  ended.splice(ended.end(), mOutput);
  mStream->Close();
  mStream.reset();
  mCore->Events().Unwatch(mSocket.Get());
  shutdown(mSocket.Get(), SHUT_RDWR);
  mSocket.Close();
}

void ServerConnection::Shut(const std::string& reason) {
  Ended ended;
  {
    std::lock_guard lock(mMutex);
    if (mPhase == Phase::kClosed) {
      return;
    }
    Close(ended);
  }
  Buried(ended, reason);
}

void ServerConnection::Buried(Ended& ended, const std::string& reason) {
  Settle(ended, kConnectionLost);
  std::size_t arriving = 0;
  {
    std::lock_guard lock(mMutex);
    arriving = std::exchange(mArriving, 0);
  }
  mCore->Release(arriving);
  mCore->Forget(shared_from_this());
  try {
    if (!reason.empty()) {
      mCore->Report(mPeer + ": " + reason);
    }
  } catch (const std::exception& failure) {
    mCore->Report(failure.what());
  }
}

void ServerConnection::Settle(Ended& ended, std::int32_t status) {
  for (const Output& output : ended) {
    if (output.mCallback != nullptr) {
      output.mCallback->Done(status == kOk ? output.mStatus : status);
    }
    if (output.mIsReply) {
      mCore->EndCall(output.mRequestLength);
    }
    mCore->ReleaseReply(output.mHeld);
  }
}

void ServerConnection::Sweep(Clock::time_point now) {
  const ServerOptions& options = mCore->Options();
  const char* reason = nullptr;
  {
    std::lock_guard lock(mMutex);
    if (mPhase == Phase::kClosed) {
      return;
    }
    if (mPhase != Phase::kOpen) {
      reason = Passed(mLastActivity, now, options.mHandshakeTimeout) ? "no greeting in time" : nullptr;
    } else if (!mOutput.empty()) {
      if (std::any_of(mOutput.begin(), mOutput.end(),
                      [now](const Output& output) { return output.mDeadline.IsOver(now); })) {
        reason = "a reply was not taken within the time of its call";
      } else if (Passed(mLastWritten, now, options.mFrameTimeout)) {
        reason = "the client does not take its replies";
      }
    } else if (mFrameBegan != Clock::time_point{} && !mPaused && !mParked) {
      reason = Passed(mFrameBegan, now, options.mFrameTimeout) ? "a frame did not arrive in time" : nullptr;
    } else if (mPending == 0 && !mParked && options.mIdleTimeout > 0 &&
               Passed(mLastActivity, now, options.mIdleTimeout)) {
      reason = "";
    }
  }
  if (reason != nullptr) {
    Shut(reason);
  }
}

}  // namespace vyn::rpc
