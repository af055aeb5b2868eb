// What every task of an executor does: fetching a variable that is in the cache, and obtaining a block that
// is mapped. The floor of both builds the variable's name and makes two lookups under shared locks. The cost
// must not grow with the number of variables.

#include "common/util/ref.h"
#include "common/util/text.h"
#include "support/ratio.h"
#include "tessel/sdk/start_up/sdk_state.h"
#include "vyn/broadcast.h"

#include <cstdint>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

using vyn::common::GenBcVarName;
using vyn::tessel::BroadcastSdkCache;
using vyn::tessel::g_broadcastCache;

constexpr unsigned int kBlocks = 1000;
constexpr unsigned int kFetchedBlocks = 4;
const std::string kAppId = "application_1699999999999_000123";  // 32 characters

/// Fills the SDK's cache with `count` variables, numbered from 0. Every block of variable 0 is mapped.
void FillTable(std::int64_t count, unsigned int blocksOfFirst) {
  g_broadcastCache = new BroadcastSdkCache;
  for (unsigned int i = 0; i < count; ++i) {
    const std::size_t blocks = i == 0 ? blocksOfFirst : 1;
    g_broadcastCache->InsertVarInfo(GenBcVarName(kAppId, i),
                                    std::vector<std::string>(blocks, std::string(60, 'a')),
                                    std::vector<unsigned long>(blocks, 4096));
  }
  auto& addresses = g_broadcastCache->GetVarInfo(GenBcVarName(kAppId, 0))->mRawAddrs;
  for (std::size_t i = 0; i < addresses.size(); ++i) {
    addresses[i] = (i + 1) * 4096;
  }
}

void CachedObtain(benchmark::State& state) {
  FillTable(state.range(0), kBlocks);
  unsigned int block = 0;
  for (auto _ : state) {
    void* addr = nullptr;
    if (ObtainBroadcastBlockAddr(kAppId.c_str(), 0, block, &addr) != 0 || addr == nullptr) {
      state.SkipWithError("not cached");
      break;
    }
    benchmark::DoNotOptimize(addr);
    block = (block + 1) % kBlocks;
  }
  g_broadcastCache = nullptr;
}

void CachedFetch(benchmark::State& state) {
  FillTable(state.range(0), kFetchedBlocks);
  std::vector<unsigned long> sizes(kFetchedBlocks);
  for (auto _ : state) {
    if (FetchBroadcastBlockBatch(kAppId.c_str(), 0, sizes.data()) != 0 || sizes.back() != 4096) {
      state.SkipWithError("not cached");
      break;
    }
    benchmark::DoNotOptimize(sizes.data());
    benchmark::ClobberMemory();
  }
  g_broadcastCache = nullptr;
}

struct Entry {
  std::shared_mutex lock;
  std::vector<std::uint64_t> addresses;
};

void CachedFloor(benchmark::State& state) {
  std::shared_mutex lock;
  std::unordered_map<std::string, Entry*> table;
  Entry entry;
  entry.addresses.assign(kBlocks, 4096);
  for (unsigned int i = 0; i < state.range(0); ++i) {
    table.emplace(GenBcVarName(kAppId, i), &entry);
  }
  unsigned int block = 0;
  for (auto _ : state) {
    const std::string name = GenBcVarName(kAppId, 0);
    Entry* found = nullptr;
    {
      std::shared_lock guard(lock);
      found = table.find(name)->second;
    }
    std::shared_lock guard(found->lock);
    auto address = found->addresses[block];
    benchmark::DoNotOptimize(address);
    block = (block + 1) % kBlocks;
  }
}

BENCHMARK(CachedObtain)->Arg(1)->Arg(1000)->Arg(100000);
BENCHMARK(CachedFetch)->Arg(1)->Arg(1000)->Arg(100000);
BENCHMARK(CachedFloor)->Arg(1)->Arg(1000)->Arg(100000);

VYN_RATIO_AT_MOST("CachedObtain/1", "CachedFloor/1", 1.5);
VYN_RATIO_AT_MOST("CachedObtain/1000", "CachedFloor/1000", 1.5);
VYN_RATIO_AT_MOST("CachedObtain/100000", "CachedFloor/100000", 1.5);
VYN_RATIO_AT_MOST("CachedFetch/1", "CachedFloor/1", 1.5);
VYN_RATIO_AT_MOST("CachedFetch/1000", "CachedFloor/1000", 1.5);
VYN_RATIO_AT_MOST("CachedFetch/100000", "CachedFloor/100000", 1.5);
// 100 times the variables must cost the same. The smaller cache has 1000 variables and not 1, because the
// container finds a single element without computing a hash.
VYN_RATIO_AT_MOST("CachedObtain/100000", "CachedObtain/1000", 1.2);
VYN_RATIO_AT_MOST("CachedFetch/100000", "CachedFetch/1000", 1.2);

}  // namespace
