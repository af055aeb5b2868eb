// The wrappers and the access to blocks on the real fabric: nodes and other users of their blocks are
// processes of their own.

#include "vyn/big_memory.h"

#include "support/fabric/fabric.h"
#include "support/pattern.h"
#include "support/process/installation.h"
#include "tessel/sdk/start_up/sdk_state.h"
#include "vyn/broadcast.h"

namespace vyn::test {
namespace {

constexpr unsigned long kSize = (4UL << 20U) + 100;  // not whole pages

#define EXPECT_OK(CALL) EXPECT_EQ(CALL, 0U) << BmGetLastErrorMessage()

/// Two nodes run; the libbmclient.so of the build stands in the installation.
class BigMemoryTest : public testing::Test {
 protected:
  BigMemoryTest() {
    Installation::Get().LinkBmClient();
    mOtherHost.Knows(1, mHost.Port());
    tessel::g_appToken = "token";
    tessel::g_broadcastCache = new tessel::BroadcastSdkCache;
  }
  ~BigMemoryTest() override {
    BmUninitialize();
    tessel::g_broadcastCache = nullptr;
  }

  /// Returns: the id of a new object. The first one is block 0 of app-1.
  static std::string Allocate() {
    char id[64] = {};
    EXPECT_OK(BmAlloc("app", kSize, 16, 1, id, "token"));
    tessel::g_broadcastCache->InsertVarInfo("app-1", {id}, {kSize});
    return id;
  }
  static std::string Read(const std::string& id, unsigned long offset, unsigned long size) {
    std::string bytes(size, '\0');
    EXPECT_OK(BmRead(id.c_str(), offset, size, bytes.data(), 0, "app", "token"));
    return bytes;
  }
  /// Expects that a process on the place finds the pattern in a block.
  static void ExpectPattern(const FabricPlace& place, const std::string& id, unsigned int seed) {
    FabricClient client(place.Home());
    EXPECT_EQ(client.Ask("map app token " + id + " 1"), "0 0");
    EXPECT_EQ(client.Ask("look 0 " + std::to_string(kSize) + " " + std::to_string(seed)), "1");
  }

  FabricPlace mPlace{1};
  FabricPlace mOtherPlace{2};
  FabricHost mHost{mPlace};
  FabricHost mOtherHost{mOtherPlace};
};

TEST_F(BigMemoryTest, TheWrappersUseBlocksOfTheirNode) {
  EXPECT_OK(BmInitialize(mPlace.Home().c_str(), 0));
  EXPECT_OK(BmCreateNamespace(1, "", "app", 0, "token"));
  const std::string id = Allocate();
  const std::string other = Allocate();
  void* address = nullptr;
  ASSERT_EQ(ObtainBroadcastBlockAddr("app", 1, 0, &address), 0U);
  FillPattern(address, kSize, 3);
  ExpectPattern(mPlace, id, 3);
  ExpectPattern(mOtherPlace, id, 3);  // a copy that its node has pulled
  EXPECT_EQ(ReleaseBroadcastBlockAddr("app", 1, 0, address), 0U);

  // What broadcast itself does not use: growing, copies between objects, gathering, files.
  EXPECT_OK(BmExpand(other.c_str(), 2 * kSize, 0, "app", "token"));
  EXPECT_OK(BmCopy(id.c_str(), 96, other.c_str(), kSize, 4000, "app", "token"));
  EXPECT_EQ(Read(other, kSize, 4000), Pattern(4096, 3).substr(96));
  BmGatherPiece pieces[2] = {};
  std::memcpy(pieces[0].bmId, id.c_str(), id.size());
  pieces[1] = pieces[0];
  std::tie(pieces[0].offset, pieces[0].length, pieces[1].length) = std::tuple(4000, 96, 10);
  const std::unique_ptr<BmGatherContext, decltype(&std::free)> context(
      GenerateBmGatherContext(kBmGatherPieces, pieces, sizeof(pieces)), &std::free);
  char gathered[64] = {};
  EXPECT_OK(BmGather(context.get(), 0, false, gathered, "app", "token", nullptr));
  EXPECT_EQ(Read(gathered, 0, 106), Pattern(4096, 3).substr(4000) + Pattern(10, 3));
  const std::string path = Installation::Get().Write("spill", "0123456789");
  const BmBlockRecord block{id.c_str(), "app", "token"};
  const BmFileRecord file{1, 0, path.c_str(), "r", 2, 5};
  EXPECT_OK(BmSpecificObjectSwapIn(&file, &block, 0, nullptr, kSize));
  EXPECT_EQ(Read(id, 0, 6), "23456" + Pattern(6, 3).substr(5));

  const char* both[] = {id.c_str(), other.c_str()};
  EXPECT_OK(BmBatchFree(both, 2, 16, "app", "token"));
  EXPECT_EQ(BmAlloc("app", 2UL << 30U, 16, 1, gathered, "token"), 2100041U) << "more than the pool";
  EXPECT_OK(BmUninitialize());
  EXPECT_OK(BmDestroyNamespace(1, "", "app", "token"));  // it comes back when it is needed
  EXPECT_EQ(mHost.Ask("stat used"), "0");
}

}  // namespace
}  // namespace vyn::test
