// The fabric between real processes: nodes and clients that are killed, stopped, restarted, and of other
// users.

#include "support/fabric.h"

#include "support/test.h"
#include "support/wait_until.h"

namespace vyn::test {
namespace {

// Places in FabricHost::Stats.
constexpr std::size_t kUsed = 1;
constexpr std::size_t kObjects = 2;
constexpr std::size_t kCopies = 4;
constexpr std::size_t kPulls = 6;

// The start of what a client answers.
constexpr const char* kDenied = "-13";
constexpr const char* kAbsent = "-2";
constexpr const char* kUnconnected = "-195";
constexpr const char* kFull = "-79999";

std::string Code(const std::string& answer) { return answer.substr(0, answer.find(' ')); }

TEST(FabricTest, AnotherUserGetsWhatATokenOpensAndNothingElse) {
  if (::geteuid() != 0) {
    GTEST_SKIP() << "becoming another user needs root";
  }
  const FabricPlace place(1);
  FabricHost host(place);
  FabricClient owner(place.Home());
  ASSERT_EQ(owner.Ask("create 1 app token"), "0");
  const std::string id = owner.Allocate(1, 8192);
  ASSERT_EQ(owner.Ask("write app token " + id + " 0 8192 3"), "0");
  FabricClient nobody(place.Home());
  ASSERT_EQ(nobody.Ask("user 65534"), "0");
  EXPECT_EQ(nobody.Ask("query"), "0 1");
  EXPECT_EQ(nobody.Ask("reach " + place.Pool() + "/app/" + id), std::to_string(EACCES));
  EXPECT_EQ(nobody.Ask("reach " + place.Pool()), std::to_string(EACCES));
  EXPECT_EQ(nobody.Ask("map app guess " + id + " 3"), kDenied);
  ASSERT_EQ(nobody.Ask("map app token " + id + " 3"), "0 0");
  EXPECT_EQ(nobody.Ask("look 0 8192 3"), "1");
  // A descriptor for reading cannot be mapped for writing, nor opened again for it.
  EXPECT_EQ(nobody.Ask("readonly app token " + id),
            "0 " + std::to_string(EACCES) + " " + std::to_string(EACCES));
  // A free takes the name and leaves the pages to who maps them.
  owner.Kill();
  EXPECT_EQ(nobody.Ask("free app token " + id), "0");
  EXPECT_EQ(nobody.Ask("look 0 8192 3"), "1");
  EXPECT_EQ(host.Stats()[kUsed], 0U);
}

TEST(FabricTest, ManyProcessesThatMapAFarBlockAtOncePullItOnce) {
  const FabricPlace near(1);
  const FabricPlace far(2);
  FabricHost nearHost(near);
  FabricHost farHost(far);
  ByteProxy link(farHost.Port(), 3U << 20U);
  nearHost.Knows(2, link.Port());
  FabricClient owner(far.Home());
  ASSERT_EQ(owner.Ask("create 2 app token"), "0");
  const std::string id = owner.Allocate(2, 16777216);
  ASSERT_EQ(owner.Ask("write app token " + id + " 0 16777216 9"), "0");

  std::vector<FabricClient> clients;
  for (int count = 0; count < 6; ++count) {
    clients.emplace_back(near.Home());
    clients.back().Send("map app token " + id + " 3");
  }
  ASSERT_TRUE(link.WaitUntilStill());
  EXPECT_EQ(nearHost.Stats()[kCopies], 0U);  // nothing that is half there can be seen
  clients[0].Kill();                         // may be the one whose request pulls
  clients[5].Kill();
  link.LetGo();
  for (std::size_t index : {1U, 2U, 3U, 4U}) {
    EXPECT_EQ(clients[index].Receive(), "0 0");
    EXPECT_EQ(clients[index].Ask("look 0 16777216 9"), "1");
  }
  const auto stats = nearHost.Stats();
  EXPECT_EQ(stats[kPulls], 1U);
  EXPECT_EQ(stats[kCopies], 1U);
  EXPECT_EQ(stats[kUsed], 16777216U);

  // The copy goes when the original does, seen by the sweep; what is mapped stays.
  ASSERT_EQ(owner.Ask("free app token " + id), "0");
  EXPECT_TRUE(WaitUntil([&] { return nearHost.Stats()[kUsed] == 0; }));
  EXPECT_EQ(clients[2].Ask("look 0 16777216 9"), "1");
  EXPECT_EQ(clients[3].Ask("map app token " + id + " 3"), kAbsent);
}

/// A node with room for two copies of 4 MiB, once by its limit and once by its file system.
class CopiesTest : public testing::TestWithParam<bool> {};

TEST_P(CopiesTest, ServeTheirOwnersOnlyAndGiveWayWhenRoomIsWanted) {
  if (GetParam() && ::geteuid() != 0) {
    GTEST_SKIP() << "mounting a file system needs root";
  }
  const FabricPlace near(1);
  const FabricPlace far(2);
  const std::vector<std::string> mounted = {
      "unshare",
      "--mount",
      "sh",
      "-c",
      "mount -t tmpfs -o size=10m,mode=700 pool " + near.Pool() + " && exec \"$@\"",
      "sh"};
  FabricHost nearHost = GetParam() ? FabricHost(near, {}, mounted)
                                   : FabricHost(near, {"--capacity", std::to_string(10U << 20U)});
  std::optional<FabricHost> farHost(far);
  nearHost.Knows(2, farHost->Port());
  FabricClient client(near.Home());
  ASSERT_EQ(client.Ask("create 2 app token"), "0");
  ASSERT_EQ(client.Ask("create 1 app token"), "0");
  std::vector<std::string> ids;
  for (const std::string seed : {"0", "1", "2"}) {
    ids.push_back(client.Allocate(2, 4194304));
    ASSERT_EQ(client.Ask("write app token " + ids.back() + " 0 4194304 " + seed), "0");
  }
  const auto map = [&](std::size_t index, const std::string& token = "token") {
    return client.Ask("map app " + token + " " + ids[index] + " 3");
  };
  EXPECT_EQ(map(0), "0 0");
  EXPECT_EQ(map(1), "0 1");
  EXPECT_EQ(map(0), "0 2");
  for (const char* number : {"0", "1", "2"}) {  // what is mapped takes room from the file system
    ASSERT_EQ(client.Ask(std::string("unmap ") + number), "0");
  }
  EXPECT_EQ(map(2), "0 3");  // in place of the second
  EXPECT_EQ(nearHost.Stats()[kCopies], 2U);
  EXPECT_EQ(nearHost.Stats()[kPulls], 3U);
  // A request for more than all copies together would free takes none of them.
  const std::string own = client.Allocate(1, 1000000);
  EXPECT_EQ(Code(client.Ask("alloc 1 app token 10000000")), kFull);
  EXPECT_EQ(nearHost.Stats()[kCopies], 2U);
  ASSERT_EQ(client.Ask("free app token " + own), "0");

  // While their owner is away, copies serve whoever has the right to the original.
  EXPECT_EQ(map(2, "wrong"), kDenied);
  farHost->Process().Kill();
  EXPECT_EQ(map(0), "0 4");
  EXPECT_EQ(client.Ask("look 4 4194304 0"), "1");
  EXPECT_EQ(map(0, "wrong"), kUnconnected);
  EXPECT_EQ(map(1), kUnconnected);
  ASSERT_EQ(client.Ask("unmap 4"), "0");
  // An object of the node itself needs room: the copy that nobody maps goes, then the other one. Its mapping
  // stays.
  const std::string large = client.Allocate(1, 4194304);
  EXPECT_LE(nearHost.Stats()[kCopies], 1U);
  EXPECT_EQ(client.Ask("look 3 4194304 2"), "1");
  ASSERT_EQ(client.Ask("unmap 3"), "0");
  const std::string second = client.Allocate(1, 4194304);
  EXPECT_EQ(nearHost.Stats()[kCopies], 0U);

  farHost.emplace(far);
  nearHost.Knows(2, farHost->Port());
  EXPECT_EQ(map(0), kFull);  // an object of the node itself gives no way
  ASSERT_EQ(client.Ask("free app token " + large), "0");
  EXPECT_EQ(map(0), "0 5");
  EXPECT_EQ(client.Ask("look 5 4194304 0"), "1");
  EXPECT_EQ(client.Ask("free app token " + ids[0]), "0");  // through the own node, which drops its copy
  EXPECT_EQ(nearHost.Stats()[kUsed], 4194304U);
  EXPECT_EQ(client.Ask("free app token " + second), "0");
}

INSTANTIATE_TEST_SUITE_P(FabricTest, CopiesTest, testing::Bool(),
                         [](const auto& row) { return row.param ? "SmallFileSystem" : "SmallLimit"; });

TEST(FabricTest, ANodeKilledWhileItPullsLeavesNothingAndTheNextOnePulls) {
  const FabricPlace near(1);
  const FabricPlace far(2);
  std::optional<FabricHost> nearHost(near);
  FabricHost farHost(far);
  ByteProxy link(farHost.Port(), 3U << 20U);
  nearHost->Knows(2, link.Port());
  FabricClient client(near.Home());
  ASSERT_EQ(client.Ask("create 2 app token"), "0");
  const std::string id = client.Allocate(2, 8388608);
  ASSERT_EQ(client.Ask("write app token " + id + " 0 1048576 9"), "0");
  client.Send("map app token " + id + " 3");
  ASSERT_TRUE(link.WaitUntilStill());
  nearHost->Process().Kill();
  EXPECT_EQ(client.Receive(), kUnconnected);
  EXPECT_EQ(NamesIn(near.Pool()), std::vector<std::string>{".node"});
  nearHost.emplace(near);
  nearHost->Knows(2, farHost.Port());
  EXPECT_EQ(client.Ask("map app token " + id + " 3"), "0 0");
  EXPECT_EQ(client.Ask("look 0 1048576 9"), "1");
}

TEST(FabricTest, ANodeKilledWhileItAllocatesLeavesWholeObjectsOnly) {
  const FabricPlace place(1);
  std::optional<FabricHost> host(place);
  const std::uint64_t size = 128U << 20U;
  for (const int delay : {0, 5, 15, 30, 60}) {
    FabricClient client(place.Home());
    ASSERT_EQ(client.Ask("create 1 app token"), "0");
    client.Send("alloc 1 app token " + std::to_string(size));
    ::poll(nullptr, 0, delay);
    host->Process().Kill();
    const std::string answer = client.Receive();
    host.emplace(place);
    // Whoever asked was answered with an id or with an error. In between an object may have been made whose
    // id nobody learnt; whatever is there is whole and counted.
    const auto stats = host->Stats();
    EXPECT_EQ(stats[kUsed], stats[kObjects] * size);
    for (const auto& entry : std::filesystem::directory_iterator(place.Pool() + "/app")) {
      if (entry.path().filename().native()[0] != '.') {
        EXPECT_EQ(entry.file_size(), size);
      }
    }
    if (Code(answer) == "0") {
      const std::string id = answer.substr(2);
      EXPECT_EQ(client.Ask("write app token " + id + " " + std::to_string(size - 1) + " 1 0"), "0");
      EXPECT_EQ(client.Ask("free app token " + id), "0");
    }
    EXPECT_EQ(client.Ask("destroy 1 app token"), "0");
    EXPECT_EQ(host->Stats()[kUsed], 0U);
  }
}

TEST(FabricTest, AClientKilledWhileItFillsOrAllocatesHarmsNobody) {
  const FabricPlace place(1);
  FabricHost host(place);
  FabricClient other(place.Home());
  ASSERT_EQ(other.Ask("create 1 app token"), "0");
  const std::string id = other.Allocate(1, 33554432);
  for (const int delay : {1, 20}) {
    FabricClient local(place.Home());
    FabricClient linked("");
    ASSERT_EQ(linked.Ask("link 1 127.0.0.1 " + std::to_string(host.Port())), "0");
    local.Send("write app token " + id + " 0 16777216 4");
    linked.Send("write app token " + id + " 16777216 16777216 4");
    ::poll(nullptr, 0, delay);
    local.Kill();
    linked.Kill();
    EXPECT_TRUE(WaitUntil([&] {  // what the killed ones had sent may still be written for a moment
      return other.Ask("write app token " + id + " 0 33554432 6") == "0" &&
             other.Ask("read app token " + id + " 0 33554432 6") == "0 1";
    }));
  }
  // Who is gone before the node comes to the request has allocated nothing, nor has who goes while it is at
  // work.
  FabricClient early(place.Home());
  FabricClient late(place.Home());
  ASSERT_EQ(early.Ask("query"), "0 1");
  host.Process().Signal(SIGSTOP);
  early.Send("alloc 1 app token 1000");
  ::poll(nullptr, 0, 100);
  early.Kill();
  host.Process().Signal(SIGCONT);
  late.Send("alloc 1 app token 536870912");
  ::poll(nullptr, 0, 5);
  late.Kill();
  EXPECT_TRUE(WaitUntil([&] { return host.Stats()[kUsed] == 33554432; }));
  EXPECT_EQ(host.Stats()[kObjects], 1U);
}

}  // namespace
}  // namespace vyn::test
