// The senders of heartbeats: their beats, their ends, many at once, and the end of the process.

#include "cluster/meta_node_info.h"
#include "common/api/base_api_util.h"
#include "common/config/configuration.h"
#include "common/message/heart_beat_message.h"
#include "support/captured_log.h"
#include "support/child_process.h"
#include "support/fake_clock.h"
#include "support/scripted_service.h"
#include "support/temp_dir.h"
#include "support/test.h"
#include "support/wait_until.h"
#include "tessel/rpc/shuffle_meta_rpc_engine.h"
#include "tessel/sdk/heart_beat/heart_beat_thread.h"
#include "tuning/rpc/tuning_rpc_engine.h"
#include "vyn/broadcast.h"

namespace vyn::common {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using test::ReadAs;
using test::ScriptedService;

constexpr unsigned int kMetaHeartBeat = 21;
constexpr unsigned int kTuningHeartBeat = 2;

class HeartBeatTest : public testing::Test {
 protected:
  void SetUp() override {
    mFile = mFolder.Write("vyn.conf",
                          "vyn.tessel.rpc.enableTLS=false\nvyn.tessel.rpc.enableAuthentication=false\n"
                          "vyn.tuning.rpc.server.port=" +
                              std::to_string(mService.Port()) +
                              "\nvyn.tessel.rpc.shuffle_meta.port=" + std::to_string(mService.Port()) + "\n");
    ASSERT_TRUE(Configuration::GetInstance(mFile) != nullptr);
    MetaNodeInfo::GetInstance()->mLeaderAddress = "127.0.0.1";
    ASSERT_EQ(tessel::ShuffleMetaRPCEngine::CreateInstance(500, true, nullptr)->Initialize(), 0U);
    ASSERT_EQ(tuning::TuningRpcEngine::CreateInstance(500, true, 0)->Initialize(), 0U);
  }
  std::string Beats() const {  // "+" for a beat, "-" for a farewell
    std::string beats;
    for (const auto& request : mService.Requests()) {
      beats += ReadAs<HeartBeatMessage>(request.body)->isAlive ? "+" : "-";
    }
    return beats;
  }
  static std::uint32_t Switch(bool start, const char* app, unsigned char type = 0) {
    return ::HeartBeat(app, type, "driver", "content", start);
  }
  /// Lets the period of a sender pass until it has begun its wait number `count`.
  static void PassPeriods(test::FakeClock& clock, std::size_t count) {
    for (std::size_t waits = 0; waits < count; clock.EndOneWait(), ++waits) {
      EXPECT_TRUE(test::WaitUntil([&] { return clock.Waits().size() > waits; }));
    }
  }

