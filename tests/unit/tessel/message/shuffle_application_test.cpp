// Who holds which blob.

#include "tessel/message/shuffle/shuffle_application.h"

#include "support/test.h"

namespace vyn::tessel {
namespace {

TEST(ShuffleInfo, TakesBlobsOfManyThreadsInTheOrderOfEach) {
  ShuffleInfo info;
  info.mPartitions[6] = nullptr;  // a place that somebody else looked up
  std::vector<std::thread> threads;
  for (unsigned thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&info, thread] {
      for (unsigned number = 0; number < 210; ++number) {
        common::Ref<ShuffleBlob> blob(new ShuffleBlob);
        blob->mId = new ShuffleBlobId(thread, number);
        info.AddNewShuffleBlob(number % 7, blob);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  ASSERT_EQ(info.mPartitions.size(), 7U);
  for (const auto& [id, partition] : info.mPartitions) {
    EXPECT_EQ(partition->mBlobs.size(), 120U);
    unsigned long next[] = {id, id, id, id};
    for (const auto& blob : partition->mBlobs) {
      EXPECT_EQ(blob->mId->innerId, std::exchange(next[blob->mId->bagId], blob->mId->innerId + 7));
    }
  }
}

}  // namespace
}  // namespace vyn::tessel
