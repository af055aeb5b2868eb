// Access to blocks by the exported calls: the table of variables, mapping and release, whole reads and writes.

#include "support/captured_log.h"
#include "support/fake_clock.h"
#include "support/scripted_bmclient.h"
#include "support/test.h"
#include "support/wait_until.h"
#include "tessel/sdk/start_up/sdk_state.h"
#include "vyn/big_memory.h"
#include "vyn/broadcast.h"

#include <shared_mutex>

using testing::ElementsAre;
using testing::SizeIs;
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

  static void* Obtain(unsigned int blockId) {
    void* addr = nullptr;
    EXPECT_EQ(ObtainBroadcastBlockAddr("app_1", 42, blockId, &addr), 0U);
    return addr;
  }

  vyn::test::ScriptedBmClient mLibrary;
  vyn::test::FakeClock mClock;
  vyn::test::CapturedLog mLog;
};

TEST_F(BlockAccess, MapsABlockOnceAndAnewAfterItsRelease) {
  void* first = Obtain(0);
  EXPECT_TRUE(g_broadcastCache->InsertVarInfo("app_1-42", {kSecondId}, {1})) << "the first entry stays";
  EXPECT_EQ(Obtain(0), first);
  EXPECT_NE(Obtain(1), first);
  const std::string access = "|app_1|secret|3|1";
  EXPECT_THAT(mLibrary.script.Calls("BM_MapSec"), ElementsAre(kId + access, kSecondId + access));

  void* other = &mLibrary;  // the caller's address goes to the library, not the table's
  mLibrary.script.ExpectResults("BM_Unmap", {-1, 0});
  EXPECT_EQ(ReleaseBroadcastBlockAddr("app_1", 42, 0, other), 2080007U);
  EXPECT_EQ(Obtain(0), first) << "a failed release leaves the table as it is";
  for (const char* app :
       {"app_1", "app_1", "app_2"}) {  // then there is nothing to release, and no such variable
    EXPECT_EQ(ReleaseBroadcastBlockAddr(app, 42, 0, other), 0U);
  }
  EXPECT_THAT(mLibrary.script.Calls("BM_Unmap"), ElementsAre(Joined(kId, other), Joined(kId, other)));

  mLibrary.script.ExpectResults("BM_MapSec", {-13});
  void* addr = this;
  EXPECT_EQ(ObtainBroadcastBlockAddr("app_1", 42, 0, &addr), 2080007U);
  EXPECT_EQ(addr, nullptr);
  EXPECT_THAT(BroadcastGetLastErrorMessage(), testing::HasSubstr("-13"));
  EXPECT_NE(Obtain(0), first);
}

TEST_F(BlockAccess, RefusesWhatItDoesNotKnow) {
  char buffer[200];
  struct Row {
    const char* app;
    unsigned int variable;
    unsigned int block;
    std::uint32_t obtain;
    std::uint32_t release;
    std::uint32_t read;
  };
  for (const Row& row : std::vector<Row>{{"app_1", 7, 0, 2120013, 0, 1},
                                         {"app_1", 42, 2, 2120001, 2120001, 1},
                                         {"app_1", 43, 0, 2120001, 2120001, 1},
                                         {"app_1", 42, ~0U, 2120001, 2120001, 1},
                                         {"app_1", 44, 3, 2120001, 2120001, 1},
                                         {"", 42, 0, 2120001, 2120001, 2120001},
                                         {"a.b", 42, 0, 2120001, 2120001, 2120001},
                                         {nullptr, 42, 0, 2120001, 2120001, 2120001}}) {
    SCOPED_TRACE(Joined(row.variable, row.block));
    void* addr = this;
    EXPECT_EQ(ObtainBroadcastBlockAddr(row.app, row.variable, row.block, &addr), row.obtain);
    // An address that cannot be had is cleared once the texts are in order.
    EXPECT_EQ(addr, row.read == 1 ? nullptr : this);
    EXPECT_EQ(ReleaseBroadcastBlockAddr(row.app, row.variable, row.block, this), row.release);
    EXPECT_EQ(ReadRemoteBlock(row.app, row.variable, row.block, buffer, ""), row.read);
  }
  EXPECT_EQ(ReadRemoteBlock("app_1", 44, 1, buffer, ""), 1U) << "a block without an id";
  EXPECT_EQ(ReadRemoteBlock("app_1", 44, 2, buffer, ""), 1U) << "a block without a size";
  EXPECT_EQ(ReadRemoteBlock("app_1", 42, 0, buffer, nullptr), 2120001U);
  EXPECT_EQ(WriteRemoteBlock("", kId.c_str(), buffer, 1, ""), 2120001U);
  EXPECT_EQ(WriteRemoteBlock("app_1", nullptr, buffer, 1, ""), 2120007U);
  EXPECT_EQ(WriteRemoteBlock("app_1", kId.c_str(), buffer, 1, nullptr), 2120007U);
  EXPECT_EQ(ObtainBroadcastBlockAddr("app_1", 42, 0, nullptr), 2000057U);
  EXPECT_EQ(ReleaseBroadcastBlockAddr("app_1", 42, 0, nullptr), 2120001U);

  g_broadcastCache = nullptr;  // as before the initialisation
  void* addr = this;
  EXPECT_EQ(ObtainBroadcastBlockAddr("app_1", 42, 0, &addr), 2000057U);
  EXPECT_EQ(ReleaseBroadcastBlockAddr("app_1", 42, 0, addr), 2000057U);
  EXPECT_EQ(ReadRemoteBlock("app_1", 42, 0, buffer, ""), 2000057U);
  EXPECT_EQ(addr, this);
  EXPECT_EQ(mLibrary.script.CallCount(), 0U);
}

