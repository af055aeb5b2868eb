#pragma once

// One ZooKeeper session over the C client's asynchronous calls.
//
// The client's own synchronous calls can hang for ever when the session expires between their check and their
// queueing, and a call that is about to enter a closed client uses freed memory. So a call is submitted here
// under the mutex that also guards the session's state: once the state is kGone, no thread is inside the
// client and none enters, and the client can be closed. The session itself then wakes the callers that still
// wait for an answer.
//
// Threads: any. Besides the client's two threads a session has two of its own: one closes the client and
// holds no lock while it does; one runs the watchers, so that a watcher that waits never keeps an answer from
// its caller.

#include "platform/sync/mutex.h"

#include <zookeeper/zookeeper.h>

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

namespace vyn::utilities::zookeeper {

class Session;

/// Makes a client with the given global watcher and its context, once. Returns: null with errno on failure.
/// The client may refer to what the function holds.
using MakeClient = std::function<zhandle_t*(watcher_fn watcher, void* context)>;

/// A watcher with its context. A pair that is set twice on a znode runs once.
struct Watch {
  Session* mSession;
  watcher_fn mWatcher;
  void* mContext;
};

/// One call and its answer. The session keeps it until the client is done with it.
struct Request {
  Request() = default;
  ~Request() { deallocate_String_vector(&mNames); }
  Request(const Request&) = delete;
  Request& operator=(const Request&) = delete;

  /// Hands the value out as the client does: cut to the room, -1 as the length of a null value.
  void CopyValue(char* buffer, int* length) const;

  // Constant after submission.
  Session* mSession = nullptr;
  Watch* mWatch = nullptr;  ///< to be set by this call, with the path of the znode
  std::string mPath;
  // Read and written under the session's mutex until the call is done, afterwards by its caller. Clang cannot
  // check that: the mutex is a member of another object.
  sync::Condition mFinished;
  bool mDone = false;
  bool mAbandoned = false;  ///< the caller has stopped waiting
  int mResult = ZOK;
  std::string mValue;
  bool mNull = false;
  Stat mStat{};
  String_vector mNames{};
  std::vector<zoo_op_result_t> mResults;  ///< of a transaction
};

class Session : public std::enable_shared_from_this<Session> {
 public:
  /// \param ticket the handle that watchers are given.
  explicit Session(zhandle_t* ticket) : mTicket(ticket) {}
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  /// Makes the client and waits until the session is connected.
  /// Returns: ZOK; ZSYSTEMERROR with errno when there is no client; ZAUTHFAILED; ZOPERATIONTIMEOUT. After a
  /// failure, also after an exception, only CloseClient and StopWatchers may be called.
  int Start(MakeClient make, std::chrono::seconds connectTimeout);

  /// Submits a call with `submit(client)`, which must give the request to the client as data, and waits for
  /// the answer.
  template <typename Submit>
  int Call(const std::shared_ptr<Request>& request, Submit submit) {
    sync::MutexLock lock(mMutex);
    if (mState != State::kOpen) {
      return ZINVALIDSTATE;
    }
    request->mSession = this;
    mRequests.emplace(request.get(), request);
    const int submitted = submit(mClient);
    if (submitted != ZOK) {
      mRequests.erase(request.get());
      return submitted;
    }
    return Await(lock, *request);
  }

  /// Ends a call. The client's completion functions call it. \param data the request. \param fill copies the
  /// answer into the request; when it throws, the call fails with ZSYSTEMERROR.
  template <typename Fill>
  static void Answer(const void* data, int result, Fill fill) {
    auto* request = static_cast<Request*>(const_cast<void*>(data));
    Session& session = *request->mSession;
    sync::MutexLock lock(session.mMutex);
    try {
      fill(*request);
    } catch (...) {  // no memory for the answer
      result = ZSYSTEMERROR;
    }
    session.Finish(*request, result);
  }

  /// Returns: the one Watch of this session for the pair. Lives as long as the session.
  Watch* Intern(watcher_fn watcher, void* context);
  /// The client's watcher function for every Watch, which is its context.
  static void OnNodeEvent(zhandle_t* client, int type, int state, const char* path, void* watch);

  /// Ends the session, if it has not ended, and closes the client; waits for no watcher. Once only. Returns:
  /// ZOK, also when the session had gone before; otherwise why the servers could not be reached.
  int CloseClient();
  /// Waits for the watcher that is running, unless called from it; no other will run. Once only, at the end.
  void StopWatchers();

  clientid_t ClientId();
  /// As granted, in milliseconds; 0 once it has gone.
  int Timeout();
  /// Whether the session ended by itself.
  bool Expired();

 private:
  enum class State { kConnecting, kOpen, kGone };
  struct Event {
    Watch* watch;
    int type;
    int state;
    std::string path;
  };

  static void OnSessionEvent(zhandle_t* client, int type, int state, const char* path, void* session);
  int Await(sync::MutexLock& lock, Request& request) VYN_REQUIRES(mMutex);
  void Expire() VYN_REQUIRES(mMutex);
  void Finish(Request& request, int result) VYN_REQUIRES(mMutex);
  /// Queues the events for watchers that follow from a finished call. \param expired whether it ended the
  /// session.
  void TellWatchers(const Request& request, int result, bool expired) VYN_REQUIRES(mMutex);
  void CloseClientWhenGone();
  void RunWatchers();

  zhandle_t* const mTicket;
  // Set while the session is made, constant afterwards.
  MakeClient mMake;
  zhandle_t* mClient = nullptr;
  std::chrono::milliseconds mCallLimit{0};
  std::thread mCloser;
  std::thread mDispatcher;

  /// The client's own locks may be taken while it is held.
  sync::Mutex mMutex;
  sync::Condition mChanged;
  State mState VYN_GUARDED_BY(mMutex) = State::kConnecting;
  int mEnd VYN_GUARDED_BY(mMutex) = ZCLOSING;  ///< the result of calls that the end of the session interrupts
  bool mConnected VYN_GUARDED_BY(mMutex) = false;
  bool mClosing VYN_GUARDED_BY(mMutex) = false;
  bool mStopWatchers VYN_GUARDED_BY(mMutex) = false;
  int mCloseResult VYN_GUARDED_BY(mMutex) = ZOK;
  std::unordered_map<Request*, std::shared_ptr<Request>> mRequests VYN_GUARDED_BY(mMutex);
  std::map<std::pair<watcher_fn, void*>, std::unique_ptr<Watch>> mWatches VYN_GUARDED_BY(mMutex);
  std::deque<Event> mEvents VYN_GUARDED_BY(mMutex);
  /// Watches that could not be set because the connection was lost.
  std::set<std::pair<Watch*, std::string>> mUnsetWatches VYN_GUARDED_BY(mMutex);
};

}  // namespace vyn::utilities::zookeeper
