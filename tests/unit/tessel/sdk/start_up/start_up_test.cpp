// Start-up, its failures and repetitions, in both roles.

#include "platform/ulog/ulog.h"
#include "platform/zk_helper/zk_helper.h"
#include "support/client/sdk_world.h"
#include "support/fake_clock.h"

namespace {

// What cannot be made to fail on demand from outside: the library calls these instead of the real ones.
enum Failing { kNothing, kLogger, kWatch, kEnvironment };
std::atomic<Failing> gFailing{kNothing};

template <typename Function>
Function* Real(Function*, const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

int ULOG_Init(int type, int level, const char* path, int fileSize, int fileCount) {
  // A type that there is not makes the real one refuse, with its own words.
  return Real(&ULOG_Init, "ULOG_Init")(gFailing == kLogger ? 17 : type, level, path, fileSize, fileCount);
}

int setenv(const char* name, const char* value, int overwrite) noexcept {
  return gFailing == kEnvironment ? -1 : Real(&setenv, "setenv")(name, value, overwrite);
}

int DoDlZooWexists(zhandle_t* handle, const char* path, watcher_fn watcher, void* context, Stat* stat) {
  return gFailing == kWatch && watcher != nullptr
             ? ZCONNECTIONLOSS
             : Real(&DoDlZooWexists, "DoDlZooWexists")(handle, path, watcher, context, stat);
}

namespace vyn::test {
namespace {

using namespace tessel;

constexpr unsigned int kDriver = 0;
constexpr unsigned int kExecutor = 1;

/// The store is loaded once a process: a value changes in place.
template <typename Value>
void Set(const char* key, const Value& value) {
  common::Configuration::GetInstance()->Set(key, value);
}

/// A start-up that fails at one step. `arrange` makes it fail, `mend` takes that back.
struct Step {
  const char* name;
  std::function<void()> arrange;
  std::uint32_t status = 1;
  std::function<void()> mend = [] {};
};

void FailAtEach(SdkWorld& world, unsigned int flag, const std::vector<Step>& steps) {
  for (const Step& step : steps) {
    SCOPED_TRACE(step.name);
    world.WriteConf();
    step.arrange();
    EXPECT_EQ(world.Initialize(flag), step.status);
    EXPECT_EQ(g_initClaim.load(), 0);
    gFailing = kNothing;
    step.mend();
  }
  EXPECT_EQ(world.Initialize(flag), 0U);
  EXPECT_EQ(g_initClaim.load(), 1);
}

TEST(StartUpTest, AnExecutorThatFailsAtAStepFreesTheClaim) {
  SdkWorld world;
  const ReservedPort nobody;  // bound, and nobody listens
  const std::string conf = world.Home() + "/conf/vyn.conf";
  const char* port = "vyn.tessel.rpc.shuffle_server.port";
  const char* ssl = "vyn.tessel.rpc.openssl.path";
  FailAtEach(
      world, kExecutor,
      {{"environment", [] { gFailing = kEnvironment; }},
       {"no configuration", [&] { std::filesystem::remove(conf); }},
       {"bad configuration", [&] { std::ofstream(conf, std::ios::app) << "no.such.key=1\n"; }},
       {"logger", [] { gFailing = kLogger; }},
       {"no TLS library", [&] { Set(ssl, ""); }},
       {"no such TLS library", [&] { Set(ssl, "/no/such/libssl.so"); }, 1, [&] { Set(ssl, "libssl.so.3"); }},
       {"server down", [&] { Set(port, nobody.Number()); }, 1, [&] { Set(port, int{world.server.Port()}); }},
       {"server refuses",
        [&] {
          world.server.Answer(ShuffleServer::META_LEADER_INFO, {2140019, ""});
        },
        1, [&] { world.AnswerLeader(); }},
       {"big memory", [&] { world.bm.script.Expect("BM_Init", {-1}); }, 2100021}});
  EXPECT_EQ(g_mfClientFlag, 0U);
  EXPECT_TRUE(g_clusterZkAdapter_broadcast == nullptr) << "an executor has no session with ZooKeeper";
  EXPECT_EQ(world.bm.script.Calls("BM_Init").back(), Joined(world.Home(), 0));
  EXPECT_EQ(ReadAs<MetaLeaderInformation>(world.server.Requests()[0].body)->metaLeaderInfo, "sdk");
  EXPECT_EQ(ReadAs<MetaLeaderInformation>(world.server.Requests().back().body)->metaLeaderInfo, "meta");
  EXPECT_EQ(BroadcastInitialize(nullptr, "24.0.0", VYN_BINARY_TYPE, kExecutor), 2000057U);
  EXPECT_EQ(BroadcastInitialize("/no/such/home", "24.0.0", VYN_BINARY_TYPE, kExecutor), 1U);
  EXPECT_EQ(g_initClaim.load(), 1) << "the start before stands";
}

TEST(StartUpTest, ADriverThatFailsAtAStepFreesTheClaim) {
  SdkWorld world;
  ZookeeperServer zookeeper;
  const std::string url = zookeeper.NewRoot();
  RawZookeeper raw(url);
  const std::string leader = "/meta/election/leader_info";
  EXPECT_NE(UnRegisterBroadcastApp("app"), 0U);  // makes a server client, which nothing has connected
  FailAtEach(world, kDriver,
             {{"no ZooKeeper", [] {}, 1, [&] { Set("vyn.zookeeper.server.url", url); }},
              {"no leader", [] {}, 1, [&] { raw.Create(leader, "127.0.0.1"); }},
              {"watch", [] { gFailing = kWatch; }},
              {"metadata service",
               [&] {
                 world.meta.Answer(ShuffleMeta::IS_MF_NODE, {2060011, ""});
               },
               2120003, [&] { world.AnswerMfNode(true, 5); }}});
  EXPECT_EQ(Joined(g_mfClientFlag, g_mfNodeId), "0|5");
  const auto request = ReadAs<BroadcastRemoteNodeReq>(world.meta.Requests().back().body);
  EXPECT_THAT(request->candidateNodes, testing::Contains("127.0.0.1"));

  bool registered = false;
  EXPECT_EQ(RegisterBroadcastApp("app", true, "token", &registered), 0U);
  BroadcastUninitialize();
  world.AnswerMfNode(false, 5);
  EXPECT_EQ(world.Initialize(kDriver), 0U) << "with a server client that works";
  EXPECT_EQ(world.bm.script.Calls("BM_Init").back(), Joined(world.Home(), 1));
  EXPECT_EQ(world.server.Count(ShuffleServer::META_LEADER_INFO), 0U) << "ZooKeeper alone names the leader";

  // The watch: a new leader is known without a call.
  raw.Delete(leader);
  raw.Create(leader, "127.0.0.2");
  EXPECT_TRUE(WaitUntil([] {
    std::shared_lock lock(g_metaNode_broadcast->mLeaderLock);
    return g_metaNode_broadcast->mLeaderAddress == "127.0.0.2";
  }));
}

TEST(StartUpTest, AnExecutorUninitialisesAndInitialisesAgain) {
  SdkWorld world;
  const ReservedPort nobody;  // the metadata service is needed at the first call only
  world.WriteConf("127.0.0.1:1", "vyn.tessel.rpc.shuffle_meta.port=" + std::to_string(nobody.Number()));
  EXPECT_EQ(world.Initialize(kExecutor), 0U);
  g_broadcastCache->InsertVarInfo("a-1", {"x"}, {1});
  setenv("VYN_VERSION", "none", 1);
  EXPECT_EQ(world.Initialize(kExecutor), 0U);
  EXPECT_STREQ(getenv("VYN_VERSION"), "24.0.0") << "also a repeated call sets the environment";
  EXPECT_FALSE(g_broadcastCache->GetVarInfo("a-1") == nullptr);
  EXPECT_EQ(BroadcastUninitialize(), 0U);
  EXPECT_TRUE(g_broadcastCache->GetVarInfo("a-1") == nullptr);
  EXPECT_EQ(BroadcastUninitialize(), 0U);
  EXPECT_EQ(g_initClaim.load(), 0);
  EXPECT_EQ(world.Initialize(kExecutor), 0U);
  EXPECT_EQ(g_initClaim.load() - g_initInProgress.load() - g_uninitClaim.load(), 1);
  EXPECT_EQ(world.bm.script.Calls("BM_Init").size(), 2U);
}

TEST(StartUpTest, SixteenThreadsInitialiseAfterTheFirstAttemptFails) {
  SdkWorld world;
  world.WriteConf();
  for (const bool first : {true, false}) {
    EXPECT_EQ(g_initInProgress.load(), first ? 1 : 0);
    FakeClock clock;
    const auto all = [&] { return clock.Waiters() == 15; };
    world.bm.script.Clear();
    world.bm.script.Expect("BM_Init", {{-1, [&] { EXPECT_TRUE(WaitUntil(all)); }}});
    std::vector<std::future<std::uint32_t>> threads;
    for (int i = 0; i < 16; ++i) {
      threads.push_back(std::async(std::launch::async, [&] { return world.Initialize(kExecutor); }));
    }
    std::map<std::uint32_t, int> statuses;
    for (auto& thread : threads) {
      ++statuses[thread.get()];
    }
    EXPECT_EQ(std::tuple(statuses[2100021], world.bm.script.Calls("BM_Init").size()), std::tuple(16, 1U));
    EXPECT_EQ(world.Initialize(kExecutor), 0U);
    BroadcastUninitialize();
  }
}

TEST(StartUpTest, CallsBeforeInitialisationAreRefusedAndChangeNothing) {
  SdkWorld world;
  unsigned long sizes[2] = {1, 2};
  std::vector<std::string> texts;
  std::vector<unsigned short> ids;
  void* address = nullptr;
  EXPECT_EQ(BroadcastGetLastErrorMessage(), nullptr);
  EXPECT_EQ(CreateBroadcastBlockBatchRemote("a", "t", 1, sizes, 2, "1.2.3.4:1", "h", 1, texts), 2000057U);
  for (const std::uint32_t status :
       {MarkBroadcastApplicationCompleted("a"), DeleteBroadcastVar("a", 1),
        CreateBroadcastBlockBatch("a", 1, sizes, 2), FetchBroadcastBlockBatch("a", 1, sizes),
        ObtainBroadcastBlockAddr("a", 1, 0, &address), ReleaseBroadcastBlockAddr("a", 1, 0, &address),
        ReadRemoteBlock("a", 1, 0, sizes, "t")}) {
    EXPECT_EQ(status, 2000057U);
  }
  EXPECT_EQ(GetRemoteNodeInfo("a", texts, texts, ids, texts, true), 2120011U);
  EXPECT_EQ(CreateBroadcastVar("a", 1, 2), 2120011U);
  EXPECT_EQ(CheckMfNode(), 1U);
  EXPECT_TRUE(world.bm.script.Untouched());
}

}  // namespace
}  // namespace vyn::test
