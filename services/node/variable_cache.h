#pragma once

// The cache of the variables that executors of this node have fetched. A miss starts a single-flight look-up:
// one request to the metadata leader for all callers that want the same variable. A variable stays until it
// is deleted.
//
// A look-up blocks the thread of its first caller. Later callers wait in a list and block no thread. A
// look-up beyond maxThreads waits in a queue and blocks no thread either.
//
// Any thread may call any operation.

#include "common/util/ref.h"
#include "platform/sync/mutex.h"
#include "services/common/rpc_handlers.h"
#include "tessel/message/broadcast/broadcast_messages.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace vyn::services {

class VariableCache {
 public:
  /// Requests a variable from the metadata leader. Returns: 0 or a status.
  using AskLeader = std::function<std::uint32_t(const std::string& application, std::uint32_t id,
                                                tessel::BroadcastBlockInfo& info)>;

  /// \param mayAnswer whether the leader waits for this node before it uses the number of a deleted variable
  /// again. Otherwise each fetch asks the leader. Null: always.
  /// \param maxThreads the most threads that look-ups may block. It must be less than the server's number of
  /// threads, so that requests that need no leader are still served when the leader does not answer.
  VariableCache(AskLeader askLeader, std::function<bool()> mayAnswer, unsigned int maxThreads)
      : mAskLeader(std::move(askLeader)), mMayAnswer(std::move(mayAnswer)), mMaxThreads(maxThreads) {}
  VariableCache(const VariableCache&) = delete;
  VariableCache& operator=(const VariableCache&) = delete;

  /// Replies to `caller`, now or when the look-up has finished.
  void Fetch(const std::string& application, std::uint32_t id, const Caller& caller);

  /// Drop a variable, all variables of an application, or everything. Returns: the block ids of the dropped
  /// variables.
  std::vector<std::string> Forget(const std::string& application, std::uint32_t id);
  void Forget(const std::string& application);
  std::vector<std::string> ForgetAll();

 private:
  using Key = std::pair<std::string, std::uint32_t>;
  /// The variable, and the value of mForgets when the look-up began.
  using LookUp = std::pair<Key, std::uint64_t>;

  /// Runs `lookUp`, then the queued look-ups until the queue is empty. If a look-up failed because of the
  /// leader or the network, refuses the queued look-ups with its status. Requires: mThreads counts this
  /// thread.
  void RunAll(LookUp lookUp);
  /// Takes the next look-up from the queue. If the queue is empty, decrements mThreads and returns false.
  bool TakeQueued(LookUp& lookUp);
  void RefuseQueued(const LookUp& lookUp, std::uint32_t status);
  /// Sends the request to the leader and replies to all waiting callers. If the leader says that the variable
  /// is unknown or not ready, or one of them is strict, callers that came after the request was sent do not
  /// get this reply: for them Run sends another request. Returns: 0 or the last status.
  std::uint32_t Run(const LookUp& lookUp);
  /// Sends the request to the leader and caches the variable. Returns: 0 or a status.
  std::uint32_t Ask(const LookUp& lookUp, const common::Ref<tessel::BroadcastBlockInfo>& found);

  struct Waiting {
    std::vector<Caller> callers;
    /// Whether one of them must not get the answer to a request that was sent before it came.
    bool strict = false;
  };

  const AskLeader mAskLeader;
  const std::function<bool()> mMayAnswer;
  const unsigned int mMaxThreads;
  sync::Mutex mMutex;
  std::map<Key, common::Ref<tessel::BroadcastBlockInfo>> mVariables VYN_GUARDED_BY(mMutex);
  /// Counts the calls of Forget and ForgetAll. A reply of the leader that was in flight during such a call is
  /// not cached, and callers that came after the call do not get it.
  std::uint64_t mForgets VYN_GUARDED_BY(mMutex) = 0;
  /// The waiting callers of each look-up, in-flight or queued.
  std::map<LookUp, Waiting> mWaiting VYN_GUARDED_BY(mMutex);
  /// The number of threads in RunAll.
  unsigned int mThreads VYN_GUARDED_BY(mMutex) = 0;
  std::deque<LookUp> mQueued VYN_GUARDED_BY(mMutex);
};

}  // namespace vyn::services
