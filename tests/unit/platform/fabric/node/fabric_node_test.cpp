#include "platform/fabric/node/fabric_node.h"

#include "platform/fabric/node/pool/capacity.h"
#include "platform/fabric/protocol/names.h"
#include "platform/fabric/protocol/protocol.h"
#include "support/fabric.h"
#include "support/temp_dir.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <limits>
#include <set>

namespace vyn::fabric {
namespace {

using test::FabricPlace;
using test::NamesIn;
using testing::HasSubstr;

mode_t ModeOf(const std::string& path) {
  struct stat state {};
  EXPECT_EQ(::lstat(path.c_str(), &state), 0) << path;
  return state.st_mode & 07777;
}

TEST(FabricNodeTest, ObjectsSurviveARestartWithTheirTokensAndSizes) {
  const FabricPlace place(7);
  FabricNodeOptions options = place.Options();
  std::string error;
  std::string small;
  std::string large;
  {
    FabricNode node;
    ASSERT_TRUE(node.Start(options, error)) << error;
    EXPECT_EQ(node.CreateNamespace("app", "secret"), 0);
    EXPECT_EQ(node.CreateNamespace("empty", ""), 0);
    EXPECT_EQ(node.Allocate("app", 1, small), 0);
    EXPECT_EQ(node.Allocate("app", 10000, large), 0);
    EXPECT_EQ(ModeOf(place.Pool()), 0700U);
    EXPECT_EQ(ModeOf(place.Pool() + "/app"), 0700U);
    EXPECT_EQ(ModeOf(place.Pool() + "/app/.token"), 0600U);
    EXPECT_EQ(ModeOf(place.Pool() + "/app/" + small), 0600U);
    EXPECT_EQ(ModeOf(place.Home() + "/run"), 0755U);
    EXPECT_EQ(ModeOf(place.Home() + "/run/bm_broker.sock"), 0666U);
    EXPECT_EQ(test::ReadFile(place.Pool() + "/app/.token").find("secret"), std::string::npos);
  }
  EXPECT_EQ(NamesIn(place.Home()), (std::vector<std::string>{"run", "run/bm_broker.sock.lock"}));
  FabricNode node;
  ASSERT_TRUE(node.Start(options, error)) << error;
  FabricNodeStats stats = node.Stats();
  EXPECT_EQ(stats.used, 4096U + 12288U);
  EXPECT_EQ(stats.objects, 2U);
  EXPECT_EQ(stats.namespaces, 2U);
  EXPECT_EQ(node.CheckToken("app", "secret"), 0);
  EXPECT_EQ(node.CheckToken("app", "Secret"), -EACCES);
  EXPECT_EQ(node.CheckToken("empty", ""), 0);
  EXPECT_EQ(node.CheckToken("empty", "x"), -EACCES);
  EXPECT_EQ(node.CheckToken("none", ""), -ENOENT);
  EXPECT_EQ(node.CreateNamespace("app", "secret"), kBmNamespaceExists);
  EXPECT_EQ(node.CreateNamespace("app", "other"), -EACCES);
  EXPECT_EQ(node.CreateNamespace(".node", "x"), kBmNamespaceInvalid);
  EXPECT_EQ(node.CreateNamespace("", "x"), kBmNamespaceInvalid);
  std::vector<ObjectInfo> objects;
  ASSERT_EQ(node.Objects("app", objects), 0);
  std::set<std::pair<std::string, std::uint64_t>> seen;
  for (const ObjectInfo& object : objects) {
    seen.emplace(object.id, object.size);
  }
  EXPECT_EQ(seen, (std::set<std::pair<std::string, std::uint64_t>>{{small, 1}, {large, 10000}}));
  EXPECT_EQ(node.FreeBatch("app", {small, "unknown", large}), -ENOENT);
  EXPECT_EQ(node.Stats().used, 0U);
  EXPECT_EQ(node.Free("app", large), -ENOENT);
  EXPECT_EQ(node.Free("none", large), -ENOENT);
  EXPECT_EQ(node.Allocate("none", 1, small), -ENOENT);
  EXPECT_EQ(node.DestroyNamespace("app"), 0);
  EXPECT_EQ(node.DestroyNamespace("app"), -ENOENT);
  EXPECT_EQ(node.DestroyNamespace("empty"), 0);
  node.Stop();
  EXPECT_EQ(NamesIn(place.Pool()), std::vector<std::string>());
}

TEST(FabricNodeTest, WhatAKilledNodeLeftHalfDoneIsGoneAfterTheNextStart) {
  const FabricPlace place(7);
  std::filesystem::create_directories(place.Pool() + "/.node/new1");
  std::filesystem::create_directories(place.Pool() + "/.node/gone2");
  std::ofstream(place.Pool() + "/.node/gone2/" + MakeObjectId(7)) << "half";
  std::ofstream(place.Pool() + "/.node/" + MakeObjectId(8)) << "a pulled copy";
  std::ofstream(place.Home() + "/run") << "";
  FabricNode node;
  std::string error;
  EXPECT_FALSE(node.Start(place.Options(), error));  // run is no folder
  EXPECT_THAT(error, HasSubstr(place.Home() + "/run"));
  std::filesystem::remove(place.Home() + "/run");
  error.clear();
  ASSERT_TRUE(node.Start(place.Options(), error)) << error;
  EXPECT_EQ(node.Stats().used, 0U);
  EXPECT_EQ(NamesIn(place.Pool()), std::vector<std::string>{".node"});
}

TEST(FabricNodeTest, RefusesAPoolOrHomeThatItMustNotTake) {
  const FabricPlace place(7);
  const FabricPlace other(7);
  FabricNode node;
  std::string error;
  ASSERT_TRUE(node.Start(place.Options(), error)) << error;
  EXPECT_FALSE(node.Start(place.Options(), error));
  EXPECT_THAT(error, HasSubstr("runs already"));
  EXPECT_EQ(node.CreateNamespace("app", "secret"), 0);
  std::string id;
  EXPECT_EQ(node.Allocate("app", 1, id), 0);
  const std::vector<std::string> before = NamesIn(place.Pool());

  const auto refusal = [](FabricNodeOptions options, const std::function<void(FabricNodeOptions&)>& change) {
    change(options);
    FabricNode second;
    std::string text;
    EXPECT_FALSE(second.Start(options, text));
    return text;
  };
  const auto nothing = [](FabricNodeOptions&) {};
  EXPECT_THAT(refusal(place.Options(), nothing), HasSubstr("another fabric node holds"));
  EXPECT_THAT(refusal(other.Options(), [&](auto& options) { options.home = place.Home(); }),
              HasSubstr("another fabric node runs"));
  EXPECT_THAT(refusal(other.Options(), [&](auto& options) { options.linkPort = node.LinkPort(); }),
              HasSubstr("cannot listen"));
  EXPECT_THAT(refusal(other.Options(), [](auto& options) { options.listenAddress = "localhost"; }),
              HasSubstr("numeric"));
  EXPECT_THAT(refusal(other.Options(), [](auto& options) { options.capacity = 4095; }),
              HasSubstr("capacity"));
  EXPECT_THAT(refusal(other.Options(), [](auto& options) { options.poolPath = "/no/such/folder"; }),
              HasSubstr("/no/such/folder"));
  EXPECT_EQ(NamesIn(place.Pool()), before);

  node.Stop();
  EXPECT_THAT(refusal(place.Options(), [](auto& options) { options.nodeId = 8; }), HasSubstr("node 7"));
  if (::geteuid() == 0) {
    ASSERT_EQ(::chown(other.Pool().c_str(), 65534, 65534), 0);
    EXPECT_THAT(refusal(other.Options(), nothing), HasSubstr("another user"));
    ASSERT_EQ(::chown(other.Pool().c_str(), 0, 0), 0);
  }
  ASSERT_TRUE(node.Start(place.Options(), error)) << error;
  EXPECT_EQ(node.Stats().objects, 1U);
}

TEST(FabricNodeTest, ThePoolIsFullAtItsLimitAndAFreeMakesRoom) {
  const FabricPlace place(7);
  FabricNodeOptions options = place.Options();
  options.capacity = 10 * 4096 + 100;
  FabricNode node;
  std::string error;
  ASSERT_TRUE(node.Start(options, error)) << error;
  ASSERT_EQ(node.CreateNamespace("app", ""), 0);
  std::vector<std::string> ids(10);
  EXPECT_EQ(node.Allocate("app", 11 * 4096, ids[0]), kBmNotEnoughCapacity);
  for (std::string& id : ids) {
    ASSERT_EQ(node.Allocate("app", 4000, id), 0);
  }
  std::string id = "untouched";
  EXPECT_EQ(node.Allocate("app", 1, id), kBmNotEnoughCapacity);
  EXPECT_EQ(node.Allocate("app", ~0ULL, id), kBmNotEnoughCapacity);
  EXPECT_EQ(id, "untouched");
  ASSERT_EQ(node.Free("app", ids[3]), 0);
  ASSERT_EQ(node.Allocate("app", 4096, id), 0);
  EXPECT_EQ(node.Allocate("app", 1, id), kBmNotEnoughCapacity);
  EXPECT_EQ(node.Stats().used, 10U * 4096U);
  // Adopted objects count even when the limit has become smaller.
  node.Stop();
  options.capacity = 4096;
  ASSERT_TRUE(node.Start(options, error)) << error;
  EXPECT_EQ(node.Stats().used, 10U * 4096U);
  EXPECT_EQ(node.Allocate("app", 1, id), kBmNotEnoughCapacity);
  ASSERT_EQ(node.DestroyNamespace("app"), 0);
  ASSERT_EQ(node.CreateNamespace("app", ""), 0);
  EXPECT_EQ(node.Allocate("app", 1, id), 0);
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

TEST(FabricNodeTest, AFileThatItsTenantHasGrownCostsNobodyElse) {
  // Who has a descriptor for writing can do to the file what it likes, beside the node and its account.
  const FabricPlace place(7);
  FabricNode node;
  std::string error;
  ASSERT_TRUE(node.Start(place.Options(), error)) << error;
  ASSERT_EQ(node.CreateNamespace("app", ""), 0);
  std::string id;
  std::string other;
  ASSERT_EQ(node.Allocate("app", 5000, id), 0);
  ASSERT_EQ(node.Allocate("app", 5000, other), 0);
  const std::string path = place.Pool() + "/app/" + id;
  const net::Descriptor file(::open(path.c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_EQ(::fallocate(file.Get(), 0, 0, 1 << 20), 0);
  struct stat state {};
  for (int tries = 0; tries < 3000 && (::fstat(file.Get(), &state) != 0 || state.st_size != 5000); ++tries) {
    ::poll(nullptr, 0, 10);
  }
  EXPECT_EQ(state.st_size, 5000);
  EXPECT_EQ(state.st_blocks * 512, 8192);
  // And while no node looks after it, with pages or without.
  const auto grow = [&](int mode, std::int64_t size) {
    EXPECT_EQ(::fallocate(file.Get(), mode, 0, size), 0);
  };
  const std::function<void()> ways[] = {
      [&] { std::filesystem::resize_file(path, std::numeric_limits<std::int64_t>::max()); },
      [&] { grow(0, 1 << 20); }, [&] { grow(FALLOC_FL_KEEP_SIZE, 1 << 20); }};
  FabricNodeOptions options = place.Options();
  std::string warnings;
  options.log = [&](int level, const std::string& text) { warnings += level == 3 ? text : ""; };
  for (const auto& way : ways) {
    node.Stop();
    way();
    const std::string leftover = place.Pool() + "/app/." + MakeObjectId(7);
    std::filesystem::create_symlink("1", leftover);  // of an object that was never made
    std::filesystem::remove(place.Pool() + "/app/." + other);
    warnings.clear();
    ASSERT_TRUE(node.Start(options, error)) << error;
    EXPECT_THAT(warnings, HasSubstr("larger than the 5000 bytes allocated, cut back: " + path));
    EXPECT_EQ(node.Stats().objects, 2U);
    EXPECT_EQ(node.Stats().used, 16384U);
    EXPECT_EQ(::fstat(file.Get(), &state), 0);
    EXPECT_EQ(state.st_size, 5000);
    EXPECT_EQ(state.st_blocks * 512, 8192);
    EXPECT_FALSE(std::filesystem::is_symlink(leftover));
  }
}

TEST(FabricNodeTest, ManyThreadsNeverBreakTheAccount) {
  const FabricPlace place(7);
  FabricNodeOptions options = place.Options();
  options.capacity = 64 * 4096;
  FabricNode node;
  std::string error;
  ASSERT_TRUE(node.Start(options, error)) << error;
  std::vector<std::thread> threads;
  std::atomic<int> unexpected{0};
  for (int thread = 0; thread < 8; ++thread) {
    threads.emplace_back([&, thread] {
      const std::string ns = thread % 2 == 0 ? "even" : "odd";
      for (int round = 0; round < 100; ++round) {
        std::string id;
        const int created = node.CreateNamespace(ns, "t");
        const int allocated = node.Allocate(ns, 5 * 4096, id);
        unexpected += created != 0 && created != kBmNamespaceExists ? 1 : 0;
        unexpected += allocated != 0 && allocated != kBmNotEnoughCapacity && allocated != -ENOENT ? 1 : 0;
        unexpected += node.Stats().used > options.capacity ? 1 : 0;
        if (allocated == 0 && round % 3 != 0) {
          node.Free(ns, id);
        }
        if (round % 10 == thread) {
          node.DestroyNamespace(ns);
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(unexpected, 0);
  node.DestroyNamespace("even");
  node.DestroyNamespace("odd");
  EXPECT_EQ(node.Stats().used, 0U);
  node.Stop();
  EXPECT_EQ(NamesIn(place.Pool()), std::vector<std::string>());
}

}  // namespace
}  // namespace vyn::fabric