TEST_F(BlockAccess, RemoteReadsAndWritesAreWhole) {
  char buffer[200];
  EXPECT_EQ(ReadRemoteBlock("app_1", 42, 1, buffer, ""), 0U);  // its own token, not that of the registration
  EXPECT_EQ(WriteRemoteBlock("app_2", kId.c_str(), nullptr, 0, "t"), 0U);
  mLibrary.script.ExpectResults("BM_ReadSec", {-191});
  EXPECT_EQ(ReadRemoteBlock("app_1", 42, 0, buffer, ""), 2120007U);
  mLibrary.script.ExpectResults("BM_WriteSec", {-193});
  EXPECT_EQ(WriteRemoteBlock("app_1", kId.c_str(), buffer, 5, ""), 2120007U);
  EXPECT_THAT(mLibrary.script.Calls("BM_ReadSec"),
              ElementsAre(Joined(kSecondId, "app_1", "", 0, 200, static_cast<void*>(buffer), 0),
                          Joined(kId, "app_1", "", 0, 100, static_cast<void*>(buffer), 0)));
  EXPECT_THAT(mLibrary.script.Calls("BM_WriteSec"),
              ElementsAre(Joined(kId, "app_2", "t", 0, 0, static_cast<void*>(nullptr), 0),
                          Joined(kId, "app_1", "", 0, 5, static_cast<void*>(buffer), 0)));
}

TEST_F(BlockAccess, AnApplicationIsForgottenByTheBeginningOfItsName) {
  std::set<std::string> left{"app_1-42", "app_1-43", "app_1-44", "app_12-7", "b1-3", "xapp_1-1", "app-1"};
  for (const std::string& name : left) {
    g_broadcastCache->InsertVarInfo(name, {"id"}, {1});
  }
  g_broadcastCache->RemoveAppInfo("app_1");
  std::erase_if(left, [](const std::string& name) { return g_broadcastCache->GetVarInfo(name) == nullptr; });
  EXPECT_THAT(left, ElementsAre("app-1", "b1-3", "xapp_1-1"));
  g_broadcastCache->CleanTable();
  EXPECT_TRUE(g_broadcastCache->GetVarInfo("b1-3") == nullptr);
}

TEST_F(BlockAccess, ManyThreadsMakeOneMapping) {
  // All have looked and found no address before the first one can map: this reader keeps them from the lock
  // for writing.
  const auto info = g_broadcastCache->GetVarInfo("app_1-42");
  std::shared_lock reader(info->mBlockLock);
  std::mutex mutex;
  std::set<void*> addresses;
  std::vector<std::thread> threads;
  std::vector<std::atomic<pid_t>> ids(16);
  for (auto& id : ids) {
    threads.emplace_back([&] {
      id = ::gettid();
      void* addr = Obtain(1);
      std::lock_guard lock(mutex);
      addresses.insert(addr);
    });
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
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_THAT(addresses, SizeIs(1));
  EXPECT_THAT(mLibrary.script.Calls("BM_MapSec"), SizeIs(1));
}

TEST_F(BlockAccess, ASlowMappingStopsOnlyItsOwnVariable) {
  g_broadcastCache->InsertVarInfo("app_1-50", {kId}, {100});
  void* other = nullptr;
  // The first variable's lock is held in the library's call, and the variable may even leave the table.
  const auto meanwhile = [&] {
    std::thread([&] {
      EXPECT_EQ(ObtainBroadcastBlockAddr("app_1", 50, 0, &other), 0U);
      g_broadcastCache->RemoveVarInfo("app_1-42");
    }).join();
  };
  mLibrary.script.Expect("BM_MapSec", {{0, 0, meanwhile}});
  EXPECT_NE(Obtain(0), nullptr);
  EXPECT_NE(other, nullptr);
  EXPECT_EQ(ObtainBroadcastBlockAddr("app_1", 42, 0, &other), 2120013U);
}

}  // namespace
