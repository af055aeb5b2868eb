#include "support/captured_log.h"
#include "support/fake_clock.h"
#include "support/scripted_bmclient.h"
#include "tessel/sdk/start_up/sdk_state.h"
#include "vyn/big_memory.h"
#include "vyn/broadcast.h"
#include "vyn/status.h"

#include <gmock/gmock.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <mutex>
#include <set>
#include <shared_mutex>
#include <string>
#include <thread>
#include <vector>

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using vyn::tessel::BroadcastSdkCache;
using vyn::tessel::g_appToken;
using vyn::tessel::g_broadcastCache;
using vyn::test::CapturedLog;
using vyn::test::Joined;

namespace {

const std::string kId(60, 'a');
const std::string kSecondId(60, 'b');

/// Variable app_1-42 has two blocks, app_1-43 has none.
class BlockAccess : public testing::Test {
 protected:
  BlockAccess() {
    g_appToken = "secret";
    g_broadcastCache = new BroadcastSdkCache;
    g_broadcastCache->InsertVarInfo("app_1-42", {kId, kSecondId}, {100, 200});
    g_broadcastCache->InsertVarInfo("app_1-43", {}, {});
    g_broadcastCache->InsertVarInfo("app_1-44", {kId, "", kId}, {100, 200});
  }
  ~BlockAccess() override { g_broadcastCache = nullptr; }

  void* Obtain(unsigned int blockId) {
    void* addr = nullptr;
    EXPECT_EQ(ObtainBroadcastBlockAddr("app_1", 42, blockId, &addr), 0U);
    return addr;
  }

