#include "platform/fabric/node/fabric_node.h"
#include "platform/fabric/node/pool/capacity.h"
#include "platform/fabric/protocol/names.h"
#include "platform/fabric/protocol/protocol.h"
#include "support/fabric.h"
#include "support/raw_socket.h"
#include "support/temp_dir.h"
#include "support/test.h"
#include "support/wait_until.h"

namespace vyn::fabric {
namespace {

using test::FabricPlace;
using test::NamesIn;
using testing::HasSubstr;

class NodeTest : public testing::Test {
 protected:
  void Start() {
    std::string error;
    mNode.Stop();
    ASSERT_TRUE(mNode.Start(mOptions, error)) << error;
  }
  std::string Allocate(std::uint64_t size, int expected = 0) {
    std::string id = "untouched";
    EXPECT_EQ(mNode.Allocate("app", size, id), expected);
    EXPECT_EQ(id == "untouched", expected != 0);
    return id;
  }

  const FabricPlace mPlace{7};
  FabricNodeOptions mOptions = mPlace.Options();
  FabricNode mNode;
};

TEST_F(NodeTest, FilesAreItsOwnAndGoWithTheirNames) {
  Start();
  EXPECT_EQ(mNode.CreateNamespace("app", "secret"), 0);
  EXPECT_EQ(mNode.CreateNamespace("app", "secret"), kBmNamespaceExists);
  EXPECT_EQ(mNode.CreateNamespace(".node", "x"), kBmNamespaceInvalid);
  const std::string ids[] = {Allocate(1), "unknown", Allocate(10000)};
  const std::pair<std::string, mode_t> modes[] = {{mPlace.Pool(), 0700},
                                                  {mPlace.Pool() + "/app", 0700},
                                                  {mPlace.Pool() + "/app/.token", 0600},
                                                  {mPlace.Pool() + "/app/" + ids[0], 0600},
                                                  {mPlace.Home() + "/run", 0755},
                                                  {mPlace.Home() + "/run/bm_broker.sock", 0666}};
  for (const auto& [path, mode] : modes) {
    EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms(mode)) << path;
  }
  EXPECT_EQ(test::ReadFile(mPlace.Pool() + "/app/.token").find("secret"), std::string::npos);
  mNode.Stop();
  EXPECT_EQ(NamesIn(mPlace.Home()), (std::vector<std::string>{"run", "run/bm_broker.sock.lock"}));
  Start();
  EXPECT_EQ(mNode.CheckToken("app", "Secret"), -EACCES);
  EXPECT_EQ(mNode.CheckToken("none", ""), -ENOENT);
  EXPECT_EQ(mNode.Stats().used, 4096U + 12288U);
  EXPECT_EQ(mNode.FreeBatch("app", {ids[0], ids[1], ids[2]}), -ENOENT);
  EXPECT_EQ(mNode.Stats().used, 0U);
  EXPECT_EQ(mNode.FreeBatch("none", {ids[0]}), -ENOENT);
  EXPECT_EQ(mNode.Free("none", ids[0]), -ENOENT);
  std::vector<ObjectInfo> objects;
  EXPECT_EQ(mNode.Objects("none", objects), -ENOENT);
  EXPECT_EQ(mNode.DestroyNamespace("app"), 0);
  EXPECT_EQ(mNode.DestroyNamespace("app"), -ENOENT);
  Allocate(1, -ENOENT);
}

TEST_F(NodeTest, WhatAKilledNodeLeftHalfDoneIsGoneAfterTheNextStart) {
  std::filesystem::create_directories(mPlace.Pool() + "/.node/new1");
  std::filesystem::create_directories(mPlace.Pool() + "/.node/gone2");
  std::ofstream(mPlace.Pool() + "/.node/gone2/" + MakeObjectId(7)) << "half";
  std::ofstream(mPlace.Pool() + "/.node/" + MakeObjectId(8)) << "a pulled copy";
  Start();
  EXPECT_EQ(mNode.Stats().used, 0U);
  EXPECT_EQ(NamesIn(mPlace.Pool()), std::vector<std::string>{".node"});
}

TEST_F(NodeTest, RefusesAPoolOrHomeThatItMustNotTake) {
  const FabricPlace other(7);
  Start();
  ASSERT_EQ(mNode.CreateNamespace("app", "secret"), 0);
  Allocate(1);
  std::string error;
  EXPECT_FALSE(mNode.Start(mOptions, error));
  const std::vector<std::string> before = NamesIn(mPlace.Pool());
  const struct {
    std::function<void(FabricNodeOptions&)> change;
    std::string words;
  } cases[] = {
      {[](auto& o) { std::ofstream(o.home + "/run") << ""; }, "/run"},
      {[&](auto& o) { o = mOptions; }, mPlace.Pool()},
      {[&](auto& o) { o.home = mPlace.Home(); }, mPlace.Home()},
      {[&](auto& o) { o.linkPort = mNode.LinkPort(); }, std::to_string(mNode.LinkPort())},
      {[](auto& o) { o.listenAddress = "localhost"; }, "localhost"},
      {[](auto& o) { o.capacity = 4095; }, "capacity"},
      {[](auto& o) { o.poolPath = "/no/such/folder"; }, "/no/such/folder"},
      {[&](auto& o) {
         mNode.Stop();
         o = mOptions;
         o.nodeId = 8;
       },
       "node 7"},
      {[](auto& o) { EXPECT_EQ(::chown(o.poolPath.c_str(), 65534, 65534), 0); }, "another user"},
  };
  for (const auto& one : cases) {
    if (one.words == "another user" && ::geteuid() != 0) {
      continue;
    }
    FabricNodeOptions options = other.Options();
    one.change(options);
    FabricNode second;
    error.clear();
    EXPECT_FALSE(second.Start(options, error)) << one.words;
    EXPECT_THAT(error, HasSubstr(one.words));
    EXPECT_EQ(::chown(other.Pool().c_str(), ::geteuid(), ::getegid()), 0);
    std::error_code ignored;
    std::filesystem::remove(other.Home() + "/run", ignored);  // the file
    if (one.words != "node 7" && one.words != "another user") {
      EXPECT_EQ(NamesIn(mPlace.Pool()), before);
    }
  }
  Start();
  EXPECT_EQ(mNode.Stats().objects, 1U);
}

TEST_F(NodeTest, AdoptedObjectsCountEvenWhenTheLimitHasBecomeSmaller) {
  mOptions.capacity = 10 * 4096 + 100;
  Start();
  ASSERT_EQ(mNode.CreateNamespace("app", ""), 0);
  Allocate(10 * 4096);
  Allocate(1, kBmNotEnoughCapacity);
  mOptions.capacity = 4096;
  Start();
  EXPECT_EQ(mNode.Stats().used, 10U * 4096U);
  Allocate(1, kBmNotEnoughCapacity);
  ASSERT_EQ(mNode.DestroyNamespace("app"), 0);
  ASSERT_EQ(mNode.CreateNamespace("app", ""), 0);
  Allocate(1);
}

TEST(CapacityTest, RoomThatAnotherTookIsMadeAgain) {
  // What is given up for a reservation may go to somebody else before it is tried again.
  for (const bool greedy : {false, true}) {
    Capacity capacity(10);
    ASSERT_TRUE(capacity.Reserve(10));
    int copies = greedy ? 1000 : 2;  // of 5 bytes each, that can still give way
    capacity.SetReclaimer([&](std::uint64_t bytes) {
      EXPECT_EQ(bytes, 5U);
      if (copies == 0) {
        return false;
      }
      --copies;
      capacity.Release(5);
      if (greedy || copies == 1) {
        EXPECT_TRUE(capacity.Reserve(5));
      }
      return true;
    });
    EXPECT_EQ(capacity.Reserve(5), !greedy);
    EXPECT_EQ(capacity.Used(), 10U);
  }
}

TEST_F(NodeTest, AFileThatItsTenantHasGrownCostsNobodyElse) {
  // Who has a descriptor for writing can do to the file what it likes, beside the node and its account.
  std::atomic<int> warnings{0};
  mOptions.log = [&](int level, const std::string&) { warnings += level == 3 ? 1 : 0; };
  Start();
  ASSERT_EQ(mNode.CreateNamespace("app", ""), 0);
  const std::string other = Allocate(5000);
  const std::string path = mPlace.Pool() + "/app/" + Allocate(5000);
  const net::Descriptor file(::open(path.c_str(), O_RDWR | O_CLOEXEC));
  const auto isCut = [&] {
    struct stat state {};
    return ::fstat(file.Get(), &state) == 0 && state.st_size == 5000 && state.st_blocks * 512 == 8192;
  };
  const auto grow = [&](int mode) { EXPECT_EQ(::fallocate(file.Get(), mode, 0, 1 << 20), 0); };
  grow(0);
  EXPECT_TRUE(test::WaitUntil(isCut));
  // And while no node looks after it, with pages or without.
  const std::function<void()> ways[] = {
      [&] { std::filesystem::resize_file(path, std::numeric_limits<std::int64_t>::max()); }, [&] { grow(0); },
      [&] { grow(FALLOC_FL_KEEP_SIZE); }};
  for (const auto& way : ways) {
    mNode.Stop();
    way();
    const std::string leftover = mPlace.Pool() + "/app/." + MakeObjectId(7);
    std::filesystem::create_symlink("1", leftover);  // of an object that was never made
    std::filesystem::remove(mPlace.Pool() + "/app/." + other);
    warnings = 0;
    Start();
    EXPECT_EQ(warnings, 1);
    EXPECT_EQ(mNode.Stats().objects, 2U);
    EXPECT_EQ(mNode.Stats().used, 16384U);
    EXPECT_TRUE(isCut());
    EXPECT_FALSE(std::filesystem::is_symlink(leftover));
  }
}

TEST_F(NodeTest, ManyThreadsNeverBreakTheAccount) {
  mOptions.capacity = 64 * 4096;
  Start();
  std::atomic<int> wrong{0};
  {
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < 8; ++thread) {
      threads.emplace_back([&, ns = thread % 2 == 0 ? "even" : "odd", thread] {
        for (int round = 0; round < 100; ++round) {
          std::string id;
          const int created = mNode.CreateNamespace(ns, "t");
          const int allocated = mNode.Allocate(ns, 5 * 4096, id);
          wrong += created != 0 && created != kBmNamespaceExists;
          wrong += allocated != 0 && allocated != kBmNotEnoughCapacity && allocated != -ENOENT;
          wrong += mNode.Stats().used > mOptions.capacity;
          if (round % 3 != 0) {
            mNode.Free(ns, id);
          }
          if (round % 10 == thread) {
            mNode.DestroyNamespace(ns);
          }
        }
      });
    }
  }
  EXPECT_EQ(wrong, 0);
  mNode.DestroyNamespace("even");
  mNode.DestroyNamespace("odd");
  EXPECT_EQ(mNode.Stats().used, 0U);
}

}  // namespace
}  // namespace vyn::fabric
