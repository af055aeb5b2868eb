#pragma once

// The salted hash of a token, which a node stores instead of the token. The comparison takes constant time.
// Threads: const after construction.

#include <array>
#include <string_view>

namespace vyn::fabric {

class TokenHash {
 public:
  static constexpr std::size_t kSaltLength = 16;
  static constexpr std::size_t kHashLength = 32;
  /// The stored form: salt, then hash.
  using Bytes = std::array<unsigned char, kSaltLength + kHashLength>;

  /// Matches no token.
  TokenHash() = default;
  explicit TokenHash(const Bytes& stored) : mBytes(stored) {}
  /// Hashes with a new random salt.
  static TokenHash Of(std::string_view token);

  bool Matches(std::string_view token) const;
  const Bytes& Stored() const { return mBytes; }

 private:
  Bytes mBytes{};
};

/// Prepares libsodium. Returns: false when the machine gives no random bytes.
bool PrepareTokenHash();

}  // namespace vyn::fabric
