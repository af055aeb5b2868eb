#include "platform/zk_helper/session.h"

#include "platform/zk_helper/client_lines.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace vyn::utilities::zookeeper {

namespace {

/// The client gives a call up after two thirds of the session's time-out. This longer limit applies if it
/// does not.
constexpr std::chrono::milliseconds kLeastCallLimit{10000};

/// On standard error, because this library has no log. The client and its threads must get no exception.
void ReportLostEvent() {
  static_cast<void>(
      std::fputs("zk_helper: a ZooKeeper event is lost, probably for lack of memory\n", stderr));
}

bool ConnectionWasLost(int result) { return result == ZCONNECTIONLOSS || result == ZOPERATIONTIMEOUT; }

}  // namespace

void Request::CopyValue(char* buffer, int* length) const {
  if (mNull) {
    *length = -1;
    return;
  }
  *length = std::min(*length, static_cast<int>(mValue.size()));
  if (*length > 0) {
    std::memcpy(buffer, mValue.data(), static_cast<std::size_t>(*length));
  }
}

Session::~Session() {
  if (mDispatcher.joinable()) {
    mDispatcher.detach();  // a watcher closed the session and held the last reference to it
  }
}

int Session::Start(MakeClient make, std::chrono::seconds connectTimeout) {
  mMake = std::move(make);
  mCloser = std::thread([self = shared_from_this()] { self->CloseClientWhenGone(); });
  mDispatcher = std::thread([self = shared_from_this()] { self->RunWatchers(); });
  zhandle_t* client = mMake(&Session::OnSessionEvent, this);
  if (client == nullptr) {
    return ZSYSTEMERROR;
  }
  // By default the client's thread looks the servers' names up before each wait for its socket. A process that
  // is forked meanwhile inherits a lock of getaddrinfo that nobody releases. With -1 the client looks them up
  // when it connects.
  static_cast<void>(zoo_set_servers_resolution_delay(client, -1));
  sync::MutexLock lock(mMutex);
  mClient = client;
  mChanged.NotifyAll();
  mChanged.WaitFor(lock, connectTimeout,
                   [this]() VYN_REQUIRES(mMutex) { return mConnected || mState == State::kGone; });
  if (mState == State::kGone) {
    return ZAUTHFAILED;
  }
  if (!mConnected) {
    return ZOPERATIONTIMEOUT;
  }
  mCallLimit = std::max(kLeastCallLimit, 2 * std::chrono::milliseconds(zoo_recv_timeout(client)));
  mState = State::kOpen;
  return ZOK;
}

int Session::Await(sync::MutexLock& lock, Request& request) {
  if (!request.mFinished.WaitFor(lock, mCallLimit, [&] { return request.mDone; })) {
    request.mAbandoned = true;
    return ZOPERATIONTIMEOUT;
  }
  return request.mResult;
}

void Session::Expire() {
  mState = State::kGone;
  mEnd = ZINVALIDSTATE;
  mChanged.NotifyAll();
}

void Session::Finish(Request& request, int result) {
  // The server has ended the session; the client would learn that at its next connection only.
  const bool expired = result == ZSESSIONEXPIRED && mState == State::kOpen;
  if (expired) {
    Expire();
  }
  // A session that has ended has one result, whether a call met the end before or after we noticed it.
  request.mResult = result == ZSESSIONEXPIRED ? static_cast<int>(ZINVALIDSTATE)
                    : result == ZCLOSING      ? mEnd
                                              : result;
  request.mDone = true;
  request.mFinished.NotifyAll();
  try {
    TellWatchers(request, result, expired);
  } catch (...) {
    ReportLostEvent();
  }
  mRequests.erase(&request);
}

void Session::TellWatchers(const Request& request, int result, bool expired) {
  if (expired) {
    for (const auto& [key, watch] : mWatches) {
      mEvents.push_back({watch.get(), ZOO_SESSION_EVENT, ZOO_EXPIRED_SESSION_STATE, ""});
    }
  }
  if (request.mWatch != nullptr && ConnectionWasLost(result)) {
    mUnsetWatches.emplace(request.mWatch, request.mPath);
  } else if (request.mWatch != nullptr && request.mAbandoned) {
    // The late answer has set the watch, but the caller has stopped waiting and does not know that.
    mEvents.push_back({request.mWatch, ZOO_SESSION_EVENT, ZOO_CONNECTED_STATE, request.mPath});
    mChanged.NotifyAll();
  }
}

