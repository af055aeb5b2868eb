// What pool_model_test.cpp does not try of the fabric's client: mappings, links, forks, bad arguments.

#include "platform/fabric/client/fabric_client.h"
#include "platform/fabric/protocol/names.h"
#include "support/fabric.h"
#include "support/raw_socket.h"
#include "support/temp_dir.h"
#include "support/test.h"
#include "support/wait_until.h"

namespace vyn::fabric {
namespace {

using test::FabricPlace;
using test::Tenant;

/// A client on node 1, which knows node 2; the parameter is the node that owns the objects.
class ClientTest : public testing::TestWithParam<std::uint16_t> {
 protected:
  ClientTest() {
    std::string error;
    EXPECT_TRUE(mNodes[1].Start(mPlaces[1].Options(), error)) << error;
    FabricNodeOptions options = mPlaces[0].Options();
    options.directory = [this](std::uint16_t nodeId, NodeAddress& address) {
      address = {"127.0.0.1", mNodes[1].LinkPort()};
      return nodeId == 2;
    };
    EXPECT_TRUE(mNodes[0].Start(options, error)) << error;
    EXPECT_EQ(mClient.Initialize(mPlaces[0].Home().c_str(), 0), 0);
    EXPECT_EQ(mClient.CreateNamespace(mNode, "app-1", "secret"), 0);
  }
  FabricNode& Owner() { return mNodes[mNode - 1]; }

