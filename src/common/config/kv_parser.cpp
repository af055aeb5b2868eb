#include "common/config/kv_parser.h"

#include "common/util/text.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <new>
#include <utility>

namespace vyn::common {

namespace {

/// Replaces the first `marker` of `value` by the environment variable `name`, if that is set.
/// \param keepFront whether the text before the marker is kept.
void Expand(std::string& value, const std::string& marker, const char* name, bool keepFront) {
  const auto position = value.find(marker);
  const char* text = position == std::string::npos ? nullptr : std::getenv(name);
  if (text != nullptr) {
    value.replace(keepFront ? position : 0, marker.size() + (keepFront ? 0 : position), text);
  }
}

}  // namespace

KVLine KVParser::ParseLine(std::string line, std::string& key, std::string& value) {
  VynTrimString(line);
  if (line.empty()) {
    return KVLine::kBlank;
  }
  if (line.front() == '#') {
    return KVLine::kComment;
  }
  const auto separator = line.find('=');
  if (separator == std::string::npos) {
    return KVLine::kNoSeparator;
  }
  std::string left = line.substr(0, separator);
  VynTrimString(left);
  if (left.empty()) {
    return KVLine::kNoKey;
  }
  key = std::move(left);
  value = line.substr(separator + 1);
  VynTrimString(value);
  Expand(value, "${VYN_HOME}", "VYN_HOME", false);
  Expand(value, "${VYN_BINARY_TYPE}", "VYN_BINARY_TYPE", true);
  Expand(value, "${VYN_VERSION}", "VYN_VERSION", true);
  return KVLine::kPair;
}

bool KVParser::FromFile(const std::string& path) {
  char resolved[PATH_MAX];
  if (path.size() >= sizeof(resolved) || realpath(path.c_str(), resolved) == nullptr) {
    return false;
  }
  // A directory would read as an empty file, a pipe without a writer would block, a device might never end.
  std::error_code ignored;
  if (!std::filesystem::is_regular_file(resolved, ignored)) {
    std::cout << "File <" << resolved << "> is not a regular file\n";
    return false;
  }
  std::ifstream input(resolved);
  if (!input) {
    std::cout << "File <" << resolved << "> doesn't exist\n";
    return false;
  }
  sync::MutexLock lock(mLock);
  std::string key;
  std::string value;
  for (std::string line; std::getline(input, line);) {
    if (ParseLine(line, key, value) == KVLine::kPair && !SetItemLocked(key, value)) {
      return false;
    }
  }
  return !input.bad();
}

bool KVParser::SetItem(const std::string& key, const std::string& value) {
  sync::MutexLock lock(mLock);
  return SetItemLocked(key, value);
}

bool KVParser::SetItemLocked(const std::string& key, const std::string& value) {
  try {
    const auto [entry, isNew] = mItemMap.try_emplace(key, static_cast<std::uint32_t>(mItems.size()));
    if (!isNew) {
      mItems[entry->second]->value = value;
      return true;
    }
    try {
      mItems.push_back(std::unique_ptr<KvPairs>(new KvPairs{key, value}));
    } catch (const std::bad_alloc&) {
      mItemMap.erase(entry);
      return false;
    }
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

bool KVParser::GetItem(const std::string& key, std::string& value) {
  sync::MutexLock lock(mLock);
  const auto known = mItemMap.find(key);
  if (known == mItemMap.end()) {
    return false;
  }
  value = mItems[known->second]->value;
  return true;
}

unsigned int KVParser::Size() {
  sync::MutexLock lock(mLock);
  return static_cast<unsigned int>(mItems.size());
}

void KVParser::GetI(unsigned int index, std::string& key, std::string& value) {
  sync::MutexLock lock(mLock);
  if (index < mItems.size()) {
    key = mItems[index]->key;
    value = mItems[index]->value;
  }
}

void KVParser::Dump() {
  sync::MutexLock lock(mLock);
  for (const auto& item : mItems) {
    std::printf("%s = %s\n", item->key.c_str(), item->value.c_str());
  }
}

}  // namespace vyn::common
