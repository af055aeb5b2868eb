// Access to blocks by the exported calls: the table of variables, mapping and release, whole reads and writes.

#include "support/client/scripted_bmclient.h"
#include "support/fake_clock.h"
#include "support/wait_until.h"
#include "tessel/sdk/start_up/sdk_state.h"
#include "vyn/broadcast.h"

#include <shared_mutex>

using testing::ElementsAre;
using vyn::tessel::g_broadcastCache;
using vyn::test::Joined;

namespace {

const std::string kId(60, 'a');
const std::string kSecondId(60, 'b');

/// Variable app_1-42 has two blocks, app_1-43 has none, app_1-44 has ids and sizes that do not fit together.
class BlockAccess : public testing::Test {
 protected:
  BlockAccess() {
    vyn::tessel::g_appToken = "secret";
    g_broadcastCache = new vyn::tessel::BroadcastSdkCache;
    g_broadcastCache->InsertVarInfo("app_1-42", {kId, kSecondId}, {100, 200});
    g_broadcastCache->InsertVarInfo("app_1-43", {}, {});
    g_broadcastCache->InsertVarInfo("app_1-44", {kId, "", kId}, {100, 200});
  }
  ~BlockAccess() override { g_broadcastCache = nullptr; }

  static void* Obtain(unsigned int blockId, unsigned int variable = 42) {
    void* addr = nullptr;
    EXPECT_EQ(ObtainBroadcastBlockAddr("app_1", variable, blockId, &addr), 0U);
    return addr;
  }

  vyn::test::ScriptedBmClient mLibrary;
  vyn::test::BmScript& mScript = mLibrary.script;
  vyn::test::FakeClock mClock;
};

TEST_F(BlockAccess, ABlockIsMappedOnceAndAgainAfterItsRelease) {
  void* first = Obtain(0);
  EXPECT_TRUE(g_broadcastCache->InsertVarInfo("app_1-42", {kSecondId}, {1})) << "the first entry stays";
  EXPECT_EQ(Obtain(0), first);
  EXPECT_NE(Obtain(1), first);
  const std::string access = "|app_1|secret|3|1|";
  EXPECT_THAT(mScript.Calls("BM_MapSec"), ElementsAre(kId + access, kSecondId + access));

  void* other = &mLibrary;  // the caller's address goes to the library, not the table's
  mScript.Expect("BM_Unmap", {-1, 0});
  EXPECT_EQ(ReleaseBroadcastBlockAddr("app_1", 42, 0, other), 2080007U);
  EXPECT_EQ(Obtain(0), first) << "a failed release leaves the table as it is";
  EXPECT_EQ(ReleaseBroadcastBlockAddr("app_1", 42, 0, other), 0U);
  EXPECT_EQ(ReleaseBroadcastBlockAddr("app_1", 42, 0, other), 0U) << "there is nothing to release";
  EXPECT_THAT(mScript.Calls("BM_Unmap"), ElementsAre(Joined(kId, other), Joined(kId, other)));

  mScript.Expect("BM_MapSec", {-13});
  void* addr = this;
  EXPECT_EQ(ObtainBroadcastBlockAddr("app_1", 42, 0, &addr), 2080007U);
  EXPECT_EQ(addr, nullptr);
  EXPECT_NE(Obtain(0), first);
}

TEST_F(BlockAccess, AccessToAnUnknownVariableOrBlockIsRefused) {
  char buffer[200];
  struct Row {
    unsigned int variable;
    unsigned int block;
    std::vector<std::uint32_t> statuses;  ///< obtain, release, read
  };
  for (const Row& row : std::vector<Row>{{7, 0, {2120013, 0, 1}},
                                         {42, 2, {2120001, 2120001, 1}},
                                         {43, 0, {2120001, 2120001, 1}},
                                         {42, ~0U, {2120001, 2120001, 1}}}) {
    void* addr = this;
    EXPECT_THAT((std::vector{ObtainBroadcastBlockAddr("app_1", row.variable, row.block, &addr),
                             ReleaseBroadcastBlockAddr("app_1", row.variable, row.block, this),
                             ReadRemoteBlock("app_1", row.variable, row.block, buffer, "")}),
                row.statuses);
    EXPECT_EQ(addr, nullptr) << "an address that cannot be had is cleared";
  }
  EXPECT_EQ(ReadRemoteBlock("app_1", 44, 1, buffer, ""), 1U) << "a block without an id";
  EXPECT_EQ(ReadRemoteBlock("app_1", 44, 2, buffer, ""), 1U) << "a block without a size";
  EXPECT_EQ(WriteRemoteBlock("app_1", nullptr, buffer, 1, ""), 2120007U);
  EXPECT_EQ(ObtainBroadcastBlockAddr("app_1", 42, 0, nullptr), 2000057U);
  EXPECT_EQ(ReleaseBroadcastBlockAddr("app_1", 42, 0, nullptr), 2120001U);
  EXPECT_TRUE(mScript.Untouched());
}

TEST_F(BlockAccess, ConcurrentReadersOfABlockShareOneMapping) {
  // All have looked and found no address before the first one can map: this reader keeps them from the lock
  // for writing.
  const auto info = g_broadcastCache->GetVarInfo("app_1-42");
  std::shared_lock reader(info->mBlockLock);
  std::vector<std::future<void*>> threads;
  std::vector<std::atomic<pid_t>> ids(16);
  for (auto& id : ids) {
    threads.push_back(std::async(std::launch::async, [&id] {
      id = ::gettid();
      return Obtain(1);
    }));
  }
  const auto waits = [](pid_t id) {
    std::string call;  // the system call that it sleeps in, by number
    std::ifstream("/proc/self/task/" + std::to_string(id) + "/syscall") >> call;
    return call == std::to_string(SYS_futex);
  };
  for (const auto& id : ids) {
    EXPECT_TRUE(vyn::test::WaitUntil([&] { return id != 0 && waits(id); }));
  }
  reader.unlock();
  std::set<void*> addresses;
  for (auto& thread : threads) {
    addresses.insert(thread.get());
  }
  EXPECT_EQ(addresses.size(), 1U);
  EXPECT_EQ(mScript.Calls("BM_MapSec").size(), 1U);
}

TEST_F(BlockAccess, ASlowMappingBlocksItsOwnVariableOnly) {
  g_broadcastCache->InsertVarInfo("app_1-50", {kId}, {100});
  // The first variable's lock is held in the library's call, and the variable may even leave the table.
  mScript.Expect("BM_MapSec", {{0, [&] {
                                  std::thread([&] {
                                    EXPECT_NE(Obtain(0, 50), nullptr);
                                    g_broadcastCache->RemoveVarInfo("app_1-42");
                                  }).join();
                                }}});
  EXPECT_NE(Obtain(0), nullptr);
}

}  // namespace
