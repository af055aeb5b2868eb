#include "common/api/base_api_util.h"

#include "common/config/configuration_catalogue.h"
#include "common/log/error_info.h"
#include "platform/openssl_dl/openssl_dl.h"
#include "support/captured_log.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>

namespace vyn::common {
namespace {

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
using SecurityMap = std::map<std::string, const std::string>;

class BaseApiUtilTest : public testing::Test {
 protected:
  ~BaseApiUtilTest() override { Configuration::gInstance = nullptr; }
  test::CapturedLog mLog;
};

TEST_F(BaseApiUtilTest, TheEnvironmentIsSetInOrderUpToTheFirstFailure) {
  setenv("VYN_HOME", "inherited", 1);
  EXPECT_EQ(BaseApiUtil::SetVynEnv("/h", "24.0.0", "linux-x86_64"), 0U);
  EXPECT_STREQ(getenv("VYN_HOME"), "/h");
  EXPECT_STREQ(getenv("VYN_VERSION"), "24.0.0");
  EXPECT_STREQ(getenv("VYN_BINARY_TYPE"), "linux-x86_64");
  CaptureStdout();
  EXPECT_EQ(BaseApiUtil::SetVynEnv("/other", nullptr, "other"), 1U);
  EXPECT_EQ(GetCapturedStdout(), "Failed to set VYN_VERSION with ret: -1\n");
  EXPECT_STREQ(getenv("VYN_HOME"), "/other");
  EXPECT_STREQ(getenv("VYN_BINARY_TYPE"), "linux-x86_64");
}

TEST_F(BaseApiUtilTest, AMissingFileAndARefusedFileAreToldApart) {
  test::TempDir home;
  Ref<Configuration> before(new Configuration);
  Ref<Configuration> conf = before;
  EXPECT_EQ(BaseApiUtil::ConfigInit(home.Path(), conf), 2000059U);
  EXPECT_TRUE(conf == before);
  EXPECT_EQ(RetrieveErrorInfo()->mCode, 2000059U);
  EXPECT_STREQ(LastErrorText(), "Configuration file doesn't exist");
  EXPECT_TRUE(mLog.Has(4, "Configuration file doesn't exist"));

  home.Write("conf/vyn.conf", "vyn.unknown=1\n");
  CaptureStdout();
  EXPECT_EQ(BaseApiUtil::ConfigInit(home.Path(), conf), 1U);
  GetCapturedStdout();
  EXPECT_TRUE(conf == nullptr);

  home.Write("conf/vyn.conf", "vyn.zookeeper.server.url=x\n");
  EXPECT_EQ(BaseApiUtil::ConfigInit(home.Path(), conf), 0U);
  EXPECT_TRUE(conf == Configuration::GetInstance());
  EXPECT_EQ(conf->GetString("vyn.zookeeper.server.url", ""), "x");
}

TEST_F(BaseApiUtilTest, TlsLibraries) {
  Ref<Configuration> conf(new Configuration);
  const auto set = [&](const std::string& ssl, const std::string& crypto) {
    conf->Set("vyn.tessel.rpc.openssl.path", ssl);
    conf->Set("vyn.tessel.rpc.crypto.path", crypto);
    return BaseApiUtil::SetOpensslDLPath(conf);
  };
  EXPECT_EQ(BaseApiUtil::SetOpensslDLPath(nullptr), 1U);
  EXPECT_STREQ(LastErrorText(), "Param config is nullptr.");
  for (const std::string& path : {std::string(), std::string(4096, 'x')}) {
    VynSetErrorInfo(nullptr);
    EXPECT_EQ(set(path, "libcrypto.so.3"), 1U);
    EXPECT_STREQ(LastErrorText(), "Failed to Get OpenSsl Lib path.");
    VynSetErrorInfo(nullptr);
    EXPECT_EQ(set("libssl.so.3", path), 1U);
    EXPECT_STREQ(LastErrorText(), "Failed to Get OpenSsl Lib path.");
  }
  EXPECT_EQ(set("/nowhere/libssl.so.3", "libcrypto.so.3"), 1U);
  EXPECT_EQ(RetrieveErrorInfo()->mCode, 1U);
  EXPECT_EQ(LastErrorText(), "Failed to set openssl path. return:" + std::to_string(OPENSSL_DL_CANNOT_OPEN));
  EXPECT_TRUE(mLog.Has(4, LastErrorText()));
  EXPECT_EQ(set("libssl.so.3", "libcrypto.so.3"), 0U);
  EXPECT_NE(openssl_dl::Get(), nullptr);
}

TEST_F(BaseApiUtilTest, TheInstallationIsFoundFromTheLibrary) {
  char* text = nullptr;
  ASSERT_EQ(BaseApiUtil::GetModuleFileName(reinterpret_cast<long*>(&BaseApiUtil::EmptyFunc), text), 0U);
  const std::string directory = text;
  free(text);
  EXPECT_EQ(access((directory + "/libvyn_broadcast.so").c_str(), R_OK), 0) << directory;

  const std::string last = directory.substr(directory.rfind('/'));
  EXPECT_EQ(BaseApiUtil::GetDynamicPath(last), directory.substr(0, directory.find(last)));
  EXPECT_EQ(getenv("VYN_HOME"), directory.substr(0, directory.find(last)));
  EXPECT_EQ(BaseApiUtil::GetDynamicPath("/"), "") << "of several occurrences the first one counts";
  EXPECT_STREQ(getenv("VYN_HOME"), "");

  setenv("VYN_HOME", "kept", 1);
  for (const char* absent : {"no such name", ""}) {
    CaptureStdout();
    EXPECT_EQ(BaseApiUtil::GetDynamicPath(absent), "");
    EXPECT_EQ(GetCapturedStdout(), "Failed to get new VYN_HOME for app context.\n");
  }
  EXPECT_STREQ(getenv("VYN_HOME"), "kept");
  long* nowhere = nullptr;
  text = nullptr;
  EXPECT_EQ(BaseApiUtil::GetModuleFileName(nowhere, text), 1U);
  EXPECT_EQ(text, nullptr);
}

TEST_F(BaseApiUtilTest, SecurityMapsEntryByEntry) {
  SecurityMap untouched;
  EXPECT_EQ(BaseApiUtil::GetSecurityConf4Client(untouched, "server", true), 2000057U);
  EXPECT_EQ(BaseApiUtil::GetSecurityConf4Server(untouched), 2000057U);
  EXPECT_TRUE(untouched.empty());
  EXPECT_TRUE(mLog.Has(4, "Unexpected nullptr value mConf"));

  // Every text key has its own name as value, so an entry shows which key it comes from.
  Configuration::gInstance = new Configuration;
  for (const CatalogueGroup* group : catalogue::kGroups) {
    for (const CatalogueKey& row : group->keys) {
      Configuration::gInstance->Set(row.key, row.key);
    }
  }
  char host[256] = {};
  ASSERT_EQ(gethostname(host, sizeof(host)), 0);
  const std::string rpc = "vyn.tessel.rpc.";
  const std::string tail = std::string("/") + host + "@" + rpc + "auth.domain";

  const SecurityMap service = {
      {"tls.ca.cert.path", rpc + "tls.ca.cert.path"},
      {"tls.crl.path", rpc + "tls.crl.path"},
      {"plx.ksf.primary.path", "vyn.tessel.plx.ksf.primary.path"},
      {"plx.ksf.standby.path", "vyn.tessel.plx.ksf.standby.path"},
      {"plx.ksf.backup.path", "vyn.tessel.plx.ksf.backup.path"},
      {"auth.type", rpc + "auth.type"},
      {"rpc.client.auth.timeout", "60000"},
      {"auth.kerb.server.principal", rpc + "auth.server.principle.name/server.host@" + rpc + "auth.domain"},
      {"auth.kerb.keytab", rpc + "auth.kerb.server.keytab"},
      {"auth.kerb.client.principal", rpc + "auth.server.principle.name" + tail},
      {"author.file.encrypted", rpc + "author.file.encrypted"},
      {"auth.kerb.keytab.encrypted", rpc + "auth.kerb.keytab.encrypted"},
  };
  const SecurityMap sdk = {
      {"tls.ca.cert.path", rpc + "tls.sdk.ca.cert.path"},
      {"tls.crl.path", rpc + "tls.sdk.crl.path"},
      {"plx.ksf.primary.path", "vyn.tessel.sdk.plx.ksf.primary.path"},
      {"plx.ksf.standby.path", "vyn.tessel.sdk.plx.ksf.standby.path"},
      {"plx.ksf.backup.path", "vyn.tessel.sdk.plx.ksf.backup.path"},
      {"auth.type", rpc + "auth.type"},
      {"rpc.client.auth.timeout", "60000"},
      {"auth.kerb.server.principal", rpc + "auth.server.principle.name/server.host@" + rpc + "auth.domain"},
      {"auth.kerb.keytab", rpc + "auth.kerb.client.keytab"},
      {"auth.kerb.client.principal", rpc + "auth.client.principle.name" + tail},
      {"author.file.encrypted", rpc + "author.file.encrypted"},
      {"auth.kerb.keytab.encrypted", rpc + "auth.kerb.keytab.encrypted"},
  };
  const SecurityMap server = {
      {"plx.ksf.primary.path", "vyn.tessel.plx.ksf.primary.path"},
      {"plx.ksf.standby.path", "vyn.tessel.plx.ksf.standby.path"},
      {"plx.ksf.backup.path", "vyn.tessel.plx.ksf.backup.path"},
      {"tls.key.encrypted", rpc + "tls.key.encrypted"},
      {"tls.cert.path", rpc + "tls.cert.path"},
      {"tls.key.path", rpc + "tls.key.path"},
      {"tls.key.pass.path", rpc + "tls.key.pass.path"},
      {"auth.kerb.server.principal", rpc + "auth.server.principle.name" + tail},
      {"auth.kerb.keytab", rpc + "auth.kerb.server.keytab"},
      {"auth.kerb.keytab.encrypted", rpc + "auth.kerb.keytab.encrypted"},
      {"auth.type", rpc + "auth.type"},
      {"author.type", rpc + "author.type"},
      {"author.file.path", rpc + "author.file.path"},
      {"author.file.encrypted", rpc + "author.file.encrypted"},
  };
  SecurityMap map;
  EXPECT_EQ(BaseApiUtil::GetSecurityConf4Client(map, "server.host", false), 0U);
  EXPECT_EQ(map, service);
  map.clear();
  EXPECT_EQ(BaseApiUtil::GetSecurityConf4Client(map, "server.host", true), 0U);
  EXPECT_EQ(map, sdk);
  map.clear();
  EXPECT_EQ(BaseApiUtil::GetSecurityConf4Server(map), 0U);
  EXPECT_EQ(map, server);

  // What the map holds already stays.
  Configuration::gInstance->Set("vyn.tessel.rpc.client.auth.timeout", 1234L);
  map = {{"auth.type", "old"}, {"auth.kerb.keytab", ""}};
  EXPECT_EQ(BaseApiUtil::GetSecurityConf4Client(map, "server.host", true), 0U);
  EXPECT_EQ(map.at("auth.type"), "old");
  EXPECT_EQ(map.at("auth.kerb.keytab"), "");
  EXPECT_EQ(map.at("rpc.client.auth.timeout"), "1234");
  EXPECT_EQ(map.size(), sdk.size());
}

}  // namespace
}  // namespace vyn::common
