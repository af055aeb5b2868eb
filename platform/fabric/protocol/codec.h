#pragma once

// Packs and unpacks the arguments of a frame, in the form that protocol.h describes. One thread uses an
// object at a time.

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>

namespace vyn::fabric {

class Writer {
 public:
  template <typename T>
  Writer& Put(T value) {
    static_assert(std::is_integral_v<T>);
    mBytes.append(reinterpret_cast<const char*>(&value), sizeof(value));
    return *this;
  }
  /// Requires: at most 65535 characters.
  Writer& Text(std::string_view text) {
    Put(static_cast<std::uint16_t>(text.size()));
    mBytes.append(text);
    return *this;
  }
  std::string_view Bytes() const { return mBytes; }

 private:
  std::string mBytes;
};

/// Reads what a Writer wrote. A read beyond the end returns 0 or the empty text, and Complete() is false from
/// then on.
class Reader {
 public:
  explicit Reader(std::string_view bytes) : mRest(bytes) {}

  template <typename T>
  T Get() {
    static_assert(std::is_integral_v<T>);
    T value{};
    const std::string_view bytes = Take(sizeof(value));
    if (!bytes.empty()) {
      std::memcpy(&value, bytes.data(), sizeof(value));
    }
    return value;
  }
  /// A view into the bytes read from.
  std::string_view Text() { return Take(Get<std::uint16_t>()); }
  /// Whether every read succeeded and no byte is left over.
  bool Complete() const { return mGood && mRest.empty(); }

 private:
  std::string_view Take(std::size_t count) {
    if (!mGood || count > mRest.size()) {
      mGood = false;
      return {};
    }
    const std::string_view taken = mRest.substr(0, count);
    mRest.remove_prefix(count);
    return taken;
  }

  std::string_view mRest;
  bool mGood = true;
};

}  // namespace vyn::fabric
