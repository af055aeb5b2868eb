#include "platform/fabric/node/pool/token_hash.h"

#include <sodium.h>

#include <cstring>

namespace vyn::fabric {

static_assert(TokenHash::kSaltLength == crypto_generichash_blake2b_SALTBYTES);

namespace {

using Hash = std::array<unsigned char, TokenHash::kHashLength>;

Hash Compute(const unsigned char* salt, std::string_view token) {
  static constexpr unsigned char kPurpose[crypto_generichash_blake2b_PERSONALBYTES + 1] = "vyn-fabric-token";
  Hash hash;
  crypto_generichash_blake2b_salt_personal(hash.data(), hash.size(),
                                           reinterpret_cast<const unsigned char*>(token.data()), token.size(),
                                           nullptr, 0, salt, kPurpose);
  return hash;
}

}  // namespace

TokenHash TokenHash::Of(std::string_view token) {
  TokenHash made;
  randombytes_buf(made.mBytes.data(), kSaltLength);
  const Hash hash = Compute(made.mBytes.data(), token);
  std::memcpy(made.mBytes.data() + kSaltLength, hash.data(), hash.size());
  return made;
}

bool TokenHash::Matches(std::string_view token) const {
  const Hash hash = Compute(mBytes.data(), token);
  return sodium_memcmp(hash.data(), mBytes.data() + kSaltLength, hash.size()) == 0;
}

bool PrepareTokenHash() { return sodium_init() >= 0; }

}  // namespace vyn::fabric
