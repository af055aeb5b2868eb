// The application model: who holds which blob, and what the death of the last blob does.

#include "tessel/message/shuffle/shuffle_application.h"

#include "support/captured_log.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

// In the place of the allocator's own: counts the calls.
static std::atomic<int> gTrims{0};
extern "C" int malloc_trim(size_t) noexcept { return gTrims.fetch_add(1) >= 0; }

namespace vyn::test {
namespace {

using common::Ref;
using namespace tessel;  // NOLINT: the classes under test

TEST(ShuffleInfo, RecordsBlobsInTheOrderOfArrival) {
  CapturedLog log;
  Ref<ShuffleInfo> info(new ShuffleInfo);
  info->shuffleId = 5;
  Ref<ShuffleBlob> first(new ShuffleBlob);
  Ref<ShuffleBlob> second(new ShuffleBlob);
  second->mId = new ShuffleBlobId(1, 77);
  second->mAppId = "app";
  info->AddNewShuffleBlob(3, first);
  const Ref<PartitionInfo> partition = info->mPartitions.at(3);
  info->AddNewShuffleBlob(3, second);
  EXPECT_EQ(info->mPartitions.at(3), partition);
  EXPECT_EQ(partition->partitionId, 3U);
  EXPECT_EQ(partition->mBlobs, (std::vector<Ref<ShuffleBlob>>{first, second}));
  EXPECT_EQ(first->RefCount(), 2);
  EXPECT_EQ(log.Texts(1),
            (std::vector<std::string>{"Record shuffleBlob 0 for app  shuffleId 5 partitionId 3",
                                      "Record shuffleBlob 77 for app app shuffleId 5 partitionId 3"}));
  Ref<ShuffleBlob> none;
  info->AddNewShuffleBlob(4, none);
  EXPECT_EQ(info->mPartitions.count(4), 0U);
  info->mPartitions[6] = nullptr;  // a place that somebody else looked up
  info->AddNewShuffleBlob(6, first);
  ASSERT_TRUE(info->mPartitions[6] != nullptr);
  EXPECT_EQ(info->mPartitions[6]->mBlobs, std::vector<Ref<ShuffleBlob>>{first});
}

TEST(ShuffleInfo, TakesBlobsOfManyThreads) {
  const auto before = ShuffleBlob::GLOBAL_COUNT.load();
  {
    Ref<ShuffleInfo> info(new ShuffleInfo);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([&info] {
        for (unsigned blob = 0; blob < 200; ++blob) {
          Ref<ShuffleBlob> fresh(new ShuffleBlob);
          info->AddNewShuffleBlob(blob % 7, fresh);
        }
      });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
    std::size_t blobs = 0;
    for (const auto& [id, partition] : info->mPartitions) {
      EXPECT_EQ(id, partition->partitionId);
      blobs += partition->mBlobs.size();
    }
    EXPECT_EQ(info->mPartitions.size(), 7U);
    EXPECT_EQ(blobs, 800U);
    EXPECT_EQ(ShuffleBlob::GLOBAL_COUNT - before, 800);
  }
  EXPECT_EQ(ShuffleBlob::GLOBAL_COUNT, before);
}

TEST(ShuffleBlob, TheLastOneOfAServiceProcessTrimsTheHeap) {
  ASSERT_EQ(ShuffleBlob::GLOBAL_COUNT, 0);
  ASSERT_TRUE(ShuffleBlob::mIsSdk);
  delete new ShuffleBlob;
  EXPECT_EQ(gTrims, 0);  // a process of the SDK never does
  ShuffleBlob::mIsSdk = false;
  {
    Ref<ShuffleBlob> one(new ShuffleBlob);
    {
      Ref<ShuffleBlob> other(new ShuffleBlob);
      Ref<ShuffleBlob> again = other;
    }
    EXPECT_EQ(gTrims, 0);
    EXPECT_EQ(ShuffleBlob::GLOBAL_COUNT, 1);
  }
  EXPECT_EQ(gTrims, 1);
  ShuffleBlob::mIsSdk = true;
}

TEST(ShuffleApplication, StartsEmpty) {
  EXPECT_EQ(ApplicationInfo::NULL_APPLICATION, nullptr);
  EXPECT_EQ(ShuffleInfo::NULL_INSTANCE, nullptr);
  EXPECT_EQ(PartitionInfo::NULL_PARTITION_INFO, nullptr);
  EXPECT_EQ(ShuffleBlob::NULL_SHUFFLE_BLOB, nullptr);
  const ShuffleBlob blob;
  EXPECT_EQ(blob.mId, nullptr);
  EXPECT_EQ(blob.mOpaqueSigned, -1);
  EXPECT_EQ(blob.mOpaqueTable.bucket_count(), 1U);
  EXPECT_EQ(blob.mOpaqueTable.max_load_factor(), 1.0F);
}

}  // namespace
}  // namespace vyn::test
