// Bringing the library up and down: home and flag, the security of links, failures, and many threads at once.

#include "platform/tls/client_setting.h"
#include "support/fake_clock.h"
#include "support/scripted_bmclient.h"
#include "support/temp_dir.h"
#include "support/test.h"
#include "support/wait_until.h"
#include "tessel/sdk/big_memory/big_memory_client_api.h"
#include "vyn/big_memory.h"

using testing::ElementsAre;
using vyn::common::BigMemoryClientApi;
using vyn::test::FakeClock;
using vyn::test::ScriptedBmClient;

namespace {

std::uint32_t Link() { return BmCreateLink(1, "host", "10.0.0.1", 3899, 0); }

TEST(BmBinding, ALazyStartHasTheHomeAndFlagOfTheLastOneByHand) {
  ScriptedBmClient library;
  EXPECT_EQ(BmUninitialize(), 0U);  // not up: nothing happens
  EXPECT_EQ(Link(), 0U);
  EXPECT_EQ(BmUninitialize(), 0U);
  EXPECT_EQ(BigMemoryClientApi::handle, nullptr);
  EXPECT_EQ(BmInitialize("/some/home", 1), 0U);
  EXPECT_EQ(BmInitialize("/other/home", 0), 0U);  // up already: the first home and flag stay
  EXPECT_EQ(BmUninitialize(), 0U);
  EXPECT_EQ(Link(), 0U);
  EXPECT_THAT(library.script.Calls("BM_Init"), ElementsAre("|0", "/some/home|1", "/some/home|1"));
  EXPECT_EQ(BmInitialize(nullptr, 0), 2000057U);
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

TEST(BmBinding, AStartThatFailsClosesTheLibraryAndTheNextOneSucceeds) {
  FakeClock clock;
  clock.EndAllWaits();  // a claim that is kept shows soon
  ScriptedBmClient library(false);
  struct Case {
    std::string fault;
    std::function<void()> arrange;
    std::uint32_t status = 2080003;
  };
  std::vector<Case> cases{
      {"", [] {}},
      {"", [&] { library.InstallBytes("not a library"); }},
      {"BM_Init", [&] { library.script.ExpectResults("BM_Init", {-1}); }, 2100021},
  };
  // Each function that the header declares is needed.
  const std::string header = vyn::test::ReadFile(VYN_SOURCE_DIR "/platform/fabric/client/bm_functions.h");
  const std::regex function(R"(\nint (BM_\w+)\()");
  for (std::sregex_iterator found(header.begin(), header.end(), function), end; found != end; ++found) {
    const std::string name = (*found)[1];
    cases.push_back({"<" + name + ">", [&library, name] { library.InstallLacking(name); }});
  }
  ASSERT_EQ(cases.size(), 3U + 16);
  for (const Case& one : cases) {
    SCOPED_TRACE(one.fault);
    one.arrange();
    testing::internal::CaptureStdout();
    EXPECT_EQ(BmInitialize("/home", 0), one.status);
    testing::internal::GetCapturedStdout();
    EXPECT_NE(std::string(BmGetLastErrorMessage()).find(one.fault), std::string::npos);
    EXPECT_EQ(BigMemoryClientApi::handle, nullptr);
    if (one.status == 2080003) {
      EXPECT_EQ(dlopen(ScriptedBmClient::Path().c_str(), RTLD_NOW | RTLD_NOLOAD), nullptr) << "still loaded";
    }
    library.Install();
    EXPECT_EQ(BmInitialize("/home", 0), 0U);
    EXPECT_EQ(BigMemoryClientApi::GetBmClientPath(), std::filesystem::canonical(ScriptedBmClient::Path()));
    EXPECT_EQ(BmUninitialize(), 0U);
  }
}

TEST(BmBinding, OfManyThreadsOneTakesThePlaceOfTheFirstThatFailed) {
  constexpr std::size_t kThreads = 16;
  ScriptedBmClient library;
  FakeClock clock;
  library.script.Expect(
      "BM_Init",
      {{-1, 0, [&] { EXPECT_TRUE(vyn::test::WaitUntil([&] { return clock.Waiters() == kThreads - 1; })); }}});
  std::atomic<unsigned int> failures{0};
  {
    std::vector<std::jthread> threads;
    for (std::size_t i = 0; i < kThreads; ++i) {
      threads.emplace_back([&] {  // each call brings the library up when it is not
        if (const auto status = Link(); status != 0) {
          EXPECT_EQ(status, 2100021U);
          ++failures;
        }
      });
    }
  }
  EXPECT_EQ(failures, 1U);
  EXPECT_EQ(library.script.Calls("BM_Init").size(), 2U);
  EXPECT_EQ(library.script.Calls("BM_CreateLink").size(), kThreads - 1);
}

TEST(BmBinding, NobodyWaitsForEver) {
  ScriptedBmClient library;
  FakeClock clock;
  clock.EndAllWaits();
  std::uint32_t waiter = 0;
  library.script.Expect("BM_Init", {{0, 0, [&] {  // ends only when the other thread has given up
                                       std::thread([&] { waiter = BmInitialize("/home", 0); }).join();
                                     }}});
  EXPECT_EQ(BmInitialize("/home", 0), 0U);
  EXPECT_EQ(waiter, 2100021U);
}

}  // namespace
