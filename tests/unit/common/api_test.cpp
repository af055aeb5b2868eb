// What the entry points share: environment, configuration file, TLS libraries, place of the installation,
// security maps.

#include "common/api/base_api_util.h"
#include "common/config/configuration_catalogue.h"
#include "common/log/error_info.h"
#include "platform/openssl_dl/openssl_dl.h"
#include "support/temp_dir.h"
#include "support/test.h"

namespace vyn::common {
namespace {

using SecurityMap = std::map<std::string, const std::string>;

/// Runs a call whose words on standard output do not matter.
template <typename Call>
auto Quiet(const Call& call) {
  testing::internal::CaptureStdout();
  auto result = call();
  testing::internal::GetCapturedStdout();
  return result;
}

TEST(ApiTest, TheEnvironmentIsSetInOrderUpToTheFirstFailure) {
  EXPECT_EQ(BaseApiUtil::SetVynEnv("/h", "24.0.0", "linux-x86_64"), 0U);
  EXPECT_EQ(Quiet([] { return BaseApiUtil::SetVynEnv("/other", nullptr, "other"); }), 1U);
  EXPECT_STREQ(getenv("VYN_HOME"), "/other");
  EXPECT_STREQ(getenv("VYN_VERSION"), "24.0.0");
  EXPECT_STREQ(getenv("VYN_BINARY_TYPE"), "linux-x86_64");
}

TEST(ApiTest, AMissingFileAndARefusedFileAreToldApart) {
  const test::TempDir home;
  const Ref<Configuration> before(new Configuration);
  Ref<Configuration> conf = before;
  EXPECT_EQ(BaseApiUtil::ConfigInit(home.Path(), conf), 2000059U);
  EXPECT_TRUE(conf == before);
  EXPECT_EQ(RetrieveErrorInfo()->mCode, 2000059U);
  home.Write("conf/vyn.conf", "vyn.unknown=1\n");
  EXPECT_EQ(Quiet([&] { return BaseApiUtil::ConfigInit(home.Path(), conf); }), 1U);
  EXPECT_TRUE(conf == nullptr);
  home.Write("conf/vyn.conf", "vyn.zookeeper.server.url=x\n");
  EXPECT_EQ(BaseApiUtil::ConfigInit(home.Path(), conf), 0U);
  EXPECT_TRUE(conf == Configuration::GetInstance());
}

TEST(ApiTest, TlsLibraries) {
  const Ref<Configuration> conf(new Configuration);
  EXPECT_EQ(BaseApiUtil::SetOpensslDLPath(nullptr), 1U);
  const std::string tooLong(4096, 'x');
  for (const auto& [ssl, crypto, status] : std::vector<std::tuple<std::string, std::string, unsigned int>>{
           {"", "libcrypto.so.3", 1},
           {"libssl.so.3", "", 1},
           {tooLong, "libcrypto.so.3", 1},
           {"libssl.so.3", tooLong, 1},
           {"/nowhere/libssl.so.3", "libcrypto.so.3", 1},
           {"libssl.so.3", "libcrypto.so.3", 0}}) {
    VynSetErrorInfo(nullptr);
    conf->Set("vyn.tessel.rpc.openssl.path", ssl);
    conf->Set("vyn.tessel.rpc.crypto.path", crypto);
    EXPECT_EQ(BaseApiUtil::SetOpensslDLPath(conf), status) << ssl;
    EXPECT_EQ(RetrieveErrorInfo() != nullptr, status == 1);
    EXPECT_EQ(openssl_dl::Get() != nullptr, status == 0);
  }
}

TEST(ApiTest, TheInstallationIsFoundFromTheLibrary) {
  char* text = nullptr;
  long* nowhere = nullptr;
  EXPECT_EQ(BaseApiUtil::GetModuleFileName(nowhere, text), 1U);
  ASSERT_EQ(BaseApiUtil::GetModuleFileName(reinterpret_cast<long*>(&BaseApiUtil::EmptyFunc), text), 0U);
  const std::string directory = text;
  free(text);
  EXPECT_EQ(access((directory + "/libvyn_broadcast.so").c_str(), R_OK), 0) << directory;
  setenv("VYN_HOME", "kept", 1);
  for (const char* absent : {"no such name", ""}) {
    EXPECT_EQ(Quiet([&] { return BaseApiUtil::GetDynamicPath(absent); }), "");
    EXPECT_STREQ(getenv("VYN_HOME"), "kept");
  }
  for (const std::string& name : {directory.substr(directory.rfind('/')), std::string("/")}) {
    const std::string home = directory.substr(0, directory.find(name));
    EXPECT_EQ(BaseApiUtil::GetDynamicPath(name), home) << "the first occurrence counts";
    EXPECT_EQ(getenv("VYN_HOME"), home);
  }
}

TEST(ApiTest, AnEntryOfASecurityMapHoldsTheKeyOfItsNameAndOfItsSide) {
  SecurityMap map;
  EXPECT_EQ(BaseApiUtil::GetSecurityConf4Client(map, "peer", true), 2000057U);
  EXPECT_EQ(BaseApiUtil::GetSecurityConf4Server(map), 2000057U);
  EXPECT_TRUE(map.empty()) << "before there is a configuration";

  // Every text key has its own name as value, so an entry shows which key it comes from.
  Configuration::gInstance = new Configuration;
  for (const CatalogueGroup* group : catalogue::kGroups) {
    for (const CatalogueKey& row : group->keys) {
      Configuration::gInstance->Set(row.key, row.key);
    }
  }
  char host[256] = {};
  ASSERT_EQ(gethostname(host, sizeof(host)), 0);
  const auto principal = [](const std::string& side, const std::string& name) {
    return "vyn.tessel.rpc.auth." + side + ".principle.name/" + name + "@vyn.tessel.rpc.auth.domain";
  };
  enum Side { kService, kSdk, kServer };
  SecurityMap maps[3];
  EXPECT_EQ(BaseApiUtil::GetSecurityConf4Client(maps[kService], "peer", false), 0U);
  EXPECT_EQ(BaseApiUtil::GetSecurityConf4Client(maps[kSdk], "peer", true), 0U);
  EXPECT_EQ(BaseApiUtil::GetSecurityConf4Server(maps[kServer]), 0U);
  const std::regex side(R"((sdk|server|client)\.)");
  for (const Side which : {kService, kSdk, kServer}) {
    for (const auto& [name, value] : maps[which]) {
      if (name == "auth.kerb.server.principal") {
        EXPECT_EQ(value, principal("server", which == kServer ? host : "peer"));
      } else if (name == "auth.kerb.client.principal") {
        EXPECT_EQ(value, principal(which == kSdk ? "client" : "server", host));
      } else if (name == "rpc.client.auth.timeout") {
        EXPECT_EQ(value, std::to_string(Configuration::gInstance->GetLong("vyn.tessel." + name, 0)));
      } else {
        EXPECT_THAT(std::regex_replace(value, side, ""), testing::EndsWith("." + name));
        const bool hasSides =
            name.starts_with("tls.ca") || name.starts_with("tls.crl") || name.starts_with("plx");
        EXPECT_EQ(value.find(".sdk.") != std::string::npos, which == kSdk && hasSides) << value;
        EXPECT_EQ(value.find(".client.") != std::string::npos, which == kSdk && name == "auth.kerb.keytab")
            << value;
      }
    }
  }
  EXPECT_EQ(maps[kServer].size(), 14U);
  EXPECT_EQ(maps[kService].size(), 12U);
  EXPECT_TRUE(std::ranges::equal(maps[kService], maps[kSdk], {}, &SecurityMap::value_type::first,
                                 &SecurityMap::value_type::first));

  map = {{"auth.type", "old"}, {"auth.kerb.keytab", ""}};  // what it holds already stays
  EXPECT_EQ(BaseApiUtil::GetSecurityConf4Client(map, "peer", true), 0U);
  EXPECT_EQ(map.at("auth.type") + map.at("auth.kerb.keytab"), "old");
  EXPECT_EQ(map.size(), 12U);
}

}  // namespace
}  // namespace vyn::common
