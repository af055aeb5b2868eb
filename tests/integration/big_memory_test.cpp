// The wrappers and the access to blocks on the real fabric: nodes as processes of their own, other processes
// beside this one.

#include "vyn/big_memory.h"

#include "common/log/error_info.h"
#include "common/util/clock.h"
#include "support/block_contents.h"
#include "support/captured_log.h"
#include "support/fabric.h"
#include "support/installation.h"
#include "tessel/sdk/start_up/sdk_state.h"
#include "vyn/broadcast.h"
#include "vyn/status.h"

#include <dlfcn.h>
#include <gmock/gmock.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using vyn::test::ChildProcess;
using vyn::test::Contents;
using vyn::test::FabricHost;
using vyn::test::FabricPlace;
using vyn::test::Installation;
using vyn::test::Sum;

namespace {

constexpr const char* kApp = "app_1";
constexpr const char* kToken = "the_secret_of_app_1";
constexpr unsigned long kSize = (4UL << 20U) + 100;  // not whole pages

/// A sleep runs `during` instead.
class EventfulClock : public vyn::common::Clock {
 public:
  explicit EventfulClock(std::function<void()> during) : mDuring(std::move(during)) {
    vyn::common::Clock::Replace(this);
  }
  ~EventfulClock() override { vyn::common::Clock::Replace(nullptr); }
  void SleepFor(std::chrono::nanoseconds) override { mDuring(); }

 private:
  std::function<void()> mDuring;
};

/// Node 1 runs; the libbmclient.so of the build stands in the installation.
class BigMemory : public testing::Test {
 protected:
  BigMemory() {
    Installation::Get().LinkBmClient();
    vyn::tessel::g_appToken = kToken;
    vyn::tessel::g_broadcastCache = new vyn::tessel::BroadcastSdkCache;
  }
  ~BigMemory() override {
    BmUninitialize();
    vyn::tessel::g_broadcastCache = nullptr;
  }

  static std::string Allocate(unsigned short node, unsigned long size) {
    char id[64] = {};
    EXPECT_EQ(BmAlloc(kApp, size, 16, node, id, kToken), 0U) << BmGetLastErrorMessage();
    return id;
  }
  void StartOnNode() {
    ASSERT_EQ(BmInitialize(mPlace.Home().c_str(), 0), 0U);
    ASSERT_EQ(BmCreateNamespace(1, "", kApp, 0, kToken), 0U) << BmGetLastErrorMessage();
  }
  void StartOutside(std::uint16_t port) {
    ASSERT_EQ(BmInitialize("", 1), 0U);
    ASSERT_EQ(BmCreateLink(1, "host", "127.0.0.1", port, 0), 0U) << BmGetLastErrorMessage();
    ASSERT_EQ(BmCreateNamespace(1, "", kApp, 0, kToken), 0U) << BmGetLastErrorMessage();
  }
  /// What another process of the place's machine finds in a block.
  static std::string Other(const FabricPlace& place, const std::string& token, const std::string& id) {
    ChildProcess process(
        {VYN_TEST_PROGRAM_DIR "/block_reader", place.Home(), kApp, token, id, std::to_string(kSize)});
    const std::string line = process.Receive();
    EXPECT_EQ(process.Wait(), 0);
    return line;
  }
  static std::string Found(const std::vector<unsigned char>& bytes) {
    return "0 " + std::to_string(Sum(bytes.data(), bytes.size()));
  }

