#include "common/util/clock.h"
#include "platform/tls/client_setting.h"
#include "support/captured_log.h"
#include "support/fake_clock.h"
#include "support/scripted_bmclient.h"
#include "support/temp_dir.h"
#include "tessel/sdk/big_memory/big_memory_client_api.h"
#include "vyn/big_memory.h"
#include "vyn/status.h"

#include <dlfcn.h>
#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <set>
#include <thread>
#include <vector>

using testing::ElementsAre;
using testing::StartsWith;
using vyn::common::BigMemoryClientApi;
using vyn::test::CapturedLog;
using vyn::test::Joined;
using vyn::test::ScriptedBmClient;

namespace {

constexpr const char* kFailedToInitialize = "Failed to initialize mf bm client with error: ";

std::uint32_t Link() { return BmCreateLink(1, "host", "10.0.0.1", 3899, 0); }

TEST(BmBinding, FirstLazyInitialisationHasEmptyHomeAndLaterOnesTheSavedOne) {
  ScriptedBmClient library;
  EXPECT_EQ(BmUninitialize(), 0U);  // not up: nothing happens
  EXPECT_EQ(Link(), 0U);
  EXPECT_EQ(BmUninitialize(), 0U);
  EXPECT_EQ(BigMemoryClientApi::handle, nullptr);
  EXPECT_EQ(BmUninitialize(), 0U);

  EXPECT_EQ(BmInitialize("/some/home", 1), 0U);
  EXPECT_EQ(BmInitialize("/other/home", 0), 0U);  // up already: the first home and flag stay
  EXPECT_EQ(BmUninitialize(), 0U);
  EXPECT_EQ(Link(), 0U);  // reopens
  EXPECT_THAT(library.script.Calls("BM_Init"), ElementsAre("|0", "/some/home|1", "/some/home|1"));
  EXPECT_THAT(library.script.Calls("BM_CreateLink"),
              ElementsAre("1|host|10.0.0.1|3899|0", "1|host|10.0.0.1|3899|0"));

  // Later cases of this process find the saved values of a fresh one.
  BmUninitialize();
  EXPECT_EQ(BmInitialize("", 0), 0U);
}

TEST(BmBinding, SaysHowLinksAreSecuredBeforeTheLibraryIsInitialised) {
  ScriptedBmClient library;
  const struct {
    const char* conf;  // null: no file
    bool enabled;
    std::string authority;
  } cases[] = {
      {nullptr, false, ""},
      {"vyn.tessel.rpc.enableTLS=true\nvyn.tessel.rpc.tls.sdk.ca.cert.path=/sdk.pem\n", true, "/sdk.pem"},
      {nullptr, true, "/sdk.pem"},  // stays as it was
      {"vyn.tessel.rpc.enableTLS=false\n", false, ""},
      {"no.such.key=1\n", true, ""},  // without trust no link can be made
      {"vyn.tessel.rpc.tls.ca.cert.path=/service.pem\n", true, ""},
  };
  for (const auto& one : cases) {
    const vyn::test::TempDir home;
    if (one.conf != nullptr) {
      home.Write("conf/vyn.conf", one.conf);
    }
    vyn::tls::ClientSetting seen;
    library.script.Expect("BM_Init", {{0, 0, [&] { seen = vyn::tls::GetClientSetting(); }}});
    ASSERT_EQ(BmInitialize(home.Path().c_str(), 1), 0U);
    EXPECT_EQ(seen.enabled, one.enabled);
    const auto authority = seen.security.find("tls.ca.cert.path");
    EXPECT_EQ(authority == seen.security.end() ? "" : authority->second, one.authority);
    BmUninitialize();
  }
}

TEST(BmBinding, WithoutALibraryFailsAndTriesAgainLater) {
  ScriptedBmClient library(false);
  EXPECT_EQ(BigMemoryClientApi::GetBmClientPath(), "");
  EXPECT_EQ(BmInitialize("/home", 0), 2080003U);
  EXPECT_STREQ(BmGetLastErrorMessage(), kFailedToInitialize);

  library.InstallBytes("not a library");
  EXPECT_EQ(Link(), 2080003U);
  const auto path = std::filesystem::canonical(ScriptedBmClient::Path()).string();
  EXPECT_THAT(BmGetLastErrorMessage(),
              StartsWith(kFailedToInitialize + std::string("Failed to open library <") + path +
                         "> with error <" + path + ": "));
  library.Install();
  EXPECT_EQ(BmInitialize("/home", 0), 0U);
  EXPECT_EQ(BigMemoryClientApi::GetBmClientPath(), path);
}

TEST(BmBinding, AMissingSymbolIsNamedAndAMendedLibraryIsLoaded) {
  ScriptedBmClient library;
  for (const std::string name :
       {"BM_Init", "BM_CreateLink", "BM_CreateNSSec", "BM_DestroyNSSec", "BM_AllocSec", "BM_ExpandSec",
        "BM_FreeSec", "BM_BatchFreeSec", "BM_MapSec", "BM_Unmap", "BM_QueryResAttri", "BM_CopySec",
        "BM_ReadSec", "BM_WriteSec", "BM_SpecificObjSwapInSec", "BM_GatherSec"}) {
    library.InstallLacking(name);
    testing::internal::CaptureStdout();
    EXPECT_EQ(BmInitialize("/home", 0), 2080003U) << name;
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Failed to load function\n");
    EXPECT_THAT(BmGetLastErrorMessage(),
                StartsWith(kFailedToInitialize + ("Failed to load function <" + name + "> with error </")));
    EXPECT_EQ(BigMemoryClientApi::handle, nullptr);
    EXPECT_EQ(dlopen(ScriptedBmClient::Path().c_str(), RTLD_NOW | RTLD_NOLOAD), nullptr) << "still loaded";
  }
  library.Install();
  EXPECT_EQ(BmInitialize("/home", 0), 0U);
}

TEST(BmBinding, ALibraryThatRefusesIsClosed) {
  ScriptedBmClient library;
  library.script.ExpectResults("BM_Init", {-1});
  EXPECT_EQ(BmInitialize("/home", 0), 2100021U);
  EXPECT_STREQ(BmGetLastErrorMessage(), "Call BM_Init failed");
  EXPECT_EQ(BigMemoryClientApi::handle, nullptr);
  EXPECT_EQ(BmInitialize("/second/home", 1), 0U);
  EXPECT_THAT(library.script.Calls("BM_Init"), ElementsAre("/home|0", "/second/home|1"));
}

TEST(BmBinding, LinkChecksTheAddressAndReportsTheResult) {
  ScriptedBmClient library;
  for (const char* ip : {static_cast<const char*>(nullptr), "", "10.0.0.1:80", "a b"}) {
    EXPECT_EQ(BmCreateLink(1, "host", ip, 1, 0), 2080001U);
  }
  EXPECT_EQ(library.script.CallCount(), 0U);
  library.script.ExpectResults("BM_CreateLink", {-195});
  EXPECT_EQ(BmCreateLink(7, "host", "10.0.0.1", 65535, 3), 2080007U);
  EXPECT_STREQ(BmGetLastErrorMessage(), "Failed to create link to 10.0.0.1:65535, ret=-195");
  EXPECT_THAT(library.script.Calls("BM_CreateLink"), ElementsAre("7|host|10.0.0.1|65535|3"));
}

/// Notes which threads wait for another thread's attempt.
class WaiterClock : public vyn::common::Clock {
 public:
  /// \param early whether a wait ends at once, as if its time were over.
  explicit WaiterClock(bool early) : mEarly(early) { vyn::common::Clock::Replace(this); }
  ~WaiterClock() override { vyn::common::Clock::Replace(nullptr); }
  std::chrono::steady_clock::time_point Now() override {
    std::lock_guard lock(mMutex);
    return mNow;
  }
  void WaitFor(std::condition_variable& condition, std::unique_lock<std::mutex>& lock,
               std::chrono::nanoseconds duration) override {
    {
      std::lock_guard own(mMutex);
      EXPECT_EQ(duration, std::chrono::minutes(1));
      mWaiters.insert(std::this_thread::get_id());
      mNow += mEarly ? duration : std::chrono::nanoseconds(0);
    }
    mChanged.notify_all();
    if (!mEarly) {
      condition.wait(lock);
    }
  }
  bool AwaitWaiters(std::size_t count) {
    std::unique_lock lock(mMutex);
    return mChanged.wait_for(lock, std::chrono::seconds(60), [&] { return mWaiters.size() >= count; });
  }

