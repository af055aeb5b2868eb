#pragma once

// Mutexes, guards and a condition variable that clang checks: `clang++ -Wthread-safety` reports a member that
// is used without the mutex of its VYN_GUARDED_BY, and a call of a function without the mutex of its
// VYN_REQUIRES. For other compilers the macros are empty.
//
// The mutexes are those of the standard library. std::unique_lock and the like take them, too, but clang does
// not follow those. Any thread may call any operation of a mutex or a Condition; a guard belongs to a thread.

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <shared_mutex>

#ifdef __clang__
#define VYN_THREAD_ATTRIBUTE(...) __attribute__((__VA_ARGS__))
#else
#define VYN_THREAD_ATTRIBUTE(...)
#endif

/// Of a class: its objects are mutexes, called by this word in clang's messages.
#define VYN_CAPABILITY(word) VYN_THREAD_ATTRIBUTE(capability(word))
/// Of a class: its objects are guards, which hold a mutex as long as they live.
#define VYN_SCOPED_CAPABILITY VYN_THREAD_ATTRIBUTE(scoped_lockable)
/// Of a variable: it is read and written only by a thread that holds the mutex.
#define VYN_GUARDED_BY(mutex) VYN_THREAD_ATTRIBUTE(guarded_by(mutex))
/// Of a function: the caller holds the mutex.
#define VYN_REQUIRES(...) VYN_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
/// Of a function: the caller does not hold the mutex, because the function takes it.
#define VYN_EXCLUDES(...) VYN_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
/// Of a function: it returns with the mutex held; without an argument, the object is the mutex.
#define VYN_ACQUIRES(...) VYN_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define VYN_ACQUIRES_SHARED(...) VYN_THREAD_ATTRIBUTE(acquire_shared_capability(__VA_ARGS__))
/// Of a function: the caller holds the mutex, and no longer holds it afterwards.
#define VYN_RELEASES(...) VYN_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define VYN_RELEASES_SHARED(...) VYN_THREAD_ATTRIBUTE(release_shared_capability(__VA_ARGS__))
/// Of a function: the mutex is held if it returns true.
#define VYN_TRY_ACQUIRES(...) VYN_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define VYN_TRY_ACQUIRES_SHARED(...) VYN_THREAD_ATTRIBUTE(try_acquire_shared_capability(__VA_ARGS__))
/// Of a function: clang does not check its body. A comment says why.
#define VYN_NO_THREAD_SAFETY_ANALYSIS VYN_THREAD_ATTRIBUTE(no_thread_safety_analysis)

namespace vyn::sync {

class VYN_CAPABILITY("mutex") Mutex : public std::mutex {
 public:
  void lock() VYN_ACQUIRES() { std::mutex::lock(); }
  void unlock() VYN_RELEASES() { std::mutex::unlock(); }
  bool try_lock() VYN_TRY_ACQUIRES(true) { return std::mutex::try_lock(); }
};

/// A thread may take it several times. Clang does not know that, so a function that takes it has no
/// VYN_REQUIRES for it.
class VYN_CAPABILITY("mutex") RecursiveMutex : public std::recursive_mutex {
 public:
  void lock() VYN_ACQUIRES() { std::recursive_mutex::lock(); }
  void unlock() VYN_RELEASES() { std::recursive_mutex::unlock(); }
  bool try_lock() VYN_TRY_ACQUIRES(true) { return std::recursive_mutex::try_lock(); }
};

/// Held by one thread exclusively, or by several shared.
class VYN_CAPABILITY("mutex") SharedMutex : public std::shared_mutex {
 public:
  void lock() VYN_ACQUIRES() { std::shared_mutex::lock(); }
  void unlock() VYN_RELEASES() { std::shared_mutex::unlock(); }
  bool try_lock() VYN_TRY_ACQUIRES(true) { return std::shared_mutex::try_lock(); }
  void lock_shared() VYN_ACQUIRES_SHARED() { std::shared_mutex::lock_shared(); }
  void unlock_shared() VYN_RELEASES_SHARED() { std::shared_mutex::unlock_shared(); }
  bool try_lock_shared() VYN_TRY_ACQUIRES_SHARED(true) { return std::shared_mutex::try_lock_shared(); }
};

/// Holds a Mutex from its construction to its end, except between Unlock and Lock.
class VYN_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) VYN_ACQUIRES(mutex) : mLock(mutex) {}
  /// Takes over a mutex that the thread holds already.
  MutexLock(Mutex& mutex, std::adopt_lock_t adopt) VYN_REQUIRES(mutex) : mLock(mutex, adopt) {}
  ~MutexLock() VYN_RELEASES() {}
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  void Lock() VYN_ACQUIRES() { mLock.lock(); }
  void Unlock() VYN_RELEASES() { mLock.unlock(); }
  /// For a wait that takes the standard library's lock.
  std::unique_lock<std::mutex>& Standard() { return mLock; }

 private:
  std::unique_lock<std::mutex> mLock;
};

