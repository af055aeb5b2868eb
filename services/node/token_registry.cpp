#include "services/node/token_registry.h"

#include "common/log/logging.h"
#include "common/util/clock.h"
#include "platform/zk_helper/zk_helper.h"
#include "services/common/service_status.h"
#include "services/common/zookeeper_io.h"
#include "services/common/zookeeper_layout.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <sys/random.h>

#include <array>
#include <chrono>
#include <nlohmann/json.hpp>

namespace vyn::services {

namespace {

constexpr std::size_t kSaltBytes = 16;
/// The record may be made and deleted by others between two looks at it, and the removal of an earlier
/// application of the name may be under way.
constexpr auto kLimit = std::chrono::seconds(5);
constexpr auto kPause = std::chrono::milliseconds(50);

std::string Hex(const unsigned char* bytes, std::size_t count) {
  static constexpr const char* kDigits = "0123456789abcdef";
  std::string text;
  text.reserve(2 * count);
  for (std::size_t i = 0; i < count; ++i) {
    text += kDigits[bytes[i] >> 4U];
    text += kDigits[bytes[i] & 15U];
  }
  return text;
}

/// Returns: the hash in hexadecimal, or the empty text.
std::string Hash(const std::string& salt, const std::string& token) {
  const std::string input = salt + "/" + token;
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int length = 0;
  if (EVP_Digest(input.data(), input.size(), digest.data(), &length, EVP_sha256(), nullptr) != 1) {
    return {};
  }
  return Hex(digest.data(), length);
}

/// Whether `record` is of `token`.
bool Matches(const std::string& record, const std::string& token) {
  const auto json = nlohmann::json::parse(record, nullptr, false);
  if (!json.is_object()) {
    return false;
  }
  const auto text = [&](const char* name) {
    const auto found = json.find(name);
    return found != json.end() && found->is_string() ? found->get<std::string>() : std::string();
  };
  const std::string expected = text("hash");
  const std::string actual = Hash(text("salt"), token);
  return !expected.empty() && expected.size() == actual.size() &&
         CRYPTO_memcmp(expected.data(), actual.data(), actual.size()) == 0;
}

}  // namespace

std::uint32_t FixToken(const std::string& application, const std::string& token) {
  const std::string path = AppPath(application);
  int result = ZNONODE;
  const auto end = common::SteadyNow() + kLimit;
  for (bool first = true; first || common::SteadyNow() < end; first = false) {
    if (!first) {
      common::SleepFor(kPause);
    }
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
    if (const auto json = nlohmann::json::parse(text, nullptr, false);
        json.is_object() && json.contains(kRemovedFlag)) {
      continue;  // an earlier application of the name is on its way out
    }
    std::array<unsigned char, kSaltBytes> bytes{};
    if (getentropy(bytes.data(), bytes.size()) != 0) {
      return VYN_ERR_GENERIC;
    }
    const std::string salt = Hex(bytes.data(), bytes.size());
    // The write comes first: it fails when the removal has begun meanwhile, and what is read after it is not
    // older than it.
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
        return Matches(record, token) ? VYN_OK : kStatusWrongToken;
      }
    }
    if (result != ZBADVERSION && result != ZNONODE) {
      break;
    }
  }
  VYN_LOG_ERROR("Failed to fix the token of " << application
                                              << ", zookeeper get error: " << zookeeper::ResultText(result));
  return kStatusStore;
}

}  // namespace vyn::services
