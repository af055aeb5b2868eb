// Start-up, its failures and repetitions, in both roles.

#include "common/util/clock.h"
#include "platform/ulog/ulog.h"
#include "platform/zk_helper/zk_helper.h"
#include "support/fake_clock.h"
#include "support/sdk_world.h"
#include "tessel/sdk/broadcast/base_api_broadcast.h"
#include "tessel/sdk/start_up/sdk_state.h"
#include "vyn/big_memory.h"

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <set>
#include <thread>
#include <tuple>
#include <vector>

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
using testing::HasSubstr;

/// Knows which threads wait for another thread's initialisation.
class WaiterClock : public common::Clock {
 public:
  WaiterClock() { common::Clock::Replace(this); }
  ~WaiterClock() override { common::Clock::Replace(nullptr); }
  void WaitFor(std::condition_variable& condition, std::unique_lock<std::mutex>& lock,
               std::chrono::nanoseconds duration) override {
    {
      std::lock_guard own(mMutex);
      mWaiters.insert(std::this_thread::get_id());
    }
    common::Clock::WaitFor(condition, lock, duration);
  }
  std::size_t Waiters() {
    std::lock_guard lock(mMutex);
    return mWaiters.size();
  }

 private:
  std::mutex mMutex;
  std::set<std::thread::id> mWaiters;
};

TEST(StartUpTest, FailuresBeforeTheLoggerTellStandardOutputAndFreeTheClaim) {
  SdkWorld world;
  EXPECT_EQ(BroadcastInitialize(nullptr, "24.0.0", VYN_BINARY_TYPE, 1), 2000057U);
  EXPECT_EQ(BroadcastInitialize(world.Home().c_str(), nullptr, VYN_BINARY_TYPE, 1), 2000057U);
  EXPECT_EQ(BroadcastInitialize(world.Home().c_str(), "24.0.0", nullptr, 1), 2000057U);
  EXPECT_EQ(BroadcastInitialize("/no/such/home", "24.0.0", VYN_BINARY_TYPE, 1), 1U);
  gEnvironmentFails = true;
  testing::internal::CaptureStdout();
  EXPECT_EQ(world.Initialize(1), 1U);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Failed to set VYN_HOME with ret: -1\n");
  EXPECT_EQ(g_initClaim.load(), 0);
  gEnvironmentFails = false;

  std::filesystem::remove_all(world.Home() + "/conf");
  unsetenv("VYN_BINARY_TYPE");
  testing::internal::CaptureStdout();
  EXPECT_EQ(world.Initialize(1), 1U);
  EXPECT_STREQ(getenv("VYN_BINARY_TYPE"), VYN_BINARY_TYPE) << "the environment comes first";
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Configuration file doesn't exist\nError to init config \n");

  world.WriteConf();
  std::ofstream(world.Home() + "/conf/vyn.conf", std::ios::app) << "no.such.key=1\n";
  testing::internal::CaptureStdout();
  EXPECT_EQ(world.Initialize(1), 1U);
  EXPECT_THAT(testing::internal::GetCapturedStdout(), HasSubstr("Error to init config "));

  world.WriteConf();
  gLoggerFails = true;
  testing::internal::CaptureStdout();
  EXPECT_EQ(world.Initialize(1), 1U);
  EXPECT_THAT(testing::internal::GetCapturedStdout(),
              testing::StartsWith("Error to init ulog module. as Invalid log type 17"));
  EXPECT_EQ(g_initClaim.load(), 0);

  gLoggerFails = false;
  EXPECT_EQ(world.Initialize(1), 0U);
  EXPECT_EQ(g_mfClientFlag, 0U);
  EXPECT_TRUE(g_clusterZkAdapter_broadcast == nullptr) << "an executor has no session with ZooKeeper";
  EXPECT_EQ(world.bm.script.Calls("BM_Init"), std::vector<std::string>{Joined(world.Home(), 0)});

  // With a logger the refused arguments are told.
  for (const auto& [line, home, version, type] :
       std::vector<std::tuple<const char*, const char*, const char*, const char*>>{
           {"Unexpected nullptr value vynHome", nullptr, "24.0.0", VYN_BINARY_TYPE},
           {"Unexpected nullptr value vynVersion", world.Home().c_str(), nullptr, VYN_BINARY_TYPE},
           {"Unexpected nullptr value vynBinaryType", world.Home().c_str(), "24.0.0", nullptr},
           {"Failed to execute FileUtil::RealPath(vynHome, realPath)", "/no/such/home", "24.0.0",
            VYN_BINARY_TYPE}}) {
    testing::internal::CaptureStderr();
    EXPECT_NE(BroadcastInitialize(home, version, type, 1), 0U) << line;
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr(line));
  }
  EXPECT_EQ(g_initClaim.load(), 1) << "the start before stands";
}

