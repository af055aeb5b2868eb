#include "platform/openssl_dl/openssl_dl.h"

#include "support/process/in_child.h"
#include "support/test.h"

namespace vyn::openssl_dl {
namespace {

// One test in a child, since the libraries of a process are chosen once.
TEST(OpensslDlTest, TheLoaderRefusesUnusableLibrariesAndThenOpensOpenssl) {
  test::InChild([] {
    const char* stub = VYN_TEST_PROGRAM_DIR "/libopenssl_stub.so";
    using Row = std::tuple<const char*, const char*, const char*, int>;
    for (const auto& [ssl, crypto, stubVersion, answer] :
         {Row{nullptr, "libcrypto.so.3", "3", OPENSSL_DL_BAD_ARGUMENT},
          Row{"libssl.so.3", "", "3", OPENSSL_DL_BAD_ARGUMENT},
          Row{"libssl.so.3", "/nowhere/libcrypto.so.3", "3", OPENSSL_DL_CANNOT_OPEN},
          Row{"/nowhere/libssl.so.3", "libcrypto.so.3", "3", OPENSSL_DL_CANNOT_OPEN},
          Row{"libssl.so.3", "libm.so.6", "3", OPENSSL_DL_WRONG_VERSION},
          Row{stub, stub, "4", OPENSSL_DL_WRONG_VERSION}, Row{"libssl.so.3", stub, "3", OPENSSL_DL_MISMATCH},
          Row{stub, stub, "3", OPENSSL_DL_MISSING_FUNCTION}}) {
      setenv("VYN_TEST_OPENSSL_MAJOR", stubVersion, 1);
      EXPECT_EQ(SetOpensslDLopenLibPath(ssl, crypto), answer) << OpensslDLGetLastMessage();
      EXPECT_EQ(Get(), nullptr);
    }
    EXPECT_EQ(SetOpensslDLopenLibPath("libssl.so.3", "libcrypto.so.3"), 1);
    EXPECT_NE(Get(), nullptr);
    EXPECT_EQ(SetOpensslDLopenLibPath("libssl.so.3", stub), OPENSSL_DL_OTHER_PATHS);
  });
}

}  // namespace
}  // namespace vyn::openssl_dl
