// What an executor does with an answer, a record or a block that is not what it takes it for.

#include "support/client/sdk_world.h"

namespace vyn::test {
namespace {

class BlockTrustTest : public testing::Test {
 protected:
  void SetUp() override {
    mWorld.WriteConf();
    ASSERT_EQ(mWorld.Initialize(1), 0U);
    ServerSays(SdkWorld::Blocks("app", 7, 1));
  }
  void ServerSays(const std::string& blocks) {
    mWorld.server.Answer(ShuffleServer::BROADCAST_BLOCK_BATCH_FETCH, {0, blocks});
  }
  std::uint32_t Fetch(unsigned int room = 2) {
    return FetchBroadcastBlockBatchInto("app", 7, mSizes, room, &mCount);
  }
  static std::uint32_t Obtain(unsigned int block) {
    void* address = nullptr;
    return ObtainBroadcastBlockAddr("app", 7, block, &address);
  }

  SdkWorld mWorld;
  BmScript& mScript = mWorld.bm.script;
  unsigned long mSizes[3] = {1, 2, 3};
  unsigned int mCount = 77;
};

TEST_F(BlockTrustTest, AnExecutorRefusesBlocksThatDoNotMatchItsRequest) {
  for (const auto& answer : {SdkWorld::Blocks("other", 7, 1), SdkWorld::Blocks("app", 8, 1),
                             SdkWorld::Blocks("app", 7, 1, 'a', {100, 50, 1})}) {
    ServerSays(answer);
    EXPECT_EQ(Fetch(), 1U);
  }
  ServerSays(SdkWorld::Blocks("app", 7, 1));
  for (const char* from : {"the node server", "the cache"}) {
    mCount = 0;
    EXPECT_EQ(Fetch(1), 2120001U) << from;
    EXPECT_EQ(mCount, 2U);
  }
  EXPECT_THAT(mSizes, testing::ElementsAre(1, 2, 3));
  EXPECT_EQ(Fetch(), 0U);
  EXPECT_THAT(mSizes, testing::ElementsAre(100, 50, 3));
  mScript.Expect("BM_MappedLength", {99, 100});
  EXPECT_EQ(Obtain(0), 2120013U) << "the block is shorter than its record says";
  EXPECT_EQ(mScript.Calls("BM_Unmap").size(), 1U);
  EXPECT_EQ(Obtain(0), 0U);
}

TEST_F(BlockTrustTest, ANullArrayOfSizesIsAcceptedForZeroBlocksOnly) {
  tessel::BroadcastBlockInfo none;
  none.appId = "app";
  none.broadcastId = 8;
  for (const auto& [id, answer, status] :
       {std::tuple(8U, BytesOf(none), 0U), std::tuple(9U, SdkWorld::Blocks("app", 9), 2120001U)}) {
    ServerSays(answer);
    EXPECT_EQ(FetchBroadcastBlockBatch("app", id, nullptr), status);
    EXPECT_EQ(FetchBroadcastBlockBatch("app", id, nullptr), status) << "from the cache";
  }
}

TEST_F(BlockTrustTest, AnExecutorFetchesAgainWhenItsBlocksWereFreed) {
  ASSERT_EQ(Fetch(), 0U);
  mScript.Expect("BM_MapSec", {-2, -2, 0, -2});
  EXPECT_EQ(Obtain(0), 2080007U) << "the node server knows no other blocks yet";
  ServerSays(SdkWorld::Blocks("app", 7, 1, 'c'));
  EXPECT_EQ(Obtain(0), 0U) << "with the blocks of the new variable";
  EXPECT_THAT(mScript.Calls("BM_MapSec").back(), testing::StartsWith(std::string(60, 'c')));
  ServerSays(SdkWorld::Blocks("app", 7, 1, 'e'));
  EXPECT_EQ(Obtain(1), 2080007U) << "never blocks of two variables";
  EXPECT_EQ(Obtain(1), 2120013U);
  EXPECT_EQ(Fetch(), 0U);
  EXPECT_EQ(Obtain(1), 0U);
}

}  // namespace
}  // namespace vyn::test