  const std::uint16_t mNode = GetParam();
  FabricPlace mPlaces[2] = {FabricPlace(1), FabricPlace(2)};
  FabricNode mNodes[2];
  FabricClient mClient;
  const Tenant mTenant{mClient, "app-1", "secret"};
};
INSTANTIATE_TEST_SUITE_P(Owner, ClientTest, testing::Values(1, 2));

TEST_P(ClientTest, MappingsOutliveExpandAndFree) {
  const std::string bytes(300000, 'm');
  const std::string id = mTenant.Allocate(mNode, bytes.size());
  const Tenant::Context context(mTenant, id);
  ASSERT_EQ(mTenant.Write(id, 0, bytes), 0);
  void* first = nullptr;
  void* second = nullptr;
  void* third = nullptr;
  ASSERT_EQ(mClient.Map(&context, 3, 1, &first), 0);
  ASSERT_EQ(mClient.Expand(&context, 400000), 0);
  ASSERT_EQ(mClient.Map(&context, 1, 1, &second), 0);
  EXPECT_EQ(std::memcmp(first, bytes.data(), bytes.size()), 0);
  EXPECT_EQ(static_cast<char*>(second)[399999], '\0');
  ASSERT_EQ(mClient.Free(&context), 0);
  EXPECT_EQ(mNodes[0].Stats().used + mNodes[1].Stats().used, 0U);
  EXPECT_EQ(std::memcmp(second, bytes.data(), bytes.size()), 0);
  EXPECT_EQ(mClient.Map(&context, 3, 1, &third), -ENOENT);
  EXPECT_EQ(mClient.Unmap(MakeObjectId(mNode).c_str(), first), kBmLocalError);
  EXPECT_EQ(mClient.Unmap(id.c_str(), static_cast<char*>(first) + 4096), kBmLocalError);
  EXPECT_EQ(mClient.Unmap(id.c_str(), first), 0);
  EXPECT_EQ(mClient.Unmap(id.c_str(), first), kBmLocalError);
  EXPECT_EQ(mClient.Unmap(id.c_str(), second), 0);
}

TEST_P(ClientTest, AForkedChildIsServed) {
  const std::string id = mTenant.Allocate(mNode, 8192);
  ASSERT_EQ(mTenant.Write(id, 0, std::string(8192, 's')), 0);
  // A connection shared with the parent would mix up both sides' answers.
  const auto reads = [&] {
    bool right = true;
    for (int round = 0; round < 200 && right; ++round) {
      right = mTenant.Read(id, 8182, 10) == "ssssssssss";
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

TEST_P(ClientTest, AFileThatWasCutOffIsAnErrorOfItsObject) {
  const std::string id = mTenant.Allocate(mNode, 5U << 20U);
  const std::string other = mTenant.Allocate(mNode, 5U << 20U);
  std::filesystem::resize_file(mPlaces[mNode - 1].Pool() + "/app-1/" + id, 10);
  const int gone = mNode == 1 ? kBmLocalError : kBmRemoteFailed;
  EXPECT_EQ(mTenant.Read(id, 5, 10), std::to_string(gone));
  EXPECT_EQ(mTenant.Read(id, 0, 5U << 20U), std::to_string(gone));
  EXPECT_EQ(mTenant.Read(id, 0, 10), std::string(10, '\0'));
  const Tenant::Context context(mTenant, id);
  const Tenant::Context otherContext(mTenant, other);
  EXPECT_EQ(mClient.Copy(&context, 0, &otherContext, 0, 11), gone);
}

TEST_P(ClientTest, RefusesWhatMakesNoSense) {
  const std::string id = mTenant.Allocate(mNode, 10);
  const std::string longId = id + "x";
  const std::string path = "../app-1/" + std::string(51, 'x');
  const std::string longToken(kMaxTokenLength + 1, 't');
  const BmSecContext good{id.c_str(), "app-1", "secret"};
  const std::pair<BmSecContext, int> cases[] = {{{id.c_str(), "app-1", nullptr}, kBmLocalError},
                                                {{id.c_str(), nullptr, "secret"}, kBmLocalError},
                                                {{nullptr, "app-1", "secret"}, kBmLocalError},
                                                {{"short", "app-1", "secret"}, kBmLocalError},
                                                {{longId.c_str(), "app-1", "secret"}, kBmLocalError},
                                                {{path.c_str(), "app-1", "secret"}, kBmLocalError},
                                                {{id.c_str(), "app-1", longToken.c_str()}, -EACCES}};
  void* address = nullptr;
  char byte = 0;
  for (const auto& [bad, expected] : cases) {
    const BmBlockRecord block{bad.bmId, bad.ns, bad.token};
    const BmFileRecord file{-1, 0, "/dev/null", "r", 0, 0};
    EXPECT_EQ(mClient.Map(&bad, 3, 1, &address), expected);
    EXPECT_EQ(mClient.Read(&bad, 0, 1, &byte), expected);
    EXPECT_EQ(mClient.Write(&bad, 0, 1, &byte), expected);
    EXPECT_EQ(mClient.Copy(&good, 0, &bad, 0, 1), expected);
    EXPECT_EQ(mClient.Free(&bad), expected);
    EXPECT_EQ(mClient.SwapIn(&file, &block, 1), expected);
  }
  EXPECT_EQ(mClient.Free(nullptr), kBmLocalError);
  EXPECT_EQ(mClient.Read(&good, 0, 1, nullptr), kBmLocalError);
  for (const auto& [protection, flags] : {std::pair{0, 1}, {7, 1}, {3, 2}}) {
    EXPECT_EQ(mClient.Map(&good, protection, flags, &address), kBmLocalError);
  }
  EXPECT_EQ(address, nullptr);
  EXPECT_EQ(mClient.CreateNamespace(mNode, nullptr, "t"), kBmLocalError);
  EXPECT_EQ(mClient.CreateNamespace(mNode, "app-2", longToken.c_str()), kBmNamespaceInvalid);
  EXPECT_EQ(mClient.CreateNamespace(mNode, std::string(255, 'n').c_str(), ""), 0);
  EXPECT_EQ(mClient.DestroyNamespace(mNode + 65536U, "app-1", "secret"), kBmLocalError);

  struct {
    BmGatherContext head;
    BmGatherPiece piece;
  } list{{kGatherPieces, sizeof(BmGatherPiece)}, {"short", 0, 1}};
  EXPECT_EQ(mClient.Gather(&list.head, kGatherExisting, &good), kBmLocalError);
  std::strcpy(list.piece.bmId, id.c_str());
  EXPECT_EQ(mClient.Gather(&list.head, 0, &good), kBmLocalError);
  EXPECT_EQ(mClient.Gather(nullptr, kGatherExisting, &good), kBmLocalError);
  list.head.type = 7;
  EXPECT_EQ(mClient.Gather(&list.head, kGatherExisting, &good), kBmLocalError);
}

TEST(ClientAloneTest, WithoutANodeEveryCallSaysUnconnected) {
  const test::TempDir home;
  FabricClient client;
  const Tenant tenant{client, "app-1", "secret"};
  for (const int flag : {0, 1}) {
    ASSERT_EQ(client.Initialize(home.Path().c_str(), flag), 0);
    const Tenant::Context context(tenant, MakeObjectId(1));
    NodeAttributes attributes;
    void* address = nullptr;
    EXPECT_EQ(client.CreateNamespace(1, "app-1", "secret"), kBmUnconnected);
    EXPECT_EQ(tenant.Allocate(1, 1), std::to_string(kBmUnconnected));
    EXPECT_EQ(tenant.Read(context.mId, 0, 1), std::to_string(kBmUnconnected));
    EXPECT_EQ(client.Map(&context, 3, 1, &address), flag == 0 ? kBmUnconnected : kBmLocalError);
    EXPECT_EQ(client.Query(&attributes), flag == 0 ? kBmUnconnected : kBmLocalError);
  }
  EXPECT_EQ(client.CreateLink(1, "not-an-address", 1), kBmLocalError);
  EXPECT_EQ(client.CreateLink(1, nullptr, 1), kBmLocalError);
  EXPECT_EQ(client.CreateLink(1, "127.0.0.1", 1), kBmUnconnected);
}

TEST(ClientAloneTest, LinksAreCheckedAndReplaced) {
  FabricPlace places[] = {FabricPlace(1), FabricPlace(1)};
  FabricNode nodes[2];
  FabricNodeOptions options = places[0].Options();
  std::string error;
  ASSERT_TRUE(nodes[0].Start(options, error)) << error;
  ASSERT_TRUE(nodes[1].Start(places[1].Options(), error)) << error;
  options.linkPort = nodes[0].LinkPort();
  FabricClient client;
  const Tenant tenant{client, "app-1", "secret"};
  ASSERT_EQ(client.Initialize("", 1), 0);
  EXPECT_EQ(client.CreateLink(2, "127.0.0.1", options.linkPort), kBmRemoteProtocol);  // it is node 1
  ASSERT_EQ(client.CreateLink(1, "127.0.0.1", options.linkPort), 0);
  ASSERT_EQ(client.CreateLink(1, "127.0.0.1", options.linkPort), 0);
  EXPECT_TRUE(test::WaitUntil([&] { return nodes[0].Stats().connections == 1; })) << "the link is kept";
  ASSERT_EQ(client.CreateNamespace(1, "app-1", "secret"), 0);
  // A restarted node is found again without a new link, and a new address takes the place of the old one.
  nodes[0].Stop();
  EXPECT_EQ(tenant.Allocate(1, 1), std::to_string(kBmUnconnected));
  ASSERT_TRUE(nodes[0].Start(options, error)) << error;
  EXPECT_TRUE(IsObjectId(tenant.Allocate(1, 1)));
  ASSERT_EQ(client.CreateLink(1, "127.0.0.1", nodes[1].LinkPort()), 0);
  EXPECT_EQ(tenant.Allocate(1, 1), std::to_string(-ENOENT));
}

TEST(ClientAloneTest, AnotherHomeIsAnotherNode) {
  FabricClient client;
  for (const std::uint16_t nodeId : {3, 4}) {
    FabricPlace place(nodeId);
    FabricNodeOptions options = place.Options();
    options.home += "/" + std::string(200, 'h');  // longer than a socket's address may be
    std::filesystem::create_directory(options.home);
    FabricNode node;
    std::string error;
    ASSERT_TRUE(node.Start(options, error)) << error;
    ASSERT_EQ(client.Initialize(options.home.c_str(), 0), 0);
    ASSERT_EQ(client.CreateNamespace(nodeId, "app-1", ""), 0);
    const std::string id = Tenant{client, "app-1", ""}.Allocate(nodeId, 5000);
    const BmBlockRecord block{id.c_str(), "app-1", ""};
    std::ofstream(place.Home() + "/file") << "bytes";
    const std::string path = place.Home() + "/file";
    const BmFileRecord bytes{nodeId, 0, path.c_str(), "r", 0, 5};
    EXPECT_EQ(client.SwapIn(&bytes, &block, 5), 0);  // a file of this very node
    NodeAttributes attributes;
    ASSERT_EQ(client.Query(&attributes), 0);
    EXPECT_EQ(attributes.nodeId, nodeId);
    EXPECT_EQ(attributes.capacity, 1ULL << 30U);
    EXPECT_EQ(attributes.used, 8192U);
    EXPECT_EQ(attributes.objects, 1U);
  }
}

}  // namespace
}  // namespace vyn::fabric
