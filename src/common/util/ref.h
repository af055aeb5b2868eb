#pragma once

// Referable: an intrusive, atomic reference count. Ref<T>: its holder.
//
// The object a Ref points at may be shared between threads. A Ref itself is not thread-safe: changing it
// while another thread reads it needs the lock of whatever owns that Ref.

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
    if (mObj != other.mObj) {  // as Set: taking the object already held changes nothing, not even by a write
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

  /// Makes this the holder of `object`, which may be null. The new reference is taken before the old one is
  /// dropped, so an object that lives only through the old one survives.
  void Set(T* object) noexcept {
    if (object == mObj) {
      return;
    }
    if (object != nullptr) {
      object->IncreaseRef();
    }
    T* old = mObj;
    mObj = object;  // before the drop: the end of the old object may come back to this reference
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