  const test::TempDir mFolder;
  const test::CapturedLog mLog;
  std::string mFile;
  ScriptedService mService;
};

TEST_F(HeartBeatTest, ASenderBeatsTwiceAtOnceThenInItsPeriodAndSaysFarewell) {
  test::FakeClock clock;
  ASSERT_EQ(Switch(true, "app"), 0U);
  ASSERT_TRUE(mService.WaitFor(2));
  PassPeriods(clock, 2);
  ASSERT_TRUE(mService.WaitFor(4));
  EXPECT_EQ(Switch(true, "app"), 2080011U) << "one sender an application";
  EXPECT_EQ(Switch(true, "app", 1), 2080011U) << "whatever its type";
  clock.EndOneWait();
  ASSERT_TRUE(mService.WaitFor(5)) << "the first one goes on";
  ASSERT_EQ(Switch(false, "app"), 0U) << "wakes the sender from its wait";
  EXPECT_EQ(Beats(), "+++++-");
  EXPECT_EQ(mService.Count(kMetaHeartBeat), 6U);
  const auto message = ReadAs<HeartBeatMessage>(mService.Requests()[0].body);
  EXPECT_EQ(std::tie(message->ns, message->processType, message->processName, message->content),
            std::make_tuple("app", 0, "driver", "content"));
  for (const auto wait : clock.Waits()) {
    EXPECT_EQ(wait, seconds(2));
  }
  EXPECT_EQ(Switch(false, "app"), 2080011U);
  EXPECT_EQ(Switch(true, "app"), 0U) << "the name is free again";
  EXPECT_EQ(Switch(false, "app"), 0U);
}

TEST_F(HeartBeatTest, TheTypeChoosesTheService) {
  test::FakeClock clock;
  ASSERT_EQ(Switch(true, "tuned", 1), 0U);
  ASSERT_TRUE(mService.WaitFor(2));
  EXPECT_EQ(Switch(false, "tuned"), 0U);
  EXPECT_EQ(mService.Count(kTuningHeartBeat), 3U);
  mService.Clear();
  tuning::TuningRpcEngine::mTuningRpcEngine = nullptr;
  for (const unsigned char type : {2, 1}) {  // no service, and no client of the service
    ASSERT_EQ(Switch(true, "mute", type), 0U);
    PassPeriods(clock, 3);
    EXPECT_EQ(Switch(false, "mute"), 0U);
  }
  EXPECT_EQ(Beats(), "");
}

TEST_F(HeartBeatTest, AStopWaitsForASendThatHangsUntilItsTimeOut) {
  test::FakeClock clock;  // the retries do not sleep
  int beats = 0;
  mService.Answer(kMetaHeartBeat, [&beats](const auto&) {  // the thread's first beat hangs in all attempts
    ++beats;
    return ScriptedService::Reply{
        0, "", beats >= 2 && beats <= 5 ? ScriptedService::Reply::kSilence : ScriptedService::Reply::kAnswer};
  });
  ASSERT_EQ(Switch(true, "app"), 0U);
  ASSERT_TRUE(mService.WaitFor(2));
  ASSERT_EQ(Switch(false, "app"), 0U);
  EXPECT_EQ(Beats(), "+++++-") << "four attempts of the hanging one, then the farewell";
  EXPECT_FALSE(mLog.Texts(4).empty());
}

TEST_F(HeartBeatTest, ASenderThatIsDroppedOrEndsWithTheProcessSaysNoFarewell) {
  for (const bool ends : {false, true}) {
    mService.Clear();
    Ref<HeartBeatThread> sender(new HeartBeatThread("app", 0, "driver", ""));
    ASSERT_EQ(sender->Start(), 0U);
    ASSERT_EQ(sender->Start(), 0U) << "a running one is left alone";
    ASSERT_TRUE(mService.WaitFor(2));
    if (ends) {
      sender->RequestStop();
      for (const char* round : {"the thread ends", "there is none"}) {
        milliseconds patience(60000);
        sender->JoinWithin(patience);
        EXPECT_GT(patience, milliseconds(1)) << round;
      }
      EXPECT_EQ(sender->Stop(), 0U);
    }
    sender = nullptr;
    EXPECT_EQ(Beats(), "++");
  }
  EXPECT_EQ(Ref<HeartBeatThread>(new HeartBeatThread("app", 0, "driver", ""))->Stop(), 0U);
  EXPECT_EQ(Beats(), "++") << "one that never ran";
}

TEST_F(HeartBeatTest, ManyApplicationsStartAndStopAtOnceWhileTheClientIsReplaced) {
  {
    std::vector<std::jthread> applications;
    for (int i = 0; i < 8; ++i) {
      applications.emplace_back([name = "app" + std::to_string(i)] {
        for (int round = 0; round < 5; ++round) {
          EXPECT_EQ(Switch(true, name.c_str()), 0U);
          EXPECT_EQ(Switch(false, name.c_str()), 0U);
        }
      });
    }
    for (int i = 0; i < 10; ++i) {
      EXPECT_EQ(tessel::ShuffleMetaRPCEngine::CreateInstance(10000, true, nullptr)->Initialize(), 0U);
    }
  }
  EXPECT_TRUE(BaseApiUtil::g_HeartBeatFlag.empty());
}

TEST_F(HeartBeatTest, RefusedArgumentsAndAMissingClientStartNothing) {
  for (const auto& [app, process, content] :
       std::vector<std::array<const char*, 3>>{{nullptr, "driver", ""},
                                               {"", "driver", ""},
                                               {"a.b", "driver", ""},
                                               {"app", "", ""},
                                               {"app", "driver", nullptr},
                                               {"app", "driver", "a b"}}) {
    EXPECT_EQ(::HeartBeat(app, 0, process, content, true), 2080001U);
  }
  tessel::ShuffleMetaRPCEngine::gShuffleMetaRPCEngine = nullptr;
  EXPECT_EQ(Switch(true, "app"), 1U);
  EXPECT_EQ(Beats(), "");
  EXPECT_TRUE(BaseApiUtil::g_HeartBeatFlag.empty());
}

TEST_F(HeartBeatTest, AtTheEndOfTheProcessSendersSayNoFarewellAndNobodyWaitsForACallThatHangs) {
  for (const bool hang : {false, true}) {
    SCOPED_TRACE(hang ? "hanging in their calls" : "between two beats");
    std::map<std::string, int> beats;  // each sender's first one comes from the thread that starts it
    mService.Clear();
    mService.Answer(kMetaHeartBeat, [&](const auto& request) {
      const bool first = ++beats[ReadAs<HeartBeatMessage>(request.body)->ns] == 1;
      return ScriptedService::Reply{
          0, "", hang && !first ? ScriptedService::Reply::kSilence : ScriptedService::Reply::kAnswer};
    });
    test::ChildProcess child({std::string(VYN_TEST_PROGRAM_DIR) + "/heart_beat_sender", mFile});
    ASSERT_TRUE(mService.WaitFor(6));
    EXPECT_EQ(child.Wait(seconds(60)), 0) << "a call may take ten minutes here";
    EXPECT_EQ(Beats().find('-'), std::string::npos);
  }
}

}  // namespace
}  // namespace vyn::common