TEST(StartUpTest, AnExecutorWhoseNodeServerIsDownFails) {
  SdkWorld world;
  const ReservedPort nobody;  // bound, and nobody listens
  world.WriteConf("", "vyn.tessel.rpc.shuffle_server.port=" + std::to_string(nobody.Number()) + "\n");
  testing::internal::CaptureStderr();
  EXPECT_EQ(world.Initialize(1), 1U);
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              HasSubstr("[Broadcast] Failed to get meta leader ip from shuffle service"));
  EXPECT_EQ(g_initClaim.load(), 0);
  EXPECT_EQ(world.bm.script.CallCount(), 0U);
}

TEST(StartUpTest, ACallOnTheOtherSidesServerClientIsRefused) {
  SdkWorld world;
  world.WriteConf();
  ASSERT_EQ(world.Initialize(1), 0U);
  const auto asked = world.server.Requests().size();
  ShuffleServerRPCEngine::mIsSdk = false;
  bool registered = false;
  unsigned long sizes[2] = {1, 2};
  EXPECT_EQ(RegisterBroadcastApp("a", false, "t", &registered), 2120009U);
  EXPECT_THAT(BroadcastGetLastErrorMessage(), testing::StartsWith("Failed to get shuffle rpc cli "));
  const std::vector<std::tuple<std::uint32_t, const char*, std::function<std::uint32_t()>>> calls{
      {2120009, "Batch create broadcast block error: serverRpcEnginePtr nullptr",
       [&] { return CreateBroadcastBlockBatch("a", 1, sizes, 2); }},
      {2120009, "Batch fetch broadcast block error: serverRpcEnginePtr nullptr",
       [&] { return FetchBroadcastBlockBatch("a", 1, sizes); }},
      {2120009, "Broadcast SDK function<BroadcastMetaLeaderInfoGet> Err: serverRpcEnginePtr nullptr",
       [] { return BroadcastMetaLeaderInfoGet(); }},
      {2080009, "", [] { return BroadcastUnregisterApp("a"); }}};
  for (const auto& [status, line, call] : calls) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(call(), status) << line;
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr(line));
  }
  EXPECT_EQ(world.server.Requests().size(), asked);
  ShuffleServerRPCEngine::mIsSdk = true;
}

TEST(StartUpTest, AnExecutorWithoutItsServerFailsAndMayTryAgain) {
  SdkWorld world;
  world.WriteConf();
  world.server.Answer(ShuffleServer::META_LEADER_INFO, {2140019, ""});
  testing::internal::CaptureStderr();
  EXPECT_EQ(world.Initialize(1), 1U);
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              HasSubstr("[Broadcast] Failed to get meta leader ip from shuffle service"));
  EXPECT_EQ(g_initClaim.load(), 0);
  EXPECT_TRUE(g_broadcastCache == nullptr) << "table, metadata client and big memory come later";
  EXPECT_EQ(world.meta.Connections(), 0U);
  EXPECT_EQ(world.bm.script.CallCount(), 0U);
  MetaLeaderInformation leader("127.0.0.1");
  world.server.Answer(ShuffleServer::META_LEADER_INFO, {0, BytesOf(leader)});
  EXPECT_EQ(world.Initialize(1), 0U);
  EXPECT_EQ(ReadAs<MetaLeaderInformation>(world.server.Requests()[0].body)->metaLeaderInfo, "sdk");
  EXPECT_EQ(ReadAs<MetaLeaderInformation>(world.server.Requests().back().body)->metaLeaderInfo, "meta");
}

