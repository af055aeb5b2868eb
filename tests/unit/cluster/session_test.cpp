// The session, what each operation answers when it has none or a call of it is refused, and the records of the
// fabric's nodes.

#include "cluster/cluster_zkadapter.h"
#include "support/cluster_test.h"
#include "support/test.h"
#include "support/zookeeper_calls.h"

namespace {

/// What the connection was asked for, when it is not to be made.
bool gCatchInit = false;
std::string gAsked;

}  // namespace

// Found before the helper's own.
extern "C" int VynZookeeperInit(const char* url, int timeout, const VynZookeeperSecurity* security,
                                const VynZookeeperKeys* keys, const char* library) {
  static const auto real =
      reinterpret_cast<decltype(&VynZookeeperInit)>(dlsym(RTLD_NEXT, "VynZookeeperInit"));
  if (!gCatchInit) {
    return real(url, timeout, security, keys, library);
  }
  gAsked.clear();
  for (const char* text : {url, security->principleName, security->principleHostname, security->strategy,
                           security->certificates, security->clientPrincipal, security->clientKeytab,
                           keys->primaryKeyStore, keys->standbyKeyStore, keys->backupKeyStore}) {
    gAsked += std::string(text) + " ";
  }
  gAsked += std::to_string(timeout) + (security->enable ? " on " : " off ") +
            std::to_string(keys->connectTimeout) + (keys->isKeytabEncrypted ? " encrypted" : " plain");
  return 0;  // and VynGetZkHandle has none
}

