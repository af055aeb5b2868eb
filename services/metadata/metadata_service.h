#pragma once

// The metadata service of one leadership: listens at the node's address, answers from MetadataState, ends
// applications that have fallen silent.
//
// A leadership is Start ... Stop; the object serves one. Requests that come before the records have been read
// wait for them, for a bounded time.

#include "common/util/clock.h"
#include "common/wait/periodic_task.h"
#include "platform/rpc/server/server.h"
#include "services/metadata/fabric_view.h"
#include "services/metadata/metadata_state.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace vyn::services {

struct MetadataServiceOptions {
  std::string address;     ///< numeric; clients reach the leader here
  std::uint16_t port = 0;  ///< 0 picks a free one
  /// An application that sent heartbeats and is silent for this long is removed.
  std::chrono::milliseconds applicationTimeout{60000};
  /// How long a request waits for the records of a leadership that has just begun.
  std::chrono::milliseconds readyTimeout{30000};
  ApplicationLimits limits;
  /// TLS and limits of the server; its mReport is replaced.
  rpc::ServerOptions server;
};

class MetadataService {
 public:
  /// \param view is the caller's and outlives the service.
  MetadataService(MetadataServiceOptions options, FabricView& view);
  /// Stops.
  ~MetadataService();
  MetadataService(const MetadataService&) = delete;
  MetadataService& operator=(const MetadataService&) = delete;

  /// Listens, then reads the records. \param lease how long what ZooKeeper has told stays true, as with
  /// ServeUntil. Returns: 0 or a status; nothing runs after a failure.
  std::uint32_t Start(std::chrono::milliseconds lease);
  /// Lets running calls answer, then closes every connection.
  void Stop();
  /// Until when nobody else can lead, so that what is read from memory is true; the owner moves it on. A
  /// process that stood still finds requests in its sockets that a successor has answered otherwise.
  void ServeUntil(std::chrono::steady_clock::time_point time) {
    mServeUntil.store(time, std::memory_order_release);
  }
  /// A write was refused because another leader has taken over: the owner stops the service.
  bool Deposed() const { return mDeposed.load(std::memory_order_acquire); }
  std::uint16_t Port() const { return mServer.Port(); }

 private:
  void RegisterOperations();
  void RegisterVariableOperations();
  void RegisterNodeOperations();
  bool HasLease() const { return common::SteadyNow() < mServeUntil.load(std::memory_order_acquire); }
  /// Waits until the records are there. Returns: 0, or the status to refuse with.
  std::uint32_t AwaitReady();
  /// Runs `work` once the records are there and notes when it tells of a deposition.
  template <typename Work>
  std::uint32_t WhenReady(Work work);
  /// SelectNodes on a view that is fresh enough to show a node that has just come.
  std::vector<cluster::NodeInfo> Select(const std::vector<std::string>& candidates, bool one);
  /// A look for silent applications.
  void WatchSilence();
  void EndSilent();

  const MetadataServiceOptions mOptions;
  FabricView& mView;
  MetadataState mState;
  rpc::Server mServer;
  std::atomic<bool> mDeposed{false};
  std::atomic<std::chrono::steady_clock::time_point> mServeUntil{};

  std::mutex mMutex;
  // Guarded by mMutex.
  bool mReady = false;
  bool mStopping = false;
  std::condition_variable mChanged;
  /// Of WatchSilence. Only its thread uses it once that runs.
  std::chrono::steady_clock::time_point mLastLook;
  common::PeriodicTask mSilenceTask;
};

}  // namespace vyn::services