void Session::OnSessionEvent(zhandle_t*, int type, int state, const char*, void* context) {
  if (type != ZOO_SESSION_EVENT) {
    return;
  }
  auto& session = *static_cast<Session*>(context);
  sync::MutexLock lock(session.mMutex);
  if (state == ZOO_CONNECTED_STATE) {
    session.mConnected = true;
    ForgetClientLine();
    try {
      for (const auto& [watch, path] : session.mUnsetWatches) {
        session.mEvents.push_back({watch, ZOO_SESSION_EVENT, ZOO_CONNECTED_STATE, path});
      }
      session.mUnsetWatches.clear();
    } catch (...) {  // the next connection tries again
      ReportLostEvent();
    }
  } else if (state == ZOO_EXPIRED_SESSION_STATE || state == ZOO_AUTH_FAILED_STATE) {
    session.Expire();
  }
  session.mChanged.NotifyAll();
}

Watch* Session::Intern(watcher_fn watcher, void* context) {
  sync::MutexLock lock(mMutex);
  // Made first: without memory for it the map must not keep a null.
  auto watch = std::make_unique<Watch>(Watch{this, watcher, context});
  return mWatches.try_emplace({watcher, context}, std::move(watch)).first->second.get();
}

void Session::OnNodeEvent(zhandle_t*, int type, int state, const char* path, void* context) {
  auto* watch = static_cast<Watch*>(context);
  Session& session = *watch->mSession;
  sync::MutexLock lock(session.mMutex);
  try {
    session.mEvents.push_back({watch, type, state, path == nullptr ? "" : path});
  } catch (...) {
    ReportLostEvent();
  }
  session.mChanged.NotifyAll();
}

void Session::RunWatchers() {
  sync::MutexLock lock(mMutex);
  for (;;) {
    mChanged.Wait(lock, [this]() VYN_REQUIRES(mMutex) { return mStopWatchers || !mEvents.empty(); });
    if (mStopWatchers) {
      return;
    }
    const Event event = std::move(mEvents.front());
    mEvents.pop_front();
    lock.Unlock();
    try {
      event.watch->mWatcher(mTicket, event.type, event.state, event.path.c_str(), event.watch->mContext);
    } catch (...) {
      ReportLostEvent();
    }
    lock.Lock();
  }
}

void Session::CloseClientWhenGone() {
  sync::MutexLock lock(mMutex);
  // A session can end before Start has stored its client.
  mChanged.Wait(lock, [this]() VYN_REQUIRES(mMutex) {
    return mState == State::kGone && (mClient != nullptr || mClosing);
  });
  lock.Unlock();
  const int result = mClient == nullptr ? static_cast<int>(ZOK) : zookeeper_close(mClient);
  lock.Lock();
  mCloseResult = mEnd == ZCLOSING ? result : static_cast<int>(ZOK);
  // Requests that the client accepted after it had ended all the others.
  while (!mRequests.empty()) {
    const auto request = mRequests.begin()->second;
    Finish(*request, ZCLOSING);
  }
}

int Session::CloseClient() {
  {
    sync::MutexLock lock(mMutex);
    mState = State::kGone;
    mClosing = true;
    mChanged.NotifyAll();
  }
  if (mCloser.joinable()) {
    mCloser.join();
  }
  sync::MutexLock lock(mMutex);
  return mCloseResult;
}

void Session::StopWatchers() {
  {
    sync::MutexLock lock(mMutex);
    mStopWatchers = true;
    mChanged.NotifyAll();
  }
  if (mDispatcher.joinable() && mDispatcher.get_id() != std::this_thread::get_id()) {
    mDispatcher.join();
  }
}

clientid_t Session::ClientId() {
  sync::MutexLock lock(mMutex);
  const clientid_t* id = mState == State::kOpen ? zoo_client_id(mClient) : nullptr;
  return id == nullptr ? clientid_t{} : *id;
}

int Session::Timeout() {
  sync::MutexLock lock(mMutex);
  return mState == State::kOpen ? zoo_recv_timeout(mClient) : 0;
}

bool Session::Expired() {
  sync::MutexLock lock(mMutex);
  // The client may refuse a call before its expiry event has arrived here. Otherwise only a close ends a
  // session, and mEnd is ZCLOSING then.
  return mState == State::kOpen || (mState == State::kGone && mEnd == ZINVALIDSTATE);
}

}  // namespace vyn::utilities::zookeeper
