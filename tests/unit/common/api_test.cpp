// What the entry points share: the place of the installation, security maps.

#include "common/api/base_api_util.h"
#include "common/config/configuration_catalogue.h"
#include "common/util/system.h"
#include "support/test.h"

namespace vyn::common {
namespace {

using SecurityMap = std::map<std::string, const std::string>;

TEST(ApiTest, TheInstallationIsFoundFromTheLibrary) {
  setenv("VYN_HOME", "kept", 1);
  EXPECT_EQ(BaseApiUtil::GetDynamicPath("no such name"), "");
  EXPECT_EQ(BaseApiUtil::GetDynamicPath(""), "");
  EXPECT_STREQ(getenv("VYN_HOME"), "kept");
  const std::string home = BaseApiUtil::GetDynamicPath("/lib");
  EXPECT_EQ(getenv("VYN_HOME"), home);
  EXPECT_EQ(access((home + "/lib/libvyn_broadcast.so").c_str(), R_OK), 0) << home;
}

TEST(ApiTest, AnEntryOfASecurityMapHoldsTheKeyOfItsNameAndOfItsSide) {
  enum Side { kService, kSdk, kServer };
  SecurityMap maps[3];
  Configuration::gInstance = nullptr;
  EXPECT_EQ(BaseApiUtil::GetSecurityConf4Client(maps[kSdk], "peer", true), 2000057U);
  EXPECT_EQ(BaseApiUtil::GetSecurityConf4Server(maps[kServer]), 2000057U)
      << "before there is a configuration";
  // Every text key has its own name as value, so an entry shows which key it comes from.
  Configuration::gInstance = new Configuration;
  for (const CatalogueGroup* group : catalogue::kGroups) {
    for (const CatalogueKey& row : group->keys) {
      Configuration::gInstance->Set(row.key, row.key);
    }
  }
  const auto principal = [](const std::string& side, const std::string& name) {
    return "vyn.tessel.rpc.auth." + side + ".principle.name/" + name + "@vyn.tessel.rpc.auth.domain";
  };
  maps[kSdk] = {{"auth.type", ".auth.type"}};  // what it holds already stays
  EXPECT_EQ(BaseApiUtil::GetSecurityConf4Client(maps[kService], "peer", false), 0U);
  EXPECT_EQ(BaseApiUtil::GetSecurityConf4Client(maps[kSdk], "peer", true), 0U);
  EXPECT_EQ(BaseApiUtil::GetSecurityConf4Server(maps[kServer]), 0U);
  EXPECT_EQ(maps[kSdk].at("auth.type"), ".auth.type");
  for (const Side which : {kService, kSdk, kServer}) {
    EXPECT_EQ(maps[which].size(), which == kServer ? 14U : 12U);
    for (const auto& [name, value] : maps[which]) {
      if (name == "auth.kerb.server.principal") {
        EXPECT_EQ(value, principal("server", which == kServer ? VynGetHostname() : "peer"));
      } else if (name == "auth.kerb.client.principal") {
        EXPECT_EQ(value, principal(which == kSdk ? "client" : "server", VynGetHostname()));
      } else if (name == "rpc.client.auth.timeout") {
        EXPECT_EQ(value, std::to_string(Configuration::gInstance->GetLong("vyn.tessel." + name, 0)));
      } else {
        EXPECT_THAT(std::regex_replace(value, std::regex(R"((sdk|server|client)\.)"), ""),
                    testing::EndsWith("." + name));
        const bool hasSides = std::regex_match(name, std::regex(R"((tls\.ca|tls\.crl|plx).*)"));
        EXPECT_EQ(value.find(".sdk.") != std::string::npos, which == kSdk && hasSides) << value;
        EXPECT_EQ(value.find(".client.") != std::string::npos, which == kSdk && name == "auth.kerb.keytab");
      }
    }
  }
}

}  // namespace
}  // namespace vyn::common
