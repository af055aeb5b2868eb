// What an operation says and answers when the call it makes is refused, and what it asks of the connection.

#include "cluster/cluster_zkadapter.h"
#include "support/cluster_test.h"

#include <dlfcn.h>
#include <gmock/gmock.h>

#include <cstring>

namespace {

/// The call that is refused: a function's `nth` one.
struct Refusal {
  const char* function = "";
  int result = ZOK;
  int nth = 1;
};
Refusal gRefusal;

bool Refused(const char* function) {
  return std::strcmp(gRefusal.function, function) == 0 && --gRefusal.nth == 0;
}

/// What the connection was asked for, when it is not to be made.
bool gCatchInit = false;
std::string gAsked;

}  // namespace

// Found before the helper's own.
#define VYN_REFUSABLE(NAME, PARAMETERS, ARGUMENTS)                                       \
  extern "C" int NAME PARAMETERS {                                                       \
    static const auto real = reinterpret_cast<decltype(&NAME)>(dlsym(RTLD_NEXT, #NAME)); \
    return Refused(#NAME) ? gRefusal.result : real ARGUMENTS;                            \
  }

VYN_REFUSABLE(DoDlZooCreate,
              (zhandle_t * handle, const char* path, const char* value, int length, const ACL_vector* acl,
               int flags, char* out, int outLength),
              (handle, path, value, length, acl, flags, out, outLength))
VYN_REFUSABLE(DoDlZooDelete, (zhandle_t * handle, const char* path, int version), (handle, path, version))
VYN_REFUSABLE(DoDlZooGet,
              (zhandle_t * handle, const char* path, int watch, char* buffer, int* length, Stat* stat),
              (handle, path, watch, buffer, length, stat))
VYN_REFUSABLE(DoDlZooSet, (zhandle_t * handle, const char* path, const char* buffer, int length, int version),
              (handle, path, buffer, length, version))
VYN_REFUSABLE(DoDlZooGetChildren, (zhandle_t * handle, const char* path, int watch, String_vector* children),
              (handle, path, watch, children))
VYN_REFUSABLE(DoDlZooExists, (zhandle_t * handle, const char* path, int watch, Stat* stat),
              (handle, path, watch, stat))
VYN_REFUSABLE(DoDlZooWexists,
              (zhandle_t * handle, const char* path, watcher_fn watcher, void* context, Stat* stat),
              (handle, path, watcher, context, stat))
VYN_REFUSABLE(DoDlZooWget,
              (zhandle_t * handle, const char* path, watcher_fn watcher, void* context, char* buffer,
               int* length, Stat* stat),
              (handle, path, watcher, context, buffer, length, stat))
VYN_REFUSABLE(DoDlZooWgetChildren,
              (zhandle_t * handle, const char* path, watcher_fn watcher, void* context,
               String_vector* children),
              (handle, path, watcher, context, children))

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
using testing::Contains;
using testing::StartsWith;

class RefusedOperationsTest : public ClusterTest {
 protected:
  void TearDown() override {
    gRefusal = {};
    ClusterTest::TearDown();
  }
};

TEST_F(RefusedOperationsTest, EachTellsAndAuditsItsOwn) {
  Connect();
  mMeta->mNodeAddress = "me:1";
  for (const char* path : {"/meta/status/me:1", "/meta/status/other:1"}) {
    mRaw->Create(path, "2");
  }
  mRaw->Create("/meta/election/leader_info", "me:1");
  std::map<std::string, cluster::MetaNodeStatus> nodes{{"new:1", common::META_NODE_STATUS_ALIVE}};
  std::vector<std::pair<std::string, cluster::MetaNodeStatus>> list;
  String_vector names{};
  std::set<unsigned int> ids;
  cluster::NodeInfo info;
  const std::string electionPath = "/meta/election/";
  struct Case {
    Refusal refusal;
    std::function<std::uint32_t()> call;
    std::uint32_t status;
    std::string audit;  ///< the word of a failure
    std::string line;   ///< how an error line begins
  };
  const auto makeDir = [&] { return mAdapter->ClusterZKMakeDir(); };
  const auto watchAll = [&] { return mAdapter->ZKRegisterWatcher(false); };
  const std::string watchWords = "Check meta node exists failed, ret: ";
  const Case cases[] = {
      {{"DoDlZooCreate", ZNOAUTH, 1}, makeDir, 1, "mkdir_meta", "Create /meta failed, ret: "},
      {{"DoDlZooCreate", ZNOAUTH, 2}, makeDir, 1, "mkdir_election", "Create /meta/election failed, ret: "},
      {{"DoDlZooCreate", ZNOAUTH, 3},
       makeDir,
       1,
       "create_follower_path",
       "Create follower_info failed, ret: "},
      {{"DoDlZooExists", ZCONNECTIONLOSS},
       [&] { return mAdapter->ClusterZKCheckAvailable(); },
       2000049,
       "",
       "Connection loss for ZK server, ret is: -4, try again to connect to server"},
      {{"DoDlZooCreate", ZNOAUTH},
       [&] { return mAdapter->ZKCreateMetaElectionFollower(mMeta); },
       1,
       "create_follower_path",
       "Create Meta follow path: " + electionPath +
           "follower_info/me:1 failed, ret is: -102, zookeeper get error:"},
      {{"DoDlZooDelete", ZNOAUTH},
       [&] { return mAdapter->ZKTryDeleteMetaElectionLeader(); },
       1,
       "",
       "Failed to voluntarily remove meta leader, zookeeper get error:"},
      {{"DoDlZooCreate", ZNOAUTH},
       [&] { return mAdapter->ZKCreateStatus(nodes); },
       1,
       "create_node",
       "Failed Create meta node: /meta/status, ret:-102, zookeeper get error:"},
      {{"DoDlZooCreate", ZNOAUTH, 2},
       [&] { return mAdapter->ZKCreateStatus(nodes); },
       1,
       "create_status",
       "Failed Create meta status: /meta/status/new:1, ret:-102, zookeeper get error:"},
      {{"DoDlZooGetChildren", ZNOAUTH},
       [&] { return mAdapter->ZKGetAllStatusNode(names); },
       1,
       "get_status_children",
       "Failed to get children of /meta/status, ret :-102, count is: 0, zookeeper get error:"},
      {{"DoDlZooGetChildren", ZNOAUTH},
       [&] { return mAdapter->ZKGetNodeWithStatusList(list); },
       1,
       "get_meta_children",
       "Failed to get children of /meta/status, ret :-102, count is: 0, zookeeper get error:"},
      {{"DoDlZooGet", ZNOAUTH},
       [&] { return mAdapter->ZKGetNodeWithStatusList(list); },
       1,
       "get_status",
       "Failed to get node info of /meta/status/"},
      {{"DoDlZooGet", ZNOAUTH},
       [&] { return mAdapter->ZKSetStatus("me:1", common::META_NODE_STATUS_ALIVE); },
       1,
       "get_status",
       "Failed to get status from path: /meta/status/me:1, ret is: -102, zookeeper get error:"},
      {{"DoDlZooSet", ZNOAUTH},
       [&] { return mAdapter->ZKSetStatus("me:1", common::META_NODE_STATUS_ALIVE); },
       1,
       "set_status",
       "Failed to set status: 2 into path: /meta/status/me:1, ret is: -102 zookeeper get error:"},
      {{"DoDlZooDelete", ZNOAUTH},
       [&] { return mAdapter->ZKClearAndCreateStatusDynamic(mMeta); },
       1,
       "delete_meta_conf",
       "Failed to clear /meta/status, ret is: -102, zookeeper get error:"},
      {{"DoDlZooDelete", ZNOAUTH},
       [&] { return mAdapter->ZKClearAllStatusNode(); },
       0,
       "clear_meta_children",
       "Failed to clear node named: /meta/status/"},
      {{"DoDlZooGetChildren", ZNOAUTH},
       [&] { return mAdapter->ClusterZKGetNodeList(ids); },
       1,
       "get_node_list",
       "Failed to get children of /mf/node, ret: -102, zookeeper get error:"},
      {{"DoDlZooGet", ZNOAUTH},
       [&] { return mAdapter->ClusterZKGetNodeInfo(1, info); },
       2000049,
       "",
       "zookeeper get error:"},
      {{"DoDlZooGet", ZNOAUTH}, [&] { return mAdapter->ClusterZKGetMemInfo(1, info); }, 1, "", ""},
      {{"DoDlZooWexists", ZOPERATIONTIMEOUT}, watchAll, 2000047, "set_leader_watcher", watchWords + "-7, "},
      {{"DoDlZooWexists", ZCONNECTIONLOSS}, watchAll, 2000049, "set_leader_watcher", watchWords + "-4, "},
      {{"DoDlZooWgetChildren", ZNOAUTH}, watchAll, 1, "set_follower_watcher", watchWords + "-102, "},
      {{"DoDlZooWexists", ZNOAUTH, 2},
       watchAll,
       0,
       "set_status_watcher",
       "Failed to clear node named: /meta/status"},
  };
  for (const Case& one : cases) {
    SCOPED_TRACE(std::string(one.refusal.function) + " " + one.audit + " " + one.line);
    mLog.Clear();
    ASSERT_EQ(ULOG_AuditInit(mFolder.Write("audit.log", "").c_str(), 1, 1), 0);
    gRefusal = one.refusal;
    EXPECT_EQ(one.call(), one.status);
    EXPECT_LE(gRefusal.nth, 0) << "nothing was refused";
    EXPECT_TRUE(one.audit.empty() || Audited(one.audit, false));
    if (one.line.empty()) {
      EXPECT_TRUE(mLog.Texts(kErrorLine).empty());
    } else {
      EXPECT_THAT(mLog.Texts(kErrorLine), Contains(StartsWith(one.line)));
    }
    gRefusal = {};
    for (const char* path : {"/meta/status/me:1", "/meta/status/other:1"}) {
      if (!mRaw->Exists(path)) {
        mRaw->Create(path, "2");
      }
    }
  }
}

TEST_F(RefusedOperationsTest, AStatusMadeAnewBehindTheWatchIsRead) {
  Connect();
  mRaw->Create("/meta/election/leader_info", "me:1");
  mRaw->Create("/meta/status/other:1", "3");
  gRefusal = {"DoDlZooWget", ZNONODE};  // it had gone, and stands again
  ClusterZKAdapter::MetaNodeStatusWatchFunc(cluster::g_ZKHandler, ZOO_DELETED_EVENT, 0,
                                            "/meta/status/other:1", nullptr);
  EXPECT_EQ(StatusMap()["other:1"], common::META_NODE_STATUS_BROKEN);
}

TEST_F(RefusedOperationsTest, TheConnectionIsAskedForByTheKeysOfItsRole) {
  const auto configuration = common::Configuration::GetInstance();
  for (const char* prefix : {"vyn.zookeeper.security.", "vyn.zookeeper.sdk.security."}) {
    const std::string role = std::strstr(prefix, "sdk") != nullptr ? "sdk" : "server";
    configuration->Set(prefix + std::string("certs"), role + "-certs");
    configuration->Set(prefix + std::string("client.principle"), role + "-principal");
    configuration->Set(prefix + std::string("client.keytab"), role + "-keytab");
  }
  for (const char* store : {"primary", "standby", "backup"}) {
    configuration->Set(std::string("vyn.tessel.plx.ksf.") + store + ".path", std::string("server-") + store);
    configuration->Set(std::string("vyn.tessel.sdk.plx.ksf.") + store + ".path", std::string("sdk-") + store);
  }
  configuration->Set("vyn.zookeeper.security.principle.name", "name");
  configuration->Set("vyn.zookeeper.security.principle.hostname", "host");
  configuration->Set("vyn.zookeeper.security.strategy", "sasl");
  configuration->Set("vyn.zookeeper.security.isKeytabEncrypt", false);
  gCatchInit = true;
  for (const auto& [role, name] : {std::pair(cluster::NODE_ROLE_SERVER, std::string("server")),
                                   std::pair(cluster::NODE_ROLE_SDK, std::string("sdk"))}) {
    mAdapter = nullptr;
    ClusterZKAdapter::mInstance = nullptr;
    mAdapter = ClusterZKAdapter::GetInstance(role);
    EXPECT_EQ(mAdapter->ClusterZKAdapterInit(7000), 1U);
    EXPECT_EQ(gAsked, mUrl + " name host sasl " + name + "-certs " + name + "-principal " + name +
                          "-keytab " + name + "-primary " + name + "-standby " + name +
                          "-backup 7000 off 60 plain");
    EXPECT_TRUE(mLog.Has(kErrorLine, "zookeeper init failed"));
    EXPECT_TRUE(Audited("connect", false));
  }
  gCatchInit = false;
  mAdapter = nullptr;
  ClusterZKAdapter::mInstance = nullptr;
}

}  // namespace
}  // namespace vyn::test
