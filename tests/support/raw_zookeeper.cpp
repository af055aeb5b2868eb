#define THREADED  // the synchronous calls

#include "support/raw_zookeeper.h"

#include "support/wait_until.h"

#include <zookeeper/zookeeper.h>

#include <algorithm>
#include <stdexcept>

namespace vyn::test {

namespace {

void Require(int result, const std::string& what) {
  if (result != ZOK) {
    throw std::runtime_error(what + ": " + zerror(result));
  }
}

}  // namespace

RawZookeeper::RawZookeeper(const std::string& url) {
  zoo_set_debug_level(static_cast<ZooLogLevel>(0));
  mHandle = zookeeper_init2(url.c_str(), nullptr, 30000, nullptr, nullptr, ZOO_NO_LOG_CLIENTENV,
                            [](const char*) {});
  if (mHandle == nullptr || !WaitUntil([this] { return zoo_state(mHandle) == ZOO_CONNECTED_STATE; })) {
    zookeeper_close(mHandle);
    throw std::runtime_error("no connection with " + url);
  }
}

RawZookeeper::~RawZookeeper() { zookeeper_close(mHandle); }

void RawZookeeper::Create(const std::string& path, const std::optional<std::string>& value, int flags) {
  for (auto slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
    const int made =
        zoo_create(mHandle, path.substr(0, slash).c_str(), nullptr, -1, &ZOO_OPEN_ACL_UNSAFE, 0, nullptr, 0);
    Require(made == ZNODEEXISTS ? static_cast<int>(ZOK) : made, path);
  }
  Require(zoo_create(mHandle, path.c_str(), value ? value->data() : nullptr,
                     value ? static_cast<int>(value->size()) : -1, &ZOO_OPEN_ACL_UNSAFE, flags, nullptr, 0),
          path);
}

void RawZookeeper::Set(const std::string& path, const std::string& value) {
  Require(zoo_set(mHandle, path.c_str(), value.data(), static_cast<int>(value.size()), -1), path);
}

void RawZookeeper::Delete(const std::string& path) { Require(zoo_delete(mHandle, path.c_str(), -1), path); }

bool RawZookeeper::Exists(const std::string& path) const {
  const int result = zoo_exists(mHandle, path.c_str(), 0, nullptr);
  Require(result == ZNONODE ? static_cast<int>(ZOK) : result, path);
  return result == ZOK;
}

std::int64_t RawZookeeper::Owner(const std::string& path) const {
  Stat stat{};
  Require(zoo_exists(mHandle, path.c_str(), 0, &stat), path);
  return stat.ephemeralOwner;
}

std::string RawZookeeper::Get(const std::string& path) const {
  std::string value(4096, '\0');
  int length = static_cast<int>(value.size());
  const int result = zoo_get(mHandle, path.c_str(), 0, value.data(), &length, nullptr);
  if (result == ZNONODE) {
    return "(none)";
  }
  Require(result, path);
  return length < 0 ? "(null)" : value.substr(0, static_cast<std::size_t>(length));
}

std::vector<std::string> RawZookeeper::Children(const std::string& path) const {
  String_vector names{};
  Require(zoo_get_children(mHandle, path.c_str(), 0, &names), path);
  std::vector<std::string> children(names.data, names.data + names.count);
  deallocate_String_vector(&names);
  std::sort(children.begin(), children.end());
  return children;
}

}  // namespace vyn::test
