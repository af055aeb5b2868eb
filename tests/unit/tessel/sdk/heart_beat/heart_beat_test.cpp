#include "cluster/meta_node_info.h"
#include "common/api/base_api_util.h"
#include "common/message/heart_beat_message.h"
#include "support/client_test.h"
#include "support/fake_clock.h"
#include "tessel/rpc/shuffle_meta_rpc_engine.h"
#include "tessel/sdk/heart_beat/heart_beat_thread.h"
#include "tuning/rpc/tuning_rpc_engine.h"
#include "vyn/broadcast.h"

#include <mutex>
#include <thread>

namespace vyn::common {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using test::CapturedLog;
using test::ScriptedService;

constexpr unsigned int kMetaHeartBeat = 21;
constexpr unsigned int kTuningHeartBeat = 2;

class HeartBeatTest : public testing::Test {
 protected:
  HeartBeatTest() {
    auto conf = test::PlainConfiguration();
    conf->Set("vyn.tessel.rpc.shuffle_meta.port", int{mService.Port()});
    conf->Set("vyn.tuning.rpc.server.port", int{mService.Port()});
    const auto metaNode = MetaNodeInfo::GetInstance();
    std::unique_lock lock(metaNode->mLeaderLock);
    metaNode->mLeaderAddress = "127.0.0.1";
  }
  void SetUp() override {
    const auto meta = tessel::ShuffleMetaRPCEngine::CreateInstance(500, true, nullptr);
    ASSERT_EQ(meta->Initialize(), 0U);
    const auto tuning = tuning::TuningRpcEngine::CreateInstance(500, true, 0);
    ASSERT_EQ(tuning->Initialize(), 0U);
  }
  void TearDown() override {
    tessel::ShuffleMetaRPCEngine::gShuffleMetaRPCEngine = nullptr;
    tuning::TuningRpcEngine::mTuningRpcEngine = nullptr;
  }

  bool Alive(std::size_t beat) const {
    return test::ReadAs<HeartBeatMessage>(mService.Requests().at(beat).body)->isAlive;
  }
  std::uint32_t Start(const char* app, unsigned char type = 0) const {
    return ::HeartBeat(app, type, "driver", "", true);
  }
  std::uint32_t Stop(const char* app) const { return ::HeartBeat(app, 0, "driver", "", false); }

  /// Lets the period of a sender pass until it has begun its wait number `count`.
  static void PassPeriods(test::FakeClock& clock, std::size_t count) {
    for (std::size_t waits = 0; waits < count; clock.EndOneWait(), ++waits) {
      while (clock.Waits().size() <= waits) {
        std::this_thread::sleep_for(milliseconds(1));
      }
    }
  }

