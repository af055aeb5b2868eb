// Bringing the library up and down: home and flag, the security of links, failures.

#include "platform/tls/client_setting.h"
#include "support/client/scripted_bmclient.h"
#include "support/fake_clock.h"
#include "tessel/sdk/big_memory/big_memory_client_api.h"

using vyn::common::BigMemoryClientApi;
using vyn::test::FakeClock;
using vyn::test::ScriptedBmClient;

namespace {

std::uint32_t Link() { return BmCreateLink(1, "host", "10.0.0.1", 3899, 0); }

TEST(BmBinding, AnAutomaticStartReusesTheHomeAndFlagOfTheLastExplicitStart) {
  ScriptedBmClient library;
  EXPECT_EQ(BmUninitialize(), 0U);  // not up: nothing happens
  EXPECT_EQ(Link(), 0U);
  EXPECT_EQ(BmUninitialize(), 0U);
  EXPECT_EQ(BmInitialize("/some/home", 1), 0U);
  EXPECT_EQ(BmInitialize("/other/home", 0), 0U);  // up already: the first home and flag stay
  EXPECT_EQ(BmUninitialize(), 0U);
  EXPECT_EQ(Link(), 0U);
  EXPECT_THAT(library.script.Calls("BM_Init"), testing::ElementsAre("|0", "/some/home|1", "/some/home|1"));
  EXPECT_EQ(BmInitialize(nullptr, 0), 2000057U);
}

TEST(BmBinding, TheBindingSetsTheLinkSecurityBeforeItInitialisesTheLibrary) {
  ScriptedBmClient library;
  const struct {
    std::string conf;  ///< empty: no file
    bool enabled;
    std::string authority;
  } cases[] = {
      {"", false, ""},
      {"vyn.tessel.rpc.enableTLS=true\nvyn.tessel.rpc.tls.sdk.ca.cert.path=/sdk.pem\n", true, "/sdk.pem"},
      {"", true, "/sdk.pem"},  // stays as it was
      {"vyn.tessel.rpc.enableTLS=false\n", false, ""},
      {"no.such.key=1\n", true, ""},  // without trust no link can be made
  };
  for (const auto& one : cases) {
    const vyn::test::TempDir home;
    if (!one.conf.empty()) {
      home.Write("conf/vyn.conf", one.conf);
    }
    vyn::tls::ClientSetting seen;
    library.script.Expect("BM_Init", {{0, [&] { seen = vyn::tls::GetClientSetting(); }}});
    EXPECT_EQ(BmInitialize(home.Path().c_str(), 1), 0U);
    EXPECT_EQ(seen.enabled, one.enabled);
    EXPECT_EQ(seen.security["tls.ca.cert.path"], one.authority);
    BmUninitialize();
  }
}

TEST(BmBinding, AFailedStartClosesTheLibraryAndTheNextStartSucceeds) {
  FakeClock clock;
  clock.EndAllWaits();  // a claim that is kept shows soon
  ScriptedBmClient library;
  std::map<std::string, std::function<void()>> faults{
      {"no file", [&] { library.Remove(); }},
      {"no library", [&] { library.Install("not a library"); }},
      {"refused", [&] { library.script.Expect("BM_Init", {-1}); }}};
  // Each function of the header but those that were added later is needed: its name in the symbol table becomes another one.
  const std::string header = vyn::test::ReadFile(VYN_SOURCE_DIR "/platform/fabric/client/bm_functions.h");
  const std::regex function(
      R"(\nint (BM_(?!MappedLength|MapAtSec|QueryNode|AllocBatch|KeepBatch|EndBatch)\w+)\()");
  for (std::sregex_iterator found(header.begin(), header.end(), function), end; found != end; ++found) {
    faults[(*found)[1]] = [&library, name = std::string(1, '\0') + std::string((*found)[1]) + '\0'] {
      std::string bytes = ScriptedBmClient::Bytes();
      for (auto at = bytes.find(name); at != std::string::npos; at = bytes.find(name, at)) {
        bytes[at + 1] = 'x';
      }
      library.Install(bytes);
    };
  }
  ASSERT_EQ(faults.size(), 3U + 16);
  for (const auto& [fault, arrange] : faults) {
    SCOPED_TRACE(fault);
    arrange();
    EXPECT_EQ(BmInitialize("/home", 0), fault == "refused" ? 2100021U : 2080003U);
    EXPECT_EQ(BigMemoryClientApi::handle, nullptr);
    library.Install();
    EXPECT_EQ(BmInitialize("/home", 0), 0U);
    EXPECT_EQ(BmUninitialize(), 0U);
  }
}

}  // namespace
