#include "platform/rpc/worker_pool.h"

namespace vyn::rpc {

WorkerPool::WorkerPool(unsigned int threads) {
  try {
    for (unsigned int i = 0; i < threads; ++i) {
      mThreads.emplace_back([this] { Run(); });
    }
  } catch (...) {
    Stop();
    throw;
  }
}

WorkerPool::~WorkerPool() { Stop(); }

void WorkerPool::Post(std::function<void()> function) {
  {
    std::lock_guard lock(mMutex);
    if (mStopped) {
      return;
    }
    mQueue.push_back(std::move(function));
  }
  mWork.notify_one();
}

void WorkerPool::Stop() {
  std::deque<std::function<void()>> dropped;
  {
    std::lock_guard lock(mMutex);
    mStopped = true;
    dropped.swap(mQueue);
  }
  mWork.notify_all();
  for (std::thread& thread : mThreads) {
    thread.join();
  }
  mThreads.clear();
}

void WorkerPool::Run() {
  for (;;) {
    std::function<void()> function;
    {
      std::unique_lock lock(mMutex);
      mWork.wait(lock, [this] { return mStopped || !mQueue.empty(); });
      if (mStopped) {
        return;
      }
      function = std::move(mQueue.front());
      mQueue.pop_front();
    }
    function();
  }
}

}  // namespace vyn::rpc
