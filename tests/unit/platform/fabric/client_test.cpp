// What pool_model_test.cpp does not try of the fabric's client: mappings, links, forks, bad arguments.

#include "platform/fabric/protocol/names.h"
#include "support/fabric/fabric.h"
#include "support/wait_until.h"

namespace vyn::fabric {
namespace {

using test::Object;
using test::ReadObject;

/// A client on node 1, which knows node 2; the parameter is the node that owns the objects.
class ClientTest : public testing::TestWithParam<std::uint16_t> {
 protected:
  ClientTest() {
    FabricNodeOptions options = mPlaces[0].Options();
    options.directory = test::Directory(2, mNodes[1]);
    test::StartAgain(mNodes[0], options);
    test::StartAgain(mNodes[1], mPlaces[1].Options());
    EXPECT_EQ(mClient.Initialize(mPlaces[0].Home().c_str(), 0), 0);
    EXPECT_EQ(mClient.CreateNamespace(mNode, "app", "secret"), 0);
  }
  ~ClientTest() override { mNodes[0].Stop(); }  // its threads ask the other node for its port
  Object Make(std::uint64_t size) {
    Object object{"app", "secret"};
    EXPECT_EQ(mClient.Allocate(object, size, mNode), 0);
    return object;
  }

  const std::uint16_t mNode = GetParam();
  test::FabricPlace mPlaces[2] = {test::FabricPlace(1), test::FabricPlace(2)};
  FabricNode mNodes[2];
  FabricClient mClient;
};
INSTANTIATE_TEST_SUITE_P(Owner, ClientTest, testing::Values(1, 2));

TEST_P(ClientTest, MappingsOutliveExpandAndFree) {
  const std::string bytes(300000, 'm');
  const Object object = Make(bytes.size());
  ASSERT_EQ(mClient.Write(object, 0, bytes.size(), bytes.data()), 0);
  void* first = nullptr;
  void* second = nullptr;
  ASSERT_EQ(mClient.Map(object, 3, 1, &first), 0);
  ASSERT_EQ(mClient.Expand(object, 400000), 0);
  ASSERT_EQ(mClient.Map(object, 1, 1, &second), 0);
  EXPECT_EQ(static_cast<char*>(second)[399999], '\0');
  ASSERT_EQ(mClient.Free(object), 0);
  EXPECT_EQ(mNodes[0].Stats().used + mNodes[1].Stats().used, 0U);
  for (char* const mapped : {static_cast<char*>(first), static_cast<char*>(second)}) {
    EXPECT_EQ(std::memcmp(mapped, bytes.data(), bytes.size()), 0);
    EXPECT_EQ(mClient.Unmap(MakeObjectId(mNode).c_str(), mapped), kBmLocalError);
    EXPECT_EQ(mClient.Unmap(object.id.c_str(), mapped + 4096), kBmLocalError);
    EXPECT_EQ(mClient.Unmap(object.id.c_str(), mapped), 0);
    EXPECT_EQ(mClient.Unmap(object.id.c_str(), mapped), kBmLocalError);
  }
}

TEST_P(ClientTest, AForkedChildReadsOverAConnectionOfItsOwn) {
  const Object object = Make(8192);
  ASSERT_EQ(mClient.Write(object, 8182, 10, "ssssssssss"), 0);
  // A connection shared with the parent would mix up both sides' answers.
  const auto reads = [&] {
    bool right = true;
    for (int round = 0; round < 200 && right; ++round) {
      right = ReadObject(mClient, object, 8182, 10) == "ssssssssss";
    }
    return right;
  };
  mClient.LockForFork();
  const pid_t child = ::fork();
  mClient.UnlockAfterFork(child == 0);
  if (child == 0) {
    ::_exit(reads() ? 0 : 1);
  }
  EXPECT_TRUE(reads());
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

TEST_P(ClientTest, AccessToAnObjectWithATruncatedFileFails) {
  const Object object = Make(5U << 20U);
  const Object other = Make(5U << 20U);
  std::filesystem::resize_file(mPlaces[mNode - 1].Pool() + "/app/" + object.id, 10);
  const int gone = mNode == 1 ? kBmLocalError : kBmRemoteFailed;

  EXPECT_EQ(ReadObject(mClient, object, 0, 5U << 20U), std::to_string(gone));
  EXPECT_EQ(ReadObject(mClient, object, 0, 10), std::string(10, '\0'));
  EXPECT_EQ(mClient.Copy(object, 0, other, 0, 11), gone);
}

TEST_P(ClientTest, TheClientRefusesInvalidArguments) {
  const Object good = Make(10);
  const std::string longToken(kMaxTokenLength + 1, 't');
  const std::pair<Object, int> cases[] = {
      {{"app", "secret", "short"}, kBmLocalError},
      {{"app", "secret", good.id + "x"}, kBmLocalError},
      {{"app", "secret", "../app/" + std::string(53, 'x')}, kBmLocalError},
      {{"app", longToken, good.id}, -EACCES}};
  void* address = nullptr;

  for (const auto& [bad, expected] : cases) {
    EXPECT_EQ(mClient.Map(bad, 3, 1, &address), expected);

    EXPECT_EQ(mClient.Copy(good, 0, bad, 0, 1), expected);
    EXPECT_EQ(mClient.Free(bad), expected);
  }

  EXPECT_EQ(mClient.Read(good, 0, 1, nullptr), kBmLocalError);
  for (const auto& [protection, flags] : {std::pair{0, 1}, {7, 1}, {3, 2}}) {
    EXPECT_EQ(mClient.Map(good, protection, flags, &address), kBmLocalError);
  }
  EXPECT_EQ(mClient.CreateNamespace(mNode, "app-2", longToken.c_str()), kBmNamespaceInvalid);
  EXPECT_EQ(mClient.DestroyNamespace(mNode + 65536U, "app", "secret"), kBmLocalError);
  for (const BmGatherContext list : {BmGatherContext{7, 0}, {kBmGatherPieces, sizeof(BmGatherPiece) - 1}}) {
    EXPECT_EQ(mClient.Gather(&list, kGatherExisting, good), kBmLocalError);
  }
  const char* const ids[] = {"short", good.id.c_str()};
  EXPECT_EQ(mClient.FreeBatch(ids, 2, "app", "secret"), kBmLocalError);
  EXPECT_EQ(mClient.Free(good), -ENOENT);  // the others are freed all the same
}

TEST(ClientAloneTest, CreateLinkChecksTheNodeIdAndReplacesTheOldLink) {
  test::FabricPlace places[] = {test::FabricPlace(1), test::FabricPlace(1)};
  FabricNode nodes[2];
  test::StartAgain(nodes[0], places[0].Options());
  test::StartAgain(nodes[1], places[1].Options());
  FabricNodeOptions options = places[0].Options();
  options.linkPort = nodes[0].LinkPort();
  FabricClient client;
  Object object{"app", "secret"};
  ASSERT_EQ(client.Initialize("", 1), 0);
  EXPECT_EQ(client.CreateLink(1, "not-an-address", 1), kBmLocalError);
  EXPECT_EQ(client.CreateLink(2, "127.0.0.1", options.linkPort), kBmRemoteProtocol);  // it is node 1
  ASSERT_EQ(client.CreateLink(1, "127.0.0.1", options.linkPort), 0);
  ASSERT_EQ(client.CreateLink(1, "127.0.0.1", options.linkPort), 0);
  EXPECT_TRUE(test::WaitUntil([&] { return nodes[0].Stats().connections == 1; })) << "the link is kept";
  ASSERT_EQ(client.CreateNamespace(1, "app", "secret"), 0);
  // A restarted node is found again without a new link, and a new address takes the place of the old one.
  nodes[0].Stop();
  EXPECT_EQ(client.Allocate(object, 1, 1), kBmUnconnected);
  test::StartAgain(nodes[0], options);
  EXPECT_EQ(client.Allocate(object, 1, 1), 0);
  ASSERT_EQ(client.CreateLink(1, "127.0.0.1", nodes[1].LinkPort()), 0);
  EXPECT_EQ(client.Allocate(object, 1, 1), -ENOENT);
}

TEST(ClientAloneTest, InitializeWithAnotherHomeReachesTheNodeOfThatHome) {
  FabricClient client;
  for (const std::uint16_t nodeId : {3, 4}) {
    const test::FabricPlace place(nodeId);
    FabricNodeOptions options = place.Options();
    options.home += "/" + std::string(200, 'h');  // longer than a socket's address may be
    std::filesystem::create_directory(options.home);
    Object object{"app", ""};
    ASSERT_EQ(client.Initialize(options.home.c_str(), 0), 0);
    EXPECT_EQ(client.Allocate(object, 5000, nodeId), kBmUnconnected);
    FabricNode node;
    test::StartAgain(node, options);
    ASSERT_EQ(client.CreateNamespace(nodeId, "app", ""), 0);
    ASSERT_EQ(client.Allocate(object, 5000, nodeId), 0);
    const std::string path = place.Home() + "/file";
    std::ofstream(path) << "bytes";
    const BmFileRecord bytes{nodeId, 0, path.c_str(), "r", 0, 5};
    const BmBlockRecord block{object.id.c_str(), "app", ""};
    EXPECT_EQ(client.SwapIn(&bytes, &block, 5), 0);  // a file of this very node
    NodeAttributes attributes;
    ASSERT_EQ(client.Query(&attributes), 0);
    EXPECT_EQ(std::tuple(attributes.nodeId, attributes.capacity, attributes.used, attributes.objects),
              std::tuple(nodeId, options.capacity, 8192U, 1U));
  }
}

}  // namespace
}  // namespace vyn::fabric
