// What an executor does with an answer, a record or a block that is not what it takes it for.

#include "support/sdk_world.h"
#include "tessel/sdk/start_up/sdk_state.h"

namespace vyn::test {
namespace {

using tessel::BroadcastBlockInfo;

class BlockTrustTest : public testing::Test {
 protected:
  void SetUp() override {
    mWorld.WriteConf();
    ASSERT_EQ(mWorld.Initialize(1), 0U);
  }
  /// What the node server says about any variable.
  void ServerSays(const std::string& application, std::uint32_t id, char letter,
                  const std::vector<std::uint64_t>& sizes = {100, 50}) {
    BroadcastBlockInfo info;
    info.appId = application;
    info.broadcastId = id;
    info.nodeId = 1;
    info.bmIds = {std::string(60, letter), std::string(60, letter)};
    info.sizes = sizes;
    mWorld.server.Answer(ShuffleServer::BROADCAST_BLOCK_BATCH_FETCH, {0, BytesOf(info)});
    mWorld.server.Answer(ShuffleServer::BROADCAST_BLOCK_BATCH_CREATE, {0, BytesOf(info)});
  }
  std::uint32_t Fetch() { return FetchBroadcastBlockBatchInto("app", 7, mSizes, 2, &mCount); }
  static std::uint32_t Obtain(unsigned int block) {
    void* address = nullptr;
    return ObtainBroadcastBlockAddr("app", 7, block, &address);
  }
  std::size_t Asked() const { return mWorld.server.Count(ShuffleServer::BROADCAST_BLOCK_BATCH_FETCH); }

  SdkWorld mWorld;
  unsigned long mSizes[3] = {1, 2, 3};
  unsigned int mCount = 77;
};

TEST_F(BlockTrustTest, AnAnswerThatDoesNotFitIsRefused) {
  const std::tuple<const char*, std::uint32_t, std::vector<std::uint64_t>> answers[] = {
      {"other", 7, {100, 50}}, {"app", 8, {100, 50}}, {"app", 7, {100}}, {"app", 7, {100, 50, 1}}};
  for (const auto& [application, id, sizes] : answers) {
    ServerSays(application, id, 'a', sizes);
    EXPECT_EQ(Fetch(), 1U);
    EXPECT_EQ(FetchBroadcastBlockBatch("app", 7, mSizes), 1U);
    EXPECT_EQ(CreateBroadcastBlockBatch("app", 7, mSizes, 2), 1U);
    EXPECT_THAT(mSizes, testing::ElementsAre(1, 2, 3));
    EXPECT_EQ(mWorld.meta.Count(ShuffleMeta::BROADCAST_VAR_INFO_ADD), 0U);
  }
}

TEST_F(BlockTrustTest, TheCallersRoomIsNotExceeded) {
  ServerSays("app", 7, 'a');
  for (const char* from : {"the node server", "the cache"}) {
    mCount = 0;
    EXPECT_EQ(FetchBroadcastBlockBatchInto("app", 7, mSizes, 1, &mCount), 2120001U) << from;
    EXPECT_EQ(mCount, 2U);
    EXPECT_THAT(mSizes, testing::ElementsAre(1, 2, 3));
  }
  EXPECT_EQ(FetchBroadcastBlockBatchInto("app", 7, nullptr, 0, &mCount), 2120001U);
  EXPECT_EQ(FetchBroadcastBlockBatchInto("app", 7, nullptr, 2, &mCount), 2120001U);
  EXPECT_EQ(FetchBroadcastBlockBatchInto("app", 7, mSizes, 2, nullptr), 2120001U);
  EXPECT_EQ(Fetch(), 0U);
  EXPECT_THAT(mSizes, testing::ElementsAre(100, 50, 3));
}

TEST_F(BlockTrustTest, ABlockThatIsShorterThanItsRecordIsNotHandedOut) {
  ServerSays("app", 7, 'a');
  ASSERT_EQ(Fetch(), 0U);
  mWorld.bm.script.ExpectResults("BM_MappedLength", {99, 100});
  EXPECT_EQ(Obtain(0), 2120013U);
  EXPECT_THAT(BroadcastGetLastErrorMessage(), testing::HasSubstr("100 bytes, its node has 99"));
  EXPECT_EQ(mWorld.bm.script.Calls("BM_Unmap").size(), 1U);
  EXPECT_EQ(Obtain(0), 0U);
}

TEST_F(BlockTrustTest, BlocksThatAreGoneAreAskedForAgain) {
  auto& script = mWorld.bm.script;
  ServerSays("app", 7, 'a');
  ASSERT_EQ(Fetch(), 0U);
  script.ExpectResults("BM_MapSec", {-2});
  EXPECT_EQ(Obtain(0), 2080007U) << "the node server knows no other blocks yet";
  ServerSays("app", 7, 'b');
  script.ExpectResults("BM_MapSec", {-2, 0});
  EXPECT_EQ(Obtain(0), 0U) << "with the blocks of the new variable";
  EXPECT_THAT(script.Calls("BM_MapSec").back(), testing::StartsWith(std::string(60, 'b')));
  EXPECT_EQ(Asked(), 3U);

  ServerSays("app", 7, 'c');
  script.ExpectResults("BM_MapSec", {-2});
  EXPECT_EQ(Obtain(1), 2080007U) << "never blocks of two variables";
  EXPECT_EQ(Obtain(1), 2120013U);
  EXPECT_EQ(Fetch(), 0U);
  EXPECT_EQ(Obtain(1), 0U);
  EXPECT_THAT(script.Calls("BM_MapSec").back(), testing::StartsWith(std::string(60, 'c')));
  script.ExpectResults("BM_MapSec", {-13});
  const auto asked = Asked();
  EXPECT_EQ(Obtain(0), 2080007U);
  EXPECT_EQ(Asked(), asked) << "another failure says nothing about the ids";
}

}  // namespace
}  // namespace vyn::test
