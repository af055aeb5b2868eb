// Securing a connection with a client that can do it. The client of this machine cannot, so this program
// brings the functions that such a client has besides; the loader finds them here. What they make is a plain
// session.

#include "platform/zk_helper/zk_helper.h"
#include "support/zookeeper_server.h"

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <filesystem>
#include <string>
#include <vector>

namespace {

/// What the client was asked for last, and what it is to answer.
struct Script {
  std::string server;
  std::string texts;
  std::vector<std::string> users;
  const char* refusal = nullptr;
  int closed = ZOK;
} gScript;

struct SaslParameters {
  const char* service;
  const char* host;
  const char* mechanisms;
  const void* callbacks;
};

}  // namespace

extern "C" {

FILE* zoo_get_log_stream();

zhandle_t* zookeeper_init_ssl(const char* host, const char* certificates, watcher_fn watcher, int timeout,
                              const clientid_t* id, void* context, int flags) {
  gScript.texts = certificates;
  if (gScript.refusal != nullptr) {
    // As the client does: a line a failure, to the stream, with the end of the line in a write of its own.
    fputs("2024-11-22 22:09:00,123:77(0x7f):ZOO_WARN@init@1: no matter\n", zoo_get_log_stream());
    fprintf(zoo_get_log_stream(), "2024-11-22 22:09:00,123:77(0x7f):ZOO_ERROR@init@2: %s", gScript.refusal);
    fflush(zoo_get_log_stream());
    fputs("\n", zoo_get_log_stream());
    fflush(zoo_get_log_stream());
    errno = EINVAL;
    return nullptr;
  }
  return zookeeper_init(host, watcher, timeout, id, context, flags);
}

void* zoo_sasl_make_basic_callbacks(const char* user, const char* realm, const char* passwordFile) {
  EXPECT_EQ(realm, nullptr);
  EXPECT_EQ(passwordFile, nullptr);
  return strdup(user);
}

zhandle_t* zookeeper_init_sasl(const char* host, watcher_fn watcher, int timeout, const clientid_t* id,
                               void* context, int flags, log_callback_fn log, SaslParameters* parameters) {
  gScript.texts = std::string(parameters->service) + " " + parameters->host + " " + parameters->mechanisms;
  gScript.users.emplace_back(static_cast<const char*>(parameters->callbacks));
  return zookeeper_init2(host, watcher, timeout, id, context, flags, log);
}

int zookeeper_close(zhandle_t* handle) {
  static const auto real = reinterpret_cast<int (*)(zhandle_t*)>(dlsym(RTLD_NEXT, "zookeeper_close"));
  const int result = real(handle);
  return result == ZOK ? gScript.closed : result;
}

}  // extern "C"

namespace vyn::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class SecuredClientTest : public testing::Test {
 protected:
  void SetUp() override {
    gScript = {};
    mUrl = mServer.NewRoot();
    mSecurity.enable = true;
    mSecurity.principleName = "zookeeper";
    mSecurity.principleHostname = "ensemble";
    mSecurity.certificates = "ca,certificate,key,password";
    mSecurity.clientKeytab = "/etc/first.keytab";
    mKeys.connectTimeout = 60;
    Dl_info info{};
    dladdr(reinterpret_cast<void*>(&zookeeper_init2), &info);
    mClientDirectory = std::filesystem::canonical(info.dli_fname).parent_path();
  }
  int Init() { return VynZookeeperInit(mUrl.c_str(), 30000, &mSecurity, &mKeys, mClientDirectory.c_str()); }
  static int Close() {
    zhandle_t* handle = VynGetZkHandle();
    VynRemoveZkHandle();
    return DoDlZookeeperClose(handle);
  }

  ZookeeperServer mServer;
  std::string mUrl;
  std::string mClientDirectory;
  VynZookeeperSecurity mSecurity{};
  VynZookeeperKeys mKeys{};
};

