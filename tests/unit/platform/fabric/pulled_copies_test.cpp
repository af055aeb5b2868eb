// What a node serves of another node's object while its bytes change or arrive damaged.

#include "platform/fabric/node/pulled_copies.h"

#include "support/fabric/fabric.h"
#include "support/net/proxy.h"

namespace {

/// In this thread so many allocations go well before one fails. Negative: all do.
thread_local int gGoWell = -1;

}  // namespace

[[gnu::noinline]] void* operator new(std::size_t size) {
  const bool fails = gGoWell >= 0 && gGoWell-- == 0;
  void* memory = fails ? nullptr : std::malloc(size == 0 ? 1 : size);
  return memory != nullptr ? memory : throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace vyn::fabric {
namespace {

constexpr std::uint64_t kSize = 3 * 4096 + 7;

/// The writer is on node 2, which owns the object. The readers are on node 1, with a link of their own to the
/// writer's node in between.
class PulledCopiesTest : public testing::Test {
 protected:
  PulledCopiesTest() {
    test::StartAgain(mNodes[1], mPlaces[1].Options());
    mLink.emplace(mNodes[1].LinkPort());
    FabricNodeOptions options = mPlaces[0].Options();
    options.directory = [this](std::uint16_t nodeId, NodeAddress& address) {
      address = {"127.0.0.1", mLink->Port()};
      return nodeId == 2;
    };
    options.log = [this](int level, const std::string&) { mWarnings += level == 3 ? 1 : 0; };
    test::StartAgain(mNodes[0], options);
    EXPECT_EQ(mWriter.Initialize(mPlaces[1].Home().c_str(), 0), 0);
    EXPECT_EQ(mReader.Initialize(mPlaces[0].Home().c_str(), 0), 0);
    EXPECT_EQ(mWriter.CreateNamespace(2, "app", "token"), 0);
    EXPECT_EQ(mWriter.Allocate(mObject, kSize, 2), 0);
  }
  void Write(std::size_t size, char letter) {
    EXPECT_EQ(mWriter.Write(mObject, 0, size, std::string(size, letter).data()), 0);
  }
  /// What a process that maps the object on node 1 sees: the letter that each byte has, '*' for several, or
  /// the refusal.
  std::string Seen() {
    void* address = nullptr;
    if (const int result = mReader.Map(mObject, 3, 1, &address); result != 0) {
      return std::to_string(result);
    }
    const std::string bytes(static_cast<char*>(address), kSize);
    EXPECT_EQ(mReader.Unmap(mObject.id.c_str(), address), 0);
    return bytes == std::string(kSize, bytes[0]) ? bytes.substr(0, 1) : "*";
  }
  std::uint64_t Pulls() { return mNodes[0].Stats().pulls; }

  test::FabricPlace mPlaces[2] = {test::FabricPlace(1), test::FabricPlace(2)};
  FabricNode mNodes[2];
  std::optional<test::ByteProxy> mLink;
  FabricClient mWriter;
  FabricClient mReader;
  test::Object mObject{"app", "token"};
  std::atomic<int> mWarnings{0};
};

TEST_F(PulledCopiesTest, EachReaderSeesTheBytesThatTheOwnerHasAtThatMoment) {
  void* address = nullptr;
  ASSERT_EQ(mWriter.Map(mObject, 3, 1, &address), 0);
  std::string seen;
  for (const char letter : {'a', 'b'}) {
    std::memset(address, letter, kSize);
    seen += Seen() + Seen();
  }
  std::memset(address, 'c', kSize);
  ASSERT_EQ(mWriter.Unmap(mObject.id.c_str(), address), 0);
  seen += Seen() + Seen();
  EXPECT_EQ(seen, "aabbcc");
  EXPECT_EQ(Pulls(), 3U);
  // Through the node, nothing stays mapped.
  for (const char letter : {'d', 'e', 'f'}) {
    Write(kSize, letter);
    EXPECT_EQ(Seen() + Seen(), std::string(2, letter));
  }
  EXPECT_EQ(Pulls(), 6U);
}

TEST_F(PulledCopiesTest, ANodeServesOnlyCompleteCopiesWhileTheOwnerIsDown) {
  const test::Object untouched = mObject;
  EXPECT_EQ(Seen(), std::string(1, '\0'));
  ASSERT_EQ(mWriter.Allocate(mObject, kSize, 2), 0);
  Write(kSize, 'x');
  EXPECT_EQ(Seen(), "x");
  mNodes[1].Stop();
  EXPECT_EQ(Seen(), "x");
  mObject = untouched;
  EXPECT_EQ(Seen(), std::to_string(kBmUnconnected));
}

TEST_F(PulledCopiesTest, ANodePullsDamagedBytesAgainAndNeverServesThem) {
  Write(kSize, 'x');
  mLink->Damage(1);
  EXPECT_EQ(Seen(), "x");
  EXPECT_EQ(mWarnings, 1);
  Write(kSize, 'x');
  EXPECT_EQ(Pulls(), 1U);
  mNodes[0].DropCopies("app");
  mLink->Damage(100);
  EXPECT_EQ(Seen(), std::to_string(-EBADMSG));
  EXPECT_EQ(mWarnings, 3);
  mLink->Damage(0);
  EXPECT_EQ(Seen(), "x");
}

TEST_F(PulledCopiesTest, AClientOutsideTheFabricNeverReadsBytesThatALinkDamaged) {
  constexpr std::size_t kLarge = 65536;
  ASSERT_EQ(mWriter.Allocate(mObject, kLarge, 2), 0);
  Write(kLarge, 'y');
  FabricClient outside;
  ASSERT_EQ(outside.Initialize("", 1), 0);
  ASSERT_EQ(outside.CreateLink(2, "127.0.0.1", mLink->Port()), 0);
  mLink->Damage(1);
  EXPECT_EQ(test::ReadObject(outside, mObject, 0, kLarge), std::string(kLarge, 'y'));
  mLink->Damage(100);
  EXPECT_EQ(test::ReadObject(outside, mObject, 0, kLarge), std::to_string(-EBADMSG));
}

TEST_F(PulledCopiesTest, AFailedAllocationLeavesTheBlockUsable) {
  const test::TempDir folder("/dev/shm");
  Pool pool(1, 1U << 20U);
  std::string error;
  ASSERT_TRUE(pool.Open(
      folder.Path(), [](const std::string&) {}, error))
      << error;
  Neighbours neighbours(
      [this](std::uint16_t, NodeAddress& address) {
        address = {"127.0.0.1", mLink->Port()};
        return true;
      },
      {});
  PulledCopies copies(pool, neighbours, nullptr);
  const ObjectName object{{"app", "token"}, mObject.id};
  const auto open = [&] {
    net::Descriptor file;
    std::uint64_t size = 0;
    return copies.Open(
        object, [] { return false; }, file, size);  // who finds a pull does not wait for it
  };
  bool failed = true;
  for (int n = 0; failed; ++n) {
    SCOPED_TRACE(n);
    gGoWell = n;
    try {
      open();
    } catch (const std::bad_alloc&) {
    }
    failed = gGoWell < 0;
    gGoWell = -1;
    ASSERT_EQ(open(), 0);
    copies.Drop(mObject.id);
    ASSERT_EQ(pool.Bytes().Used(), 0U);
  }
}

}  // namespace
}  // namespace vyn::fabric
