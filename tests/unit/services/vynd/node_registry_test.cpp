#include "services/node/node_registry.h"

#include "platform/zk_helper/zk_helper.h"
#include "support/cluster_test.h"
#include "support/fabric.h"

#include <thread>

namespace vyn::services {
namespace {

using std::string_literals::operator""s;
using test::RawZookeeper;
using test::WaitUntil;

constexpr const char* kNode = "/mf/node/7";
constexpr const char* kCapacity = "/mf/capacity/7";
constexpr const char* kKnown = "/vyn/nodes/7";

std::string Padded(std::string text, std::size_t size) {
  return text + std::string(size - text.size(), '\0');
}

/// The record of a node with link port 0x1234, as written by hand.
std::string NodeBytes(const std::string& ip, const std::string& host,
                      const std::string& port = "\x34\x12\0\0"s) {
  return "\0\0\0\0"s + port + Padded(ip, 16) + Padded(host, 64);
}

std::uint64_t Number(const std::string& bytes, std::size_t offset) {
  std::uint64_t value = 0;
  for (std::size_t i = 8; i-- > 0;) {
    value = value << 8U | static_cast<unsigned char>(bytes.at(offset + i));
  }
  return value;
}

class NodeRegistryTest : public test::ClusterTest {
 protected:
  void SetUp() override {
    ClusterTest::SetUp();
    Connect();
    std::string error;
    bm::FabricNodeOptions options = mPlace.Options();
    options.capacity = 8U << 20U;
    ASSERT_TRUE(mFabric.Start(options, error)) << error;
  }
  void TearDown() override {
    mFabric.Stop();
    ClusterTest::TearDown();
  }
  NodeIdentity Identity() {
    NodeIdentity identity{7, "10.0.0.1", "host-7", 0x1234};
    identity.claimLimit = std::chrono::milliseconds(500);
    return identity;
  }

