#include "common/rpc/rpc_engine_pool.h"

#include "common/log/logging.h"
#include "common/util/system.h"

#include <algorithm>
#include <new>
#include <utility>

namespace vyn::common {

namespace {

bool IsPeer(const RpcEngine& engine, const std::string& ip, std::uint16_t port) {
  return static_cast<std::uint16_t>(engine.mPort) == port && engine.mIp == ip;
}

}  // namespace

RPCEnginePool::RPCEnginePool(std::string ip, std::uint16_t port, std::int64_t timeout, bool clientIdentity,
                             std::uint16_t poolSize, std::uint16_t peerGroupIndex,
                             std::map<std::string, const std::string> securityConf, bool tlsEnable,
                             bool authEnable)
    : mIp(std::move(ip)),
      mPort(port),
      mTimeout(timeout),
      mClientIdentity(clientIdentity),
      mPoolSize(poolSize),
      mPeerGroupIndex(peerGroupIndex),
      mSecurityConf(std::move(securityConf)),
      mTlsEnable(tlsEnable),
      mAuthEnable(authEnable) {}

unsigned int RPCEnginePool::Initialize() {
  mConfig = Configuration::GetInstance();
  VYN_CHECK_POINTER(mConfig);
  GetSecurityConf();
  mSecurityConf.emplace("peer.worker.group.index", std::to_string(mPeerGroupIndex));
  if (const unsigned int result = SetTimeout(); Failed(result)) {
    VYN_LOG_ERROR("Failed to execute setting.");
    return result;
  }
  {
    sync::MutexLock lock(mMutex);
    mEngines.reserve(mPoolSize);
  }
  return FillPool();
}

unsigned int RPCEnginePool::FillPool() {
  for (unsigned int i = 0; i < mPoolSize; ++i) {
    Ref<RpcEngine> engine;
    if (const unsigned int result = GetRpcEngine(engine); Failed(result)) {
      VYN_LOG_ERROR("Failed to get available shuffle rpc engine with ret<" << result << ">.");
      return result;
    }
    ReturnRpcEngine(engine);
  }
  return VYN_OK;
}

unsigned int RPCEnginePool::GetRpcEngine(Ref<RpcEngine>& engine) {
  {
    // Declared before the lock, so that connections to an old peer are closed after its release.
    std::vector<Ref<RpcEngine>> old;
    sync::MutexLock lock(mMutex);
    if (!mEngines.empty()) {
      if (IsPeer(*mEngines.back(), mIp, mPort)) {
        engine = std::move(mEngines.back());
        mEngines.pop_back();
        mInUse.push_back({engine, mIp, mPort});
        return VYN_OK;
      }
      old.swap(mEngines);
    }
  }
  const unsigned int status = NewRPCEngine(engine);
  if (Failed(status)) {
    sync::MutexLock lock(mMutex);
    Forget(engine);
  }
  return status;
}

void RPCEnginePool::Forget(const Ref<RpcEngine>& engine) {
  std::erase_if(mInUse, [&](const InUse& used) { return used.mEngine == engine; });
}

void RPCEnginePool::ReturnRpcEngine(const Ref<RpcEngine>& engine) {
  if (engine == nullptr) {
    return;
  }
  // Declared before the lock, as above. All idle engines must have the same peer: on the stack, engines of an
  // old peer could stay open below the new ones for ever.
  std::vector<Ref<RpcEngine>> old;
  sync::MutexLock lock(mMutex);
  Forget(engine);
  if (engine->Abandoned() || !IsPeer(*engine, mIp, mPort)) {
    return;
  }
  if (!mEngines.empty() && !IsPeer(*mEngines.back(), mIp, mPort)) {
    old.swap(mEngines);
  }
  mEngines.push_back(engine);
}

void RPCEnginePool::AbandonOldPeers() {
  std::vector<Ref<RpcEngine>> old;
  {
    sync::MutexLock lock(mMutex);
    for (const InUse& used : mInUse) {
      if (used.mPort != mPort || used.mIp != mIp) {
        old.push_back(used.mEngine);
      }
    }
  }
  for (const auto& engine : old) {
    engine->Abandon();
  }
}

std::chrono::nanoseconds RPCEnginePool::LongestUse() {
  sync::MutexLock lock(mMutex);
  if (mInUse.empty()) {
    return {};
  }
  const auto older = [](const InUse& left, const InUse& right) { return left.mBegan < right.mBegan; };
  return std::chrono::steady_clock::now() - std::min_element(mInUse.begin(), mInUse.end(), older)->mBegan;
}

unsigned int RPCEnginePool::ConnectEngine(Ref<RpcEngine>& engine,
                                          const std::map<std::string, std::string>& options,
                                          std::int64_t timeout) {
  engine = new (std::nothrow) RpcEngine;
  VYN_CHECK_POINTER(engine);
  engine->mClientOptions = options;
  std::string ip;
  std::uint16_t port = 0;
  {
    sync::MutexLock lock(mMutex);
    ip = mIp;
    port = mPort;
    mInUse.push_back({engine, ip, port});
  }
  return engine->Initialize(ip, static_cast<short>(port), timeout, mTlsEnable, mAuthEnable, mSecurityConf);
}

void RPCEnginePool::GetSecurityConf() {
  const auto text = [this](const char* key) -> std::string { return mConfig->GetString(key, ""); };
  mTlsEnable = mConfig->GetBool("vyn.tessel.rpc.enableTLS", true);
  mAuthEnable = mConfig->GetBool("vyn.tessel.rpc.enableAuthentication", true);

  static constexpr std::pair<const char*, const char*> kEntries[] = {
      {"tls.ca.cert.path", "vyn.tessel.rpc.tls.ca.cert.path"},
      {"tls.crl.path", "vyn.tessel.rpc.tls.crl.path"},
      {"plx.ksf.primary.path", "vyn.tessel.plx.ksf.primary.path"},
      {"plx.ksf.standby.path", "vyn.tessel.plx.ksf.standby.path"},
      {"plx.ksf.backup.path", "vyn.tessel.plx.ksf.backup.path"},
      {"auth.type", "vyn.tessel.rpc.auth.type"},
      {"author.file.encrypted", "vyn.tessel.rpc.author.file.encrypted"},
      {"auth.kerb.keytab.encrypted", "vyn.tessel.rpc.auth.kerb.keytab.encrypted"},
  };
  for (const auto& [entry, key] : kEntries) {
    mSecurityConf.emplace(entry, text(key));
  }

  const std::string clientKeytab = text("vyn.tessel.rpc.auth.kerb.client.keytab");
  const std::string serverKeytab = text("vyn.tessel.rpc.auth.kerb.server.keytab");
  const std::string place = "/" + VynGetHostname() + "@" + text("vyn.tessel.rpc.auth.domain");
  const std::string clientPrincipal = text("vyn.tessel.rpc.auth.client.principle.name") + place;
  const std::string serverPrincipal = text("vyn.tessel.rpc.auth.server.principle.name") + place;
  mSecurityConf.emplace("auth.kerb.server.principal", serverPrincipal);
  mSecurityConf.emplace("auth.kerb.client.principal", mClientIdentity ? clientPrincipal : serverPrincipal);
  mSecurityConf.emplace("auth.kerb.keytab", mClientIdentity ? clientKeytab : serverKeytab);
}

}  // namespace vyn::common