TEST(StartUpTest, EachLaterFailureHasItsStatus) {
  SdkWorld world;
  world.WriteConf("", "vyn.tessel.rpc.openssl.path=\n");
  for (const auto& [path, line] : std::vector<std::pair<const char*, const char*>>{
           {"", "Ssl path or crypto path is not exist."},
           {"/no/such/libssl.so", "Failed to set openssl path. return:3"}}) {
    if (*path != '\0') {  // the store is loaded once a process: the value changes in place
      common::Configuration::GetInstance()->Set("vyn.tessel.rpc.openssl.path", std::string(path));
    }
    testing::internal::CaptureStderr();
    EXPECT_EQ(world.Initialize(1), 1U) << line;
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr(line));
    EXPECT_EQ(g_initClaim.load(), 0) << line;
  }
  EXPECT_NE(getenv("UCX_TLS"), nullptr) << "the transport was set up before";
  EXPECT_TRUE(world.server.Requests().empty()) << "the server is asked later";
  common::Configuration::GetInstance()->Set("vyn.tessel.rpc.openssl.path", std::string("libssl.so.3"));

  world.bm.script.ExpectResults("BM_Init", {-1});
  EXPECT_EQ(world.Initialize(1), 2100021U);
  EXPECT_STREQ(BroadcastGetLastErrorMessage(), "Call BM_Init failed");
  EXPECT_EQ(g_initClaim.load(), 0);
  EXPECT_EQ(world.Initialize(1), 0U);
}

TEST(StartUpTest, AnExecutorNeedsTheMetadataServiceAtItsFirstCallOnly) {
  SdkWorld world;
  const ReservedPort nobody;  // bound, and nobody listens
  world.WriteConf("", "vyn.tessel.rpc.shuffle_meta.port=" + std::to_string(nobody.Number()) + "\n");
  EXPECT_EQ(world.Initialize(1), 0U);
  FakeClock clock;  // the call is tried again after sleeps
  EXPECT_EQ(CreateBroadcastVar("a", 1, 2), 2060009U);
}

TEST(StartUpTest, ReadyUninitialisedAndBack) {
  SdkWorld world;
  world.WriteConf();
  EXPECT_EQ(world.Initialize(1), 0U);
  const auto* first = g_broadcastCache.Get();
  g_broadcastCache->InsertVarInfo("a-1", {"x"}, {1});
  setenv("VYN_VERSION", "none", 1);
  EXPECT_EQ(world.Initialize(1), 0U);
  EXPECT_STREQ(getenv("VYN_VERSION"), "24.0.0") << "also a repeated call sets the environment";
  EXPECT_EQ(g_broadcastCache.Get(), first);
  EXPECT_EQ(world.bm.script.Calls("BM_Init").size(), 1U);

  EXPECT_EQ(BroadcastUninitialize(), 0U);
  EXPECT_TRUE(g_broadcastCache->GetVarInfo("a-1") == nullptr);
  EXPECT_EQ(BroadcastUninitialize(), 0U);
  EXPECT_EQ(g_initClaim.load(), 0);

  EXPECT_EQ(world.Initialize(1), 0U);
  EXPECT_EQ(g_initClaim.load(), 1);
  EXPECT_EQ(g_initInProgress.load(), 0);
  EXPECT_EQ(g_uninitClaim.load(), 0);
  EXPECT_EQ(world.bm.script.Calls("BM_Init").size(), 2U);
}

