#include "platform/openssl_dl/openssl_dl.h"

#include "support/test.h"

namespace vyn::openssl_dl {
namespace {

const std::string kStub = std::string(VYN_TEST_PROGRAM_DIR) + "/libopenssl_stub.so";

// One test, since the libraries of a process are chosen once.
TEST(OpensslDlTest, RefusesWhatItCannotUseAndThenOpensTheRealOnes) {
  const struct {
    const char* ssl;
    const char* crypto;
    const char* stubVersion;
    int answer;
    std::string message;
  } refusals[] = {
      {nullptr, "libcrypto.so.3", "3", OPENSSL_DL_BAD_ARGUMENT, "is empty"},
      {"libssl.so.3", "", "3", OPENSSL_DL_BAD_ARGUMENT, "is empty"},
      {"libssl.so.3", "/nowhere/libcrypto.so.3", "3", OPENSSL_DL_CANNOT_OPEN, "/nowhere/libcrypto.so.3"},
      {"/nowhere/libssl.so.3", "libcrypto.so.3", "3", OPENSSL_DL_CANNOT_OPEN, "/nowhere/libssl.so.3"},
      {"libssl.so.3", "libm.so.6", "3", OPENSSL_DL_WRONG_VERSION, "libm.so.6 is an older version"},
      {kStub.c_str(), kStub.c_str(), "1", OPENSSL_DL_WRONG_VERSION, "is version 1"},
      {kStub.c_str(), kStub.c_str(), "4", OPENSSL_DL_WRONG_VERSION, "is version 4"},
      {"libssl.so.3", kStub.c_str(), "3", OPENSSL_DL_MISMATCH, "does not use the crypto library"},
      {kStub.c_str(), kStub.c_str(), "3", OPENSSL_DL_MISSING_FUNCTION, "lack the function OPENSSL_"},
      {"libcrypto.so.3", "libcrypto.so.3", "3", OPENSSL_DL_MISSING_FUNCTION, "lack the function"},
  };
  for (const auto& refusal : refusals) {
    setenv("VYN_TEST_OPENSSL_MAJOR", refusal.stubVersion, 1);
    EXPECT_EQ(SetOpensslDLopenLibPath(refusal.ssl, refusal.crypto), refusal.answer) << refusal.message;
    const std::string message = OpensslDLGetLastMessage();
    EXPECT_NE(message.find(refusal.message), std::string::npos) << message;
    EXPECT_EQ(Get(), nullptr);
  }

  std::vector<std::jthread> callers;
  for (int i = 0; i < 8; ++i) {
    callers.emplace_back([] {
      EXPECT_EQ(SetOpensslDLopenLibPath("libssl.so.3", "libcrypto.so.3"), 1);
      EXPECT_NE(Get(), nullptr);
      EXPECT_STREQ(OpensslDLGetLastMessage(), "") << "the message of another thread";
    });
  }
  callers.clear();
  EXPECT_EQ(SetOpensslDLopenLibPath("libssl.so.3", kStub.c_str()), OPENSSL_DL_OTHER_PATHS);
  EXPECT_NE(std::string(OpensslDLGetLastMessage()).find("are open already"), std::string::npos);
  EXPECT_EQ(SetOpensslDLopenLibPath("libssl.so.3", "libcrypto.so.3"), 1);

  // The functions are the right ones: a context speaks TLS 1.3, and an error is found where it was made.
  const Api* api = Get();
  SSL_CTX* context = api->SSL_CTX_new(api->TLS_method());
  ASSERT_NE(context, nullptr);
  EXPECT_EQ(api->SSL_CTX_ctrl(context, SSL_CTRL_SET_MIN_PROTO_VERSION, TLS1_3_VERSION, nullptr), 1);
  EXPECT_EQ(api->SSL_CTX_load_verify_file(context, "/nowhere"), 0);
  EXPECT_NE(api->ERR_get_error(), 0UL);
  api->ERR_clear_error();
  api->SSL_CTX_free(context);
}

}  // namespace
}  // namespace vyn::openssl_dl
