// Who may link with whom: TLS on and off on either side, and certificates that are not to be trusted.

#include "support/link_tls.h"

#include "platform/fabric/client/fabric_client.h"
#include "platform/fabric/protocol/names.h"
#include "support/fabric.h"
#include "support/raw_socket.h"

#include <gmock/gmock.h>

namespace vyn::fabric {
namespace {

using test::Eventually;
using test::FabricPlace;
using test::Lines;
using test::LinkTls;
using test::RawListener;
using test::RawSocket;
using test::Tenant;
using testing::HasSubstr;
using testing::IsEmpty;
using SecurityMap = tls::TlsContext::SecurityMap;

class LinkTlsTest : public testing::Test {
 protected:
  /// \param certificate of the node; empty for plain links.
  void StartNode(const std::string& certificate) {
    FabricNodeOptions options = mPlace.Options();
    options.log = [this](int level, const std::string& text) {
      if (level >= 3) {
        mLog.Add(text);
      }
    };
    if (!certificate.empty()) {
      mTls.Use(options, certificate);
    }
    std::string error;
    mNode.Stop();
    ASSERT_TRUE(mNode.Start(options, error)) << error;
  }
  tls::ClientSetting Setting(bool enabled, SecurityMap security) {
    return {enabled, std::move(security), [this](const std::string& text) { mReports.Add(text); }};
  }