TEST_F(SecuredClientTest, TheClientMustComeFromTheLibraryDirectory) {
  const TempDir elsewhere;
  for (const char* strategy : {"tls", "sasl"}) {
    mSecurity.strategy = strategy;
    for (const std::string& directory : {elsewhere.Path(), std::string("/no/such/folder"), std::string()}) {
      EXPECT_EQ(VynZookeeperInit(mUrl.c_str(), 30000, &mSecurity, &mKeys, directory.c_str()), ZUNIMPLEMENTED);
      EXPECT_THAT(VynZookeeperGetLastMessage(), HasSubstr("was loaded from " + mClientDirectory + "/libzoo"));
      EXPECT_THAT(VynZookeeperGetLastMessage(), HasSubstr("and not from " + directory));
    }
    EXPECT_EQ(Init(), ZOK) << VynZookeeperGetLastMessage();
    EXPECT_EQ(DoDlZooExists(VynGetZkHandle(), "/", 0, nullptr), ZOK);
    EXPECT_EQ(Close(), ZOK);
  }
}

TEST_F(SecuredClientTest, TlsIsGivenItsCertificatesAndTellsWhyItFails) {
  mSecurity.strategy = "TLS";
  ASSERT_EQ(Init(), ZOK) << VynZookeeperGetLastMessage();
  EXPECT_EQ(gScript.texts, "ca,certificate,key,password");
  ASSERT_EQ(Close(), ZOK);

  gScript.refusal = "Failed to load the certificate";
  EXPECT_LT(Init(), 0);
  EXPECT_THAT(VynZookeeperGetLastMessage(), HasSubstr("cannot be used: Invalid argument"));
  EXPECT_THAT(VynZookeeperGetLastMessage(), HasSubstr(gScript.refusal));
  EXPECT_THAT(VynZookeeperGetLastMessage(), testing::Not(HasSubstr("no matter")));
  EXPECT_EQ(VynGetZkHandle(), nullptr);
}

TEST_F(SecuredClientTest, EverySaslSessionHasItsOwnPrincipal) {
  mSecurity.strategy = "sasl";
  mKeys.isKeytabEncrypted = true;
  EXPECT_EQ(Init(), ZUNIMPLEMENTED);
  EXPECT_THAT(VynZookeeperGetLastMessage(), HasSubstr("the keytab /etc/first.keytab is encrypted"));
  mKeys.isKeytabEncrypted = false;
  for (const char* user : {"first", "second"}) {
    mSecurity.clientPrincipal = user;
    mSecurity.clientKeytab = user;
    ASSERT_EQ(Init(), ZOK) << VynZookeeperGetLastMessage();
    EXPECT_EQ(gScript.texts, "zookeeper ensemble GSSAPI");
    EXPECT_STREQ(getenv("KRB5_CLIENT_KTNAME"), user);
    ASSERT_EQ(Close(), ZOK);
  }
  EXPECT_THAT(gScript.users, ElementsAre("first", "second"));
}

TEST_F(SecuredClientTest, AnEndThatTheServersCannotBeToldIsReported) {
  mSecurity.enable = false;
  ASSERT_EQ(Init(), ZOK) << VynZookeeperGetLastMessage();
  zhandle_t* handle = VynGetZkHandle();
  gScript.closed = ZOPERATIONTIMEOUT;
  EXPECT_EQ(Close(), ZOPERATIONTIMEOUT);
  EXPECT_THAT(VynZookeeperGetLastMessage(), HasSubstr("operation timeout"));
  EXPECT_EQ(DoDlZookeeperClose(handle), ZINVALIDSTATE) << "it is closed all the same";

  // To a session that has gone there is nothing to be told.
  ASSERT_EQ(Init(), ZOK) << VynZookeeperGetLastMessage();
  ExpireSession(mServer.Port(), DoDlZooClientId(VynGetZkHandle()));
  ASSERT_TRUE(WaitUntil([] { return DoDlZooExists(VynGetZkHandle(), "/", 0, nullptr) == ZINVALIDSTATE; }));
  EXPECT_EQ(Close(), ZOK);
}

}  // namespace
}  // namespace vyn::test
