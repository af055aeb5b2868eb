// What links add to the trust that rpc/tls_test.cpp tries: TLS on one side only, and a node's own trust.

#include "support/fabric/link_tls.h"

#include "support/fabric/fabric.h"

namespace vyn::fabric {
namespace {

TEST(LinkTlsTest, BothEndsOfALinkRefuseAnUntrustedPeer) {
  const test::LinkTls tls;
  const test::FabricPlace farPlace(1);
  const test::FabricPlace nearPlace(2);
  const struct {
    bool far;   // whether it has TLS on
    bool near;  // the same of the other node and of a client outside
    std::string authority;
    int result;
  } cases[] = {{true, true, "ca.pem", 0},
               {false, false, "", 0},
               {true, false, "", kBmRemoteProtocol},
               {false, true, "ca.pem", kBmRemoteProtocol},
               {true, true, "other_ca.pem", kBmRemoteProtocol}};
  for (const auto& one : cases) {
    SCOPED_TRACE(testing::Message() << one.far << one.near << one.authority);
    FabricNodeOptions options[] = {farPlace.Options(), nearPlace.Options()};
    FabricNode far;
    FabricNode near;
    options[1].directory = test::Directory(1, far);
    if (one.far) {
      tls.Use(options[0]);
    }
    if (one.near) {
      tls.Use(options[1], "server", one.authority);
    }
    test::StartAgain(far, options[0]);
    test::StartAgain(near, options[1]);
    FabricClient outside;
    ASSERT_EQ(outside.Initialize("", 1, {one.near, tls.Trust(one.authority), nullptr}), 0);
    EXPECT_EQ(outside.CreateLink(1, "127.0.0.1", far.LinkPort()), one.result);
    // The other node pulls an object.
    test::Object object{"app", "token"};
    ASSERT_EQ(far.CreateNamespace("app", "token"), 0);
    ASSERT_EQ(far.Allocate("app", 3U << 20U, object.id), 0);
    FabricClient inside;
    void* address = nullptr;
    ASSERT_EQ(inside.Initialize(nearPlace.Home().c_str(), 0), 0);
    EXPECT_EQ(inside.Map(object, 1, 1, &address), one.result);
    EXPECT_EQ(far.DestroyNamespace("app"), 0);
  }
}

}  // namespace
}  // namespace vyn::fabric