  ScriptedService mService;
};

TEST_F(HeartBeatTest, ASenderBeatsTwiceAtOnceThenInItsPeriodAndSaysFarewell) {
  test::FakeClock clock;
  CapturedLog log;
  ASSERT_EQ(::HeartBeat("app", 0, "driver", "content", true), 0U);
  ASSERT_TRUE(mService.WaitFor(2));
  PassPeriods(clock, 2);
  ASSERT_TRUE(mService.WaitFor(4));
  EXPECT_EQ(Start("app"), 2080011U) << "one sender an application";
  EXPECT_EQ(Start("app", 1), 2080011U) << "whatever its type";
  EXPECT_TRUE(
      log.Has(3, "Heart beat of appName: app processType: 1, process name: driver has already started."));
  clock.EndOneWait();
  ASSERT_TRUE(mService.WaitFor(5)) << "the first one goes on";
  ASSERT_EQ(Stop("app"), 0U);

  const auto beats = mService.Requests();
  ASSERT_EQ(beats.size(), 6U);
  const auto message = test::ReadAs<HeartBeatMessage>(beats[0].body);
  EXPECT_EQ(std::tie(message->ns, message->processType, message->processName, message->content),
            std::make_tuple("app", 0, "driver", "content"));
  // The first two leave at once, each later one a period behind the end of the call before it. The stop may
  // find the sender behind the start of its last wait or before it.
  for (const auto wait : clock.Waits()) {
    EXPECT_EQ(wait, seconds(2));
  }
  for (std::size_t i = 0; i < beats.size(); ++i) {
    EXPECT_EQ(beats[i].opcode, kMetaHeartBeat);
    EXPECT_EQ(Alive(i), i + 1 < beats.size());
  }
  EXPECT_TRUE(log.Has(2, "app with process name driver start to send heart beat"));
  EXPECT_TRUE(log.Has(2, "app with process name driver stop to send heart beat"));

  EXPECT_EQ(Stop("app"), 2080011U);
  EXPECT_TRUE(
      log.Has(3, "Heart beat of appName: app processType: 0, process name: driver is already stopped."));
}

TEST_F(HeartBeatTest, AStopWakesTheSenderAndTheNameIsFreeAgain) {
  const auto begin = steady_clock::now();
  for (int i = 0; i < 10; ++i) {
    mService.Clear();
    ASSERT_EQ(Start("app"), 0U);
    ASSERT_TRUE(mService.WaitFor(2));
    ASSERT_EQ(Stop("app"), 0U);
    ASSERT_EQ(mService.Requests().size(), 3U);
    EXPECT_FALSE(Alive(2));
  }
  EXPECT_LT(steady_clock::now() - begin, seconds(15)) << "ten periods are 20 s";
}

TEST_F(HeartBeatTest, TheTypeChoosesTheService) {
  ASSERT_EQ(Start("tuned", 1), 0U);
  ASSERT_TRUE(mService.WaitFor(2));
  EXPECT_EQ(Stop("tuned"), 0U);
  EXPECT_EQ(mService.Count(kTuningHeartBeat), 3U);

  mService.Clear();
  {
    test::FakeClock clock;
    ASSERT_EQ(Start("mute", 2), 0U);
    PassPeriods(clock, 3);
    EXPECT_EQ(Stop("mute"), 0U);
  }
  EXPECT_TRUE(mService.Requests().empty());

  tuning::TuningRpcEngine::mTuningRpcEngine = nullptr;
  ASSERT_EQ(Start("tuned", 1), 0U) << "without a client nothing is sent";
  EXPECT_EQ(Stop("tuned"), 0U);
  EXPECT_TRUE(mService.Requests().empty());
}

TEST_F(HeartBeatTest, AStopWaitsForASendThatHangsUntilItsTimeOut) {
  test::FakeClock clock;  // the retries do not sleep
  CapturedLog log;
  int beats = 0;
  mService.Answer(kMetaHeartBeat,
                  [&beats](const auto&) {  // the second beat, the thread's first one, hangs in all attempts
                    ++beats;
                    return ScriptedService::Reply{0, "",
                                                  beats >= 2 && beats <= 5 ? ScriptedService::Reply::kSilence
                                                                           : ScriptedService::Reply::kAnswer};
                  });
  ASSERT_EQ(Start("app"), 0U);
  ASSERT_TRUE(mService.WaitFor(2));
  ASSERT_EQ(Stop("app"), 0U);
  ASSERT_EQ(mService.Requests().size(), 6U) << "four attempts of the hanging one, then the farewell";
  EXPECT_FALSE(Alive(5));
  EXPECT_TRUE(
      log.Has(4, "Failed to send shuffle heartBeat as appName: app processType: 0, process name: driver"));
}

TEST_F(HeartBeatTest, ASenderThatIsDroppedEndsWithoutFarewell) {
  {
    const Ref<HeartBeatThread> sender(new HeartBeatThread("app", 0, "driver", ""));
    ASSERT_EQ(sender->Start(), 0U);
    ASSERT_EQ(sender->Start(), 0U) << "a running one is left alone";
    ASSERT_TRUE(mService.WaitFor(2));
  }
  EXPECT_EQ(mService.Requests().size(), 2U);
  const Ref<HeartBeatThread> never(new HeartBeatThread("app", 0, "driver", ""));
  EXPECT_EQ(never->Stop(), 0U);
  EXPECT_EQ(mService.Requests().size(), 2U);
}

TEST_F(HeartBeatTest, ASenderThatEndedWithTheProcessMayStillBeStoppedAndDropped) {
  const Ref<HeartBeatThread> sender(new HeartBeatThread("app", 0, "driver", ""));
  ASSERT_EQ(sender->Start(), 0U);
  ASSERT_TRUE(mService.WaitFor(2));
  sender->RequestStop();
  for (const char* round : {"the thread ends", "there is none"}) {
    milliseconds patience(60000);
    sender->JoinWithin(patience);
    EXPECT_GT(patience, milliseconds(1)) << round;
  }
  EXPECT_EQ(sender->Stop(), 0U);
  EXPECT_EQ(mService.Requests().size(), 2U) << "no farewell";
}

TEST_F(HeartBeatTest, ManyApplicationsStartAndStopAtOnceWhileTheClientIsReplaced) {
  std::vector<std::thread> applications;
  for (int i = 0; i < 8; ++i) {
    applications.emplace_back([name = "app" + std::to_string(i)] {
      for (int round = 0; round < 5; ++round) {
        EXPECT_EQ(BaseApiUtil::StartHeartBeat(name, 0, "driver", ""), 0U);
        EXPECT_EQ(BaseApiUtil::StopHeartBeat(name, 0, "driver", ""), 0U);
      }
    });
  }
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(tessel::ShuffleMetaRPCEngine::CreateInstance(10000, true, nullptr)->Initialize(), 0U);
  }
  for (std::thread& application : applications) {
    application.join();
  }
  std::lock_guard lock(BaseApiUtil::heartBeatLock);
  EXPECT_TRUE(BaseApiUtil::g_HeartBeatFlag.empty());
}

TEST_F(HeartBeatTest, RefusedArgumentsAndAMissingClientStartNothing) {
  CapturedLog log;
  EXPECT_EQ(::HeartBeat(nullptr, 0, "driver", "", true), 2080001U);
  EXPECT_EQ(::HeartBeat("", 0, "driver", "", true), 2080001U);
  EXPECT_EQ(::HeartBeat("a.b", 0, "driver", "", true), 2080001U);
  EXPECT_EQ(::HeartBeat("app", 0, "", "", true), 2080001U);
  EXPECT_EQ(::HeartBeat("app", 0, "driver", nullptr, true), 2080001U);
  EXPECT_EQ(::HeartBeat("app", 0, "driver", "a b", true), 2080001U);
  tessel::ShuffleMetaRPCEngine::gShuffleMetaRPCEngine = nullptr;
  EXPECT_EQ(Start("app"), 1U);
  EXPECT_TRUE(log.Has(4, "Failed to get meta rpc cli"));
  EXPECT_TRUE(mService.Requests().empty());
  std::lock_guard lock(BaseApiUtil::heartBeatLock);
  EXPECT_TRUE(BaseApiUtil::g_HeartBeatFlag.empty());
}

}  // namespace
}  // namespace vyn::common
