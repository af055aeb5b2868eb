#include "platform/fabric/client/fabric_client.h"

#include "platform/fabric/client/arguments.h"
#include "platform/fabric/protocol/names.h"
#include "platform/fabric/transport/broker_socket.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace vyn::fabric {

int FabricClient::Initialize(const char* home, int clientFlag, tls::ClientSetting links) {
  if (home == nullptr || *home == '\0') {
    home = ::secure_getenv("VYN_HOME");
  }
  const std::string place = home == nullptr ? "" : home;
  NodePtr broker;
  if (clientFlag == 0) {
    broker = std::make_shared<RemoteNode>(
        [place](net::Deadline deadline, int&) {
          int error = 0;
          return ConnectToBroker(place, deadline, error);
        },
        PeerRole::kClient, kAnyNode, mTimeouts);
  }
  Close();
  sync::MutexLock lock(mMutex);
  mBroker = std::move(broker);
  mLinkSetting = std::move(links);
  mLinkTls.reset();
  return 0;
}

void FabricClient::Close() {
  NodePtr broker;
  std::map<std::uint16_t, Link> links;
  decltype(mBatches) batches;
  sync::MutexLock lock(mMutex);
  broker.swap(mBroker);
  links.swap(mLinks);
  batches.swap(mBatches);
  mLinkSetting = {};  // the object itself may never be destroyed
  mLinkTls.reset();
  mKnowsLocal = false;
}

int FabricClient::CreateLink(std::uint16_t nodeId, const char* ip, std::uint16_t port) {
  if (ip == nullptr || !IsNumericAddress(ip)) {
    return kBmLocalError;
  }
  const std::string host = ip;
  NodePtr node;
  {
    sync::MutexLock lock(mMutex);
    const auto found = mLinks.find(nodeId);
    if (found != mLinks.end() && found->second.ip == host && found->second.port == port) {
      node = found->second.node;
    }
  }
  if (node == nullptr) {
    LinkSecurity security;
    if (const int refused = SecureLinks(security); refused != 0) {
      return refused;
    }
    node = std::make_shared<RemoteNode>(
        [host, port, security](net::Deadline deadline, int& result) {
          return ConnectLink(host, port, security, deadline, result);
        },
        PeerRole::kClient, nodeId, mTimeouts);
  }
  if (const int result = node->Reach(); result != 0) {
    return result;
  }
  NodePtr old;  // ends outside the lock
  sync::MutexLock lock(mMutex);
  Link& link = mLinks[nodeId];
  old = std::exchange(link.node, std::move(node));
  link.ip = host;
  link.port = port;
  return 0;
}

int FabricClient::SecureLinks(LinkSecurity& security) {
  tls::ClientSetting setting;
  {
    sync::MutexLock lock(mMutex);
    setting = mLinkSetting;
    security.tls = mLinkTls;
  }
  security.report = setting.report;
  if (!setting.enabled || security.tls != nullptr) {
    return 0;
  }
  std::string error;
  security.tls = tls::TlsContext::ForClient(setting.security, error);
  if (security.tls == nullptr) {
    if (setting.report != nullptr) {
      setting.report("no link can be made: " + error);
    }
    return kBmLocalError;
  }
  sync::MutexLock lock(mMutex);
  mLinkTls = security.tls;
  return 0;
}

int FabricClient::LocalNode(std::uint16_t& nodeId) {
  NodePtr broker;
  {
    sync::MutexLock lock(mMutex);
    if (mKnowsLocal) {
      nodeId = mLocalNode;
      return 0;
    }
    broker = mBroker;
  }
  if (broker == nullptr) {
    return kBmLocalError;
  }
  if (const int result = broker->Reach(&nodeId); result != 0) {
    return result;
  }
  sync::MutexLock lock(mMutex);
  if (mBroker == broker) {
    mKnowsLocal = true;
    mLocalNode = nodeId;
  }
  return 0;
}

int FabricClient::Route(std::uint16_t nodeId, NodePtr& node, bool& local) {
  NodePtr broker;
  {
    sync::MutexLock lock(mMutex);
    const auto found = mLinks.find(nodeId);
    node = found == mLinks.end() ? nullptr : found->second.node;
    broker = mBroker;
  }
  local = false;
  if (broker == nullptr) {
    return node == nullptr ? kBmUnconnected : 0;
  }
  std::uint16_t own = 0;
  const int result = LocalNode(own);
  local = result == 0 && own == nodeId;
  if (local || node == nullptr) {
    node = broker;
    return result;
  }
  return 0;
}

int FabricClient::Query(NodeAttributes* attributes) {
  NodePtr broker;
  {
    sync::MutexLock lock(mMutex);
    broker = mBroker;
  }
  return attributes == nullptr || broker == nullptr ? kBmLocalError : broker->Query(*attributes);
}

int FabricClient::QueryNode(std::uint16_t nodeId, NodeAttributes* attributes) {
  if (attributes == nullptr) {
    return kBmLocalError;
  }
  return CallNode(nodeId, [&](RemoteNode& node) { return node.Query(*attributes); });
}

int FabricClient::CreateNamespace(std::uint16_t nodeId, const char* ns, const char* token) {
  Access access;
  const int refused = ParseAccess(ns, token, access);
  if (refused != 0) {
    return refused == kBmLocalError ? refused : kBmNamespaceInvalid;
  }
  return CallNode(nodeId, [&](RemoteNode& node) { return node.CreateNamespace(nodeId, access); });
}

