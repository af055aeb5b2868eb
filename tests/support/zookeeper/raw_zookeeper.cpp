#define THREADED  // the synchronous calls

#include "support/zookeeper/raw_zookeeper.h"

#include "support/wait_until.h"

namespace vyn::test {

namespace {

void Require(int result, const std::string& what) {
  if (result != ZOK) {
    throw std::runtime_error(what + ": " + zerror(result));
  }
}

zhandle_t* Connect(const std::string& url, const clientid_t* session) {
  zoo_set_debug_level(static_cast<ZooLogLevel>(0));
  return zookeeper_init2(url.c_str(), nullptr, 30000, session, nullptr, ZOO_NO_LOG_CLIENTENV,
                         [](const char*) {});
}

}  // namespace

RawZookeeper::RawZookeeper(const std::string& url) : mHandle(Connect(url, nullptr)) {
  if (!WaitUntil([this] { return zoo_state(mHandle) == ZOO_CONNECTED_STATE; })) {
    zookeeper_close(mHandle);
    throw std::runtime_error("no connection with " + url);
  }
}

RawZookeeper::~RawZookeeper() { zookeeper_close(mHandle); }

void RawZookeeper::Create(const std::string& path, const std::optional<std::string>& value, int flags) {
  if (const auto parent = path.substr(0, path.rfind('/')); !parent.empty() && !Exists(parent)) {
    Create(parent);
  }
  Require(zoo_create(mHandle, path.c_str(), value ? value->data() : nullptr,
                     value ? static_cast<int>(value->size()) : -1, &ZOO_OPEN_ACL_UNSAFE, flags, nullptr, 0),
          path);
}

void RawZookeeper::Set(const std::string& path, const std::string& value) {
  Require(zoo_set(mHandle, path.c_str(), value.data(), static_cast<int>(value.size()), -1), path);
}

void RawZookeeper::Delete(const std::string& path) { Require(zoo_delete(mHandle, path.c_str(), -1), path); }

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

void ExpireSession(const std::string& url, const clientid_t& id) {
  // The session's own client may take it back before this one has closed it. So do it until it has gone.
  const auto gone = [&] {
    zhandle_t* thief = Connect(url, &id);
    while (zoo_state(thief) != ZOO_CONNECTED_STATE && zoo_state(thief) != ZOO_EXPIRED_SESSION_STATE) {
      std::this_thread::yield();
    }
    const bool expired = zoo_state(thief) == ZOO_EXPIRED_SESSION_STATE;
    zookeeper_close(thief);
    return expired;
  };
  Require(WaitUntil(gone) ? ZOK : ZOPERATIONTIMEOUT, "the session does not let itself be closed");
}

}  // namespace vyn::test
