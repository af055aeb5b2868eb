#include "services/vynd/daemon.h"

#include "common/api/base_api_util.h"
#include "common/config/configuration.h"
#include "common/config/env_helper.h"
#include "common/log/log.h"
#include "common/log/logging.h"
#include "common/rpc/rpc_setter.h"
#include "common/util/file_util.h"
#include "common/wait/retry.h"
#include "platform/fabric/protocol/results.h"
#include "platform/tls/tls_context.h"
#include "platform/ulog/level.h"
#include "platform/zk_helper/zk_helper.h"
#include "services/common/rpc_handlers.h"
#include "services/config_check/config_check.h"
#include "services/node/token_registry.h"

#include <cerrno>
#include <chrono>
#include <latch>
#include <memory>
#include <thread>

namespace vyn::services {

namespace {

/// How long, in milliseconds, Stop waits for the replies of running calls. The whole of Stop must fit into
/// main()'s kStopLimit.
constexpr std::int64_t kStopTimeout = 2000;
/// How long after the session time-out ZooKeeper may still list the ephemeral znodes of an expired session.
constexpr auto kSessionSlack = std::chrono::seconds(10);
/// How long Start waits for a metadata leader.
constexpr auto kLeaderLimit = std::chrono::seconds(10);
/// The time between two sweeps of the fabric node.
constexpr auto kSweepPeriod = std::chrono::seconds(10);
/// Drivers outside the fabric parse the port of "ip:port" as a signed 16-bit number.
constexpr std::uint16_t kHighestOutsidePort = 32767;
/// A call may block on ZooKeeper or on the metadata leader. This many can block before others have to wait.
constexpr unsigned int kWorkerThreads = 32;
/// The release of this daemon, and the name of its processor architecture in the installation tree.
constexpr const char* kRelease = VYN_RELEASE;
constexpr const char* kBinaryType = VYN_BINARY_TYPE;

common::Ref<common::Configuration> Conf() { return common::Configuration::GetInstance(); }

}  // namespace

Daemon::Daemon(Options options) : mOptions(std::move(options)) {}

Daemon::~Daemon() { Stop(); }

bool Daemon::Start(std::vector<std::string>& errors, const std::function<bool()>& stopping) {
  std::string error;
  if (!PrepareProcess(errors)) {
    return false;
  }
  const auto fail = [&] {
    VYN_LOG_ERROR("vynd cannot start: " << error);
    errors.push_back(error);
    Stop();
    return false;
  };
  if (!mLock.Take(mHome, error) || !StartLog(error)) {
    errors.push_back(error);
    return false;
  }
  for (const std::string& warning : mWarnings) {
    VYN_LOG_WARN(warning);
  }
  if (Failed(common::BaseApiUtil::SetOpensslDLPath(Conf()))) {
    error = common::LastErrorText();
    return fail();
  }
  MetadataMemberOptions member;
  member.nodeAddress = mOptions.address;
  member.nodeList = Conf()->GetString("vyn.tessel.meta.node_lists", "");
  member.sessionTimeout = Conf()->GetInt("vyn.zookeeper.session.timeout", 30000);
  member.service.address = mOptions.address;
  member.service.port = static_cast<std::uint16_t>(Conf()->GetInt("vyn.tessel.rpc.shuffle_meta.port", 3892));
  member.service.applicationTimeout = mOptions.applicationTimeout;
  member.service.sizesAtNode = [this](std::uint16_t nodeId, const std::string& application,
                                      const std::vector<std::string>& bmIds,
                                      std::vector<std::uint64_t>& sizes) {
    // The view of a leader learns of a node that has just started within a second.
    common::Retry retry = common::Retry::Times(4, std::chrono::milliseconds(500));
    int result = 0;
    do {
      result = mFabric.Sizes(nodeId, application, bmIds, sizes);
    } while (result == kBmUnconnected && retry.Again());
    return result;
  };
  member.service.limits = {mOptions.maxVariables, mOptions.maxBlocks};
  member.service.server = ServerSettings();
  mMember = std::make_unique<MetadataMember>(std::move(member));
  mReclaimer = std::make_unique<Reclaimer>(mOptions.nodeId, mFabric, [this](const ReclaimEntry& entry) {
    if (mNodeServer == nullptr) {
      return;
    }
    if (entry.variablePath.empty()) {
      mNodeServer->Forget(entry.application);
    } else {
      mNodeServer->Forget(entry.application, entry.variableId);
    }
  });
  NodeServerOptions node;
  node.nodeId = mOptions.nodeId;
  node.port = static_cast<std::uint16_t>(Conf()->GetInt("vyn.tessel.rpc.shuffle_server.port", 3891));
  node.maxObjects = mOptions.maxBlocks;
  node.server = ServerSettings();
  node.reclaim = [this](const std::string& application) { return mReclaimer->Drain(application); };
  node.giveBack = [this](const std::string& application, const std::vector<std::string>& bmIds) {
    mReclaimer->GiveBack(application, bmIds);
  };
  node.lookUp = [this](const std::string& application, std::uint32_t id, tessel::BroadcastBlockInfo& info) {
    return mMetadataClient.LookUp(application, id, info);
  };
  node.mayAnswer = [this] { return mRegistry->IsKnown(); };
  node.created = [this](const std::string& application, std::uint32_t id,
                        const std::vector<std::string>& bmIds) { mUnpublished.Add(application, id, bmIds); };
  mNodeServer = std::make_unique<NodeServer>(std::move(node), mFabric);
  // Start the fabric after mMember and mReclaimer exist: its callbacks use both.
  if (!StartFabric(error) || !ConnectZooKeeper(error)) {
    return fail();
  }
  NodeIdentity identity{mOptions.nodeId, mOptions.address, mOptions.hostName, mFabric.LinkPort(),
                        mOptions.takeOver};
  identity.claimLimit =
      std::chrono::milliseconds(Conf()->GetInt("vyn.zookeeper.session.timeout", 30000)) + kSessionSlack;
  mRegistry =
      std::make_unique<NodeRegistry>(std::move(identity), mFabric, [this] { mNodeServer->ForgetAll(); });
  // Claim the id before this process reads or changes anything that belongs to it.
  if (!mRegistry->Claim(error, stopping)) {
    return fail();
  }
  mReclaimer->Drain();  // free what was deleted while this node was down, before any client is served
  mClaimed = true;
  if (!mRegistry->Start(error)) {
    return fail();
  }
  // Start the member before the node server: the member's FabricView finds the addresses of other nodes.
  if (Failed(mMember->Start())) {
    error = "the metadata member cannot start, see the log for the reason";
    return fail();
  }
  mUnpublished.Start(mHome + "/run/unpublished");  // before a client can create a batch
  if (!mNodeServer->Start(error)) {
    return fail();
  }
  mReclaimer->Start();
  // A node is ready when its clients can find the metadata service. In a new cluster this node may be up
  // before any node that can lead, so a missing leader is only a warning.
  if (AwaitLeader(kLeaderLimit, [&] { return !stopping(); }).empty()) {
    VYN_LOG_WARN("No metadata leader is known yet");
  }
  VYN_LOG_INFO("vynd serves node " << mOptions.nodeId << " at " << mOptions.address << ", pool "
                                   << mOptions.poolPath << " of " << mOptions.poolSize << " bytes");
  return true;
}

void Daemon::Reload() {
  const std::string path = mHome + "/conf/vyn.conf";
  const auto complaints = CheckConfig(path);
  for (const ConfigComplaint& complaint : complaints) {
    VYN_LOG_WARN(ToLine(complaint));
  }
  const auto conf = AnyRefusal(complaints) ? nullptr : common::Configuration::FromFile(path);
  if (conf == nullptr) {
    VYN_LOG_ERROR("Nothing is reloaded, because " << path << " has errors");
    return;
  }
  const std::string name = conf->GetString("vyn.log.level", "INFO");
  const unsigned int level = common::Log::StringToLogLevel(name);
  if (ULOG_SetLevel(static_cast<int>(level)) != 0) {
    VYN_LOG_ERROR("The log level stays: " << ULOG_GetLastErrorMessage());
  }
  common::Log::gLevel = level;
  const std::vector<std::string> errors = tls::TlsContext::ReloadAll();
  for (const std::string& error : errors) {
    VYN_LOG_ERROR("The certificates of before stay in use: " << error);
  }
  VYN_LOG_INFO("Reloaded: log level " << name << (errors.empty() ? ", certificates and keys" : ""));
}

void Daemon::Stop() {
  // Stop the three parts in parallel: if ZooKeeper does not answer, the parts that call it block, and the
  // node server can still reply to running calls. The pool stops last.
  const auto running = std::make_shared<std::latch>(3);
  const auto end = [&running](auto& part) {
    std::thread([&part, running] {
      if (part != nullptr) {
        part->Stop();
      }
      running->count_down();
    }).detach();  // main() may end the process with _exit while a part still blocks, so nobody joins it
  };
  mMetadataClient.Stop();
  mFabricSweep.RequestStop();
  end(mRegistry);
  end(mMember);
  end(mNodeServer);
  running->wait();
  if (mReclaimer != nullptr) {
    mReclaimer->Stop();
  }
  mUnpublished.Stop();
  mFabricSweep.Stop();
  mFabric.Stop();
  if (VynGetZkHandle() != nullptr) {
    const auto adapter = cluster::ClusterZKAdapter::GetInstance(cluster::NODE_ROLE_SERVER);
    if (adapter != nullptr) {
      static_cast<void>(adapter->ClusterZKClose());
    }
  }
}

bool Daemon::PrepareProcess(std::vector<std::string>& errors) {
  if (Failed(common::FileUtil::RealPathNoLog(mOptions.home, mHome))) {
    errors.push_back("the home '" + mOptions.home + "' cannot be resolved");
    return false;
  }
  if (Failed(common::BaseApiUtil::SetVynEnv(mHome.c_str(), kRelease, kBinaryType)) ||
      common::EnvHelper::GetInstance() == nullptr) {
    errors.push_back("the environment cannot be set for " + mHome);
    return false;
  }
  const std::string path = mHome + "/conf/vyn.conf";
  const auto complaints = CheckConfig(path);
  const bool refused = AnyRefusal(complaints);
  for (const ConfigComplaint& complaint : complaints) {
    (refused ? errors : mWarnings).push_back(ToLine(complaint));
  }
  if (refused) {
    return false;
  }
  if (common::Configuration::GetInstance(path) == nullptr) {
    errors.push_back(path + " cannot be loaded");
    return false;
  }
  if (mOptions.linkPort > kHighestOutsidePort) {
    mWarnings.push_back("Drivers outside the fabric cannot reach link port " + std::to_string(LinkPort()) +
                        ", they take ports up to " + std::to_string(kHighestOutsidePort));
  }
  common::RpcSetter::DefaultSetting(Conf());
  return true;
}

bool Daemon::StartLog(std::string& error) {
  const auto environment = common::EnvHelper::GetInstance();
  const std::string directory = environment->ReplaceVyn(Conf()->GetString("vyn.log.dir", ""));
  if (Failed(environment->CheckLogDir(directory, mHome + "/"))) {
    error = "vyn.log.dir " + directory + " cannot be used";
    return false;
  }
  const unsigned int level = common::Log::StringToLogLevel(Conf()->GetString("vyn.log.level", "INFO"));
  if (Failed(common::Log::Initialize(ULOG_TYPE_FILE, level, directory, Conf()->GetInt("vyn.log.fileSize", 20),
                                     Conf()->GetInt("vyn.log.rotation.file.num", 10)))) {
    error = std::string("the log cannot be opened in ") + directory + ": " + ULOG_GetLastErrorMessage();
    return false;
  }
  return true;
}

bool Daemon::StartFabric(std::string& error) {
  fabric::FabricNodeOptions options;
  options.home = mHome;
  options.poolPath = mOptions.poolPath;
  options.capacity = mOptions.poolSize;
  options.nodeId = mOptions.nodeId;
  options.listenAddress = mOptions.address;
  options.linkPort = LinkPort();
  options.linkTls = Conf()->GetBool("vyn.tessel.rpc.enableTLS", true);
  if (options.linkTls) {
    auto conf = Conf();
    common::BaseApiUtil::GetPlxTlsConf4Server(conf, options.linkIdentity);
    common::BaseApiUtil::GetPlxTlsConf4Client(conf, options.linkTrust, false);
  }
  options.directory = [this](std::uint16_t nodeId, fabric::NodeAddress& address) {
    cluster::NodeInfo node;
    if (!mMember->View().Find(nodeId, node)) {
      return false;
    }
    address = {node.ip, static_cast<std::uint16_t>(node.auxValue)};
    return true;
  };
  options.namespaceGuard = [this](const std::string& ns, const std::string& token) {
    if (!mClaimed) {
      return -EIO;
    }
    // The same steps as NodeServer::RegisterApplication: a driver outside the fabric may use this node before
    // any executor has registered the application here.
    const std::uint32_t status = FixToken(ns, token);
    Audit(std::to_string(getpid()), "register_application", ns, status);
    if (status == kStatusWrongToken) {
      return -EACCES;
    }
    return Failed(status) || !mReclaimer->Drain(ns) ? -EIO : 0;
  };
  options.unpublished = [this](const std::string& ns, std::uint32_t variable,
                               const std::vector<std::string>& ids) {
    mUnpublished.AddOutside(ns, variable, ids);
  };
  options.log = [](int level, const std::string& text) {
    if (common::logging::Gate(level)) {
      common::logging::Write(level, "fabric] " + text);
    }
  };
  if (!mFabric.Start(options, error)) {
    return false;
  }
  mFabricSweep.Start({"The pool could not be swept", kSweepPeriod},
                     [this] { mFabric.Sweep([this] { return mFabricSweep.Stopping(); }); });
  return true;
}

bool Daemon::ConnectZooKeeper(std::string& error) {
  const auto adapter = cluster::ClusterZKAdapter::GetInstance(cluster::NODE_ROLE_SERVER);
  if (adapter == nullptr ||
      Failed(adapter->ClusterZKAdapterInit(Conf()->GetInt("vyn.zookeeper.session.timeout", 30000)))) {
    error = "ZooKeeper at " + Conf()->GetString("vyn.zookeeper.server.url", "") +
            " cannot be used: " + VynZookeeperGetLastMessage();
    return false;
  }
  return true;
}

std::uint16_t Daemon::LinkPort() const {
  return mOptions.linkPort != 0
             ? mOptions.linkPort
             : static_cast<std::uint16_t>(Conf()->GetInt("vyn.tessel.rpc.manager.port", 3899));
}

rpc::ServerOptions Daemon::ServerSettings() {
  rpc::ServerOptions server;
  server.mTls = Conf()->GetBool("vyn.tessel.rpc.enableTLS", true);
  server.mAuthentication = Conf()->GetBool("vyn.tessel.rpc.enableAuthentication", true);
  static_cast<void>(common::BaseApiUtil::GetSecurityConf4Server(server.mSecurity));
  server.mStopTimeout = kStopTimeout;
  server.mWorkerThreads = kWorkerThreads;
  return server;
}

}  // namespace vyn::services
