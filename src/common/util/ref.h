#pragma once

// Referable: the base of objects with an intrusive, atomic reference count. Ref<T>: a pointer that counts.
//
// Several threads may hold Refs to one object. A Ref itself is not thread-safe: a thread that changes it
// while another one reads it needs a lock.

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace vyn::common {

/// The root of every reference-counted class. A new object has count 0; the first Ref that holds it makes
/// it 1.
class Referable {
 public:
  Referable() = default;
  virtual ~Referable() = default;
  Referable(const Referable&) = delete;
  Referable& operator=(const Referable&) = delete;

  void IncreaseRef() noexcept { mRefCount.fetch_add(1, std::memory_order_acq_rel); }
  /// Returns: the count after the decrease. At 0 the caller deletes the object.
  std::int64_t DecreaseRef() noexcept { return mRefCount.fetch_sub(1, std::memory_order_acq_rel) - 1; }
  std::int64_t RefCount() const noexcept { return mRefCount.load(std::memory_order_acquire); }

 private:
  std::atomic<std::int64_t> mRefCount{0};
};

/// Holds one reference to a T, or null. Requires: T derives from Referable and was made with new.
template <typename T>
class Ref {
 public:
  Ref() noexcept = default;
  Ref(std::nullptr_t) noexcept {}
  Ref(T* object) noexcept { Set(object); }
  Ref(const Ref& other) noexcept { Set(other.mObj); }
  Ref(Ref&& other) noexcept : mObj(other.mObj) { other.mObj = nullptr; }
  /// From a reference to a derived class.
  template <typename U>
  Ref(const Ref<U>& other) noexcept {
    Set(other.Get());
  }
  virtual ~Ref() { Drop(mObj); }

  Ref& operator=(const Ref& other) noexcept {
    Set(other.mObj);
    return *this;
  }
  Ref& operator=(Ref&& other) noexcept {
    if (mObj != other.mObj) {  // as in Set: assigning the object already held writes nothing
      T* old = mObj;
      mObj = other.mObj;
      other.mObj = nullptr;
      Drop(old);
    }
    return *this;
  }
  Ref& operator=(T* object) noexcept {
    Set(object);
    return *this;
  }

  /// Makes this hold `object`, which may be null. Counts the new reference before it drops the old one, so
  /// that an object that only the old one keeps alive survives.
  void Set(T* object) noexcept {
    if (object == mObj) {
      return;
    }
    if (object != nullptr) {
      object->IncreaseRef();
    }
    T* old = mObj;
    mObj = object;  // before Drop: the old object's destructor may use this Ref
    Drop(old);
  }

  T* Get() const noexcept { return mObj; }
  T* operator->() const noexcept { return Get(); }
  T& operator*() const noexcept { return *Get(); }
  explicit operator bool() const noexcept { return mObj != nullptr; }

  friend bool operator==(const Ref& ref, std::nullptr_t) noexcept { return ref.Get() == nullptr; }
  friend bool operator==(const Ref& a, const Ref& b) noexcept { return a.Get() == b.Get(); }

 private:
  static void Drop(T* object) noexcept {
    if (object != nullptr && object->DecreaseRef() == 0) {
      delete object;
    }
  }

  T* mObj = nullptr;
};

}  // namespace vyn::common