  const LinkTls mTls;
  FabricPlace mPlace{1};
  Lines mLog;
  Lines mReports;
  FabricNode mNode;
};

TEST_F(LinkTlsTest, EitherSideRefusesWhomItCannotTrust) {
  const SecurityMap good = mTls.Trust();
  const auto with = [&](const char* key, const std::string& value) {
    SecurityMap map = good;
    map.erase(key);
    map.emplace(key, value);
    return map;
  };
  const struct {
    const char* what;
    std::string node;  // its certificate; empty: plain
    bool tls;
    SecurityMap security;
    int result;
    std::string report;  // part of the client's words; empty: none
    std::string log;     // part of the node's
  } cases[] = {
      {"both", "server", true, good, 0, "", ""},
      {"neither", "", false, {}, 0, "", ""},
      {"a plain client",
       "server",
       false,
       {},
       kBmRemoteProtocol,
       "",
       "127.0.0.1 was refused: it speaks no TLS"},
      {"a plain node", "", true, good, kBmRemoteProtocol, "does the peer speak TLS?", "it wants TLS"},
      {"a wrong authority", "server", true, mTls.Trust("other_ca.pem"), kBmRemoteProtocol,
       "unable to get local issuer certificate", "unknown ca"},
      {"an expired certificate", "expired", true, good, kBmRemoteProtocol, "certificate has expired",
       "expired"},
      {"a revoked certificate", "revoked", true, with("tls.crl.path", mTls.File("crl.pem")),
       kBmRemoteProtocol, "certificate revoked", "revoked"},
      {"the right name", "server", true, with("tls.peer.name", "127.0.0.1"), 0, "", ""},
      {"a wrong name", "server", true, with("tls.peer.name", "127.0.0.2"), kBmRemoteProtocol, "mismatch", ""},
      {"no authority", "server", true, {}, kBmLocalError, "tls.ca.cert.path is empty", ""},
      {"an unreadable authority", "server", true, mTls.Trust("none.pem"), kBmLocalError, "none.pem", ""},
  };
  for (const auto& one : cases) {
    SCOPED_TRACE(one.what);
    StartNode(one.node);
    FabricClient client;
    ASSERT_EQ(client.Initialize("", 1, Setting(one.tls, one.security)), 0);
    EXPECT_EQ(client.CreateLink(1, "127.0.0.1", mNode.LinkPort()), one.result);
    const std::string report = mReports.Take();
    EXPECT_THAT(report,
                one.report.empty() ? testing::Matcher<std::string>(IsEmpty()) : HasSubstr(one.report));
    std::string log;
    EXPECT_TRUE(Eventually([&] { return (log += mLog.Take()).find(one.log) != std::string::npos; })) << log;
    if (one.result == 0) {
      EXPECT_EQ(log, "");
      ASSERT_EQ(client.CreateNamespace(1, "app", "token"), 0);
      const Tenant tenant{client, "app", "token"};
      EXPECT_TRUE(IsObjectId(tenant.Allocate(1, 1)));
      EXPECT_EQ(mNode.DestroyNamespace("app"), 0);
    }
  }
}

TEST_F(LinkTlsTest, WithTlsOnNothingIsSaidInTheClear) {
  RawListener listener;
  FabricClient client({std::chrono::milliseconds(300), std::chrono::milliseconds(300)});
  ASSERT_EQ(client.Initialize("", 1, Setting(true, mTls.Trust())), 0);
  std::string heard;
  std::thread ear([&] {
    RawSocket caller = listener.Accept();
    heard = caller.Receive(65536);  // until it gives up
  });
  EXPECT_EQ(client.CreateLink(1, "127.0.0.1", listener.Port()), kBmUnconnected);  // it never answers
  ear.join();
  ASSERT_FALSE(heard.empty());
  EXPECT_EQ(heard[0], '\x16') << "no TLS handshake";
  EXPECT_EQ(heard.find("VBM1"), std::string::npos);
}

TEST_F(LinkTlsTest, ANodeReachesItsNeighboursByItsOwnTrustAndNoOther) {
  StartNode("server");
  ASSERT_EQ(mNode.CreateNamespace("app", "token"), 0);
  std::string id;
  ASSERT_EQ(mNode.Allocate("app", 3U << 20U, id), 0);
  FabricPlace nearPlace(2);
  const struct {
    const char* what;
    std::string authority;  // empty: plain
    int result;
    std::string log;
  } cases[] = {{"trusted", "ca.pem", 0, ""},
               {"untrusted", "other_ca.pem", kBmRemoteProtocol, "unable to get local issuer certificate"},
               {"plain", "", kBmRemoteProtocol, ""}};
  for (const auto& one : cases) {
    SCOPED_TRACE(one.what);
    Lines log;
    FabricNodeOptions options = nearPlace.Options();
    options.directory = [this](std::uint16_t nodeId, NodeAddress& address) {
      address = {"127.0.0.1", mNode.LinkPort()};
      return nodeId == 1;
    };
    options.log = [&](int, const std::string& text) { log.Add(text); };
    if (!one.authority.empty()) {
      mTls.Use(options, "server", one.authority);
    }
    FabricNode near;
    std::string error;
    ASSERT_TRUE(near.Start(options, error)) << error;
    FabricClient client;
    ASSERT_EQ(client.Initialize(nearPlace.Home().c_str(), 0), 0);
    const Tenant tenant{client, "app", "token"};
    EXPECT_EQ(tenant.Write(id, 1U << 20U, "far"), one.result);
    const Tenant::Context context(tenant, id);
    void* address = nullptr;
    EXPECT_EQ(client.Map(&context, 1, 1, &address), one.result);  // pulled over the link
    if (one.result == 0) {
      EXPECT_EQ(std::string(static_cast<char*>(address) + (1U << 20U), 3), "far");
      EXPECT_EQ(client.Unmap(id.c_str(), address), 0);
    }
    EXPECT_THAT(log.Take(), HasSubstr(one.log));
  }
}

TEST_F(LinkTlsTest, ANodeWithoutWhatTlsNeedsDoesNotStart) {
  const struct {
    const char* what;
    void (*change)(FabricNodeOptions& options);
    std::string error;
  } cases[] = {
      {"no certificate", [](FabricNodeOptions& options) { options.linkIdentity.clear(); }, "tls.cert.path"},
      {"no authority", [](FabricNodeOptions& options) { options.linkTrust.clear(); }, "tls.ca.cert.path"},
  };
  for (const auto& one : cases) {
    SCOPED_TRACE(one.what);
    FabricNodeOptions options = mPlace.Options();
    mTls.Use(options);
    one.change(options);
    std::string error;
    EXPECT_FALSE(mNode.Start(options, error));
    EXPECT_THAT(error, HasSubstr(one.error));
  }
}

}  // namespace
}  // namespace vyn::fabric
