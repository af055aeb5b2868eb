// What the exported functions do when one object cannot be allocated: status, words, and what is taken back.

#include "support/captured_log.h"
#include "support/sdk_world.h"
#include "tessel/sdk/broadcast/base_api_broadcast.h"
#include "tessel/sdk/start_up/sdk_state.h"
#include "vyn/big_memory.h"
#include "vyn/status.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <memory>
#include <new>
#include <thread>

namespace {

/// The next allocation of this size by the form without exceptions fails in this thread. 0: none.
thread_local std::size_t gRefusedSize = 0;
/// So many allocations of the throwing form go well in this thread before one fails. Negative: all do.
thread_local int gGoWell = -1;

void* Allocate(std::size_t size) { return std::malloc(size == 0 ? 1 : size); }

}  // namespace

[[gnu::noinline]] void* operator new(std::size_t size) {
  const bool fails = gGoWell == 0;
  gGoWell = gGoWell < 0 ? gGoWell : gGoWell - 1;
  void* memory = fails ? nullptr : Allocate(size);
  return memory != nullptr ? memory : throw std::bad_alloc();
}
[[gnu::noinline]] void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  if (size == gRefusedSize && size != 0) {
    gRefusedSize = 0;
    return nullptr;
  }
  return Allocate(size);
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace vyn::test {
namespace {

using namespace tessel;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr unsigned long kSizes[] = {100, 50};

/// A driver on a node of the fabric that is ready and registered.
class OutOfMemoryTest : public testing::Test {
 protected:
  OutOfMemoryTest() {
    mWorld.WriteConf(mGround.url);
    EXPECT_EQ(mWorld.Initialize(0), 0U);
    bool registered = false;
    EXPECT_EQ(RegisterBroadcastApp("app", true, "tok", &registered), 0U);
    for (const auto opcode :
         {ShuffleServer::BROADCAST_BLOCK_BATCH_CREATE, ShuffleServer::BROADCAST_BLOCK_BATCH_FETCH}) {
      mWorld.server.Answer(opcode, {0, SdkWorld::Blocks("app", 7, 9)});
    }
    mWorld.server.Clear();
    mWorld.meta.Clear();
    mLog = std::make_unique<CapturedLog>();
  }
  std::uint32_t CreateRemote() {
    return CreateBroadcastBlockBatchRemote("app", "tok", 7, kSizes, 2, "10.9.8.7:3899", "host", 3, mIds);
  }
  /// Makes `call` on a thread without a record, where an object of `size` bytes cannot be had.
  static std::uint32_t Run(std::size_t size, const std::function<std::uint32_t()>& call,
                           std::string& record) {
    std::uint32_t status = 0;
    std::thread([&] {
      gRefusedSize = size;
      status = call();
      EXPECT_EQ(gRefusedSize, 0U) << "nothing of this size was wanted";
      gRefusedSize = 0;
      const char* text = BroadcastGetLastErrorMessage();
      record = text == nullptr ? "none" : text;
    }).join();
    return status;
  }

  DriverGround mGround;
  SdkWorld mWorld;
  std::unique_ptr<CapturedLog> mLog;
  std::vector<std::string> mIds{"kept"};
};

TEST_F(OutOfMemoryTest, AMissingMessageEndsTheCallWithoutARecord) {
  std::vector<std::string> texts;
  std::vector<unsigned short> nodeIds;
  unsigned long sizes[2];
  bool registered = false;
  const auto create = [] { return CreateBroadcastVar("app", 7, 2); };
  const auto remove = [] { return DeleteBroadcastVar("app", 8); };
  const auto blocks = [] { return CreateBroadcastBlockBatch("app", 7, kSizes, 2); };
  const auto fetch = [&] { return FetchBroadcastBlockBatch("app", 7, sizes); };
  const auto nodes = [&] { return GetRemoteNodeInfo("app", texts, texts, nodeIds, texts, true); };
  const auto enter = [&] { return RegisterBroadcastApp("new", true, "t", &registered); };
  struct Row {
    std::size_t size;
    std::function<std::uint32_t()> call;
    const char* variable;
  };
  g_broadcastCache->InsertVarInfo("app-8", {"id"}, {1});
  for (const Row& row : std::vector<Row>{{sizeof(BroadcastVar), create, "bcVar"},
                                         {sizeof(BroadcastVar), remove, "request"},
                                         {sizeof(BroadcastBlockBatch), blocks, "request"},
                                         {sizeof(BroadcastBlockInfo), blocks, "blockInfos"},
                                         {sizeof(BroadcastVar), fetch, "request"},
                                         {sizeof(BroadcastBlockInfo), fetch, "blockInfos"},
                                         {sizeof(BroadcastRemoteNodeReq), nodes, "request"},
                                         {sizeof(BroadcastRemoteNodeRsp), nodes, "response"},
                                         {sizeof(NodeIdResponse), enter, "response"},
                                         {sizeof(BroadcastRemoteNodeReq), &CheckMfNode, "request"},
                                         {sizeof(NodeIdResponse), &CheckMfNode, "response"}}) {
    mLog->Clear();
    std::string record;
    EXPECT_EQ(Run(row.size, row.call, record), 2000057U) << row.variable;
    EXPECT_EQ(record, "none");
    EXPECT_THAT(mLog->Texts(4), ElementsAre(std::string("Unexpected nullptr value ") + row.variable));
  }
  EXPECT_THAT(mWorld.server.Requests(), IsEmpty());
  EXPECT_THAT(mWorld.meta.Requests(), IsEmpty());
  EXPECT_TRUE(g_broadcastCache->GetVarInfo("app-8") == nullptr) << "the entry goes first";
}

TEST_F(OutOfMemoryTest, WhatTheTableCannotTakeIsAFailureWithStatusOne) {
  auto& script = mWorld.bm.script;
  unsigned long sizes[2] = {0, 0};
  std::string order;
  // One allocation after the other fails, until it is that of the entry.
  const auto run = [&](const std::function<std::uint32_t()>& call) {
    bool refused = false;
    for (int good = 0; !refused && good < 500; ++good) {
      script.Clear();
      order.clear();
      script.Expect("BM_BatchFreeSec", {{0, 0, [&] { order += "free "; }}});
      script.Expect("BM_DestroyNSSec", {{0, 0, [&] { order += "destroy "; }}});
      mWorld.meta.Clear();
      mLog->Clear();
      mIds = {"kept"};
      g_broadcastCache->CleanTable();
      gGoWell = good;
      const std::uint32_t status = call();
      gGoWell = -1;
      refused = mLog->Has(4, "New BroadcastVarInfoPtr failed, return null");
      EXPECT_TRUE(!refused || status == 1) << status;
    }
    EXPECT_TRUE(refused);
    EXPECT_THAT(mLog->Texts(4),
                ElementsAre("New BroadcastVarInfoPtr failed, return null", "Failed to generate var info.",
                            "Failed to insert block infos for app-7"));
    EXPECT_STREQ(BroadcastGetLastErrorMessage(), "Failed to insert block infos for app-7");
    EXPECT_TRUE(g_broadcastCache->GetVarInfo("app-7") == nullptr);
    EXPECT_THAT(mWorld.meta.Requests(), IsEmpty());
  };
  run([] { return CreateBroadcastBlockBatch("app", 7, kSizes, 2); });
  run([&] { return FetchBroadcastBlockBatch("app", 7, sizes); });
  EXPECT_THAT(sizes, ElementsAre(100, 50)) << "filled already";
  EXPECT_THAT(script.Calls("BM_BatchFreeSec"), IsEmpty()) << "the blocks stay at the server";

  // The remote form takes back what it made: first the blocks, then the namespace.
  run([this] { return CreateRemote(); });
  EXPECT_EQ(order, "free destroy ");
  EXPECT_THAT(script.Calls("BM_BatchFreeSec"), Contains(testing::EndsWith("|2|16|app|tok")));
  EXPECT_THAT(script.Calls("BM_DestroyNSSec"), ElementsAre(Joined(3, "", "app", "tok")));
  EXPECT_THAT(mIds, ElementsAre("kept"));
}

TEST_F(OutOfMemoryTest, ARecordThatCannotBeMadeTakesTheBlocksBackAndLeavesTheEntry) {
  auto& script = mWorld.bm.script;
  std::string order;
  script.Expect("BM_BatchFreeSec", {{-5, 0, [&] { order += "free "; }}});  // nobody looks at these results
  script.Expect("BM_DestroyNSSec", {{-5, 0, [&] { order += "destroy "; }}});
  std::string record;
  const auto create = [this] { return CreateRemote(); };
  EXPECT_EQ(Run(sizeof(BroadcastBlockInfo), create, record), 1U);
  EXPECT_EQ(record, "Failed to generate block for app-7");
  EXPECT_TRUE(mLog->Has(4, "New BroadcastBlockInfoPtr failed, Block info is null"));
  EXPECT_EQ(order, "free destroy ");
  EXPECT_FALSE(g_broadcastCache->GetVarInfo("app-7") == nullptr);
  EXPECT_THAT(mIds, ElementsAre("kept"));
  EXPECT_THAT(mWorld.meta.Requests(), IsEmpty());
}

TEST_F(OutOfMemoryTest, AStartWithoutATableFreesTheClaim) {
  BroadcastUninitialize();
  gRefusedSize = sizeof(BroadcastSdkCache);
  testing::internal::CaptureStderr();
  EXPECT_EQ(mWorld.Initialize(0), 2000057U);
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              testing::HasSubstr("Unexpected nullptr value g_broadcastCache"));
  EXPECT_EQ(gRefusedSize, 0U);
  EXPECT_EQ(g_initClaim.load(), 0);
  gRefusedSize = sizeof(ShuffleMetaRPCEngine);
  testing::internal::CaptureStderr();
  EXPECT_EQ(mWorld.Initialize(0), 2000057U);
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              testing::HasSubstr("Unexpected nullptr value g_ShuffleMetaRPCEngine"));
  EXPECT_EQ(gRefusedSize, 0U);
  EXPECT_EQ(g_initClaim.load(), 0);
  EXPECT_EQ(mWorld.Initialize(0), 0U);
}