TEST(StartUpTest, SixteenThreadsOfWhichTheFirstFails) {
  SdkWorld world;
  world.WriteConf();
  WaiterClock clock;
  MetaLeaderInformation leader("127.0.0.1");
  std::atomic<int> asked{0};
  const std::string good = BytesOf(leader);
  world.server.Answer(ShuffleServer::META_LEADER_INFO, [&](const auto&) -> ScriptedService::Reply {
    if (asked++ == 0) {
      EXPECT_TRUE(WaitUntil([&] { return clock.Waiters() == 15; }));
      return {2140019, ""};
    }
    return {0, good};
  });
  std::atomic<int> succeeded{0};
  std::atomic<int> failed{0};
  {
    std::vector<std::jthread> threads;
    for (int i = 0; i < 16; ++i) {
      threads.emplace_back([&] { (world.Initialize(1) == 0 ? succeeded : failed)++; });
    }
  }
  EXPECT_EQ(failed, 1) << "those who waited try it themselves";
  EXPECT_EQ(succeeded, 15);
  EXPECT_EQ(world.bm.script.Calls("BM_Init").size(), 1U);
}

TEST(StartUpTest, ASecondCallDuringAReinitialisationGetsItsResult) {
  SdkWorld world;
  world.WriteConf();
  MetaLeaderInformation leader("127.0.0.1");
  const std::string good = BytesOf(leader);
  ASSERT_EQ(world.Initialize(1), 0U);
  BroadcastUninitialize();
  for (const auto& [reply, status] :
       std::vector<std::pair<ScriptedService::Reply, std::uint32_t>>{{{2140019, ""}, 1}, {{0, good}, 0}}) {
    world.server.Clear();
    world.bm.script.Clear();
    WaiterClock clock;
    std::atomic<bool> asked{false};
    world.server.Answer(ShuffleServer::META_LEADER_INFO, [&, answer = reply](const auto&) {
      asked = true;
      EXPECT_TRUE(WaitUntil([&] { return clock.Waiters() == 1; }));
      return answer;
    });
    std::uint32_t first = 77;
    std::thread runner([&] { first = world.Initialize(1); });
    EXPECT_TRUE(WaitUntil([&] { return asked.load(); }));
    EXPECT_EQ(world.Initialize(1), status);
    EXPECT_EQ(g_uninitClaim.load(), status) << "what it waited for is over";
    runner.join();
    EXPECT_EQ(first, status);
    // A start that succeeds asks twice, for itself and for its metadata client.
    EXPECT_EQ(world.server.Count(ShuffleServer::META_LEADER_INFO), status == 0 ? 2U : 1U);
    EXPECT_EQ(world.bm.script.Calls("BM_Init").size(), status == 0 ? 1U : 0U);
  }
}

TEST(StartUpTest, ADriverLearnsItsLeaderAndWhetherItsNodeIsInTheFabric) {
  DriverGround ground;
  SdkWorld world;
  world.WriteConf(ground.url);
  world.meta.Answer(ShuffleMeta::IS_MF_NODE, {2060011, ""});
  EXPECT_EQ(world.Initialize(0), 2120003U);
  EXPECT_STREQ(BroadcastGetLastErrorMessage(), "Failed to judge whether this node is a MF node or not.");
  EXPECT_TRUE(g_shuffleServerRPCEngine == nullptr);
  EXPECT_FALSE(g_broadcastCache == nullptr);
  EXPECT_EQ(world.bm.script.CallCount(), 0U) << "big memory comes last";

  world.AnswerMfNode(true, 5);
  EXPECT_EQ(world.Initialize(0), 0U);
  EXPECT_EQ(g_mfClientFlag, 0U);
  EXPECT_EQ(g_mfNodeId, 5U);
  const auto request = ReadAs<BroadcastRemoteNodeReq>(world.meta.Requests().back().body);
  EXPECT_THAT(request->candidateNodes, testing::Contains("127.0.0.1"));
  EXPECT_TRUE(std::is_sorted(request->candidateNodes.begin(), request->candidateNodes.end()));

  BroadcastUninitialize();
  world.AnswerMfNode(false, 5);
  EXPECT_EQ(world.Initialize(0), 0U);
  EXPECT_EQ(g_mfClientFlag, 1U);
  EXPECT_EQ(world.bm.script.Calls("BM_Init").back(), Joined(world.Home(), 1));

  // The watch: a new leader is known without a call.
  ground.raw.Delete("/meta/election/leader_info");
  ground.raw.Create("/meta/election/leader_info", "127.0.0.2");
  EXPECT_TRUE(WaitUntil([] {
    std::shared_lock lock(g_metaNode_broadcast->mLeaderLock);
    return g_metaNode_broadcast->mLeaderAddress == "127.0.0.2";
  }));
}