  FabricPlace mPlace{1};
};

TEST_F(BigMemory, WhatOneProcessWritesThroughItsMappingOthersReadThroughTheirs) {
  FabricHost host(mPlace);
  FabricPlace otherPlace(2);
  FabricHost otherHost(otherPlace);
  otherHost.Knows(1, host.Port());
  StartOnNode();
  unsigned int node = 0;
  EXPECT_EQ(BmQueryNodeId(&node), 0U);
  EXPECT_EQ(node, 1U);

  const std::vector<std::string> ids{Allocate(1, kSize), Allocate(1, kSize)};
  ASSERT_TRUE(vyn::tessel::g_broadcastCache->InsertVarInfo("app_1-1", ids, {kSize, kSize}));
  for (unsigned int block = 0; block < ids.size(); ++block) {
    void* address = nullptr;
    ASSERT_EQ(ObtainBroadcastBlockAddr(kApp, 1, block, &address), 0U) << BmGetLastErrorMessage();
    const auto bytes = Contents(kSize, block);
    std::memcpy(address, bytes.data(), kSize);
    EXPECT_EQ(Other(mPlace, kToken, ids[block]), Found(bytes));
    EXPECT_EQ(Other(otherPlace, kToken, ids[block]), Found(bytes));  // a copy that its node has pulled
    void* again = nullptr;
    EXPECT_EQ(ObtainBroadcastBlockAddr(kApp, 1, block, &again), 0U);
    EXPECT_EQ(again, address);
    EXPECT_EQ(ReleaseBroadcastBlockAddr(kApp, 1, block, address), 0U);
  }
  const std::string refused =
      "2080007 Failed to obtain the raw address of block 0 for broadcast variable app_1-1 as "
      "Failed to map bm id: " +
      ids[0] + " with prot: 3 flags: 1 ret is: -13";
  EXPECT_EQ(Other(mPlace, "another token", ids[0]), refused);

  const char* both[] = {ids[0].c_str(), ids[1].c_str()};
  EXPECT_EQ(BmBatchFree(both, 2, 16, kApp, kToken), 0U);
  EXPECT_EQ(host.Stats().at(1), 0U);  // bytes used
  void* address = this;
  EXPECT_EQ(ObtainBroadcastBlockAddr(kApp, 1, 0, &address), 2080007U);
  EXPECT_EQ(address, nullptr);
  EXPECT_THAT(BmGetLastErrorMessage(), HasSubstr(" ret is: -2"));
}

TEST_F(BigMemory, FromOutsideTheFabricBlocksAreCopiedOverALink) {
  FabricHost host(mPlace);
  StartOutside(host.Port());
  const std::string id = Allocate(1, kSize);
  const auto bytes = Contents(kSize, 7);
  ASSERT_EQ(WriteRemoteBlock(kApp, id.c_str(), bytes.data(), kSize, kToken), 0U) << BmGetLastErrorMessage();
  EXPECT_EQ(Other(mPlace, kToken, id), Found(bytes));
  vyn::tessel::g_broadcastCache->InsertVarInfo("app_1-1", {id}, {kSize});
  std::vector<unsigned char> read(kSize);
  ASSERT_EQ(ReadRemoteBlock(kApp, 1, 0, read.data(), kToken), 0U) << BmGetLastErrorMessage();
  EXPECT_TRUE(read == bytes);
  EXPECT_EQ(WriteRemoteBlock(kApp, id.c_str(), bytes.data(), 0, kToken), 0U);

  EXPECT_EQ(ReadRemoteBlock(kApp, 1, 0, read.data(), ""), 2120007U);  // not the token
  EXPECT_THAT(BmGetLastErrorMessage(), HasSubstr(" mf return local error: 0 ret is: -13"));
  // One byte too many, and an offset that overflows.
  for (const auto& [offset, length] : {std::pair{1UL, kSize}, std::pair{~0UL, 2UL}}) {
    read.resize(length);
    EXPECT_EQ(BmRead(id.c_str(), offset, length, read.data(), 0, kApp, kToken), 2080021U);
    EXPECT_THAT(BmGetLastErrorMessage(), HasSubstr(" mf return local error: 1 ret is: -193"));
  }
}

TEST_F(BigMemory, AFullPoolIsAStatusOfItsOwn) {
  FabricHost host(mPlace, {"--capacity", "1048576"});
  StartOnNode();
  vyn::common::VynSetErrorInfo(nullptr);
  char id[64] = {};
  EXPECT_EQ(BmAlloc(kApp, (1U << 20U) + 1, 16, 1, id, kToken), 2100041U);
  EXPECT_EQ(BmGetLastErrorMessage(), nullptr);
  const std::string whole = Allocate(1, 1U << 20U);
  EXPECT_EQ(BmAlloc(kApp, 1, 16, 1, id, kToken), 2100041U);
  EXPECT_EQ(BmFree(whole.c_str(), 16, kApp, kToken), 0U);
  EXPECT_EQ(BmAlloc(kApp, 1, 16, 1, id, kToken), 0U);
}

TEST_F(BigMemory, ANodeThatComesBackDuringTheRetriesIsFound) {
  auto host = std::make_unique<FabricHost>(mPlace);
  StartOnNode();
  const std::string id = Allocate(1, 4096);
  char bytes[] = "kept";
  ASSERT_EQ(BmWrite(id.c_str(), 0, 5, bytes, 0, kApp, kToken), 0U);
  host->Process().Signal(SIGKILL);
  host.reset();
  char read[5] = {};
  {
    EventfulClock clock([] {});
    vyn::test::CapturedLog log;
    EXPECT_EQ(BmRead(id.c_str(), 0, 5, read, 0, kApp, kToken), 2080021U);
    EXPECT_THAT(BmGetLastErrorMessage(), HasSubstr(" mf return local error: 0 ret is: -195"));
    EXPECT_EQ(log.Texts(3).size(), 3U);
  }
  int sleeps = 0;
  EventfulClock clock([&] {
    if (++sleeps == 2) {
      host = std::make_unique<FabricHost>(mPlace);
    }
  });
  EXPECT_EQ(BmRead(id.c_str(), 0, 5, read, 0, kApp, kToken), 0U) << BmGetLastErrorMessage();
  EXPECT_STREQ(read, "kept");
  EXPECT_EQ(sleeps, 2);
}

TEST_F(BigMemory, ObjectsGrowAreCopiedGatheredAndFilledFromFiles) {
  FabricHost host(mPlace);
  StartOnNode();
  const std::string source = Allocate(1, 4096);
  const std::string destination = Allocate(1, 4096);
  auto bytes = Contents(4096, 3);
  ASSERT_EQ(BmWrite(source.c_str(), 0, 4096, bytes.data(), 0, kApp, kToken), 0U);
  EXPECT_EQ(BmExpand(destination.c_str(), 8192, 0, kApp, kToken), 0U) << BmGetLastErrorMessage();
  EXPECT_EQ(BmCopy(source.c_str(), 96, destination.c_str(), 4192, 4000, kApp, kToken), 0U)
      << BmGetLastErrorMessage();
  std::vector<unsigned char> read(8192);
  ASSERT_EQ(BmRead(destination.c_str(), 0, 8192, read.data(), 0, kApp, kToken), 0U);
  EXPECT_EQ(std::memcmp(read.data() + 4192, bytes.data() + 96, 4000), 0);
  EXPECT_EQ(BmCopy(source.c_str(), 97, destination.c_str(), 0, 4000, kApp, kToken),
            2080021U);  // beyond its end

  BmGatherPiece pieces[2] = {};
  for (auto& piece : pieces) {
    std::memcpy(piece.bmId, source.c_str(), source.size());
  }
  pieces[0].offset = 4000;
  pieces[0].length = 96;
  pieces[1].length = 10;
  const std::unique_ptr<BmGatherContext, decltype(&std::free)> context(
      GenerateBmGatherContext(kBmGatherPieces, pieces, sizeof(pieces)), &std::free);
  char gathered[64] = {};
  ASSERT_EQ(BmGather(context.get(), 0, false, gathered, kApp, kToken, nullptr), 0U)
      << BmGetLastErrorMessage();
  ASSERT_EQ(BmRead(gathered, 0, 106, read.data(), 0, kApp, kToken), 0U) << BmGetLastErrorMessage();
  EXPECT_EQ(std::memcmp(read.data(), bytes.data() + 4000, 96), 0);
  EXPECT_EQ(std::memcmp(read.data() + 96, bytes.data(), 10), 0);

  const std::string path = Installation::Get().Write("spill", "0123456789");
  const BmFileRecord file{1, 0, path.c_str(), "r", 2, 5};
  const BmBlockRecord block{source.c_str(), kApp, kToken};
  ASSERT_EQ(BmSpecificObjectSwapIn(&file, &block, 0, nullptr, 4096), 0U) << BmGetLastErrorMessage();
  ASSERT_EQ(BmRead(source.c_str(), 0, 5, read.data(), 0, kApp, kToken), 0U);
  EXPECT_EQ(std::memcmp(read.data(), "23456", 5), 0);
  const BmFileRecord absent{1, 0, "/nowhere", "r", 0, 5};
  EXPECT_EQ(BmSpecificObjectSwapIn(&absent, &block, 0, nullptr, 4096), 2080021U);
  EXPECT_EQ(BmDestroyNamespace(1, "", kApp, kToken), 0U);
  EXPECT_EQ(host.Stats().at(1), 0U);
}

TEST_F(BigMemory, TheLibraryLeavesAndComesBack) {
  FabricHost host(mPlace);
  StartOnNode();
  const std::string id = Allocate(1, 4096);
  EXPECT_EQ(BmUninitialize(), 0U);
  EXPECT_EQ(dlopen(VYN_STAGE_DIR "/lib/mf/libbmclient.so", RTLD_NOW | RTLD_NOLOAD), nullptr);
  EXPECT_EQ(BmFree(id.c_str(), 16, kApp, kToken), 0U);
}

}  // namespace