 private:
  const bool mEarly;
  std::mutex mMutex;  // guards what follows
  std::condition_variable mChanged;
  std::set<std::thread::id> mWaiters;
  std::chrono::steady_clock::time_point mNow;
};

TEST(BmBinding, OfManyThreadsOneTakesThePlaceOfTheFirstThatFailed) {
  constexpr std::size_t kThreads = 16;
  ScriptedBmClient library;
  WaiterClock clock(false);
  library.script.Expect("BM_Init", {{-1, 0, [&] { EXPECT_TRUE(clock.AwaitWaiters(kThreads - 1)); }}});
  std::atomic<unsigned int> failures{0};
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      if (const auto status = BmInitialize("/home", 0); status != 0) {
        EXPECT_EQ(status, 2100021U);
        ++failures;
      } else {
        EXPECT_EQ(Link(), 0U);  // the table is complete
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(failures, 1U);
  EXPECT_EQ(library.script.Calls("BM_Init").size(), 2U);
  EXPECT_EQ(library.script.Calls("BM_CreateLink").size(), kThreads - 1);
}

TEST(BmBinding, NobodyWaitsForEver) {
  ScriptedBmClient library;
  WaiterClock clock(true);
  std::uint32_t waiter = 0;
  library.script.Expect("BM_Init", {{0, 0, [&] {  // ends only when the other thread has given up
                                       std::thread([&] { waiter = BmInitialize("/home", 0); }).join();
                                     }}});
  EXPECT_EQ(BmInitialize("/home", 0), 0U);
  EXPECT_EQ(waiter, 2100021U);
}

TEST(BmBinding, ThreadsThatInitialiseLazilyAtOnceBringItUpOnce) {
  ScriptedBmClient library;
  std::vector<std::thread> threads;
  for (int i = 0; i < 16; ++i) {
    threads.emplace_back([] { EXPECT_EQ(Link(), 0U); });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(library.script.Calls("BM_Init").size(), 1U);
}

}  // namespace
