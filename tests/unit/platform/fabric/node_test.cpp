#include "platform/fabric/node/fabric_node.h"
#include "platform/fabric/protocol/names.h"
#include "support/fabric/fabric.h"
#include "support/wait_until.h"

namespace vyn::fabric {
namespace {

using test::NamesIn;

class NodeTest : public testing::Test {
 protected:
  void Start() { test::StartAgain(mNode, mOptions); }
  std::string Allocate(std::uint64_t size, int expected = 0) {
    std::string id;
    EXPECT_EQ(mNode.Allocate("app", size, id), expected);
    return id;
  }

  const test::FabricPlace mPlace{7};
  FabricNodeOptions mOptions = mPlace.Options();
  FabricNode mNode;
};

TEST_F(NodeTest, ANodeKeepsItsFilesPrivateAndAdoptsThemAtTheNextStart) {
  Start();
  EXPECT_EQ(mNode.CreateNamespace("app", "secret"), 0);
  const std::string ids[] = {Allocate(1), "unknown", Allocate(10000)};
  for (const auto& [path, mode] : {std::pair(mPlace.Pool(), 0700),
                                   {mPlace.Pool() + "/app", 0700},
                                   {mPlace.Pool() + "/app/.token", 0600},
                                   {mPlace.Pool() + "/app/" + ids[0], 0600},
                                   {mPlace.Home() + "/run", 0755},
                                   {mPlace.Home() + "/run/bm_broker.sock", 0666}}) {
    EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms(mode)) << path;
  }
  EXPECT_EQ(test::ReadFile(mPlace.Pool() + "/app/.token").find("secret"), std::string::npos);
  mNode.Stop();
  EXPECT_EQ(NamesIn(mPlace.Home()), (std::vector<std::string>{"run", "run/bm_broker.sock.lock"}));
  mOptions.capacity = 4096;  // what is adopted counts even when the limit has become smaller
  Start();
  EXPECT_EQ(mNode.CheckToken("app", "Secret"), -EACCES);