/// Holds a RecursiveMutex as long as it lives.
class VYN_SCOPED_CAPABILITY RecursiveMutexLock {
 public:
  explicit RecursiveMutexLock(RecursiveMutex& mutex) VYN_ACQUIRES(mutex) : mLock(mutex) {}
  ~RecursiveMutexLock() VYN_RELEASES() {}
  RecursiveMutexLock(const RecursiveMutexLock&) = delete;
  RecursiveMutexLock& operator=(const RecursiveMutexLock&) = delete;

 private:
  std::lock_guard<std::recursive_mutex> mLock;
};

/// Holds a SharedMutex exclusively from its construction to its end, or to Unlock.
class VYN_SCOPED_CAPABILITY WriterLock {
 public:
  explicit WriterLock(SharedMutex& mutex) VYN_ACQUIRES(mutex) : mLock(mutex) {}
  ~WriterLock() VYN_RELEASES() {}
  WriterLock(const WriterLock&) = delete;
  WriterLock& operator=(const WriterLock&) = delete;

  void Unlock() VYN_RELEASES() { mLock.unlock(); }

 private:
  std::unique_lock<std::shared_mutex> mLock;
};

/// Holds a SharedMutex shared from its construction to its end, or to Unlock.
class VYN_SCOPED_CAPABILITY ReaderLock {
 public:
  explicit ReaderLock(SharedMutex& mutex) VYN_ACQUIRES_SHARED(mutex) : mLock(mutex) {}
  ~ReaderLock() VYN_RELEASES() {}
  ReaderLock(const ReaderLock&) = delete;
  ReaderLock& operator=(const ReaderLock&) = delete;

  void Unlock() VYN_RELEASES() { mLock.unlock(); }

 private:
  std::shared_lock<std::shared_mutex> mLock;
};

/// A condition variable for a Mutex. A wait releases the mutex of `lock` meanwhile and holds it again when it
/// returns. `done` is called with the mutex held; write VYN_REQUIRES(mutex) behind its parameters.
class Condition {
 public:
  void NotifyOne() noexcept { mCondition.notify_one(); }
  void NotifyAll() noexcept { mCondition.notify_all(); }
  /// Waits until it is notified; may return earlier without cause.
  void Wait(MutexLock& lock) { mCondition.wait(lock.Standard()); }
  /// Waits until done() returns true. Not checked, here and below: clang does not know that `lock` holds the
  /// mutex that `done` requires.
  template <typename Done>
  void Wait(MutexLock& lock, Done done) VYN_NO_THREAD_SAFETY_ANALYSIS {
    mCondition.wait(lock.Standard(), done);
  }
  /// Waits until it is notified, at most `limit`; may return earlier without cause.
  void WaitFor(MutexLock& lock, std::chrono::nanoseconds limit) {
    mCondition.wait_for(lock.Standard(), limit);
  }
  /// Waits until done() returns true, at most `limit`. Returns: done().
  template <typename Done>
  bool WaitFor(MutexLock& lock, std::chrono::nanoseconds limit, Done done) VYN_NO_THREAD_SAFETY_ANALYSIS {
    return mCondition.wait_for(lock.Standard(), limit, done);
  }
  /// For a wait that takes the standard library's condition variable.
  std::condition_variable& Standard() { return mCondition; }

 private:
  std::condition_variable mCondition;
};

}  // namespace vyn::sync
