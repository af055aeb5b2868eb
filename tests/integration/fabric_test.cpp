// The fabric between real processes: nodes and clients that are killed, stopped, restarted, and of other
// users.

#include "support/fabric.h"

#include "platform/fabric/protocol/names.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <optional>

namespace vyn::test {
namespace {

// Places in FabricHost::Stats.
constexpr std::size_t kUsed = 1;
constexpr std::size_t kObjects = 2;
constexpr std::size_t kCopies = 4;
constexpr std::size_t kPulls = 6;

std::string IdOf(const std::string& answer) {
  EXPECT_EQ(answer.rfind("0 ", 0), 0U) << answer;
  return answer.substr(2);
}

ChildProcess ClientOf(const FabricPlace& place) {
  ChildProcess client = StartFabricClient();
  EXPECT_EQ(client.Ask("init " + place.Home() + " 0"), "0");
  return client;
}

/// Asks again until the answer is the one expected, for a while.
template <typename Ask, typename Expected>
bool Becomes(const Ask& ask, const Expected& expected) {
  for (int tries = 0; tries < 1000; ++tries) {
    if (ask() == expected) {
      return true;
    }
    ::poll(nullptr, 0, 20);
  }
  return false;
}

TEST(FabricTest, ADriverFillsABlockAndAnotherProcessReadsItInPlace) {
  const FabricPlace place(1);
  FabricHost host(place);
  ChildProcess driver = ClientOf(place);
  ChildProcess executor = ClientOf(place);
  EXPECT_EQ(driver.Ask("query"), "0 1");
  ASSERT_EQ(driver.Ask("create 1 app token"), "0");
  EXPECT_EQ(driver.Ask("create 1 app token"), "-79995");
  EXPECT_EQ(driver.Ask("create 1 app other"), std::to_string(-EACCES));
  const std::string id = IdOf(driver.Ask("alloc 1 app token 4194304"));
  ASSERT_EQ(driver.Ask("map app token " + id + " 3"), "0 0");
  ASSERT_EQ(driver.Ask("fill 0 4194304 5"), "1");
  ASSERT_EQ(executor.Ask("map app token " + id + " 3"), "0 0");
  EXPECT_EQ(executor.Ask("look 0 4194304 5"), "1");
  EXPECT_EQ(executor.Ask("read app token " + id + " 0 4194304 5"), "0 1");
  EXPECT_EQ(executor.Ask("map app wrong " + id + " 3"), std::to_string(-EACCES) + " 0");
  EXPECT_EQ(executor.Ask("map app2 token " + id + " 3"), std::to_string(-ENOENT) + " 0");
  // The driver dies; what it made stays, and a free takes the name and not the pages.
  driver.Kill();
  ASSERT_EQ(executor.Ask("free app token " + id), "0");
  EXPECT_EQ(executor.Ask("look 0 4194304 5"), "1");
  EXPECT_EQ(host.Stats()[kUsed], 0U);
  EXPECT_EQ(executor.Ask("unmap 0"), "0");
  EXPECT_EQ(executor.Ask("destroy 1 app token"), "0");
  EXPECT_EQ(executor.Wait(), 0);
  host.Process().Wait();
  EXPECT_EQ(NamesIn(place.Pool()), std::vector<std::string>());
}

TEST(FabricTest, AnotherUserGetsWhatATokenOpensAndNothingElse) {
  if (::geteuid() != 0) {
    GTEST_SKIP() << "becoming another user needs root";
  }
  const FabricPlace place(1);
  FabricHost host(place);
  ChildProcess owner = ClientOf(place);
  ASSERT_EQ(owner.Ask("create 1 app token"), "0");
  const std::string id = IdOf(owner.Ask("alloc 1 app token 8192"));
  ASSERT_EQ(owner.Ask("write app token " + id + " 0 8192 3"), "0");
  ChildProcess nobody = ClientOf(place);
  ASSERT_EQ(nobody.Ask("user 65534"), "0");
  EXPECT_EQ(nobody.Ask("reach " + place.Pool() + "/app/" + id), std::to_string(EACCES));
  EXPECT_EQ(nobody.Ask("reach " + place.Pool()), std::to_string(EACCES));
  EXPECT_EQ(nobody.Ask("map app guess " + id + " 3"), std::to_string(-EACCES) + " 18446744073709551615");
  ASSERT_EQ(nobody.Ask("map app token " + id + " 3"), "0 0");
  EXPECT_EQ(nobody.Ask("look 0 8192 3"), "1");
  // A descriptor for reading cannot be mapped for writing, nor opened again for it.
  EXPECT_EQ(nobody.Ask("readonly app token " + id),
            "0 " + std::to_string(EACCES) + " " + std::to_string(EACCES));
}

TEST(FabricTest, ManyProcessesThatMapAFarBlockAtOncePullItOnce) {
  const FabricPlace near(1);
  const FabricPlace far(2);
  FabricHost nearHost(near);
  FabricHost farHost(far);
  SlowLink link(farHost.Port(), 3U << 20U);
  nearHost.Knows(2, link.Port());
  ChildProcess owner = ClientOf(far);
  ASSERT_EQ(owner.Ask("create 2 app token"), "0");
  const std::string id = IdOf(owner.Ask("alloc 2 app token 16777216"));
  ASSERT_EQ(owner.Ask("write app token " + id + " 0 16777216 9"), "0");

  std::vector<ChildProcess> clients;
  for (int count = 0; count < 8; ++count) {
    clients.push_back(ClientOf(near));
    clients.back().Send("map app token " + id + " 3");
  }
  ASSERT_TRUE(link.WaitUntilStill());
  EXPECT_EQ(nearHost.Stats()[kCopies], 0U);  // nothing that is half there can be seen
  clients[0].Kill();                         // may be the one whose request pulls
  clients[5].Kill();
  link.LetGo();
  for (std::size_t index : {1U, 2U, 3U, 4U, 6U, 7U}) {
    EXPECT_EQ(clients[index].Receive(), "0 0");
    EXPECT_EQ(clients[index].Ask("look 0 16777216 9"), "1");
  }
  auto stats = nearHost.Stats();
  EXPECT_EQ(stats[kPulls], 1U);
  EXPECT_EQ(stats[kCopies], 1U);
  EXPECT_EQ(stats[kUsed], 16777216U);
  EXPECT_EQ(clients[1].Ask("map app wrong " + id + " 3"), std::to_string(-EACCES) + " 0");

  // The copy goes when the original does, seen by the sweep; what is mapped stays.
  ASSERT_EQ(owner.Ask("free app token " + id), "0");
  EXPECT_TRUE(Becomes([&] { return nearHost.Stats()[kUsed]; }, 0U));
  EXPECT_EQ(clients[2].Ask("look 0 16777216 9"), "1");
  EXPECT_EQ(clients[3].Ask("map app token " + id + " 3"), std::to_string(-ENOENT) + " 0");
}

TEST(FabricTest, ACopyServesWhileItsOwnerIsAwayAndGivesWayWhenRoomIsWanted) {
  const FabricPlace near(1);
  const FabricPlace far(2);
  FabricHost nearHost(near, {"--capacity", std::to_string(10U << 20U)});
  std::optional<FabricHost> farHost(far);
  nearHost.Knows(2, farHost->Port());
  ChildProcess client = ClientOf(near);
  ASSERT_EQ(client.Ask("create 2 app token"), "0");
  ASSERT_EQ(client.Ask("create 1 app token"), "0");
  std::vector<std::string> ids;
  for (const std::string seed : {"1", "2", "3"}) {
    ids.push_back(IdOf(client.Ask("alloc 2 app token 4194304")));
    ASSERT_EQ(client.Ask("write app token " + ids.back() + " 0 4194304 " + seed), "0");
  }
  ASSERT_EQ(client.Ask("map app token " + ids[0] + " 3"), "0 0");
  ASSERT_EQ(client.Ask("map app token " + ids[1] + " 3"), "0 1");
  ASSERT_EQ(client.Ask("map app token " + ids[0] + " 3"), "0 2");
  ASSERT_EQ(client.Ask("map app token " + ids[2] + " 3"), "0 3");  // in place of the second
  EXPECT_EQ(nearHost.Stats()[kCopies], 2U);
  EXPECT_EQ(nearHost.Stats()[kPulls], 3U);
  // What the copies together have no room for takes none of them.
  const std::string own = IdOf(client.Ask("alloc 1 app token 2000000"));
  EXPECT_EQ(client.Ask("alloc 1 app token 10000000").substr(0, 6), "-79999");
  EXPECT_EQ(nearHost.Stats()[kCopies], 2U);
  ASSERT_EQ(client.Ask("free app token " + own), "0");

  farHost->Process().Kill();
  EXPECT_EQ(client.Ask("map app token " + ids[0] + " 3"), "0 4");
  EXPECT_EQ(client.Ask("look 4 4194304 1"), "1");
  EXPECT_EQ(client.Ask("map app wrong " + ids[0] + " 3"), "-195 4");
  EXPECT_EQ(client.Ask("map app token " + ids[1] + " 3"), "-195 4");
  // An own object needs room: copies go, mappings stay.
  const std::string large = IdOf(client.Ask("alloc 1 app token 8388608"));
  EXPECT_EQ(nearHost.Stats()[kCopies], 0U);
  EXPECT_EQ(client.Ask("look 1 4194304 2"), "1");
  EXPECT_EQ(client.Ask("look 3 4194304 3"), "1");

  farHost.emplace(far);
  nearHost.Knows(2, farHost->Port());
  EXPECT_EQ(client.Ask("map app token " + ids[0] + " 3"), "-79999 4");  // an own object gives no way
  ASSERT_EQ(client.Ask("free app token " + large), "0");
  EXPECT_EQ(client.Ask("map app token " + ids[0] + " 3"), "0 5");
  EXPECT_EQ(client.Ask("look 5 4194304 1"), "1");
  EXPECT_EQ(client.Ask("free app token " + ids[0]), "0");  // through the own node, which drops its copy
  EXPECT_EQ(nearHost.Stats()[kUsed], 0U);
}

TEST(FabricTest, CopiesGiveWayWhenTheFileSystemIsFullBeforeTheLimit) {
  if (::geteuid() != 0) {
    GTEST_SKIP() << "mounting a file system needs root";
  }
  const FabricPlace near(1);
  const FabricPlace far(2);
  // A tmpfs of 10 MiB below a limit of 1 GiB, seen by this node alone.
  FabricHost nearHost(near, {},
                      {"unshare", "--mount", "sh", "-c",
                       "mount -t tmpfs -o size=10m,mode=700 pool " + near.Pool() + " && exec \"$@\"", "sh"});
  FabricHost farHost(far);
  nearHost.Knows(2, farHost.Port());
  ChildProcess client = ClientOf(near);
  ASSERT_EQ(client.Ask("create 2 app token"), "0");
  ASSERT_EQ(client.Ask("create 1 app token"), "0");
  const auto pull = [&] {
    const std::string id = IdOf(client.Ask("alloc 2 app token 4194304"));
    EXPECT_EQ(client.Ask("map app token " + id + " 1").substr(0, 2), "0 ");
    EXPECT_EQ(client.Ask("unmap " + std::to_string(nearHost.Stats()[kPulls] - 1)), "0");
  };
  pull();
  pull();
  pull();  // in place of the first
  EXPECT_EQ(nearHost.Stats()[kCopies], 2U);
  // What the file system has no room for even without them takes none of them.
  EXPECT_EQ(client.Ask("alloc 1 app token 10485760").substr(0, 6), "-79999");
  EXPECT_EQ(nearHost.Stats()[kCopies], 2U);
  const std::string own = IdOf(client.Ask("alloc 1 app token 4194304"));
  EXPECT_EQ(nearHost.Stats()[kCopies], 1U);
  IdOf(client.Ask("alloc 1 app token 4194304"));
  EXPECT_EQ(nearHost.Stats()[kCopies], 0U);
  EXPECT_EQ(client.Ask("alloc 1 app token 4194304").substr(0, 6), "-79999");
  EXPECT_EQ(nearHost.Stats()[kUsed], 8388608U);
  EXPECT_EQ(client.Ask("free app token " + own), "0");
  EXPECT_EQ(client.Ask("alloc 1 app token 4194304").substr(0, 2), "0 ");
}

TEST(FabricTest, TenantsInTheirOwnProcessesDoNotReachEachOther) {
  const FabricPlace near(1);
  const FabricPlace far(2);
  FabricHost nearHost(near);
  FabricHost farHost(far);
  nearHost.Knows(2, farHost.Port());
  ChildProcess victim = ClientOf(near);
  ChildProcess other = ClientOf(near);
  std::vector<std::string> ids;
  for (const std::string node : {"1", "2"}) {
    ASSERT_EQ(victim.Ask("create " + node + " app-a token-a"), "0");
    ASSERT_EQ(other.Ask("create " + node + " app-b token-b"), "0");
    ids.push_back(IdOf(victim.Ask("alloc " + node + " app-a token-a 4096")));
    ASSERT_EQ(victim.Ask("write app-a token-a " + ids.back() + " 0 4096 1"), "0");
    ASSERT_EQ(victim.Ask("map app-a token-a " + ids.back() + " 1").substr(0, 2), "0 ");
  }
  EXPECT_EQ(nearHost.Stats()[kCopies], 1U);
  // Each right of the other tenant's with each object of the first's. `far` is the answer for the copy of the
  // far object that stands in this very node.
  const auto tryAll = [&](int farOwn, int farFalse) {
    const struct {
      std::string right;
      int near;
      int far;
    } cases[] = {{"app-b token-b ", -ENOENT, farOwn},
                 {"app-a token-b ", -EACCES, farFalse},
                 {"app-b token-a ", -EACCES, farFalse}};
    for (const auto& one : cases) {
      for (const std::string& id : ids) {
        const std::string expected = std::to_string(id == ids[0] ? one.near : one.far);
        EXPECT_EQ(other.Ask("map " + one.right + id + " 1").substr(0, expected.size() + 1), expected + " ");
        EXPECT_EQ(other.Ask("read " + one.right + id + " 0 4096 1"), expected + " 0");
        EXPECT_EQ(other.Ask("write " + one.right + id + " 0 4096 2"), expected);
        EXPECT_EQ(other.Ask("free " + one.right + id), expected);
      }
    }
  };
  tryAll(-ENOENT, -EACCES);
  EXPECT_EQ(nearHost.Stats()[kCopies], 1U);
  farHost.Process().Kill();
  tryAll(kBmUnconnected, kBmUnconnected);
  EXPECT_EQ(victim.Ask("map app-a token-a " + ids[1] + " 1"), "0 2");
  EXPECT_EQ(victim.Ask("look 2 4096 1"), "1");
  EXPECT_EQ(victim.Ask("read app-a token-a " + ids[0] + " 0 4096 1"), "0 1");
}

TEST(FabricTest, ANodeKilledWhileItPullsLeavesNothingAndTheNextOnePulls) {
  const FabricPlace near(1);
  const FabricPlace far(2);
  std::optional<FabricHost> nearHost(near);
  FabricHost farHost(far);
  {
    SlowLink link(farHost.Port(), 3U << 20U);
    nearHost->Knows(2, link.Port());
    ChildProcess client = ClientOf(near);
    ASSERT_EQ(client.Ask("create 2 app token"), "0");
    const std::string id = IdOf(client.Ask("alloc 2 app token 8388608"));
    ASSERT_EQ(client.Ask("write app token " + id + " 0 1048576 9"), "0");
    client.Send("map app token " + id + " 3");
    ASSERT_TRUE(link.WaitUntilStill());
    nearHost->Process().Kill();
    EXPECT_EQ(client.Receive(), "-195 18446744073709551615");
    EXPECT_EQ(NamesIn(near.Pool()), std::vector<std::string>{".node"});
    nearHost.emplace(near);
    nearHost->Knows(2, farHost.Port());
    EXPECT_EQ(client.Ask("map app token " + id + " 3"), "0 0");
    EXPECT_EQ(client.Ask("look 0 1048576 9"), "1");
  }
}

TEST(FabricTest, ANodeKilledWhileItAllocatesLeavesWholeObjectsOnly) {
  const FabricPlace place(1);
  std::optional<FabricHost> host(place);
  std::vector<std::string> ids;
  const std::uint64_t size = 128U << 20U;
  for (const int delay : {0, 5, 15, 30, 60}) {
    ChildProcess client = ClientOf(place);
    const std::string created = client.Ask("create 1 app token");
    EXPECT_TRUE(created == "0" || created == "-79995") << created;
    client.Send("alloc 1 app token " + std::to_string(size));
    ::poll(nullptr, 0, delay);
    host->Process().Kill();
    const std::string answer = client.Receive();
    if (answer.rfind("0 ", 0) == 0) {
      ids.push_back(answer.substr(2));
    }
    host.emplace(place);
    // Whoever asked was answered with an id or with an error. In between an object may have been made whose
    // id nobody learnt; whatever is there is whole and counted.
    const auto stats = host->Stats();
    EXPECT_EQ(stats[kUsed], stats[kObjects] * size);
    EXPECT_GE(stats[kObjects], ids.size());
    for (const auto& entry : std::filesystem::directory_iterator(place.Pool() + "/app")) {
      if (entry.path().filename().native()[0] != '.') {
        EXPECT_EQ(entry.file_size(), size);
      }
    }
    for (const std::string& id : ids) {
      EXPECT_EQ(client.Ask("read app token " + id + " " + std::to_string(size - 1) + " 1 0"), "0 1");
      EXPECT_EQ(client.Ask("free app token " + id), "0");
    }
    ids.clear();
    EXPECT_EQ(client.Ask("destroy 1 app token"), "0");
    EXPECT_EQ(host->Stats()[kUsed], 0U);
  }
}

TEST(FabricTest, AClientKilledWhileItFillsOrAllocatesHarmsNobody) {
  const FabricPlace place(1);
  FabricHost host(place);
  ChildProcess other = ClientOf(place);
  ASSERT_EQ(other.Ask("create 1 app token"), "0");
  const std::string id = IdOf(other.Ask("alloc 1 app token 67108864"));
  for (const int delay : {1, 20, 60}) {
    ChildProcess local = ClientOf(place);
    ChildProcess linked = StartFabricClient();
    ASSERT_EQ(linked.Ask("init - 1"), "0");
    ASSERT_EQ(linked.Ask("link 1 127.0.0.1 " + std::to_string(host.Port())), "0");
    local.Send("write app token " + id + " 0 33554432 4");
    linked.Send("write app token " + id + " 33554432 33554432 4");
    ::poll(nullptr, 0, delay);
    local.Kill();
    linked.Kill();
    // What the killed ones had sent may still be written for a moment.
    const auto writeAndRead = [&] {
      return other.Ask("write app token " + id + " 0 67108864 6") + " " +
             other.Ask("read app token " + id + " 0 67108864 6");
    };
    EXPECT_TRUE(Becomes(writeAndRead, "0 0 1"));
  }
  // Who is gone before the node comes to the request has allocated nothing, nor has who goes while it is at
  // work.
  ChildProcess early = ClientOf(place);
  ChildProcess late = ClientOf(place);
  ASSERT_EQ(early.Ask("query"), "0 1");
  host.Process().Signal(SIGSTOP);
  early.Send("alloc 1 app token 1000");
  ::poll(nullptr, 0, 100);
  early.Kill();
  host.Process().Signal(SIGCONT);
  late.Send("alloc 1 app token 536870912");
  ::poll(nullptr, 0, 5);
  late.Kill();
  EXPECT_TRUE(Becomes([&] { return host.Stats()[kUsed]; }, 67108864U));
  EXPECT_EQ(host.Stats()[kObjects], 1U);
  EXPECT_EQ(other.Ask("free app token " + id), "0");
  EXPECT_EQ(other.Ask("destroy 1 app token"), "0");
  EXPECT_EQ(host.Stats()[kUsed], 0U);
}

TEST(FabricTest, AFullPoolSaysSoAtOnceAndClientsOutliveARestart) {
  const FabricPlace place(1);
  std::optional<FabricHost> host(std::in_place, place, std::vector<std::string>{"--capacity", "1048576"});
  ChildProcess client = ClientOf(place);
  ASSERT_EQ(client.Ask("create 1 app token"), "0");
  const std::string id = IdOf(client.Ask("alloc 1 app token 1000000"));
  EXPECT_EQ(client.Ask("alloc 1 app token 100000").substr(0, 6), "-79999");
  ASSERT_EQ(client.Ask("map app token " + id + " 3"), "0 0");
  ASSERT_EQ(client.Ask("fill 0 1000000 8"), "1");
  host->Process().Kill();
  EXPECT_EQ(client.Ask("look 0 1000000 8"), "1");  // mapped pages need no node
  EXPECT_EQ(client.Ask("alloc 1 app token 1").substr(0, 4), "-195");
  host.emplace(place, std::vector<std::string>{"--capacity", "1048576"});
  EXPECT_EQ(client.Ask("alloc 1 app token 100000").substr(0, 6), "-79999");
  EXPECT_EQ(client.Ask("read app token " + id + " 0 1000000 8"), "0 1");
  EXPECT_EQ(client.Ask("read app wrong " + id + " 0 1 8").substr(0, 3), std::to_string(-EACCES));
  EXPECT_EQ(client.Ask("free app token " + id), "0");
  EXPECT_EQ(client.Ask("alloc 1 app token 1000000").substr(0, 2), "0 ");
}

}  // namespace
}  // namespace vyn::test
