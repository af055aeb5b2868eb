// Who holds which blob.

#include "tessel/message/shuffle/shuffle_application.h"

#include "support/test.h"

namespace vyn::tessel {
namespace {

using common::Ref;

TEST(ShuffleInfo, TakesBlobsOfManyThreadsInTheOrderOfEach) {
  const auto before = ShuffleBlob::GLOBAL_COUNT.load();
  {
    ShuffleInfo info;
    info.mPartitions[6] = nullptr;  // a place that somebody else looked up
    std::vector<std::thread> threads;
    for (unsigned thread = 0; thread < 4; ++thread) {
      threads.emplace_back([&info, thread] {
        for (unsigned number = 0; number < 210; ++number) {
          Ref<ShuffleBlob> blob(new ShuffleBlob);
          blob->mId = new ShuffleBlobId(thread, number);
          info.AddNewShuffleBlob(number % 7, blob);
        }
      });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
    Ref<ShuffleBlob> none;
    info.AddNewShuffleBlob(8, none);
    ASSERT_EQ(info.mPartitions.size(), 7U);
    for (const auto& [id, partition] : info.mPartitions) {
      EXPECT_EQ(partition->partitionId, id);
      EXPECT_EQ(partition->mBlobs.size(), 120U);
      unsigned long next[] = {id, id, id, id};
      for (const Ref<ShuffleBlob>& blob : partition->mBlobs) {
        unsigned long& expected = next[blob->mId->bagId];
        EXPECT_EQ(blob->mId->innerId, expected);
        expected += 7;
      }
    }
    EXPECT_EQ(ShuffleBlob::GLOBAL_COUNT - before, 840);
  }
  EXPECT_EQ(ShuffleBlob::GLOBAL_COUNT, before);
}

}  // namespace
}  // namespace vyn::tessel