TEST(StartUpTest, ADriverNeverAsksTheNodeServerForTheLeader) {
  DriverGround ground;
  SdkWorld world;
  world.WriteConf(ground.url);
  // Makes a server client, which nothing has connected.
  EXPECT_NE(UnRegisterBroadcastApp("app"), 0U);
  EXPECT_EQ(world.Initialize(0), 0U);
  bool registered = false;
  EXPECT_EQ(RegisterBroadcastApp("app", true, "token", &registered), 0U);
  BroadcastUninitialize();
  EXPECT_EQ(world.Initialize(0), 0U) << "with a server client that works";
  EXPECT_EQ(world.server.Count(ShuffleServer::META_LEADER_INFO), 0U);
}

TEST(StartUpTest, ADriverWithoutZooKeeperLeaderOrWatchFails) {
  SdkWorld world;
  world.WriteConf();
  const auto expectFailure = [&](const std::string& line) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(world.Initialize(0), 1U);
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("] " + line + "\n"));
    EXPECT_EQ(g_initClaim.load(), 0);
  };
  expectFailure("[Broadcast] Driver init zookeeper failed");
  ZookeeperServer zookeeper;
  const std::string url = zookeeper.NewRoot();
  common::Configuration::GetInstance()->Set("vyn.zookeeper.server.url", url);
  expectFailure("[Broadcast] Driver get current meta leader info failed");
  RawZookeeper(url).Create("/meta/election/leader_info", "127.0.0.1");
  gWatchFails = true;
  expectFailure("Driver register watcher failed");
  gWatchFails = false;
  EXPECT_EQ(world.Initialize(0), 0U);
}

TEST(StartUpTest, BeforeInitialisationNothingIsTouched) {
  SdkWorld world;
  unsigned long sizes[2] = {1, 2};
  std::vector<std::string> none;
  std::vector<unsigned short> nodeIds;
  void* address = nullptr;
  testing::internal::CaptureStdout();
  VynBroadcastVersion();
  EXPECT_THAT(testing::internal::GetCapturedStdout(),
              testing::MatchesRegex("Component Name: Orvane-vyn-bigdata-spark\nComponent version: 2.0.0\n"
                                    "Component AppendInfo: _aarch64\nSoftWare Name: vyn_broadcast\n"
                                    "SoftWare Build Id: [0-9a-f]{40}\n"));
  EXPECT_EQ(BroadcastGetLastErrorMessage(), nullptr) << "nothing has failed yet";
  EXPECT_EQ(CreateBroadcastVar("a", 1, 2), 2120011U);
  EXPECT_THAT(BroadcastGetLastErrorMessage(), HasSubstr("Failed to get meta rpc cli as "));
  EXPECT_EQ(DeleteBroadcastVar("a", 1), 2000057U);
  EXPECT_EQ(MarkBroadcastApplicationCompleted("a"), 2000057U);
  EXPECT_EQ(GetRemoteNodeInfo("a", none, none, nodeIds, none, true), 2120011U);
  EXPECT_EQ(CreateBroadcastBlockBatch("a", 1, sizes, 2), 2000057U);
  EXPECT_EQ(CreateBroadcastBlockBatchRemote("a", "t", 1, sizes, 2, "1.2.3.4:1", "h", 1, none), 2000057U);
  EXPECT_EQ(FetchBroadcastBlockBatch("a", 1, sizes), 2000057U);
  EXPECT_EQ(ObtainBroadcastBlockAddr("a", 1, 0, &address), 2000057U);
  EXPECT_EQ(CheckMfNode(), 1U);
  EXPECT_EQ(BroadcastGetMetaLeaderIp(0), 2000057U);
  EXPECT_EQ(world.bm.script.CallCount(), 0U);
}