  test::FabricPlace mPlace{7};
  bm::FabricNode mFabric;
  std::string mError;
};

TEST_F(NodeRegistryTest, PublishesBothRecordsAndTakesThemAway) {
  ASSERT_EQ(mFabric.CreateNamespace("app", "t"), 0);
  std::string id;
  ASSERT_EQ(mFabric.Allocate("app", 1U << 20U, id), 0);
  NodeRegistry registry(Identity(), mFabric);
  ASSERT_TRUE(registry.Claim(mError)) << mError;
  EXPECT_TRUE(mRaw->Get(kNode) == NodeBytes("10.0.0.1", "host-7"));
  EXPECT_FALSE(mRaw->Exists(kCapacity)) << "a node that does not serve yet is not chosen";
  ASSERT_TRUE(registry.Start(mError)) << mError;
  const std::string capacity = mRaw->Get(kCapacity);
  ASSERT_EQ(capacity.size(), 24U);
  EXPECT_EQ(Number(capacity, 0), 8U << 20U);
  EXPECT_EQ(Number(capacity, 8), 7U << 20U);
  const auto now = static_cast<std::uint64_t>(time(nullptr));
  EXPECT_LE(Number(capacity, 16), now);
  EXPECT_GT(Number(capacity, 16) + 600, now);
  EXPECT_NE(mRaw->Owner(kNode), 0);
  EXPECT_NE(mRaw->Owner(kCapacity), 0);
  EXPECT_EQ(mRaw->Get(kKnown), R"({"host":"host-7","ip":"10.0.0.1"})");
  EXPECT_TRUE(mRaw->Exists("/vyn/reclaim/7"));

  // A new session: they are made again, by it.
  const std::int64_t session = mRaw->Owner(kNode);
  ASSERT_EQ(mAdapter->ClusterZKClose(), 0U);
  ASSERT_EQ(mAdapter->ClusterZKAdapterInit(30000), 0U);
  EXPECT_TRUE(WaitUntil([&] { return mRaw->Exists(kCapacity) && mRaw->Owner(kCapacity) != session; }));
  EXPECT_TRUE(mRaw->Get(kNode) == NodeBytes("10.0.0.1", "host-7"));
  registry.Stop();
  EXPECT_FALSE(mRaw->Exists(kNode));
  EXPECT_FALSE(mRaw->Exists(kCapacity));
  EXPECT_TRUE(mRaw->Exists(kKnown));
}

TEST_F(NodeRegistryTest, RefusesAnIdThatIsAnotherNodes) {
  struct Case {
    const char* what;
    std::string present;  ///< at /mf/node/7, of another session; empty: nothing
    std::string known;    ///< at /vyn/nodes/7; empty: nothing
    bool takeOver;
    std::string refusal;  ///< a part of it; empty: claimed
  };
  const std::string own = R"({"host":"h","ip":"10.0.0.1"})";
  const std::string other = R"({"host":"h","ip":"10.0.0.9"})";
  const Case cases[] = {
      {"first start", "", "", false, ""},
      {"after a crash", NodeBytes("10.0.0.1", "host-7"), own, false, ""},
      {"after a crash, with another name", NodeBytes("10.0.0.1", "old"), own, false, ""},
      {"runs elsewhere", NodeBytes("10.0.0.9", "host-7"), "", false, "10.0.0.9"},
      {"runs elsewhere, whatever is said", NodeBytes("10.0.0.9", "host-7"), "", true, "10.0.0.9"},
      {"runs here by another port", NodeBytes("10.0.0.1", "host-7", "\x35\x12\0\0"s), own, false, "4661"},
      {"no record at all", "x", own, false, "belongs"},
      {"is down elsewhere", "", other, false, "--take-over"},
      {"has moved", "", other, true, ""},
      {"damaged", "", "{", false, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    mRaw->Create("/mf/node/unused");
    mRaw->Create("/vyn/nodes/unused");
    mRaw->Create("/vyn/reclaim/7/entry", "kept");
    if (!c.present.empty()) {
      mRaw->Create(kNode, c.present, ZOO_EPHEMERAL);
    }
    if (!c.known.empty()) {
      mRaw->Create(kKnown, c.known);
    }
    NodeIdentity identity = Identity();
    identity.takeOver = c.takeOver;
    {
      NodeRegistry registry(identity, mFabric);
      std::string error;
      EXPECT_EQ(registry.Claim(error), c.refusal.empty()) << error;
      EXPECT_NE(error.find(c.refusal), std::string::npos) << error;
    }
    if (c.refusal.empty()) {
      EXPECT_TRUE(mRaw->Get(kNode) == NodeBytes("10.0.0.1", "host-7"));
      EXPECT_NE(mRaw->Get(kKnown).find("10.0.0.1"), std::string::npos);
    } else {
      EXPECT_EQ(mRaw->Get(kNode), c.present.empty() ? "(none)" : c.present);
      EXPECT_EQ(mRaw->Get(kKnown), c.known.empty() ? "(none)" : c.known);
    }
    EXPECT_EQ(mRaw->Get("/vyn/reclaim/7/entry"), "kept");
    for (const char* path : {kNode, kKnown, "/mf/node/unused", "/vyn/nodes/unused", "/vyn/reclaim/7/entry"}) {
      if (mRaw->Exists(path)) {
        mRaw->Delete(path);
      }
    }
  }
}

TEST_F(NodeRegistryTest, APoolWithObjectsProvesWhoseTheIdIs) {
  mRaw->Create(kKnown, R"({"host":"h","ip":"10.0.0.9"})");
  ASSERT_EQ(mFabric.CreateNamespace("app", "t"), 0);
  std::string id;
  ASSERT_EQ(mFabric.Allocate("app", 1, id), 0);
  NodeRegistry registry(Identity(), mFabric);
  EXPECT_TRUE(registry.Claim(mError)) << mError;
}

TEST_F(NodeRegistryTest, WaitsForTheEndOfAnEarlierSession) {
  auto earlier = std::make_unique<RawZookeeper>(mUrl);
  earlier->Create(kNode, NodeBytes("10.0.0.1", "host-7", "\x35\x12\0\0"s), ZOO_EPHEMERAL);
  NodeIdentity identity = Identity();
  identity.claimLimit = std::chrono::hours(10);
  NodeRegistry registry(identity, mFabric);
  EXPECT_FALSE(registry.Claim(mError, [] { return true; })) << "the daemon is told to end";
  std::jthread end([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    earlier.reset();
  });
  EXPECT_TRUE(registry.Claim(mError)) << mError;
  EXPECT_TRUE(mRaw->Get(kNode) == NodeBytes("10.0.0.1", "host-7"));
}

}  // namespace
}  // namespace vyn::services
