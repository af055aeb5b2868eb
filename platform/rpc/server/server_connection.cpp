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

/// Requests read from one connection before others get their turn.
constexpr int kFramesInTurn = 32;

using Clock = net::Deadline::Clock;

bool Passed(Clock::time_point since, Clock::time_point now, std::int64_t milliseconds) {
  return now - since > std::chrono::milliseconds(milliseconds);
}

}  // namespace

ServerConnection::ServerConnection(std::shared_ptr<ServerCore> core, net::Descriptor descriptor,
                                   std::string peer, std::unique_ptr<net::Stream> stream)
    : mCore(std::move(core)),
      mPeer(std::move(peer)),
      mSocket(std::move(descriptor)),
      mStream(std::move(stream)),
      mReader(kRequestAlignment, mCore->Options().mMaxFrameLength) {
  if (mCore->Options().mTls) {
    // A short read means the end of a TLS record; the socket may have more.
    mReader.DisableShortReadShortcut();
  }
}

void ServerConnection::Start() {
  try {
    mCore->AddConnection(shared_from_this());
  } catch (const std::bad_alloc&) {
    mCore->RemoveConnection(shared_from_this());
    throw;
  }
  bool good = !mCore->IsStopping();
  if (good) {
    sync::MutexLock lock(mMutex);
    good = mPhase == Phase::kClosed || mCore->Events().Watch(mSocket.Get(), shared_from_this());
  }
  if (good) {
    Pump();
  } else {
    Close("");
  }
}

