// A driver whose ZooKeeper session ends.

#include "platform/zk_helper/zk_helper.h"
#include "support/client/sdk_world.h"

namespace vyn::test {
namespace {

TEST(SessionEndTest, ADriverFollowsTheNextLeaderAndCanInitialiseAgain) {
  DriverWorld world(true, "vyn.zookeeper.session.timeout=9000\n");  // a client notices at its next ping
  RawZookeeper raw(world.url);
  ASSERT_EQ(HeartBeat("app", 0, "driver", "", true), 0U);
  ScriptedService next("127.0.0.2", world.meta.Port());
  const auto expireAndLead = [&](const char* leader) {
    clientid_t id{};
    ASSERT_TRUE(WaitUntil([&] { return (id = DoDlZooClientId(VynGetZkHandle())).client_id != 0; }));
    ExpireSession(world.zookeeper.Address(), id);
    raw.Delete("/meta/election/leader_info");
    raw.Create("/meta/election/leader_info", leader);
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