namespace vyn::test {
namespace {

using cluster::ClusterZKAdapter;
using cluster::g_ZKHandler;
using cluster::NodeInfo;
using common::Configuration;
using namespace std::string_literals;

constexpr auto kAlive = common::META_NODE_STATUS_ALIVE;

class SessionTest : public ClusterTest {};

TEST_F(SessionTest, EveryOperationAnswersARefusedCallAndAMissingSession) {
  struct Refusal {
    std::string function;  ///< behind "DoDlZoo"
    std::string audit;     ///< the word of the failure; empty: none
    std::uint32_t status = 1;
    int result = ZNOAUTH;
    int nth = 1;  ///< the call that is refused
  };
  struct Operation {
    std::function<std::uint32_t()> call;
    std::vector<Refusal> refusals;
  };
  mMeta->mNodeAddress = "me:1";
  std::map<std::string, cluster::MetaNodeStatus> nodes{{"new:1", kAlive}};
  std::vector<std::pair<std::string, cluster::MetaNodeStatus>> list;
  String_vector names{};
  std::set<unsigned int> ids;
  NodeInfo info;
  bool won = false;
  const Operation operations[] = {
      {[&] { return mAdapter->ClusterZKMakeDir(); },
       {{"Create", "mkdir_meta"},
        {"Create", "mkdir_election", 1, ZNOAUTH, 2},
        {"Create", "create_follower_path", 1, ZNOAUTH, 3}}},
      {[&] { return mAdapter->ClusterZKCheckAvailable(); },
       {{"Exists", "", 2000047, ZOPERATIONTIMEOUT},
        {"Exists", "", 2000049, ZCONNECTIONLOSS},
        {"Exists", "", 2000051, ZSSLCONNECTIONERROR},
        {"Exists", "", 2000053, ZINVALIDSTATE},
        {"Exists", "", 2000053, ZBADARGUMENTS},
        {"Exists", "", 2000055}}},
      {[&] { return mAdapter->ZKGetAndUpdateMetaLeaderInfo(mMeta); }, {{"Wget", "get_leader_info"}}},
      {[&] { return mAdapter->ZKRegisterWatcher(false); },
       {{"Wexists", "set_leader_watcher", 2000047, ZOPERATIONTIMEOUT},
        {"Wexists", "set_leader_watcher", 2000049, ZCONNECTIONLOSS},
        {"Wexists", "set_leader_watcher", 2000053, ZINVALIDSTATE},
        {"Wexists", "set_leader_watcher", 2000055},
        {"WgetChildren", "set_follower_watcher"},
        {"GetChildren", "get_status_children"},
        {"Wexists", "set_status_watcher", 0, ZNOAUTH, 2}}},
      {[&] { return mAdapter->ZKCreateStatus(nodes); },
       {{"Create", "create_node"}, {"Create", "create_status", 1, ZNOAUTH, 2}}},
      {[&] { return mAdapter->ZKClearAndCreateStatusDynamic(mMeta); },
       {{"Delete", "delete_meta_conf"}, {"GetChildren", "get_status_children"}}},
      {[&] { return mAdapter->ZKClearAllStatusNode(); }, {{"Delete", "clear_meta_children", 0}}},
      {[&] { return mAdapter->ZKGetAllStatusNode(names); }, {{"GetChildren", "get_status_children"}}},
      {[&] { return mAdapter->ZKSetStatus("me:1", kAlive); }, {{"Get", "get_status"}, {"Set", "set_status"}}},
      {[&] { return mAdapter->ZKGetNodeWithStatusList(list); },
       {{"GetChildren", "get_meta_children"}, {"Get", "get_status"}}},
      {[&] { return mAdapter->ZKUpdateMemoryInformation("a", kAlive, true); },
       {{"GetChildren", "get_meta_children"}}},
      {[&] {
         mMeta->mNodeStatusMap = {{"other:1", kAlive}};
         return mAdapter->ZKCheckAndMarkFollowerBroken(mMeta, names);
       },
       {{"Set", "set_status"}}},
      {[&] { return mAdapter->ClusterZKGetNodeList(ids); }, {{"GetChildren", "get_node_list"}}},
      {[&] { return mAdapter->ClusterZKGetNodeInfo(1, info); }, {{"Get", "", 2000049}}},
      {[&] { return mAdapter->ClusterZKGetMemInfo(1, info); }, {{"Get", ""}}},
      {[&] { return mAdapter->ZKTryBecomeMetaElectionLeader(mMeta, won); }, {{"Create", "elect_leader"}}},
      {[&] { return mAdapter->ZKTryDeleteMetaElectionLeader(); }, {{"Delete", ""}}},
      {[&] { return mAdapter->ZKCreateMetaElectionFollower(mMeta); }, {{"Create", "create_follower_path"}}},
      {[&] { return mAdapter->ZKTryDeleteMetaElectionFollower("/a"); }, {{"Delete", "delete_follower", 0}}},
      {[&] { return mAdapter->ZKElectionOperate(mMeta); }, {{"Create", "elect_leader"}}},
      {[&] { return mAdapter->ZKWaitAndCreateMetaMutex(); }, {{"Create", "create_status_dynamic"}}},
      {[&] { return mAdapter->ZKReleaseMetaMutex(); }, {{"Delete", "delete_meta_mutex"}}},
      {[&] { return mAdapter->ClusterZKClose(); }, {{"keeperClose", "", 1, ZCONNECTIONLOSS}}},
  };
  ClusterZKAdapter::isRunning = false;  // the calls of a watcher would count
  for (const bool connected : {false, true}) {
    for (const Operation& operation : operations) {
      SCOPED_TRACE(operation.refusals[0].function + ": " + operation.refusals[0].audit);
      mLog.Clear();
      if (!connected) {
        EXPECT_EQ(operation.call(), 2000057U);
        EXPECT_EQ(mLog.Texts(kErrorLine).size(), 1U);
        continue;
      }
      for (const Refusal& refusal : operation.refusals) {
        Connect();
        for (const char* path : {"/meta/status/me:1", "/meta/status/other:1", "/meta/election/leader_info"}) {
          if (!mRaw->Exists(path)) {
            mRaw->Create(path, "2");
          }
        }
        ASSERT_EQ(ULOG_AuditInit(mFolder.Write("audit.log", "").c_str(), 1, 1), 0);
        mLog.Clear();
        std::atomic<int> left{refusal.nth};
        const ZookeeperCalls calls([&](const ZookeeperCall& call) {
          const bool refused = call.function == "DoDlZoo" + refusal.function && --left == 0;
          if (refused && call.path.empty()) {
            call.make();  // the session ends, and nobody can be told
          }
          return refused ? refusal.result : call.make();
        });
        EXPECT_EQ(operation.call(), refusal.status) << refusal.audit;
        EXPECT_LE(left, 0) << "nothing was refused";
        EXPECT_TRUE(refusal.audit.empty() || Audited(refusal.audit, false)) << refusal.audit;
        EXPECT_TRUE(refusal.function == "Delete" || refusal.function == "Get" ||
                    !mLog.Texts(kErrorLine).empty());
      }
    }
  }
  ClusterZKAdapter::isRunning = true;
  EXPECT_EQ(g_ZKHandler, nullptr);
  Connect();
  for (const auto& result :
       {mAdapter->ZKGetAndUpdateMetaLeaderInfo({}), mAdapter->ZKClearAndCreateStatusDynamic({}),
        mAdapter->ZKTryBecomeMetaElectionLeader({}, won), mAdapter->ZKCreateMetaElectionFollower({})}) {
    EXPECT_EQ(result, 2000057U) << "no record";
  }
}

TEST_F(SessionTest, TooManyChildrenAreRefusedWithOneLine) {
  Connect();
  mRaw->Create("/meta/election/leader_info", "me:1");
  for (const int count : {100000, 100001}) {
    const ZookeeperCalls calls([&](const ZookeeperCall& call) {
      if (call.names == nullptr) {
        return call.path.starts_with("/meta/status/") ? int{ZNOAUTH} : call.make();
      }
      call.names->count = count;
      call.names->data = static_cast<char**>(std::calloc(static_cast<std::size_t>(count), sizeof(char*)));
      for (int i = 0; i < count; ++i) {
        call.names->data[i] = strdup(std::to_string(i).c_str());
      }
      return int{ZOK};
    });
    const bool taken = count == 100000;
    std::set<unsigned int> ids;
    EXPECT_EQ(mAdapter->ClusterZKGetNodeList(ids), taken ? 0U : 1U);
    EXPECT_EQ(ids.size(), taken ? 100000U : 0U);
    if (!taken) {
      std::vector<std::pair<std::string, cluster::MetaNodeStatus>> list;
      mLog.Clear();
      EXPECT_EQ(mAdapter->ZKGetNodeWithStatusList(list), 1U);
      EXPECT_EQ(mLog.Texts(kErrorLine).size(), 1U);
      ClusterZKAdapter::MetaNodeFollowerWatchFunc(g_ZKHandler, ZOO_CHILD_EVENT, 0, "", nullptr);
      EXPECT_EQ(mLog.Texts(kErrorLine).size() + mLog.Texts(kInfoLine).size(), 2U);
    }
  }
}

TEST_F(SessionTest, OneSessionFromInitToClose) {
  EXPECT_TRUE(ClusterZKAdapter::GetInstance(cluster::NODE_ROLE_SDK) == mAdapter);
  EXPECT_EQ(mAdapter->mRole, cluster::NODE_ROLE_SERVER);
  ASSERT_EQ(mAdapter->ClusterZKAdapterInit(10000), 0U);
  EXPECT_TRUE(Audited("connect", true));
  zhandle_t* first = g_ZKHandler;
  EXPECT_EQ(mAdapter->ClusterZKAdapterInit(10000), 0U);
  EXPECT_EQ(g_ZKHandler, first);
  RawZookeeper raw(mUrl);
  EXPECT_EQ(mAdapter->ClusterZKMakeDir(), 0U);
  EXPECT_EQ(mAdapter->ClusterZKMakeDir(), 0U);
  for (const char* path : {"/meta", "/meta/election", "/meta/election/follower_info"}) {
    EXPECT_EQ(raw.Get(path), "(null)") << path;
    EXPECT_EQ(raw.Owner(path), 0) << path;
  }
  EXPECT_FALSE(raw.Exists("/meta/status"));
  EXPECT_EQ(mAdapter->ClusterZKClose(), 0U);

  mAdapter = nullptr;
  ClusterZKAdapter::mInstance = nullptr;
  const auto wrong = ClusterZKAdapter::GetInstance(static_cast<cluster::NodeRole>(2));
  EXPECT_EQ(wrong->ClusterZKAdapterInit(10000), 1U);
  ClusterZKAdapter::mInstance = nullptr;
}

TEST_F(SessionTest, InitFailsWithItsCause) {
  const auto configuration = Configuration::GetInstance();
  const std::string library = getenv("VYN_HOME") + "/tessel/24.0.0/" VYN_BINARY_TYPE "/lib/common"s;
  EXPECT_EQ(ClusterZKAdapter::GetVynLibPath(), std::filesystem::canonical(library));
  std::filesystem::rename(library, library + ".away");
  EXPECT_EQ(mAdapter->ClusterZKAdapterInit(10000), 1U);
  std::filesystem::rename(library + ".away", library);

  configuration->Set("vyn.zookeeper.security.enable", true);
  configuration->Set("vyn.zookeeper.security.strategy", "tls");
  EXPECT_EQ(mAdapter->ClusterZKAdapterInit(10000), 1U) << "this client has no TLS";
  configuration->Set("vyn.zookeeper.security.enable", false);

  const ReservedPort nobody;
  configuration->Set("vyn.zookeeper.server.url", "127.0.0.1:" + std::to_string(nobody.Number()));
  configuration->Set("vyn.zookeeper.connect.timeout", 1);
  EXPECT_EQ(mAdapter->ClusterZKAdapterInit(10000), 1U);
  configuration->Set("vyn.zookeeper.connect.timeout", 60);
  EXPECT_EQ(g_ZKHandler, nullptr);
  EXPECT_GE(mLog.Texts(kErrorLine).size(), 3U);
}

TEST_F(SessionTest, TheConnectionIsAskedForByTheKeysOfItsRole) {
  const auto configuration = Configuration::GetInstance();
  for (const auto& [role, security, store] :
       {std::tuple("server-"s, "vyn.zookeeper.security."s, "vyn.tessel.plx.ksf."s),
        std::tuple("sdk-"s, "vyn.zookeeper.sdk.security."s, "vyn.tessel.sdk.plx.ksf."s)}) {
    for (const char* key : {"certs", "client.principle", "client.keytab"}) {
      configuration->Set(security + key, role + key);
    }
    for (const char* key : {"primary", "standby", "backup"}) {
      configuration->Set(store + key + ".path", role + key);
    }
  }
  for (const char* key : {"principle.name", "principle.hostname", "strategy"}) {
    configuration->Set("vyn.zookeeper.security."s + key, key);
  }
  configuration->Set("vyn.zookeeper.security.isKeytabEncrypt", false);
  gCatchInit = true;
  for (const auto& [role, name] :
       {std::pair(cluster::NODE_ROLE_SERVER, "server-"s), std::pair(cluster::NODE_ROLE_SDK, "sdk-"s)}) {
    mAdapter = nullptr;
    ClusterZKAdapter::mInstance = nullptr;
    mAdapter = ClusterZKAdapter::GetInstance(role);
    EXPECT_EQ(mAdapter->ClusterZKAdapterInit(7000), 1U);
    std::string expected = mUrl + " principle.name principle.hostname strategy ";
    for (const char* key : {"certs", "client.principle", "client.keytab", "primary", "standby", "backup"}) {
      expected += name + key + " ";
    }
    EXPECT_EQ(gAsked, expected + "7000 off 60 plain");
    EXPECT_TRUE(Audited("connect", false));
  }
  gCatchInit = false;
  mAdapter = nullptr;
  ClusterZKAdapter::mInstance = nullptr;
}

TEST_F(SessionTest, AnExpiredSessionIsReportedUntilItIsMadeAnewAndAFrozenServerPasses) {
  ASSERT_EQ(mAdapter->ClusterZKAdapterInit(2000), 0U);
  zhandle_t* handle = g_ZKHandler;
  ExpireSession(gServer->Port(), DoDlZooClientId(handle));
  EXPECT_TRUE(WaitUntil([&] { return mAdapter->ClusterZKCheckAvailable() == 2000053U; }));
  EXPECT_EQ(g_ZKHandler, handle);
  EXPECT_EQ(mAdapter->ZKRegisterWatcher(true), 2000053U);
  NodeInfo info;
  EXPECT_EQ(mAdapter->ClusterZKGetNodeInfo(77, info), 2000049U);
  EXPECT_EQ(mAdapter->ClusterZKClose(), 0U);

  Connect(2000);
  gServer->Freeze();
  EXPECT_EQ(mAdapter->ClusterZKCheckAvailable(), 2000047U);
  gServer->Thaw();
  std::uint32_t result = 1;
  EXPECT_TRUE(WaitUntil([&] {
    result = mAdapter->ClusterZKCheckAvailable();
    return result == 0U || result == 2000053U;
  }));
}

class FabricNodesTest : public ClusterTest {
 protected:
  void SetUp() override {
    ClusterTest::SetUp();
    Connect();
  }
};

TEST_F(FabricNodesTest, TheRecordOfANode) {
  const std::string aux = "\x01\x02\x03\x04\x78\x56\x34\x12"s;
  const std::string whole = aux + "10.1.2.3\0xxxxxxx"s + "node-7" + std::string(58, '\0');
  struct Case {
    std::optional<std::string> record;
    std::string ip, hostName;
    std::uint32_t auxValue;
  };
  unsigned int id = 4294967295U;
  for (const Case& c : {Case{whole, "10.1.2.3", "node-7", 0x12345678U},
                        Case{whole + "more than a record", "10.1.2.3", "node-7", 0x12345678U},
                        Case{aux + "255.255.255.2550" + std::string(64, 'h'), "255.255.255.2550",
                             std::string(64, 'h'), 0x12345678U},
                        Case{aux + "9", "927.0.0.1", "hostname", 0x12345678U},
                        Case{std::nullopt, "127.0.0.1", "hostname", 0U}}) {
    mRaw->Create("/mf/node/" + std::to_string(id), c.record);
    NodeInfo info;
    EXPECT_EQ(mAdapter->ClusterZKGetNodeInfo(id, info), 0U);
    EXPECT_TRUE(info.nodeId == id && info.exists == 1U && info.auxValue == c.auxValue) << id;
    EXPECT_EQ(info.ip + " " + info.hostName, c.ip + " " + c.hostName);
    --id;
  }
  NodeInfo info;
  info.exists = 1;
  EXPECT_EQ(mAdapter->ClusterZKGetNodeInfo(77, info), 2000045U);
  EXPECT_TRUE(info.nodeId == 77U && info.exists == 0U);
}

TEST_F(FabricNodesTest, TheRecordOfItsCapacity) {
  setenv("TZ", "UTC", 1);
  tzset();
  const std::string record =
      "\x01\0\0\0\0\0\0\x80"s + "\x02\0\0\0\x01\0\0\0"s + "\x80\x51\x01\0\0\0\0\0"s;  // 86400 s
  mRaw->Create("/mf/capacity/1", record);
  mRaw->Create("/mf/capacity/2", record + "longer");
  mRaw->Create("/mf/capacity/3", record.substr(0, 12));
  for (const unsigned int id : {1U, 2U, 3U}) {
    NodeInfo info;
    EXPECT_EQ(mAdapter->ClusterZKGetMemInfo(id, info), 0U);
    EXPECT_EQ(info.capacityA, 0x8000000000000001U);
    EXPECT_EQ(info.capacityB, id == 3 ? 2U : 0x100000002U);
    EXPECT_EQ(info.capacityTime, id == 3 ? 0U : 86400U);
    EXPECT_EQ(info.capacityTimeText, id == 3 ? "1970-01-01 00:00:00" : "1970-01-02 00:00:00");
  }
  std::string text = "kept";
  EXPECT_EQ(ClusterZKAdapter::ConvertTimestamp(1UL << 62, text), 1U);
  EXPECT_EQ(text, "kept");
}

TEST_F(FabricNodesTest, NodeNamesAreWholeNumbers) {
  for (const auto& [name, id] :
       std::vector<std::pair<std::string, std::set<unsigned int>>>{{"0", {0}},
                                                                   {"7", {7}},
                                                                   {"4294967295", {4294967295U}},
                                                                   {"-1", {4294967295U}},
                                                                   {"4294967296", {0}},
                                                                   {"00", {}},
                                                                   {"12x", {}},
                                                                   {"x", {}},
                                                                   {"99999999999999999999", {}}}) {
    mRaw->Create("/mf/node/" + name);
    std::set<unsigned int> ids;
    EXPECT_EQ(mAdapter->ClusterZKGetNodeList(ids), id.empty() ? 1U : 0U) << name;
    EXPECT_EQ(ids, id) << name;
    mRaw->Delete("/mf/node/" + name);
  }
  EXPECT_TRUE(Audited("get_node_list", true));
}

}  // namespace
}  // namespace vyn::test