void ServerConnection::OnReady(std::uint32_t events) {
  if ((events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0) {
    bool gone = false;
    {
      sync::MutexLock lock(mMutex);
      if (mPhase == Phase::kClosed) {
        return;
      }
      mReader.DisableShortReadShortcut();  // the event loop reports the peer's end only once
      if (mPaused || mParked || mCore->IsStopping()) {
        pollfd now{mSocket.Get(), 0, 0};
        gone = poll(&now, 1, 0) == 1 && (now.revents & (POLLHUP | POLLERR)) != 0;
      }
    }
    if (gone) {
      // Nobody is left to read the answers that this connection waits for.
      Close("");
      return;
    }
  }
  Pump();
}

void ServerConnection::Pump() {
  {
    sync::MutexLock lock(mMutex);
    if (mPumping) {
      mPumpAgain = true;
      return;
    }
    mPumping = true;
  }
  try {
    for (int turn = 1; PumpOnce(); ++turn) {
      if (turn == kFramesInTurn) {  // this thread has other events to handle, too
        {
          sync::MutexLock lock(mMutex);
          mPumping = false;
        }
        PostPump();
        return;
      }
    }
  } catch (const std::exception& error) {
    Close(error.what());  // in practice bad_alloc
  }
}

bool ServerConnection::PumpOnce() {
  FinishedOutputs finished;
  std::string error;
  Step step;
  {
    sync::MutexLock lock(mMutex);
    mPumpAgain = false;
    mReader.OnReadable();
    try {
      step = mPhase == Phase::kClosed ? Step::kEnd : StepHandshake(error);
      if (step == Step::kGo && Flush(finished, error) == Step::kEnd) {
        step = Step::kEnd;
      }
      if (step == Step::kGo) {
        step = StepGreeting(error);
      }
    } catch (const std::exception& failure) {  // the outputs that are finished are completed all the same
      error = failure.what();
      step = Step::kEnd;
    }
  }
  CompleteOutputs(finished, kOk);
  for (int turn = 0; step == Step::kGo; ++turn) {
    RpcFrame frame;
    {
      sync::MutexLock lock(mMutex);
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
    Close(error);
    return false;
  }
  sync::MutexLock lock(mMutex);
  mPumping = mPumpAgain;
  return mPumpAgain;
}

void ServerConnection::PostPump() {
  try {
    mCore->Events().Post([self = shared_from_this()] { self->Pump(); });
  } catch (const std::bad_alloc&) {
    Close("no memory");
  }
}

void ServerConnection::Resume() {
  {
    sync::MutexLock lock(mMutex);
    mParked = false;
    mLastActivity = mCore->Events().Now();
    if (mFrameBegan != Clock::time_point{}) {
      mFrameBegan = mCore->Events().Now();  // while it was parked, nothing was read
    }
  }
  PostPump();
}

ServerConnection::Step ServerConnection::StepHandshake(std::string& error) {
  if (mPhase != Phase::kHandshake) {
    return Step::kGo;
  }
  const net::IoState state = mStream->Handshake();
  if (state != net::IoState::kDone) {
    const Step step = StepFor(state, error);
    if (step == Step::kEnd && !error.empty()) {
      error = "TLS handshake: " + error;
    }
    return step;
  }
  mPhase = Phase::kGreeting;
  Greeting own;
  own.mMaxLength = static_cast<std::uint32_t>(mCore->Options().mMaxFrameLength);
  Output output;
  if (const char* wrong = BufferRemainder({{&own, sizeof(own)}}, 0, nullptr, output)) {
    error = wrong;
    return Step::kEnd;
  }
  return Step::kGo;
}

ServerConnection::Step ServerConnection::StepGreeting(std::string& error) {
  while (mPhase == Phase::kGreeting) {
    const net::IoResult result = mStream->Read(reinterpret_cast<char*>(&mPeerGreeting) + mGreetingRead,
                                               sizeof(mPeerGreeting) - mGreetingRead);
    if (result.mState != net::IoState::kDone) {
      return StepFor(result.mState, error);
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

ServerConnection::Step ServerConnection::NextFrame(RpcFrame& frame, std::string& error) {
  if (mCore->IsStopping() || mParked) {
    return Step::kWait;
  }
  if (mPending >= mCore->Options().mMaxPendingCalls) {
    mPaused = true;
    return Step::kWait;
  }
  // A request that has begun to arrive must be able to complete: parked connections wait for it to end.
  if (mArriving == 0 && !mCore->AdmitOrPark(shared_from_this())) {
    mParked = true;
    return Step::kWait;
  }
  RpcFrameReader::State state = mReader.Next(*mStream, frame);
  if (state == RpcFrameReader::State::kLongFrame) {
    mArriving = mReader.LongLength();
    mCore->HoldBytes(mArriving);
    mReader.AcceptLongFrame();
    state = mReader.Next(*mStream, frame);
  }
  switch (state) {
    case RpcFrameReader::State::kFrame:
      mLastActivity = mCore->Events().Now();
      mFrameBegan = {};
      ++mPending;
      mCore->BeginCall(frame.mHeader.mLength - std::exchange(mArriving, 0));
      return Step::kGo;
    case RpcFrameReader::State::kLongFrame:
      break;  // a frame is reported as long only once
    case RpcFrameReader::State::kWantRead:
      if (mReader.IsInFrame() && mFrameBegan == Clock::time_point{}) {
        mFrameBegan = mCore->Events().Now();
      }
      return StepFor(net::IoState::kWantRead, error);
    case RpcFrameReader::State::kWantWrite:
      return StepFor(net::IoState::kWantWrite, error);
    case RpcFrameReader::State::kClosed:
      if (mReader.IsInFrame()) {
        error = "the connection finished in the middle of a frame";
      }
      return Step::kEnd;
    case RpcFrameReader::State::kFailed:
      error = mReader.Error();
      return Step::kEnd;
  }
  return Step::kEnd;
}

ServerConnection::Step ServerConnection::StepFor(net::IoState state, std::string& error) const {
  switch (state) {
    case net::IoState::kDone:
      return Step::kGo;
    case net::IoState::kWantRead:
    case net::IoState::kWantWrite:
      return Step::kWait;
    case net::IoState::kFailed:
      error = mStream->Error();
      return Step::kEnd;
    case net::IoState::kClosed:
      return Step::kEnd;
  }
  return Step::kEnd;
}

void ServerConnection::CloseLocked(FinishedOutputs& finished) {
  mPhase = Phase::kClosed;
  finished.splice(finished.end(), mOutput);
  mStream->Close();
  mStream.reset();
  mCore->Events().Unwatch(mSocket.Get());
  shutdown(mSocket.Get(), SHUT_RDWR);
  mSocket.Close();
}

void ServerConnection::Close(const std::string& reason) {
  FinishedOutputs finished;
  {
    sync::MutexLock lock(mMutex);
    if (mPhase == Phase::kClosed) {
      return;
    }
    CloseLocked(finished);
  }
  FinishClose(finished, reason);
}

void ServerConnection::FinishClose(FinishedOutputs& finished, const std::string& reason) {
  CompleteOutputs(finished, kConnectionLost);
  std::size_t arriving = 0;
  {
    sync::MutexLock lock(mMutex);
    arriving = std::exchange(mArriving, 0);
  }
  mCore->ReleaseBytes(arriving);
  mCore->RemoveConnection(shared_from_this());
  try {
    if (!reason.empty()) {
      mCore->Report(mPeer + ": " + reason);
    }
  } catch (const std::exception& failure) {
    mCore->Report(failure.what());
  }
}

void ServerConnection::CheckTimeouts(Clock::time_point now) {
  const ServerOptions& options = mCore->Options();
  const char* reason = nullptr;
  {
    sync::MutexLock lock(mMutex);
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
    Close(reason);
  }
}

}  // namespace vyn::rpc
