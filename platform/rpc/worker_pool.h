#pragma once

// Threads that run functions in the order in which they come. The caller bounds what it hands over.

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace vyn::rpc {

class WorkerPool {
 public:
  /// Throws std::system_error when a thread cannot be made.
  explicit WorkerPool(unsigned int threads);
  /// Stops.
  ~WorkerPool();

  /// Any thread. A function that comes behind Stop is dropped.
  void Post(std::function<void()> function);
  /// Drops what has not begun and waits for what has. Not from a worker.
  void Stop();

 private:
  void Run();

  /// Guards mQueue and mStopped.
  std::mutex mMutex;
  std::condition_variable mWork;
  std::deque<std::function<void()>> mQueue;
  bool mStopped = false;
  std::vector<std::thread> mThreads;
};

}  // namespace vyn::rpc