  vyn::test::ScriptedBmClient mLibrary;
  vyn::test::FakeClock mClock;
  CapturedLog mLog;
};

TEST_F(BlockAccess, MapsABlockOnceAndAnewAfterItsRelease) {
  void* first = Obtain(0);
  EXPECT_EQ(Obtain(0), first);
  EXPECT_NE(Obtain(1), first);
  const std::string access = "|app_1|secret|3|1";
  EXPECT_THAT(mLibrary.script.Calls("BM_MapSec"), ElementsAre(kId + access, kSecondId + access));

  void* other = &mLibrary;  // the caller's address goes to the library, not the table's
  EXPECT_EQ(ReleaseBroadcastBlockAddr("app_1", 42, 0, other), 0U);
  EXPECT_THAT(mLibrary.script.Calls("BM_Unmap"), ElementsAre(Joined(kId, other)));
  EXPECT_EQ(ReleaseBroadcastBlockAddr("app_1", 42, 0, other), 0U);
  EXPECT_EQ(ReleaseBroadcastBlockAddr("app_2", 42, 0, other), 0U);
  EXPECT_THAT(mLibrary.script.Calls("BM_Unmap"), SizeIs(1));
  EXPECT_NE(Obtain(0), first);

  const std::string leave = "Broadcast SDK exit function<ObtainBroadcastBlockAddr>";
  EXPECT_THAT(mLog.Texts(1),
              ElementsAre(leave, leave, "Release don't exist raw address of block id: 0",
                          "Try to release don't exist raw address of broadcast variable: app_2-42", leave));
  EXPECT_THAT(mLog.Texts(4), IsEmpty());
}

TEST_F(BlockAccess, FailuresOfTheLibraryLeaveTheTableAsItIs) {
  void* addr = this;
  mLibrary.script.ExpectResults("BM_MapSec", {-13});
  EXPECT_EQ(ObtainBroadcastBlockAddr("app_1", 42, 0, &addr), 2080007U);
  EXPECT_EQ(addr, nullptr);
  EXPECT_EQ(
      BmGetLastErrorMessage(),
      "Failed to obtain the raw address of block 0 for broadcast variable app_1-42 as Failed to map bm id: " +
          kId + " with prot: 3 flags: 1 ret is: -13");
  addr = Obtain(0);  // nothing was kept of the failure
  mLibrary.script.ExpectResults("BM_Unmap", {-1});
  EXPECT_EQ(ReleaseBroadcastBlockAddr("app_1", 42, 0, addr), 2080007U);
  EXPECT_EQ(
      BmGetLastErrorMessage(),
      "Failed to release the raw address of block id: 0 as Failed to unmap bm id: " + kId + " ret is: -1");
  EXPECT_EQ(Obtain(0), addr);
  EXPECT_THAT(mLibrary.script.Calls("BM_MapSec"), SizeIs(2));
}

TEST_F(BlockAccess, RefusesWhatItDoesNotKnow) {
  void* addr = this;
  void* const untouched = addr;
  EXPECT_EQ(ObtainBroadcastBlockAddr("app.1", 42, 0, &addr), 2120001U);
  EXPECT_EQ(ObtainBroadcastBlockAddr(nullptr, 42, 0, &addr), 2120001U);
  EXPECT_EQ(ObtainBroadcastBlockAddr("app_1", 42, 0, nullptr), 2000057U);
  EXPECT_EQ(addr, untouched);

  EXPECT_EQ(ObtainBroadcastBlockAddr("app_1", 7, 0, &addr), 2120013U);
  EXPECT_EQ(addr, nullptr);
  EXPECT_STREQ(BroadcastGetLastErrorMessage(),
               "Internal error, hasn't find record for broadcast variable: app_1-7");

  for (const auto& [variable, block, text] :
       {std::tuple{42U, 2U, "Invalid block id: 2 of broadcast variable app_1-42 with 2 blocks"},
        std::tuple{43U, 0U, "Invalid block id: 0 of broadcast variable app_1-43 with 0 blocks"},
        std::tuple{42U, ~0U, "Invalid block id: 4294967295 of broadcast variable app_1-42 with 2 blocks"}}) {
    addr = this;
    EXPECT_EQ(ObtainBroadcastBlockAddr("app_1", variable, block, &addr), 2120001U);
    EXPECT_EQ(addr, nullptr);
    EXPECT_STREQ(BroadcastGetLastErrorMessage(), text);
    EXPECT_EQ(ReleaseBroadcastBlockAddr("app_1", variable, block, this), 2120001U);
    EXPECT_STREQ(BroadcastGetLastErrorMessage(), text);
  }
  EXPECT_EQ(ReleaseBroadcastBlockAddr("", 42, 0, this), 2120001U);
  EXPECT_STREQ(BroadcastGetLastErrorMessage(), "Invalid input params whose length is 0");
  EXPECT_EQ(ReleaseBroadcastBlockAddr("app_1", 7, 0, nullptr), 2120001U);
  EXPECT_STREQ(BroadcastGetLastErrorMessage(), "Invalid params: ptr address to release is nullptr");
  EXPECT_EQ(mLibrary.script.CallCount(), 0U);
}

TEST_F(BlockAccess, RemoteReadsAndWritesAreWhole) {
  char buffer[200];
  EXPECT_EQ(ReadRemoteBlock("app_1", 42, 1, buffer, ""), 0U);  // its own token, not that of the registration
  EXPECT_THAT(mLibrary.script.Calls("BM_ReadSec"),
              ElementsAre(Joined(kSecondId, "app_1", "", 0, 200, static_cast<void*>(buffer), 0)));
  EXPECT_EQ(WriteRemoteBlock("app_2", kId.c_str(), nullptr, 0, "t"), 0U);
  EXPECT_THAT(mLibrary.script.Calls("BM_WriteSec"),
              ElementsAre(Joined(kId, "app_2", "t", 0, 0, static_cast<void*>(nullptr), 0)));
  EXPECT_THAT(mLog.Texts(1), ElementsAre("BmId " + kId + " size 0"));

  const auto calls = mLibrary.script.CallCount();
  struct Case {
    unsigned int broadcastId;
    unsigned int blockId;
    std::string line;
  };
  for (const Case& one :
       {Case{7, 0, "Can not found cache info for broadcast variable app_1-7"},
        Case{42, 2, "Can not found BM for broadcast variable app_1-42 block 2"},
        Case{44, 1, "Can not found BM for broadcast variable app_1-44 block 1"},     // no id
        Case{44, 2, "Can not found BM for broadcast variable app_1-44 block 2"}}) {  // no size
    mLog.Clear();
    std::thread([&] {
      EXPECT_EQ(ReadRemoteBlock("app_1", one.broadcastId, one.blockId, buffer, ""), 1U);
      EXPECT_EQ(BroadcastGetLastErrorMessage(), nullptr);
    }).join();
    EXPECT_THAT(mLog.Texts(4), ElementsAre(one.line));
  }
  EXPECT_EQ(ReadRemoteBlock("app_1", 42, 0, buffer, nullptr), 2120001U);
  EXPECT_EQ(ReadRemoteBlock("", 42, 0, buffer, ""), 2120001U);
  EXPECT_EQ(WriteRemoteBlock("", kId.c_str(), buffer, 1, ""), 2120001U);
  EXPECT_EQ(WriteRemoteBlock("app_1", nullptr, buffer, 1, ""), 2120007U);
  EXPECT_EQ(WriteRemoteBlock("app_1", kId.c_str(), buffer, 1, nullptr), 2120007U);
  EXPECT_EQ(mLibrary.script.CallCount(), calls);

  mLibrary.script.ExpectResults("BM_ReadSec", {-191});
  EXPECT_EQ(ReadRemoteBlock("app_1", 42, 0, buffer, ""), 2120007U);
  std::string cause = "Failed to read bm id is: " + kId +
                      " offset is: 0 length is: 100 mf ret is -191, remote error occurred";
  EXPECT_EQ(BroadcastGetLastErrorMessage(), cause);
  EXPECT_TRUE(mLog.Has(4, "Error to read remote block 0 as " + cause));
  mLibrary.script.ExpectResults("BM_WriteSec", {-193});
  EXPECT_EQ(WriteRemoteBlock("app_1", kId.c_str(), buffer, 5, ""), 2120007U);
  cause =
      "Failed to write bm id is: " + kId + " offset is: 0 length is: 5 mf return local error: 1 ret is: -193";
  EXPECT_EQ(BroadcastGetLastErrorMessage(), cause);
  EXPECT_TRUE(mLog.Has(4, "Error to write remote block " + kId + " as " + cause));
}

TEST_F(BlockAccess, BeforeInitialisationSaysSo) {
  g_broadcastCache = nullptr;
  void* addr = this;
  char buffer[1];
  EXPECT_EQ(ObtainBroadcastBlockAddr("app_1", 42, 0, &addr), 2000057U);
  EXPECT_EQ(addr, this);
  EXPECT_EQ(ReleaseBroadcastBlockAddr("app_1", 42, 0, addr), 2000057U);
  EXPECT_EQ(ReadRemoteBlock("app_1", 42, 0, buffer, ""), 2000057U);
  const std::string line = "Unexpected nullptr value g_broadcastCache";
  EXPECT_THAT(mLog.Texts(4), ElementsAre(line, line, line));
  EXPECT_EQ(ObtainBroadcastBlockAddr("", 42, 0, &addr), 2120001U);  // the texts come first
  EXPECT_EQ(ReleaseBroadcastBlockAddr("app_1", 42, 0, nullptr), 2120001U);
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
    for (int tries = 0; tries < 3000 && !(id != 0 && waits(id)); ++tries) {
      ::usleep(10000);
    }
    EXPECT_TRUE(waits(id));
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
  mLibrary.script.Expect("BM_MapSec", {{0, 0, [&] {
                                          // The first variable's lock is held here, and it may even leave the
                                          // table.
                                          std::thread([&] {
                                            EXPECT_EQ(ObtainBroadcastBlockAddr("app_1", 50, 0, &other), 0U);
                                            g_broadcastCache->RemoveVarInfo("app_1-42");
                                          }).join();
                                        }}});
  EXPECT_NE(Obtain(0), nullptr);
  EXPECT_NE(other, nullptr);
  EXPECT_EQ(ObtainBroadcastBlockAddr("app_1", 42, 0, &other), 2120013U);
}

}  // namespace
