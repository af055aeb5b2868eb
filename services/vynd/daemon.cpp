#include "services/vynd/daemon.h"

#include "common/api/base_api_util.h"
#include "common/config/configuration.h"
#include "common/config/env_helper.h"
#include "common/log/log.h"
#include "common/log/logging.h"
#include "common/rpc/rpc_setter.h"
#include "common/util/file_util.h"
#include "platform/zk_helper/zk_helper.h"
#include "services/common/rpc_handlers.h"
#include "services/config_check/config_check.h"
#include "services/node/token_registry.h"

#include <cerrno>
#include <latch>
#include <memory>
#include <thread>

namespace vyn::services {

namespace {

/// Milliseconds that running calls get to answer when the daemon ends. With the rest of the end it stays
/// below main()'s limit.
constexpr std::int64_t kStopTimeout = 2000;
/// What the ensemble may need beyond the session time-out to see that a session has gone.
constexpr auto kSessionSlack = std::chrono::seconds(10);
/// How long the start waits for a metadata leader.
constexpr auto kLeaderLimit = std::chrono::seconds(10);
/// Drivers outside the fabric take "ip:port" apart with signed 16-bit ports.
constexpr std::uint16_t kHighestOutsidePort = 32767;
/// Calls may wait for ZooKeeper or for the metadata leader, and must not keep the others from being answered.
constexpr unsigned int kWorkerThreads = 32;
/// The release that this daemon belongs to, and how its processor is called in the installation tree.
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
  member.service.limits = {mOptions.maxVariables, mOptions.maxBlocks};
  member.service.server = ServerSettings();
  member.onNewSession = [this] { mNodeServer->ForgetAll(); };
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
  mNodeServer = std::make_unique<NodeServer>(std::move(node), mFabric);
  // The fabric's namespace guard uses both, once the node id is claimed.
  if (!StartFabric(error) || !ConnectZooKeeper(error)) {
    return fail();
  }
  NodeIdentity identity{mOptions.nodeId, mOptions.address, mOptions.hostName, mFabric.LinkPort(),
                        mOptions.takeOver};
  identity.claimLimit =
      std::chrono::milliseconds(Conf()->GetInt("vyn.zookeeper.session.timeout", 30000)) + kSessionSlack;
  mRegistry = std::make_unique<NodeRegistry>(std::move(identity), mFabric);
  if (!mRegistry->Claim(error, stopping)) {  // before anything that is this id's is touched
    return fail();
  }
  mReclaimer->Drain();  // what was freed while this node was down goes before anyone is served
  mClaimed = true;
  if (!mRegistry->Start(error)) {
    return fail();
  }
  // Before the node server: with it comes the view by which other nodes are found.
  if (Failed(mMember->Start())) {
    error = "the metadata member cannot start, the log tells why";
    return fail();
  }
  if (!mNodeServer->Start(error)) {
    return fail();
  }
  mReclaimer->Start();
  // Ready is a node whose clients find the metadata service; the first node of a cluster may be up before
  // those that lead.
  if (AwaitLeader(kLeaderLimit, [&] { return !stopping(); }).empty()) {
    VYN_LOG_WARN("No metadata leader is known yet");
  }
  VYN_LOG_INFO("vynd serves node " << mOptions.nodeId << " at " << mOptions.address << ", pool "
                                   << mOptions.poolPath << " of " << mOptions.poolSize << " bytes");
  return true;
}

void Daemon::Stop() {
  // All at once: while ZooKeeper does not answer, only what asks it waits, and the calls under way still get
  // their answers. The pages come last.
  const auto running = std::make_shared<std::latch>(3);
  const auto end = [&running](auto& part) {
    std::thread([&part, running] {
      if (part != nullptr) {
        part->Stop();
      }
      running->count_down();
    }).detach();  // a hard end of the process leaves none behind that should have been joined
  };
  mMetadataClient.Stop();
  end(mRegistry);
  end(mMember);
  end(mNodeServer);
  running->wait();
  if (mReclaimer != nullptr) {
    mReclaimer->Stop();
  }
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
  const auto complaints = CheckConfigAsItIs(path);
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
  if (LinkPort() > kHighestOutsidePort) {
    mWarnings.push_back("Drivers outside the fabric cannot reach link port " + std::to_string(LinkPort()) +
                        ", they take ports up to " + std::to_string(kHighestOutsidePort));
  }
  common::RpcSetter::DefaultSetting(Conf());
  return true;
}

bool Daemon::StartLog(std::string& error) {
  const auto environment = common::EnvHelper::GetInstance();
  const std::string directory = environment->ReplaceVyn(Conf()->GetString("vyn.log.dir", ""));
  if (Failed(environment->CheckLogDir(directory, mHome))) {
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
    // As in a registration: a driver outside the fabric may come before every executor.
    const std::uint32_t status = FixToken(ns, token);
    Audit(std::to_string(getpid()), "register_application", ns, status);
    if (status == kStatusWrongToken) {
      return -EACCES;
    }
    return Failed(status) || !mReclaimer->Drain(ns) ? -EIO : 0;
  };
  options.log = [](int level, const std::string& text) {
    if (common::logging::Gate(level)) {
      common::logging::Write(level, "fabric] " + text);
    }
  };
  return mFabric.Start(options, error);
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