int FabricClient::DestroyNamespace(std::uint32_t nodeId, const char* ns, const char* token) {
  if (nodeId > UINT16_MAX) {
    return kBmLocalError;
  }
  Access access;
  if (const int refused = ParseAccess(ns, token, access); refused != 0) {
    return refused;
  }
  const auto id = static_cast<std::uint16_t>(nodeId);
  return CallNode(id, [&](RemoteNode& node) { return node.DestroyNamespace(id, access); });
}

int FabricClient::AllocateAt(std::uint16_t nodeId, const Access& access, std::uint64_t size,
                             std::string& id) {
  return CallNode(nodeId, [&](RemoteNode& node) { return node.Allocate(nodeId, access, size, id); });
}

int FabricClient::Allocate(const BmSecContext* context, std::uint64_t size, std::uint16_t nodeId) {
  if (context == nullptr || context->bmId == nullptr) {
    return kBmLocalError;
  }
  Access access;
  if (const int refused = ParseAccess(context->ns, context->token, access); refused != 0) {
    return refused;
  }
  std::string id;
  const int result = AllocateAt(nodeId, access, size, id);
  if (result == 0) {
    std::memcpy(const_cast<char*>(context->bmId), id.c_str(), id.size() + 1);
  }
  return result;
}

int FabricClient::Expand(const BmSecContext* context, std::uint64_t size) {
  ObjectName object;
  if (const int refused = ParseObjectName(context, object); refused != 0) {
    return refused;
  }
  return CallNode(OwnerOf(object.id), [&](RemoteNode& node) { return node.Expand(object, size); });
}

int FabricClient::AllocateBatch(std::uint16_t nodeId, const Access& access, std::uint32_t variable,
                                std::span<const std::uint64_t> sizes, std::vector<std::string>& ids) {
  NodePtr node;
  {
    sync::MutexLock lock(mMutex);
    const auto found = mLinks.find(nodeId);
    node = found == mLinks.end() ? nullptr : found->second.node;
  }
  if (node == nullptr) {
    return kBmUnconnected;
  }
  auto made = std::make_shared<UnpublishedBatch>(std::move(node));
  if (const int result = made->Allocate(access, variable, sizes, ids); result != 0) {
    return result;
  }
  sync::MutexLock lock(mMutex);
  mBatches[ids.front()] = std::move(made);
  return 0;
}

int FabricClient::KeepBatch(const BmSecContext* first) {
  ObjectName object;
  if (const int refused = ParseObjectName(first, object); refused != 0) {
    return refused;
  }
  std::shared_ptr<UnpublishedBatch> batch;
  {
    sync::MutexLock lock(mMutex);
    const auto found = mBatches.find(object.id);
    batch = found == mBatches.end() ? nullptr : found->second;
  }
  return batch == nullptr ? -ENOENT : batch->Keep(object.access);
}

void FabricClient::EndBatch(const char* first) {
  std::string_view id;
  std::shared_ptr<UnpublishedBatch> ended;  // outside the lock
  if (ParseObjectId(first, id) == 0) {
    sync::MutexLock lock(mMutex);
    if (const auto found = mBatches.find(id); found != mBatches.end()) {
      ended = std::move(found->second);
      mBatches.erase(found);
    }
  }
}

int FabricClient::FreeObject(const ObjectName& object) {
  return CallNode(OwnerOf(object.id), [&](RemoteNode& node) { return node.Free(object); });
}

int FabricClient::Free(const BmSecContext* context) {
  ObjectName object;
  const int refused = ParseObjectName(context, object);
  return refused != 0 ? refused : FreeObject(object);
}

int FabricClient::FreeBatch(const char* const* ids, std::uint32_t count, const char* ns, const char* token) {
  Access access;
  if (const int refused = ParseAccess(ns, token, access); refused != 0) {
    return refused;
  }
  int first = ids == nullptr && count > 0 ? kBmLocalError : 0;
  std::map<std::uint16_t, std::vector<std::string_view>> byOwner;
  for (std::uint32_t index = 0; ids != nullptr && index < count; ++index) {
    std::string_view id;
    if (ParseObjectId(ids[index], id) != 0) {
      first = kBmLocalError;
    } else {
      byOwner[OwnerOf(id)].push_back(id);
    }
  }
  for (const auto& [owner, some] : byOwner) {
    const auto& owned = some;  // not every compiler lets a lambda refer to `some`
    const int result = CallNode(owner, [&](RemoteNode& node) { return node.FreeBatch(access, owned); });
    first = first != 0 ? first : result;
  }
  return first;
}

void FabricClient::LockForFork() {
  mMutex.lock();
  mMappings.LockForFork();
  if (mBroker != nullptr) {
    mBroker->LockForFork();
  }
  for (auto& [nodeId, link] : mLinks) {
    link.node->LockForFork();
  }
}

void FabricClient::UnlockAfterFork(bool child) {
  for (const auto& [first, batch] : mBatches) {
    if (child) {
      batch->Drop();
    }
  }
  for (auto& [nodeId, link] : mLinks) {
    link.node->UnlockAfterFork(child);
  }
  if (mBroker != nullptr) {
    mBroker->UnlockAfterFork(child);
  }
  mMappings.UnlockAfterFork();
  mMutex.unlock();
}

}  // namespace vyn::fabric
