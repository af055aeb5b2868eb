#include "services/node/token_registry.h"

#include "common/log/logging.h"
#include "common/wait/retry.h"
#include "platform/zk_helper/zk_helper.h"
#include "services/common/json_fields.h"
#include "services/common/service_status.h"
#include "services/common/zookeeper_io.h"
#include "services/common/zookeeper_layout.h"

#include <sodium.h>

#include <array>
#include <chrono>

namespace vyn::services {

namespace {

constexpr std::size_t kSaltBytes = 16;
/// How long FixToken retries. Other processes may create and delete the record between two reads, and the
/// leader may still be removing an earlier application of the name.
constexpr auto kLimit = std::chrono::seconds(5);
constexpr auto kPause = std::chrono::milliseconds(50);

std::string Hex(const unsigned char* bytes, std::size_t count) {
  std::string text(2 * count + 1, '\0');
  sodium_bin2hex(text.data(), text.size(), bytes, count);
  text.pop_back();
  return text;
}

/// Returns: the salted hash in hexadecimal.
std::string Hash(const std::string& salt, const std::string& token) {
  const std::string input = salt + "/" + token;
  std::array<unsigned char, crypto_hash_sha256_BYTES> digest{};
  crypto_hash_sha256(digest.data(), reinterpret_cast<const unsigned char*>(input.data()), input.size());
  return Hex(digest.data(), digest.size());
}

/// Whether `record` holds the hash of `token`. The comparison takes constant time.
bool Matches(const nlohmann::json& record, const std::string& token) {
  const std::string expected = TextField(record, "hash");
  const std::string actual = Hash(TextField(record, "salt"), token);
  return expected.size() == actual.size() &&
         sodium_memcmp(expected.data(), actual.data(), actual.size()) == 0;
}

}  // namespace

std::uint32_t FixToken(const std::string& application, const std::string& token) {
  if (sodium_init() < 0) {
    return VYN_ERR_GENERIC;  // the machine has no source of random numbers
  }
  const std::string path = AppPath(application);
  int result = ZNONODE;
  auto retry = common::Retry::For(kLimit, kPause);
  do {
    std::string text;
    Stat stat{};
    result = zookeeper::Get(path, text, &stat);
    if (result == ZNONODE) {
      for (const char* parent : {kVynRoot, kAppsPath}) {
        static_cast<void>(zookeeper::Ensure(parent));
      }
      static_cast<void>(zookeeper::Ensure(path, "{}"));
      result = zookeeper::Get(path, text, &stat);
    }
    if (result != ZOK) {
      break;
    }
    if (FindField(ParseJson(text), kRemovedFlag) != nullptr) {
      continue;  // the leader is removing an earlier application of this name
    }
    std::array<unsigned char, kSaltBytes> bytes{};
    randombytes_buf(bytes.data(), bytes.size());
    const std::string salt = Hex(bytes.data(), bytes.size());
    // Try to create the token before reading it. The transaction fails if a removal has begun meanwhile, and
    // a token that is read after a failed creation is not older than that attempt.
    zookeeper::Transaction fix;
    fix.Check(path, stat.version)
        .Create(TokenPath(application), nlohmann::json{{"salt", salt}, {"hash", Hash(salt, token)}}.dump());
    result = fix.Commit();
    if (result == ZOK) {
      return VYN_OK;
    }
    std::string record;
    if (result == ZNODEEXISTS) {
      result = zookeeper::Get(TokenPath(application), record);
      if (result == ZOK) {
        return Matches(ParseJson(record), token) ? VYN_OK : kStatusWrongToken;
      }
    }
    if (result != ZBADVERSION && result != ZNONODE) {
      break;
    }
  } while (retry.Again());
  VYN_LOG_ERROR("Failed to fix the token of " << application
                                              << ", zookeeper get error: " << zookeeper::ResultText(result));
  return kStatusStore;
}

}  // namespace vyn::services
