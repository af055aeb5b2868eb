#include "tessel/sdk/broadcast/broadcast_sdk_cache.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>

namespace vyn::tessel {
namespace {

using common::Ref;
using Ids = std::vector<std::string>;
using Sizes = std::vector<unsigned long>;

TEST(BroadcastSdkCacheTest, KeepsTheFirstEntryOfAName) {
  Ref<BroadcastSdkCache> cache(new BroadcastSdkCache);
  EXPECT_TRUE(cache->GetVarInfo("app-1") == nullptr);
  cache->RemoveVarInfo("app-1");
  cache->CleanTable();

  EXPECT_TRUE(cache->InsertVarInfo("app-1", {"id0", "id1", "id2"}, {10, 20}));
  auto first = cache->GetVarInfo("app-1");
  EXPECT_EQ(first->mBmIds, (Ids{"id0", "id1", "id2"}));
  EXPECT_EQ(first->mBlockSizes, (Sizes{10, 20}));
  EXPECT_EQ(first->mRawAddrs, (std::vector<std::uint64_t>{0, 0, 0}));
  first->mRawAddrs[1] = 4096;
  EXPECT_TRUE(cache->InsertVarInfo("app-1", {"other"}, {1}));
  EXPECT_EQ(cache->GetVarInfo("app-1").Get(), first.Get());
  EXPECT_EQ(first->mRawAddrs[1], 4096U);

  cache->RemoveVarInfo("app-1");
  EXPECT_TRUE(cache->GetVarInfo("app-1") == nullptr);
  EXPECT_EQ(first->RefCount(), 1);
  EXPECT_EQ(first->mBmIds[2], "id2");

  EXPECT_TRUE(cache->InsertVarInfo("app-2", {}, {}));
  EXPECT_TRUE(cache->GetVarInfo("app-2")->mRawAddrs.empty());
}

TEST(BroadcastSdkCacheTest, RemovesByTheBeginningOfTheName) {
  BroadcastSdkCache cache;
  for (const char* name : {"a1-1", "a1-2", "a12-7", "b1-3", "xa1-1", "a-1"}) {
    cache.InsertVarInfo(name, {"id"}, {1});
  }
  cache.RemoveAppInfo("a1");
  std::string left;
  for (const char* name : {"a1-1", "a1-2", "a12-7", "b1-3", "xa1-1", "a-1"}) {
    left += cache.GetVarInfo(name) != nullptr ? std::string(name) + " " : "";
  }
  EXPECT_EQ(left, "b1-3 xa1-1 a-1 ");
  cache.CleanTable();
  EXPECT_TRUE(cache.GetVarInfo("b1-3") == nullptr);
}

// Readers hold what they found across removals; the thread and address sanitizers watch.
TEST(BroadcastSdkCacheTest, ReadersAndWritersAtOnce) {
  BroadcastSdkCache cache;
  constexpr int kReaders = 3;
  std::atomic<int> reading{kReaders};
  std::vector<std::thread> readers;
  for (int i = 0; i < kReaders; ++i) {
    readers.emplace_back([&] {
      for (int round = 0; round < 2000; ++round) {
        if (auto info = cache.GetVarInfo("app-1"); info != nullptr) {
          std::unique_lock lock(info->mBlockLock);
          ++info->mRawAddrs[0];
        }
      }
      --reading;
    });
  }
  for (int i = 0; reading > 0; ++i) {
    EXPECT_TRUE(cache.InsertVarInfo("app-1", {"id"}, {1}));
    i % 2 == 0 ? cache.RemoveAppInfo("app") : cache.CleanTable();
  }
  for (auto& reader : readers) {
    reader.join();
  }
  EXPECT_TRUE(cache.GetVarInfo("app-1") == nullptr);
}

}  // namespace
}  // namespace vyn::tessel