TEST(StartUpTest, ARefusedTextIsRecordedAndANullOneOnlyLogged) {
  SdkWorld world;
  world.WriteConf();
  ASSERT_EQ(world.Initialize(1), 0U);
  unsigned long sizes[2] = {1, 2};
  std::vector<std::string> texts;
  std::vector<unsigned short> ids;
  bool registered = false;
  void* address = nullptr;
  const auto remote = [&](const char* app, const char* token) {
    return CreateBroadcastBlockBatchRemote(app, token, 1, sizes, 2, "1.2.3.4:1", "h", 1, texts);
  };
  // Each takes one text that it checks.
  const std::vector<std::function<std::uint32_t(const char*)>> calls{
      [&](const char* text) { return RegisterBroadcastApp(text, true, "t", &registered); },
      [&](const char* text) { return RegisterBroadcastApp("a", true, text, &registered); },
      [&](const char* text) { return UnRegisterBroadcastApp(text); },
      [&](const char* text) { return BroadcastUnregisterApp(text); },
      [&](const char* text) { return MarkBroadcastApplicationCompleted(text); },
      [&](const char* text) { return GetRemoteNodeInfo(text, texts, texts, ids, texts, true); },
      [&](const char* text) { return CreateBroadcastVar(text, 1, 2); },
      [&](const char* text) { return DeleteBroadcastVar(text, 1); },
      [&](const char* text) { return CreateBroadcastBlockBatch(text, 1, sizes, 2); },
      [&](const char* text) { return remote(text, "t"); },
      [&](const char* text) { return remote("a", text); },
      [&](const char* text) { return FetchBroadcastBlockBatch(text, 1, sizes); },
      [&](const char* text) { return ObtainBroadcastBlockAddr(text, 1, 0, &address); },
      [&](const char* text) { return ReleaseBroadcastBlockAddr(text, 1, 0, &address); },
      [&](const char* text) { return ReadRemoteBlock(text, 1, 0, sizes, "t"); },
      [&](const char* text) { return ReadRemoteBlock("a", 1, 0, sizes, text); },
      [&](const char* text) { return WriteRemoteBlock(text, "id", sizes, 1, "t"); }};
  const auto asked = world.server.Requests().size() + world.meta.Requests().size();
  for (std::size_t i = 0; i < calls.size(); ++i) {
    std::thread([&] {
      EXPECT_EQ(calls[i](nullptr), 2120001U) << i;
      EXPECT_EQ(BroadcastGetLastErrorMessage(), nullptr) << i;
      EXPECT_EQ(calls[i]("a b"), 2120001U) << i;
      const std::string record = BroadcastGetLastErrorMessage();
      EXPECT_THAT(record, testing::EndsWith(" input is : a b")) << i;
      EXPECT_EQ(calls[i](nullptr), 2120001U) << i;
      EXPECT_EQ(BroadcastGetLastErrorMessage(), record) << i;
    }).join();
  }
  EXPECT_FALSE(registered);
  EXPECT_EQ(world.server.Requests().size() + world.meta.Requests().size(), asked);
  EXPECT_THAT(world.bm.script.Calls("BM_CreateLink"), testing::IsEmpty());
}

}  // namespace
}  // namespace vyn::test
