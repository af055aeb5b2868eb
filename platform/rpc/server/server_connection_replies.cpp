// The replies of a connection: writing them, and keeping what the socket does not take.

#include "platform/rpc/server/server_connection.h"

#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

namespace vyn::rpc {

ServerConnection::Step ServerConnection::Write(std::vector<iovec>& parts, std::size_t& first,
                                               std::string& error) {
  while (first < parts.size()) {
    const net::IoResult result = mStream->Write(parts.data() + first, parts.size() - first);
    if (result.mState != net::IoState::kDone) {
      return StepFor(result.mState, error);
    }
    net::Advance(parts.data(), parts.size(), first, result.mBytes);
    mLastWritten = mCore->Events().Now();
  }
  return Step::kGo;
}

ServerConnection::Step ServerConnection::Flush(FinishedOutputs& finished, std::string& error) {
  while (!mOutput.empty()) {
    Output& output = mOutput.front();
    if (const Step step = Write(output.mParts, output.mFirst, error); step != Step::kGo) {
      return step;
    }
    if (output.mIsReply) {
      mLastActivity = mLastWritten;
      FinishCall();
    }
    finished.splice(finished.end(), mOutput, mOutput.begin());
  }
  return Step::kGo;
}

const char* ServerConnection::BufferRemainder(const std::vector<iovec>& parts, std::size_t first,
                                              Message* message, Output& output) {
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
  if (mOutput.size() == 1) {  // the client's time limit for reading begins
    mLastWritten = mCore->Events().Now();
  }
  return nullptr;
}

const char* ServerConnection::BufferReply(std::size_t first, std::int32_t status, Message* message,
                                          std::int64_t timeout, Callback* callback,
                                          std::size_t requestLength) {
  Output output;
  output.mStatus = status;
  output.mDeadline = net::Deadline(timeout < 1 ? -1 : timeout);
  output.mCallback = callback;
  output.mRequestLength = requestLength;
  output.mIsReply = true;
  return BufferRemainder(mParts, first, message, output);
}

bool ServerConnection::FinishCall() {
  --mPending;
  return std::exchange(mPaused, false);
}

std::int32_t ServerConnection::Send(std::uint64_t call, std::uint32_t id, std::size_t requestLength,
                                    std::int32_t status, Message* message, std::int64_t timeout,
                                    Callback* callback) {
  FinishedOutputs finished;  // replies to other calls
  std::int32_t result = kConnectionLost;
  Step step = Step::kEnd;
  std::string error;
  bool closed = false;
  bool pump = false;
  {
    sync::MutexLock lock(mMutex);
    if (mPhase != Phase::kClosed) {
      RpcFrameHeader header;
      header.mCall = call;
      header.mId = id;
      header.mStatus = status;
      try {
        result = BuildReply(header, status == kOk ? message : nullptr);
        std::size_t first = 0;
        step = mOutput.empty() ? Write(mParts, first, error) : Step::kWait;
        if (step == Step::kWait) {
          if (const char* wrong = BufferReply(first, result, message, timeout, callback, requestLength)) {
            step = Step::kEnd;
            error = wrong;
          }
        }
      } catch (const std::bad_alloc&) {
        step = Step::kEnd;
      }
      if (step == Step::kGo) {
        mLastActivity = mLastWritten;
        pump = FinishCall();
      }
      if (step == Step::kEnd) {
        result = kConnectionLost;
        closed = true;
        CloseLocked(finished);
      }
    }
  }
  if (pump) {
    PostPump();
  }
  if (closed) {
    FinishClose(finished, error);
  }
  if (step != Step::kWait) {
    if (callback != nullptr) {
      callback->Done(result);
    }
    mCore->EndCall(requestLength);
  }
  return result;
}

std::int32_t ServerConnection::BuildReply(RpcFrameHeader& header, Message* message) {
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

void ServerConnection::CompleteOutputs(FinishedOutputs& finished, std::int32_t status) {
  for (const Output& output : finished) {
    if (output.mCallback != nullptr) {
      output.mCallback->Done(status == kOk ? output.mStatus : status);
    }
    if (output.mIsReply) {
      mCore->EndCall(output.mRequestLength);
    }
    mCore->ReleaseReply(output.mHeld);
  }
}

}  // namespace vyn::rpc
