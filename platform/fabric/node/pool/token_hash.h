#pragma once

// What a node keeps of a token: a salted hash, compared in constant time. Threads: const after construction.

#include <array>
#include <string_view>

namespace vyn::bm {

class TokenHash {
 public:
  static constexpr std::size_t kSaltLength = 16;
  static constexpr std::size_t kHashLength = 32;
  /// As it is stored.
  using Bytes = std::array<unsigned char, kSaltLength + kHashLength>;

  /// Matches nothing that a caller could present.
  TokenHash() = default;
  explicit TokenHash(const Bytes& stored) : mBytes(stored) {}
  /// Hashes with a new random salt.
  static TokenHash Of(std::string_view token);

  bool Matches(std::string_view token) const;
  const Bytes& Stored() const { return mBytes; }

 private:
  Bytes mBytes{};
};

/// Prepares the library behind this. Returns: false when the machine has no random numbers to give.
bool PrepareTokenHash();

}  // namespace vyn::bm
