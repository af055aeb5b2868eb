// What links add to the trust that rpc/tls_test.cpp tries: TLS on one side only, and a node's own trust.

#include "support/link_tls.h"

#include "platform/fabric/client/fabric_client.h"
#include "platform/fabric/protocol/names.h"
#include "support/fabric.h"
#include "support/raw_socket.h"
#include "support/test.h"
#include "support/wait_until.h"

namespace vyn::fabric {
namespace {

using test::FabricPlace;
using test::Lines;
using test::LinkTls;
using test::Tenant;
using test::WaitUntil;
using testing::HasSubstr;

class LinkTlsTest : public testing::Test {
 protected:
  void StartNode(bool tls) {
    FabricNodeOptions options = mPlace.Options();
    options.log = [this](int level, const std::string& text) { mLog.Add(level >= 3 ? text : ""); };
    if (tls) {
      mTls.Use(options);
    }
    std::string error;
    mNode.Stop();
    ASSERT_TRUE(mNode.Start(options, error)) << error;
  }

  const LinkTls mTls;
  FabricPlace mPlace{1};
  Lines mLog;
  FabricNode mNode;
};

TEST_F(LinkTlsTest, EitherSideRefusesWhomItCannotTrust) {
  const struct {
    bool node;  // whether it has TLS on
    bool client;
    std::string authority;
    int result;
    bool reports;  // the client
    bool warns;    // the node
  } cases[] = {{true, true, "ca.pem", 0, false, false},
               {false, false, "", 0, false, false},
               {true, false, "", kBmRemoteProtocol, false, true},
               {false, true, "ca.pem", kBmRemoteProtocol, true, true},
               {true, true, "other_ca.pem", kBmRemoteProtocol, true, true},
               {true, true, "none.pem", kBmLocalError, true, false}};
  for (const auto& one : cases) {
    SCOPED_TRACE(one.authority);
    StartNode(one.node);
    Lines reports;
    FabricClient client;
    ASSERT_EQ(client.Initialize("", 1,
                                {one.client, mTls.Trust(one.authority),
                                 [&](const std::string& text) { reports.Add(text); }}),
              0);
    EXPECT_EQ(client.CreateLink(1, "127.0.0.1", mNode.LinkPort()), one.result);
    EXPECT_EQ(!reports.Take().empty(), one.reports);
    EXPECT_TRUE(!one.warns ||
                WaitUntil([&] { return mLog.Take().find("127.0.0.1 was refused") != std::string::npos; }));
    if (one.result == 0) {
      ASSERT_EQ(client.CreateNamespace(1, "app", "token"), 0);
      EXPECT_TRUE(IsObjectId(Tenant{client, "app", "token"}.Allocate(1, 1)));
      EXPECT_EQ(mNode.DestroyNamespace("app"), 0);
      EXPECT_EQ(mLog.Take().find("127.0.0.1"), std::string::npos);
    }
  }
}

TEST_F(LinkTlsTest, WithTlsOnNothingIsSaidInTheClear) {
  test::RawListener listener;
  FabricClient client({std::chrono::milliseconds(300), std::chrono::milliseconds(300)});
  ASSERT_EQ(client.Initialize("", 1, {true, mTls.Trust(), nullptr}), 0);
  EXPECT_EQ(client.CreateLink(1, "127.0.0.1", listener.Port()), kBmUnconnected);  // it never answers
  const std::string heard = listener.Accept().Receive(65536);
  ASSERT_FALSE(heard.empty());
  EXPECT_EQ(heard[0], '\x16') << "no TLS handshake";
  EXPECT_EQ(heard.find("VBM1"), std::string::npos);
}

TEST_F(LinkTlsTest, ANodeReachesItsNeighboursByItsOwnTrustAndNoOther) {
  StartNode(true);
  ASSERT_EQ(mNode.CreateNamespace("app", "token"), 0);
  std::string id;
  ASSERT_EQ(mNode.Allocate("app", 3U << 20U, id), 0);
  FabricPlace nearPlace(2);
  for (const auto& [authority, result] :
       {std::pair{"ca.pem", 0}, {"other_ca.pem", kBmRemoteProtocol}, {"", kBmRemoteProtocol}}) {
    SCOPED_TRACE(authority);
    FabricNodeOptions options = nearPlace.Options();
    options.directory = [this](std::uint16_t nodeId, NodeAddress& address) {
      address = {"127.0.0.1", mNode.LinkPort()};
      return nodeId == 1;
    };
    Lines log;
    options.log = [&](int level, const std::string& text) { log.Add(level >= 3 ? text : ""); };
    if (*authority != '\0') {
      mTls.Use(options, "server", authority);
    }
    FabricNode near;
    std::string error;
    ASSERT_TRUE(near.Start(options, error)) << error;
    FabricClient client;
    ASSERT_EQ(client.Initialize(nearPlace.Home().c_str(), 0), 0);
    const Tenant tenant{client, "app", "token"};
    EXPECT_EQ(tenant.Write(id, 1U << 20U, "far"), result);
    EXPECT_EQ(log.Take().find("certificate") != std::string::npos, std::string(authority) == "other_ca.pem");
    const Tenant::Context context(tenant, id);
    void* address = nullptr;
    EXPECT_EQ(client.Map(&context, 1, 1, &address), result);  // pulled over the link
    if (result == 0) {
      EXPECT_EQ(std::string(static_cast<char*>(address) + (1U << 20U), 3), "far");
      EXPECT_EQ(client.Unmap(id.c_str(), address), 0);
    }
  }
}

TEST_F(LinkTlsTest, ANodeWithoutWhatTlsNeedsDoesNotStart) {
  for (const auto& [entries, words] : {std::pair{&FabricNodeOptions::linkIdentity, "tls.cert.path"},
                                       {&FabricNodeOptions::linkTrust, "tls.ca.cert.path"}}) {
    FabricNodeOptions options = mPlace.Options();
    mTls.Use(options);
    (options.*entries).clear();
    std::string error;
    EXPECT_FALSE(mNode.Start(options, error));
    EXPECT_THAT(error, HasSubstr(words));
  }
}

}  // namespace
}  // namespace vyn::fabric
