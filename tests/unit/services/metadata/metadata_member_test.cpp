#include "services/metadata/metadata_member.h"

#include "platform/zk_helper/zk_helper.h"
#include "support/cluster_test.h"
#include "support/fabric.h"
#include "support/raw_socket.h"

#include <gmock/gmock.h>

namespace vyn::services {
namespace {

constexpr const char* kSelf = "127.0.0.1";
constexpr const char* kOther = "127.0.0.9";
constexpr const char* kLeaderPath = "/meta/election/leader_info";
constexpr const char* kFollowerPath = "/meta/election/follower_info/127.0.0.1";

class MetadataMemberTest : public test::ClusterTest {
 protected:
  void SetUp() override {
    ClusterTest::SetUp();
    Connect();
  }
  void TearDown() override {
    mMember.reset();
    ClusterTest::TearDown();
  }
  void StartMember(int sessionTimeout = 30000) { StartMember(sessionTimeout, mPort.Number()); }
  void StartMember(int sessionTimeout, int port) {
    MetadataMemberOptions options;
    options.nodeAddress = kSelf;
    options.nodeList = std::string(kSelf) + "," + kOther;
    options.sessionTimeout = sessionTimeout;
    options.service.address = kSelf;
    options.service.port = static_cast<std::uint16_t>(port);
    options.onNewSession = [this] { ++mSessions; };
    mMember = std::make_unique<MetadataMember>(options);
    ASSERT_EQ(mMember->Start(), 0U);
  }
  bool Leads() {
    return test::WaitUntil([this] { return mMember->Leading(); });
  }
  std::string Status(const std::string& node) { return mRaw->Get("/meta/status/" + node); }
  std::int64_t OwnSession() { return DoDlZooClientId(VynGetZkHandle()).client_id; }

  const test::ReservedPort mPort;
  std::atomic<int> mSessions{0};
  std::unique_ptr<MetadataMember> mMember;
};

TEST_F(MetadataMemberTest, AClaimOrMutexWhoseReplyWasLostIsItsOwn) {
  // As they stand when the connection broke after the server had made them.
  for (const std::string& path :
       {cluster::ClusterZKAdapter::mMetaLeaderPath, cluster::ClusterZKAdapter::mMetaMutexPath}) {
    ASSERT_EQ(DoDlZooCreate(VynGetZkHandle(), path.c_str(), kSelf, 9, &ZOO_OPEN_ACL_UNSAFE, ZOO_EPHEMERAL,
                            nullptr, 0),
              ZOK);
  }
  mMeta->mLeaderAddress = kOther;  // who led before
  StartMember();
  EXPECT_TRUE(Leads());
  EXPECT_EQ(LeaderAddress(), kSelf);
  EXPECT_FALSE(mRaw->Exists(cluster::ClusterZKAdapter::mMetaMutexPath));
  EXPECT_EQ(Status(kOther), "3") << "it has gone";
  EXPECT_FALSE(mRaw->Exists(kFollowerPath));
  mMember->Stop();
  EXPECT_FALSE(mRaw->Exists(kLeaderPath));
}

TEST_F(MetadataMemberTest, FollowsWhoLeadsAndLeavesItsClaimAlone) {
  mRaw->Create(kLeaderPath, kOther, ZOO_EPHEMERAL);
  StartMember();
  EXPECT_TRUE(test::WaitUntil([&] { return mRaw->Exists(kFollowerPath) && Status(kSelf) == "2"; }));
  EXPECT_FALSE(mMember->Leading());
  EXPECT_EQ(LeaderAddress(), kOther);
  mMember->Stop();
  EXPECT_EQ(mRaw->Get(kLeaderPath), kOther);
  EXPECT_FALSE(mRaw->Exists(kFollowerPath));
}

TEST_F(MetadataMemberTest, TakesOverWhenTheLeaderGoes) {
  mRaw->Create(kLeaderPath, kOther, ZOO_EPHEMERAL);
  StartMember();
  EXPECT_TRUE(test::WaitUntil([&] { return mRaw->Exists(kFollowerPath); }));
  mRaw->Delete(kLeaderPath);
  EXPECT_TRUE(Leads());
  EXPECT_EQ(mRaw->Get(kLeaderPath), kSelf);
  EXPECT_TRUE(test::WaitUntil([&] { return Status(kOther) == "3" && Status(kSelf) == "2"; }));
  EXPECT_FALSE(mRaw->Exists(kFollowerPath));
}

TEST_F(MetadataMemberTest, WhoWentWhileNobodyLedIsFoundOut) {
  mRaw->Create(std::string("/meta/status/") + kSelf, "3");
  mRaw->Create(std::string("/meta/status/") + kOther, "2");
  StartMember();
  EXPECT_TRUE(test::WaitUntil([&] { return Status(kOther) == "3" && Status(kSelf) == "2"; }));
}

TEST_F(MetadataMemberTest, AnnouncesItselfAnewWhenItsSessionHasExpired) {
  StartMember();
  ASSERT_TRUE(Leads());
  const std::int64_t before = OwnSession();
  test::ExpireSession(gServer->Port(), DoDlZooClientId(VynGetZkHandle()));
  EXPECT_TRUE(test::WaitUntil([&] { return mSessions >= 1; }));
  EXPECT_TRUE(Leads());
  EXPECT_NE(OwnSession(), before);
  EXPECT_EQ(mRaw->Owner(kLeaderPath), OwnSession());
}

TEST_F(MetadataMemberTest, StopsServingBeforeItsSessionCanHaveExpired) {
  constexpr int kSession = 8000;
  mAdapter->ClusterZKClose();
  test::SlowLink link(static_cast<std::uint16_t>(gServer->Port()), 1ULL << 40U);
  test::UseZookeeper("127.0.0.1:" + std::to_string(link.Port()) + mUrl.substr(mUrl.find('/')));
  Connect(kSession);
  StartMember();  // asks for more than the session was granted
  ASSERT_TRUE(Leads());
  link.Cut(true);
  EXPECT_TRUE(test::WaitUntil([&] { return !mRaw->Exists(kLeaderPath); })) << "another may lead from now on";
  EXPECT_FALSE(mMember->Leading());
  link.Cut(false);
  EXPECT_TRUE(Leads());
  mMember.reset();
  mAdapter->ClusterZKClose();
}

TEST_F(MetadataMemberTest, GivesUpAClaimThatItCannotServe) {
  const test::RawListener taken;
  StartMember(30000, taken.Port());
  EXPECT_TRUE(test::WaitUntil([&] {
    return mLog.Has(test::kErrorLine,
                    "This node won the election and cannot serve, it gives the leadership up");
  }));
  EXPECT_TRUE(test::WaitUntil([&] { return !mRaw->Exists(kLeaderPath); }));
  EXPECT_FALSE(mMember->Leading());
}

}  // namespace
}  // namespace vyn::services