TEST_F(OutOfMemoryTest, AnExceptionInAStartFreesTheClaim) {
  BroadcastUninitialize();
  int failed = 0;
  for (int good = 0; good < 30; ++good) {
    gGoWell = good;
    const std::uint32_t status = mWorld.Initialize(0);
    gGoWell = -1;
    failed += status == 2000057 ? 1 : 0;
    EXPECT_EQ(g_initClaim.load(), Failed(status) ? 0 : 1) << good;
    BroadcastUninitialize();
  }
  EXPECT_GT(failed, 2);
  EXPECT_EQ(mWorld.Initialize(0), 0U);
}

TEST_F(OutOfMemoryTest, NoExceptionLeavesAnExportedFunction) {
  std::vector<std::string> texts;
  std::vector<unsigned short> nodeIds;
  unsigned long sizes[2];
  char data[8] = {};
  void* address = nullptr;
  bool registered = false;
  unsigned int nodeId = 0;
  const std::string id(60, 'a');
  const std::function<std::uint32_t()> calls[] = {
      [&] {
        return RegisterBroadcastApp("new", true, "a token that is too long for a short text", &registered);
      },
      [] { return UnRegisterBroadcastApp("new"); },
      [] { return MarkBroadcastApplicationCompleted("new"); },
      [&] { return GetRemoteNodeInfo("app", texts, texts, nodeIds, texts, true); },
      [] { return CreateBroadcastVar("app", 7, 2); },
      [] { return CreateBroadcastBlockBatch("app", 7, kSizes, 2); },
      [&] { return FetchBroadcastBlockBatch("app", 9, sizes); },
      [&] { return ObtainBroadcastBlockAddr("app", 7, 0, &address); },
      [&] { return ReleaseBroadcastBlockAddr("app", 7, 0, data); },
      [&] { return ReadRemoteBlock("app", 7, 0, data, "tok"); },
      [&] { return WriteRemoteBlock("app", id.c_str(), data, 8, "tok"); },
      [] { return DeleteBroadcastVar("app", 7); },
      [] { return HeartBeat("app", 2, "a process with a name that is long", "", true); },
      [] { return HeartBeat("app", 2, "a process with a name that is long", "", false); },
      [] { return BmCreateLink(1, "host", "10.0.0.1", 1, 0); },
      [] { return BmCreateNamespace(1, "", "app", 0, "tok"); },
      [&] { return BmCopy(id.c_str(), 0, id.c_str(), 0, 1, "app", "tok"); },
      [&] { return BmQueryNodeId(&nodeId); },
  };
  int failed = 0;
  for (const auto& call : calls) {
    int good = 0;
    for (bool reached = true; reached && good < 500; ++good) {
      gGoWell = good;
      const std::uint32_t status = call();  // an exception would end the test
      reached = gGoWell < 0;                // the allocation that fails was wanted
      gGoWell = -1;
      failed += status == 2000057 ? 1 : 0;
    }
  }
  EXPECT_GT(failed, 20);
}

TEST_F(OutOfMemoryTest, ARemoteCreationWithoutMemoryTakesBackWhatItHasMade) {
  auto& script = mWorld.bm.script;
  int takenBack = 0;
  for (int good = 0; good < 200; ++good) {
    script.Clear();
    mWorld.meta.Clear();
    gGoWell = good;
    const std::uint32_t status = CreateRemote();
    gGoWell = -1;
    const bool told = !mWorld.meta.Requests().empty();
    const std::size_t made = script.Calls("BM_CreateNSSec").size();
    const bool refused = status == 2120023;  // the namespace was not made
    if (Failed(status) && made != 0 && !refused && !told && mIds.size() == 1) {
      EXPECT_EQ(script.Calls("BM_DestroyNSSec").size(), 1U) << good << " " << status;
      ++takenBack;
    }
    mIds = {"kept"};
    g_broadcastCache->CleanTable();
  }
  EXPECT_GT(takenBack, 3);
}

}  // namespace
}  // namespace vyn::test
