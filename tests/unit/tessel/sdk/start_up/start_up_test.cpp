// Start-up, its failures and repetitions, in both roles.

#include "platform/ulog/ulog.h"
#include "platform/zk_helper/zk_helper.h"
#include "support/fake_clock.h"
#include "support/raw_socket.h"
#include "support/sdk_world.h"
#include "support/test.h"
#include "support/wait_until.h"
#include "tessel/sdk/broadcast/base_api_broadcast.h"
#include "tessel/sdk/start_up/sdk_state.h"
#include "vyn/big_memory.h"

namespace {

// What cannot be made to fail on demand from outside: the library calls these instead of the real ones.
std::atomic<bool> gLoggerFails{false};
std::atomic<bool> gWatchFails{false};
std::atomic<bool> gEnvironmentFails{false};

template <typename Function>
Function* Real(Function*, const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

int ULOG_Init(int type, int level, const char* path, int fileSize, int fileCount) {
  // A type that there is not makes the real one refuse, with its own words.
  return Real(&ULOG_Init, "ULOG_Init")(gLoggerFails ? 17 : type, level, path, fileSize, fileCount);
}

int setenv(const char* name, const char* value, int overwrite) noexcept {
  return gEnvironmentFails ? -1 : Real(&setenv, "setenv")(name, value, overwrite);
}

int DoDlZooWexists(zhandle_t* handle, const char* path, watcher_fn watcher, void* context, Stat* stat) {
  return gWatchFails && watcher != nullptr
             ? ZCONNECTIONLOSS
             : Real(&DoDlZooWexists, "DoDlZooWexists")(handle, path, watcher, context, stat);
}

namespace vyn::test {
namespace {

using namespace tessel;

constexpr unsigned int kDriver = 0;
constexpr unsigned int kExecutor = 1;

ScriptedService::Reply Leader() {
  MetaLeaderInformation leader("127.0.0.1");
  return {0, BytesOf(leader)};
}

/// The store is loaded once a process: a value changes in place.
template <typename Value>
std::function<void()> Setting(const char* key, const Value& value) {
  return [key, value] { common::Configuration::GetInstance()->Set(key, value); };
}

/// A start-up that fails at one step. `arrange` makes it fail, `mend` takes that back.
struct Step {
  const char* name;
  std::function<void()> arrange;
  std::uint32_t status;
  std::function<void()> mend = [] {};
};

void FailAtEach(SdkWorld& world, unsigned int flag, const std::vector<Step>& steps) {
  for (const Step& step : steps) {
    SCOPED_TRACE(step.name);
    step.arrange();
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_EQ(world.Initialize(flag), step.status);
    const std::string told = testing::internal::GetCapturedStdout() + testing::internal::GetCapturedStderr();
    EXPECT_FALSE(told.empty());
    EXPECT_EQ(g_initClaim.load(), 0);
    step.mend();
  }
  EXPECT_EQ(world.Initialize(flag), 0U);
  EXPECT_EQ(g_initClaim.load(), 1);
}

TEST(StartUpTest, AnExecutorThatFailsAtAStepFreesTheClaim) {
  SdkWorld world;
  const ReservedPort nobody;  // bound, and nobody listens
  const std::string conf = world.Home() + "/conf/vyn.conf";
  const char* kServerPort = "vyn.tessel.rpc.shuffle_server.port";
  const char* kSsl = "vyn.tessel.rpc.openssl.path";
  const auto untouched = [&] {
    EXPECT_TRUE(g_broadcastCache == nullptr) << "table, metadata client and big memory come later";
    EXPECT_EQ(world.meta.Connections() + world.bm.script.CallCount(), 0U);
  };
  FailAtEach(world, kExecutor,
             {{"environment", [] { gEnvironmentFails = true; }, 1, [] { gEnvironmentFails = false; }},
              {"no configuration", [&] { std::filesystem::remove_all(world.Home() + "/conf"); }, 1,
               [&] { world.WriteConf(); }},
              {"bad configuration", [&] { std::ofstream(conf, std::ios::app) << "no.such.key=1\n"; }, 1,
               [&] { world.WriteConf(); }},
              {"logger", [] { gLoggerFails = true; }, 1, [] { gLoggerFails = false; }},
              {"no TLS library", Setting(kSsl, ""), 1},
              {"no such TLS library", Setting(kSsl, "/no/such/libssl.so"), 1, Setting(kSsl, "libssl.so.3")},
              {"server down", Setting(kServerPort, int{nobody.Number()}), 1,
               Setting(kServerPort, int{world.server.Port()})},
              {"server refuses",
               [&] {
                 world.server.Answer(ShuffleServer::META_LEADER_INFO, {2140019, ""});
               },
               1, [&] { untouched(), world.server.Answer(ShuffleServer::META_LEADER_INFO, Leader()); }},
              {"big memory", [&] { world.bm.script.ExpectResults("BM_Init", {-1}); }, 2100021}});
  EXPECT_EQ(g_mfClientFlag, 0U);
  EXPECT_TRUE(g_clusterZkAdapter_broadcast == nullptr) << "an executor has no session with ZooKeeper";
  EXPECT_EQ(world.bm.script.Calls("BM_Init").back(), Joined(world.Home(), 0));
  EXPECT_EQ(ReadAs<MetaLeaderInformation>(world.server.Requests()[0].body)->metaLeaderInfo, "sdk");
  EXPECT_EQ(ReadAs<MetaLeaderInformation>(world.server.Requests().back().body)->metaLeaderInfo, "meta");

  const char* home = world.Home().c_str();
  EXPECT_EQ(BroadcastInitialize(nullptr, "24.0.0", VYN_BINARY_TYPE, kExecutor), 2000057U);
  EXPECT_EQ(BroadcastInitialize(home, nullptr, VYN_BINARY_TYPE, kExecutor), 2000057U);
  EXPECT_EQ(BroadcastInitialize(home, "24.0.0", nullptr, kExecutor), 2000057U);
  EXPECT_EQ(BroadcastInitialize("/no/such/home", "24.0.0", VYN_BINARY_TYPE, kExecutor), 1U);
  EXPECT_EQ(g_initClaim.load(), 1) << "the start before stands";
}

TEST(StartUpTest, ADriverThatFailsAtAStepFreesTheClaim) {
  SdkWorld world;
  world.WriteConf();
  ZookeeperServer zookeeper;
  const std::string url = zookeeper.NewRoot();
  const auto isMfNode = [&](const ScriptedService::Reply& reply) {
    return [&world, reply] { world.meta.Answer(ShuffleMeta::IS_MF_NODE, reply); };
  };
  EXPECT_NE(UnRegisterBroadcastApp("app"), 0U);  // makes a server client, which nothing has connected
  FailAtEach(
      world, kDriver,
      {{"no ZooKeeper", [] {}, 1, Setting("vyn.zookeeper.server.url", url)},
       {"no leader", [] {}, 1, [&] { RawZookeeper(url).Create("/meta/election/leader_info", "127.0.0.1"); }},
       {"watch", [] { gWatchFails = true; }, 1, [] { gWatchFails = false; }},
       {"metadata service", isMfNode({2060011, ""}), 2120003, [&] {
          EXPECT_FALSE(g_broadcastCache == nullptr);
          EXPECT_EQ(world.bm.script.CallCount(), 0U) << "big memory comes last";
          world.AnswerMfNode(true, 5);
        }}});
  EXPECT_EQ(g_mfClientFlag, 0U);
  EXPECT_EQ(g_mfNodeId, 5U);
  const auto request = ReadAs<BroadcastRemoteNodeReq>(world.meta.Requests().back().body);
  EXPECT_THAT(request->candidateNodes, testing::Contains("127.0.0.1"));
  EXPECT_TRUE(std::is_sorted(request->candidateNodes.begin(), request->candidateNodes.end()));

  bool registered = false;
  EXPECT_EQ(RegisterBroadcastApp("app", true, "token", &registered), 0U);
  BroadcastUninitialize();
  world.AnswerMfNode(false, 5);
  EXPECT_EQ(world.Initialize(kDriver), 0U) << "with a server client that works";
  EXPECT_EQ(g_mfClientFlag, 1U);
  EXPECT_EQ(world.bm.script.Calls("BM_Init").back(), Joined(world.Home(), 1));
  EXPECT_EQ(world.server.Count(ShuffleServer::META_LEADER_INFO), 0U) << "ZooKeeper alone names the leader";

  // The watch: a new leader is known without a call.
  RawZookeeper raw(url);
  raw.Delete("/meta/election/leader_info");
  raw.Create("/meta/election/leader_info", "127.0.0.2");
  EXPECT_TRUE(WaitUntil([] {
    std::shared_lock lock(g_metaNode_broadcast->mLeaderLock);
    return g_metaNode_broadcast->mLeaderAddress == "127.0.0.2";
  }));
}

TEST(StartUpTest, ACallOnTheOtherSidesServerClientIsRefused) {
  SdkWorld world;
  world.WriteConf();
  ASSERT_EQ(world.Initialize(kExecutor), 0U);
  const auto asked = world.server.Requests().size();
  ShuffleServerRPCEngine::mIsSdk = false;
  bool registered = false;
  unsigned long sizes[2] = {1, 2};
  EXPECT_EQ(RegisterBroadcastApp("a", false, "t", &registered), 2120009U);
  EXPECT_EQ(CreateBroadcastBlockBatch("a", 1, sizes, 2), 2120009U);
  EXPECT_EQ(FetchBroadcastBlockBatch("a", 1, sizes), 2120009U);
  EXPECT_EQ(BroadcastMetaLeaderInfoGet(), 2120009U);
  EXPECT_EQ(BroadcastUnregisterApp("a"), 2080009U);
  EXPECT_EQ(world.server.Requests().size(), asked);
  ShuffleServerRPCEngine::mIsSdk = true;
}

TEST(StartUpTest, ReadyUninitialisedAndBack) {
  SdkWorld world;
  const ReservedPort nobody;  // the metadata service is needed at the first call only
  world.WriteConf("", "vyn.tessel.rpc.shuffle_meta.port=" + std::to_string(nobody.Number()) + "\n");
  EXPECT_EQ(world.Initialize(kExecutor), 0U);
  {
    FakeClock clock;  // the call is tried again after sleeps
    EXPECT_EQ(CreateBroadcastVar("a", 1, 2), 2060009U);
  }
  const auto* first = g_broadcastCache.Get();
  g_broadcastCache->InsertVarInfo("a-1", {"x"}, {1});
  setenv("VYN_VERSION", "none", 1);
  EXPECT_EQ(world.Initialize(kExecutor), 0U);
  EXPECT_STREQ(getenv("VYN_VERSION"), "24.0.0") << "also a repeated call sets the environment";
  EXPECT_EQ(g_broadcastCache.Get(), first);
  EXPECT_EQ(world.bm.script.Calls("BM_Init").size(), 1U);

  EXPECT_EQ(BroadcastUninitialize(), 0U);
  EXPECT_TRUE(g_broadcastCache->GetVarInfo("a-1") == nullptr);
  EXPECT_EQ(BroadcastUninitialize(), 0U);
  EXPECT_EQ(g_initClaim.load(), 0);
  EXPECT_EQ(world.Initialize(kExecutor), 0U);
  EXPECT_EQ(g_initClaim.load() - g_initInProgress.load() - g_uninitClaim.load(), 1);
  EXPECT_EQ(world.bm.script.Calls("BM_Init").size(), 2U);
}

TEST(StartUpTest, SixteenThreadsOfWhichTheFirstFails) {
  SdkWorld world;
  world.WriteConf();
  FakeClock clock;
  std::atomic<int> asked{0};
  world.server.Answer(ShuffleServer::META_LEADER_INFO, [&](const auto&) -> ScriptedService::Reply {
    if (asked++ == 0) {
      EXPECT_TRUE(WaitUntil([&] { return clock.Waiters() == 15; }));
      return {2140019, ""};
    }
    return Leader();
  });
  std::atomic<int> succeeded{0};
  std::atomic<int> failed{0};
  {
    std::vector<std::jthread> threads;
    for (int i = 0; i < 16; ++i) {
      threads.emplace_back([&] { (world.Initialize(kExecutor) == 0 ? succeeded : failed)++; });
    }
  }
  EXPECT_EQ(failed, 1) << "those who waited try it themselves";
  EXPECT_EQ(succeeded, 15);
  EXPECT_EQ(world.bm.script.Calls("BM_Init").size(), 1U);
}

TEST(StartUpTest, ASecondCallDuringAReinitialisationGetsItsResult) {
  SdkWorld world;
  world.WriteConf();
  ASSERT_EQ(world.Initialize(kExecutor), 0U);
  BroadcastUninitialize();
  for (const std::uint32_t status : {1U, 0U}) {
    world.server.Clear();
    world.bm.script.Clear();
    FakeClock clock;
    std::atomic<bool> asked{false};
    world.server.Answer(ShuffleServer::META_LEADER_INFO, [&](const auto&) {
      asked = true;
      EXPECT_TRUE(WaitUntil([&] { return clock.Waiters() == 1; }));
      return status == 0 ? Leader() : ScriptedService::Reply{2140019, ""};
    });
    std::uint32_t first = 77;
    std::thread runner([&] { first = world.Initialize(kExecutor); });
    EXPECT_TRUE(WaitUntil([&] { return asked.load(); }));
    EXPECT_EQ(world.Initialize(kExecutor), status);
    EXPECT_EQ(g_uninitClaim.load(), status) << "what it waited for is over";
    runner.join();
    EXPECT_EQ(first, status);
    // A start that succeeds asks twice, for itself and for its metadata client.
    EXPECT_EQ(world.server.Count(ShuffleServer::META_LEADER_INFO), status == 0 ? 2U : 1U);
    EXPECT_EQ(world.bm.script.Calls("BM_Init").size(), status == 0 ? 1U : 0U);
  }
}

TEST(StartUpTest, BeforeInitialisationTextsAreCheckedAndNothingIsTouched) {
  SdkWorld world;
  unsigned long sizes[2] = {1, 2};
  std::vector<std::string> texts;
  std::vector<unsigned short> ids;
  bool registered = false;
  void* address = nullptr;
  const auto remote = [&](const char* app, const char* token) {
    return CreateBroadcastBlockBatchRemote(app, token, 1, sizes, 2, "1.2.3.4:1", "h", 1, texts);
  };
  struct Row {
    std::function<std::uint32_t(const char*)> call;  ///< takes one text that it checks
    std::uint32_t status;                            ///< for a good text; 0: not called with one
  };
  const std::vector<Row> rows{
      {[&](const char* text) { return RegisterBroadcastApp(text, true, "t", &registered); }, 0},
      {[&](const char* text) { return RegisterBroadcastApp("a", true, text, &registered); }, 0},
      {[](const char* text) { return UnRegisterBroadcastApp(text); }, 0},
      {[](const char* text) { return BroadcastUnregisterApp(text); }, 0},
      {[](const char* text) { return MarkBroadcastApplicationCompleted(text); }, 2000057},
      {[&](const char* text) { return GetRemoteNodeInfo(text, texts, texts, ids, texts, true); }, 2120011},
      {[](const char* text) { return CreateBroadcastVar(text, 1, 2); }, 2120011},
      {[](const char* text) { return DeleteBroadcastVar(text, 1); }, 2000057},
      {[&](const char* text) { return CreateBroadcastBlockBatch(text, 1, sizes, 2); }, 2000057},
      {[&](const char* text) { return remote(text, "t"); }, 2000057},
      {[&](const char* text) { return remote("a", text); }, 2000057},
      {[&](const char* text) { return FetchBroadcastBlockBatch(text, 1, sizes); }, 2000057},
      {[&](const char* text) { return ObtainBroadcastBlockAddr(text, 1, 0, &address); }, 2000057},
      {[&](const char* text) { return ReleaseBroadcastBlockAddr(text, 1, 0, &address); }, 2000057},
      {[&](const char* text) { return ReadRemoteBlock(text, 1, 0, sizes, "t"); }, 2000057},
      {[&](const char* text) { return ReadRemoteBlock("a", 1, 0, sizes, text); }, 2000057},
      {[&](const char* text) { return WriteRemoteBlock(text, "id", sizes, 1, "t"); }, 0}};
  EXPECT_EQ(BroadcastGetLastErrorMessage(), nullptr) << "nothing has failed yet";
  for (std::size_t i = 0; i < rows.size(); ++i) {
    std::thread([&] {
      EXPECT_EQ(rows[i].call(nullptr), 2120001U) << i;
      EXPECT_EQ(BroadcastGetLastErrorMessage(), nullptr) << i << ": a null text is only logged";
      EXPECT_EQ(rows[i].call("a b"), 2120001U) << i;
      EXPECT_THAT(BroadcastGetLastErrorMessage(), testing::EndsWith("a b")) << i;
      EXPECT_EQ(rows[i].status == 0 ? 0 : rows[i].call("a"), rows[i].status) << i;
    }).join();
  }
  EXPECT_FALSE(registered);
  EXPECT_EQ(CheckMfNode(), 1U);
  EXPECT_EQ(BroadcastGetMetaLeaderIp(0), 2000057U);
  EXPECT_EQ(world.bm.script.CallCount(), 0U);
  testing::internal::CaptureStdout();
  VynBroadcastVersion();
  EXPECT_THAT(testing::internal::GetCapturedStdout(),
              testing::MatchesRegex("Component Name: Orvane-vyn-bigdata-spark\nComponent version: 2.0.0\n"
                                    "Component AppendInfo: _aarch64\nSoftWare Name: vyn_broadcast\n"
                                    "SoftWare Build Id: [0-9a-f]{40}\n"));
}

}  // namespace
}  // namespace vyn::test