  EXPECT_EQ(mNode.Stats().used, 4096U + 12288U);
  Allocate(1, kBmNotEnoughCapacity);
  EXPECT_EQ(mNode.FreeBatch("app", {ids[0], ids[1], ids[2]}), -ENOENT);
  EXPECT_EQ(mNode.Stats().used, 0U);
}

TEST_F(NodeTest, AStartRemovesTheUnfinishedFilesOfAKilledNode) {
  std::filesystem::create_directories(mPlace.Pool() + "/.node/new1");
  std::filesystem::create_directories(mPlace.Pool() + "/.node/gone2");
  std::ofstream(mPlace.Pool() + "/.node/gone2/" + MakeObjectId(7)) << "half";
  std::ofstream(mPlace.Pool() + "/.node/" + MakeObjectId(8)) << "a pulled copy";
  Start();
  EXPECT_EQ(mNode.Stats().used, 0U);
  EXPECT_EQ(NamesIn(mPlace.Pool()), std::vector<std::string>{".node"});
}

TEST_F(NodeTest, ANodeRefusesAnInvalidPoolHomeOrAddress) {
  const test::FabricPlace other(7);
  Start();
  ASSERT_EQ(mNode.CreateNamespace("app", "secret"), 0);
  Allocate(1);
  const std::vector<std::string> before = NamesIn(mPlace.Pool() + "/app");
  const std::pair<std::string, std::function<void(FabricNodeOptions&)>> cases[] = {
      {mPlace.Pool(), [&](auto& o) { o = mOptions; }},
      {mPlace.Home(), [&](auto& o) { o.home = mPlace.Home(); }},
      {"/dev/null", [](auto& o) { o.home = "/dev/null"; }},
      {std::to_string(mNode.LinkPort()), [&](auto& o) { o.linkPort = mNode.LinkPort(); }},
      {"localhost", [](auto& o) { o.listenAddress = "localhost"; }},
      {"capacity", [](auto& o) { o.capacity = 4095; }},
      {"/no/such/folder", [](auto& o) { o.poolPath = "/no/such/folder"; }},
      {"links", [](auto& o) { o.linkTls = true; }},
      {"another user",
       [](auto& o) { EXPECT_TRUE(::geteuid() != 0 || ::chown(o.poolPath.c_str(), 65534, 65534) == 0); }},
      {"node 7", [&](auto& o) {
         mNode.Stop();
         o = mOptions;
         o.nodeId = 8;
       }}};
  for (const auto& [words, change] : cases) {
    FabricNodeOptions options = other.Options();
    change(options);
    FabricNode second;
    std::string error;
    EXPECT_EQ(second.Start(options, error), words == "another user" && ::geteuid() != 0) << words;
    EXPECT_TRUE(error.empty() || error.find(words) != std::string::npos) << error;
    EXPECT_EQ(::chown(other.Pool().c_str(), ::geteuid(), ::getegid()), 0);
  }
  EXPECT_EQ(NamesIn(mPlace.Pool() + "/app"), before);
  Start();
  EXPECT_EQ(mNode.Stats().objects, 1U);
}

TEST_F(NodeTest, TheNodeTruncatesAFileThatAClientHasGrown) {
  // Who has a descriptor for writing can do to the file what it likes, beside the node and its account.
  std::atomic<int> warnings{0};
  mOptions.log = [&](int level, const std::string&) { warnings += level == 3 ? 1 : 0; };
  Start();
  ASSERT_EQ(mNode.CreateNamespace("app", ""), 0);
  const std::string path = mPlace.Pool() + "/app/" + Allocate(5000);
  const net::Descriptor file(::open(path.c_str(), O_RDWR | O_CLOEXEC));
  const auto isCut = [&] {
    struct stat state {};
    return ::fstat(file.Get(), &state) == 0 && state.st_size == 5000 && state.st_blocks * 512 == 8192;
  };
  const auto grow = [&](int mode) { EXPECT_EQ(::fallocate(file.Get(), mode, 0, 1 << 20), 0); };
  grow(0);
  mNode.Sweep([] { return false; });
  EXPECT_TRUE(isCut());
  // And while no node looks after it, with pages or without.
  for (const int way : {0, FALLOC_FL_KEEP_SIZE, -1}) {
    mNode.Stop();
    if (way < 0) {
      std::filesystem::resize_file(path, std::numeric_limits<std::int64_t>::max());
    } else {
      grow(way);
    }
    const std::string leftover = mPlace.Pool() + "/app/." + MakeObjectId(7);
    std::filesystem::create_symlink("1", leftover);  // the size of an object that was never made
    warnings = 0;
    Start();
    EXPECT_TRUE(isCut() && !std::filesystem::is_symlink(leftover));
    EXPECT_EQ(std::tuple(mNode.Stats().objects, mNode.Stats().used, warnings.load()), std::tuple(1, 8192, 1));
  }
}

TEST_F(NodeTest, TheAccountOfThePoolIsRightAfterConcurrentCalls) {
  mOptions.capacity = 64 * 4096;
  Start();
  std::atomic<int> wrong{0};
  std::vector<std::jthread> threads;
  for (int thread = 0; thread < 8; ++thread) {
    threads.emplace_back([&, ns = thread % 2 == 0 ? "even" : "odd", thread] {
      for (int round = 0; round < 100; ++round) {
        std::string id;
        mNode.CreateNamespace(ns, "t");
        const int allocated = mNode.Allocate(ns, 5 * 4096, id);
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
  threads.clear();
  EXPECT_EQ(wrong, 0);
  mNode.DestroyNamespace("even");
  mNode.DestroyNamespace("odd");
  EXPECT_EQ(mNode.Stats().used, 0U);
}

}  // namespace
}  // namespace vyn::fabric
