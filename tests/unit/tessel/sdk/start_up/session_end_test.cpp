// A driver whose ZooKeeper session ends.

#include "platform/zk_helper/zk_helper.h"
#include "support/sdk_world.h"
#include "support/wait_until.h"

namespace vyn::test {
namespace {

TEST(SessionEndTest, TheDriverFollowsTheNextLeaderAndCanStartAfresh) {
  SdkWorld world;
  DriverGround ground;
  world.WriteConf(ground.url, "vyn.zookeeper.session.timeout=3000\n");  // a client notices at its next ping
  ASSERT_EQ(world.Initialize(0), 0U);
  ASSERT_EQ(HeartBeat("app", 0, "driver", "", true), 0U);
  ScriptedService next("127.0.0.2", world.meta.Port());
  const auto expireAndLead = [&](const char* leader) {
    ExpireSession(ground.zookeeper.Port(), DoDlZooClientId(VynGetZkHandle()));
    ground.raw.Delete("/meta/election/leader_info");
    ground.raw.Create("/meta/election/leader_info", leader);
  };
  const auto beatsReach = [](const ScriptedService& leader) {
    const auto before = leader.Count(ShuffleMeta::HEART_BEAT);
    return WaitUntil([&] { return leader.Count(ShuffleMeta::HEART_BEAT) > before + 1; });
  };
  expireAndLead("127.0.0.2");
  EXPECT_TRUE(beatsReach(next));
  expireAndLead("127.0.0.1");
  BroadcastUninitialize();
  EXPECT_EQ(world.Initialize(0), 0U) << "at once";
  EXPECT_TRUE(beatsReach(world.meta));
  expireAndLead("127.0.0.2");
  EXPECT_TRUE(beatsReach(next)) << "the new session has a watch and a keeper, too";
  EXPECT_EQ(HeartBeat("app", 0, "driver", "", false), 0U);
}

}  // namespace
}  // namespace vyn::test
