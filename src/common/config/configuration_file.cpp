// Loads configuration files into a Configuration.

#include "common/config/configuration.h"
#include "common/config/kv_parser.h"
#include "common/log/logging.h"

#include <memory>
#include <new>

namespace vyn::common {

namespace {

constexpr unsigned int kMaxMergedPairs = 1000000;

/// Returns: a parser that has read the file, or null.
std::unique_ptr<KVParser> Parse(const std::string& path) {
  std::unique_ptr<KVParser> parser(new (std::nothrow) KVParser);
  if (parser == nullptr) {
    VYN_LOG_ERROR("Failed to new kv parser as out of memory");
    return nullptr;
  }
  if (!parser->FromFile(path)) {
    return nullptr;
  }
  return parser;
}

}  // namespace

Ref<Configuration>& Configuration::gInstance = *new Ref<Configuration>;

Ref<Configuration> Configuration::GetInstance() { return gInstance; }

Ref<Configuration> Configuration::GetInstance(const std::string& path) {
  InitInstance(path);
  return gInstance;
}

void Configuration::InitInstance(const std::string& path) {
  if (gInstance == nullptr) {
    gInstance = FromFile(path);
  }
}

Ref<Configuration> Configuration::FromFile(const std::string& path) {
  Ref<Configuration> store(new (std::nothrow) Configuration);
  if (store == nullptr) {
    VYN_LOG_ERROR("Failed to new configuration as out of memory");
    return nullptr;
  }
  const auto parser = Parse(path);
  if (parser == nullptr) {
    return nullptr;
  }
  std::string key;
  std::string value;
  for (unsigned int i = 0, count = parser->Size(); i < count; ++i) {
    parser->GetI(i, key, value);
    if (!store->SetWithTypeAutoConvert(key, value)) {
      return nullptr;
    }
  }
  return store;
}

bool Configuration::MergeConfig(const std::string& path) {
  if (gInstance == nullptr) {
    gInstance = FromFile(path);
    return gInstance != nullptr;
  }
  const auto parser = Parse(path);
  if (parser == nullptr) {
    return false;
  }
  const unsigned int count = parser->Size();
  if (count > kMaxMergedPairs) {
    VYN_LOG_ERROR("Conf file has too much lines, failed to merge config");
    return false;
  }
  std::string key;
  std::string value;
  for (unsigned int i = 0; i < count; ++i) {
    parser->GetI(i, key, value);
    gInstance->SetWithTypeAutoConvert(key, value);
  }
  return true;
}

}  // namespace vyn::common
