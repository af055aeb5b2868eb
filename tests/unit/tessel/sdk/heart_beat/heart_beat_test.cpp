// The senders of heartbeats: their beats, their ends, many at once, and the end of the process.

#include "common/api/base_api_util.h"
#include "common/message/heart_beat_message.h"
#include "support/client/sdk_world.h"
#include "support/fake_clock.h"
#include "support/process/vynd_process.h"
#include "tessel/rpc/shuffle_meta_rpc_engine.h"
#include "tessel/sdk/heart_beat/heart_beat_thread.h"

namespace vyn::test {
namespace {

using common::BaseApiUtil;
using common::HeartBeatMessage;
using Reply = ScriptedService::Reply;

constexpr unsigned int kMetaHeartBeat = 21;

/// An executor.
class HeartBeatTest : public testing::Test {
 protected:
  HeartBeatTest() {
    mWorld.WriteConf("127.0.0.1:1", "vyn.tessel.rpc.shuffle_meta.timeout=500\n");
    EXPECT_EQ(mWorld.Initialize(1), 0U);
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
  SdkWorld mWorld;
  ScriptedService& mService = mWorld.meta;
  const CapturedLog mLog{5};
};

TEST_F(HeartBeatTest, ASenderSendsTwoHeartbeatsAtOnceThenOneEachPeriodAndALastOneAtItsStop) {
  FakeClock clock;
  ASSERT_EQ(Switch(true, "app"), 0U);
  for (std::size_t beats = 2; beats < 5; ++beats) {
    ASSERT_TRUE(mService.WaitFor(beats));
    EXPECT_EQ(Switch(true, "app", beats % 2), 2080011U) << "one sender an application";
    EXPECT_TRUE(WaitUntil([&] { return clock.Waits().size() == beats - 1; }));
    clock.EndOneWait();
  }
  ASSERT_TRUE(mService.WaitFor(5));
  ASSERT_EQ(Switch(false, "app"), 0U) << "wakes the sender from its wait";
  EXPECT_EQ(Beats(), "+++++-");
  EXPECT_EQ(mService.Count(kMetaHeartBeat), 6U);
  const auto message = ReadAs<HeartBeatMessage>(mService.Requests()[0].body);
  EXPECT_EQ(std::tie(message->ns, message->processType, message->processName, message->content),
            std::make_tuple("app", 0, "driver", "content"));
  EXPECT_THAT(clock.Waits(), testing::Each(std::chrono::seconds(2)));
  EXPECT_EQ(Switch(false, "app"), 2080011U);
  EXPECT_EQ(Switch(true, "app"), 0U) << "the name is free again";
  EXPECT_EQ(Switch(false, "app"), 0U);
}

TEST_F(HeartBeatTest, ManyApplicationsStartAndStopAtOnceWhileTheClientIsReplaced) {
  {
    std::vector<std::jthread> applications;
    for (int i = 0; i < 8; ++i) {
      applications.emplace_back([name = "app" + std::to_string(i)] {
        for (int round = 0; round < 5; ++round) {
          EXPECT_EQ(BaseApiUtil::StartHeartBeat(name, 0, "driver", "content"), 0U);
          EXPECT_EQ(BaseApiUtil::StopHeartBeat(name, 0, "driver", "content"), 0U);
        }
      });
    }
    for (int i = 0; i < 10; ++i) {
      EXPECT_EQ(tessel::ShuffleMetaRPCEngine::CreateInstance(10000, true, nullptr)->Initialize(), 0U);
    }
  }
  EXPECT_TRUE(BaseApiUtil::g_HeartBeatFlag.empty());
}

TEST_F(HeartBeatTest, AStopBeforeItsStartPreventsTheStart) {
  const common::Ref<common::HeartBeatThread> sender(new common::HeartBeatThread("app", 0, "driver", ""));
  ASSERT_EQ(BaseApiUtil::PutIfAbsent("app", sender), 0U);
  EXPECT_EQ(Switch(false, "app"), 0U);
  EXPECT_EQ(sender->Start(), 0U);
  EXPECT_EQ(Beats(), "");
}

TEST_F(HeartBeatTest, AForkedChildHasNoSendersOfItsParent) {
  ASSERT_EQ(Switch(true, "app"), 0U);
  const pid_t child = ::fork();
  if (child == 0) {
    ::_exit(Switch(false, "app") == 2080011U ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(Switch(false, "app"), 0U);
}

TEST_F(HeartBeatTest, SendersSendNothingAtProcessExitAndTheExitWaitsForNoCall) {
  mWorld.WriteConf("127.0.0.1:1", "vyn.tessel.rpc.shuffle_meta.timeout=600000\n");
  for (const bool hang : {false, true}) {
    SCOPED_TRACE(hang ? "hanging in their calls" : "between two beats");
    std::map<std::string, int> beats;
    mService.Clear();
    mService.Answer(kMetaHeartBeat, [&](const auto& request) {
      // Each sender's first one comes from the thread that starts it.
      const bool silent = ++beats[ReadAs<HeartBeatMessage>(request.body)->ns] > 1 && hang;
      return Reply{0, "", silent ? Reply::kSilence : Reply::kAnswer};
    });
    BroadcastClient executor(mWorld.Home(), false);
    for (const char* name : {"app0", "app1", "app2"}) {
      EXPECT_EQ(executor.Do(std::string("beat ") + name), "0");
    }
    ASSERT_TRUE(mService.WaitFor(6));
    EXPECT_EQ(executor.Process().Wait(std::chrono::seconds(60)), 0) << "a call may take ten minutes here";
    EXPECT_EQ(Beats().find('-'), std::string::npos);
  }
}

}  // namespace
}  // namespace vyn::test
