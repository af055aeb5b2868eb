#pragma once

// The variables that this node knows: each is looked up at the metadata leader once, however many executors ask for it at
// the same time, and remembered until it is deleted.
//
// A look-up keeps the thread of the first caller. The others wait without a thread, and so do look-ups beyond the limit of
// threads.
//
// Threads: any.

#include "common/util/ref.h"
#include "services/common/rpc_handlers.h"
#include "tessel/message/broadcast/broadcast_messages.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace vyn::services {

class VariableCache {
 public:
  /// Asks the metadata leader for a variable. Returns: 0 or a status.
  using AskLeader = std::function<std::uint32_t(const std::string& application, std::uint32_t id,
                                                tessel::BroadcastBlockInfo& info)>;

  /// \param maxThreads the most threads that look up at once: fewer than the server has, so that what needs no leader is
  ///        served without one.
  VariableCache(AskLeader askLeader, unsigned int maxThreads)
      : mAskLeader(std::move(askLeader)), mMaxThreads(maxThreads) {}
  VariableCache(const VariableCache&) = delete;
  VariableCache& operator=(const VariableCache&) = delete;

  /// Answers `caller`, now or when a look-up has ended.
  void Fetch(const std::string& application, std::uint32_t id, const Caller& caller);

  /// Forgets a variable, the variables of an application, all. Returns: the blocks of what was forgotten.
  std::vector<std::string> Forget(const std::string& application, std::uint32_t id);
  void Forget(const std::string& application);
  std::vector<std::string> ForgetAll();

 private:
  using Key = std::pair<std::string, std::uint32_t>;
  /// Of which variable, and the value of mForgets when it began.
  using LookUp = std::pair<Key, std::uint64_t>;

  /// Runs `lookUp` and then those that are queued, until there is none. When the leader did not answer, the queued ones are
  /// refused instead. Requires: mThreads counts this thread.
  void RunAll(LookUp lookUp);
  /// Takes the next queued look-up. Returns: false when there is none; mThreads does not count this thread any more then.
  bool TakeQueued(LookUp& lookUp);
  void RefuseQueued(const LookUp& lookUp, std::uint32_t status);
  /// Asks the leader and answers all who wait. Whoever began to wait after the question was put is not told that the
  /// variable is missing or not ready: for them the leader is asked again. Returns: 0 or the last status.
  std::uint32_t Run(const LookUp& lookUp);
  /// Asks the leader and remembers the answer. Returns: 0 or a status.
  std::uint32_t Ask(const LookUp& lookUp, const common::Ref<tessel::BroadcastBlockInfo>& found);

  const AskLeader mAskLeader;
  const unsigned int mMaxThreads;
  std::mutex mMutex;
  // Guarded by mMutex.
  std::map<Key, common::Ref<tessel::BroadcastBlockInfo>> mVariables;
  /// Counts the calls of Forget and ForgetAll. An answer of the leader that was on its way meanwhile is not remembered, nor
  /// given to those who asked later.
  std::uint64_t mForgets = 0;
  /// The callers of each look-up, under way or queued.
  std::map<LookUp, std::vector<Caller>> mWaiting;
  /// Threads that look up.
  unsigned int mThreads = 0;
  std::deque<LookUp> mQueued;
};

}  // namespace vyn::services
