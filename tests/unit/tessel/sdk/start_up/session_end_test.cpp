// A driver whose ZooKeeper session ends.

#include "common/message/heart_beat_message.h"
#include "platform/zk_helper/zk_helper.h"
#include "support/sdk_world.h"
#include "support/wait_until.h"
#include "tessel/sdk/start_up/sdk_state.h"

namespace vyn::test {
namespace {

using tessel::g_metaNode_broadcast;

TEST(SessionEndTest, TheDriverFollowsTheNextLeaderAndCanStartAfresh) {
  SdkWorld world;
  DriverGround ground;
  world.WriteConf(ground.url, "vyn.zookeeper.session.timeout=3000\n");  // a client notices at its next ping
  ASSERT_EQ(world.Initialize(0), 0U);
  const auto expire = [&] { ExpireSession(ground.zookeeper.Port(), DoDlZooClientId(VynGetZkHandle())); };
  const auto lead = [&](const char* leader) {
    ground.raw.Delete("/meta/election/leader_info");
    ground.raw.Create("/meta/election/leader_info", leader);
  };
  const auto follows = [](const char* leader) {
    return WaitUntil([&] {
      std::shared_lock lock(g_metaNode_broadcast->mLeaderLock);
      return g_metaNode_broadcast->mLeaderAddress == leader;
    });
  };

  ScriptedService next("127.0.0.2", world.meta.Port());
  ASSERT_EQ(HeartBeat("app", 0, "driver", "", true), 0U);
  expire();
  lead("127.0.0.2");
  EXPECT_TRUE(follows("127.0.0.2"));
  EXPECT_TRUE(WaitUntil([&] { return next.Count(ShuffleMeta::HEART_BEAT) != 0; }));
  EXPECT_EQ(HeartBeat("app", 0, "driver", "", false), 0U);
  EXPECT_EQ(CreateBroadcastVar("app", 1, 1), 0U);
  EXPECT_EQ(next.Count(ShuffleMeta::BROADCAST_VAR_NEW), 1U);

  expire();
  lead("127.0.0.1");
  BroadcastUninitialize();
  EXPECT_EQ(world.Initialize(0), 0U) << "at once";
  EXPECT_TRUE(follows("127.0.0.1"));
  expire();
  lead("127.0.0.2");
  EXPECT_TRUE(follows("127.0.0.2")) << "the new session has a watch and a keeper, too";
}

}  // namespace
}  // namespace vyn::test
