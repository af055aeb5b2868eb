#include "platform/rpc/server/acceptor.h"

#include "platform/net/address.h"
#include "platform/net/sockets.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

namespace vyn::rpc {

namespace {

/// Connections accepted before the loop's other work gets its turn.
constexpr int kAcceptsInTurn = 64;

}  // namespace

RpcOutcome Acceptor::Listen(const std::string& address, std::uint16_t& port) {
  const std::uint16_t wanted = port;
  sync::MutexLock lock(mMutex);
  const net::NetOutcome outcome = net::Listen(address, port, SOMAXCONN, mListener);
  if (outcome.mStatus == net::NetStatus::kBadAddress) {
    return {kInvalidArgument, "\"" + address + "\" is no IP address"};
  }
  if (!outcome.Ok()) {
    return {kBadSetting, "cannot listen on " + address + ":" + std::to_string(wanted) + ": " + outcome.mText};
  }
  return {};
}

bool Acceptor::Start() {
  sync::MutexLock lock(mMutex);
  return mEvents.Watch(mListener.Get(), shared_from_this());
}

void Acceptor::Stop() {
  sync::MutexLock lock(mMutex);
  if (mListener) {
    mEvents.Unwatch(mListener.Get());
    mListener.Close();
  }
}

void Acceptor::Resume() {
  bool accept = false;
  {
    sync::MutexLock lock(mMutex);
    accept = std::exchange(mPaused, false);
  }
  if (accept) {
    Accept();
  }
}

void Acceptor::OnReady(std::uint32_t /*events*/) {
  try {
    Accept();
  } catch (const std::bad_alloc&) {
    sync::MutexLock lock(mMutex);
    mPaused = true;  // the event loop does not report the waiting connections again
    throw;
  }
}

void Acceptor::Accept() {
  for (int turn = 0; turn < kAcceptsInTurn; ++turn) {
    net::Address peer;
    net::Descriptor socket;
    int error = 0;
    bool pause = false;
    {
      sync::MutexLock lock(mMutex);
      if (!mListener) {
        return;
      }
      socklen_t size = net::Address::kRoom;
      socket.Reset(::accept4(mListener.Get(), peer.Get(), &size, SOCK_NONBLOCK | SOCK_CLOEXEC));
      error = socket ? 0 : errno;
      // The connection then stays in the listening queue until Resume: trying again at once would only use
      // processor time.
      mPaused = error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
      pause = mPaused;
    }
    if (pause) {
      mReport(std::string("cannot accept connections: ") + std::strerror(error));
      return;
    }
    if (socket) {
      mAdmit(std::move(socket), peer.Ip() + ":" + std::to_string(peer.Port()));
    } else if (error == EAGAIN || error == EWOULDBLOCK) {
      return;
    }
    // Any other error concerns only the one connection that could not be accepted.
  }
  mEvents.Post([self = shared_from_this()] { self->Accept(); });
}

}  // namespace vyn::rpc
