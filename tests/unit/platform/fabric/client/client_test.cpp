#include "platform/fabric/client/fabric_client.h"
#include "platform/fabric/protocol/names.h"
#include "support/fabric.h"
#include "support/link_tls.h"
#include "support/raw_socket.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

namespace vyn::fabric {
namespace {

using test::FabricPlace;
using test::Tenant;

std::string Text(std::size_t length, unsigned seed = 0) {
  std::string text(length, '\0');
  for (std::size_t index = 0; index < length; ++index) {
    text[index] = static_cast<char>((index * 7 + (index >> 10U) + seed) & 0xffU);
  }
  return text;
}

/// The ways to an object: through the file of the own node, through the own node to another one, over a link,
/// over a link under TLS.
enum class Way { kOwnNode, kForwarded, kLink, kTlsLink };

class ClientTest : public testing::TestWithParam<Way> {
 protected:
  ClientTest() {
    std::string error;
    FabricNodeOptions far = mFarPlace.Options();
    tls::ClientSetting links;
    if (GetParam() == Way::kTlsLink) {
      mTls = std::make_unique<test::LinkTls>();
      mTls->Use(far);
      links = {true, mTls->Trust(), nullptr};
    }
    EXPECT_TRUE(mFar.Start(far, error)) << error;
    FabricNodeOptions options = mNearPlace.Options();
    options.directory = [this](std::uint16_t nodeId, NodeAddress& address) {
      address = {"127.0.0.1", mFar.LinkPort()};
      return nodeId == 2;
    };
    EXPECT_TRUE(mNear.Start(options, error)) << error;
    EXPECT_EQ(mClient.Initialize(mNearPlace.Home().c_str(), Outside() ? 1 : 0, links), 0);
    if (Outside()) {
      EXPECT_EQ(mClient.CreateLink(2, "127.0.0.1", mFar.LinkPort()), 0);
    }
    EXPECT_EQ(mClient.CreateNamespace(mNode, "app-1", "secret"), 0);
  }

  static bool Outside() { return GetParam() == Way::kLink || GetParam() == Way::kTlsLink; }
  FabricNode& Owner() { return mNode == 1 ? mNear : mFar; }

  const std::uint16_t mNode = GetParam() == Way::kOwnNode ? 1 : 2;
  std::unique_ptr<test::LinkTls> mTls;
  FabricPlace mNearPlace{1};
  FabricPlace mFarPlace{2};
  FabricNode mFar;
  FabricNode mNear;
  FabricClient mClient;
  Tenant mTenant{mClient, "app-1", "secret"};
};

std::string NameOf(const testing::TestParamInfo<Way>& way) {
  static const char* const gNames[] = {"OwnNode", "Forwarded", "Link", "TlsLink"};
  return gNames[static_cast<int>(way.param)];
}

INSTANTIATE_TEST_SUITE_P(Ways, ClientTest,
                         testing::Values(Way::kOwnNode, Way::kForwarded, Way::kLink, Way::kTlsLink), NameOf);

TEST_P(ClientTest, AnObjectKeepsWhatIsWrittenAndItsIdTellsTheOwner) {
  const std::string bytes = Text((3U << 20U) + 12345);  // several chunks, the last one odd
  const std::string id = mTenant.Allocate(mNode, bytes.size());
  ASSERT_TRUE(IsObjectId(id)) << id;
  EXPECT_EQ(OwnerOf(id), mNode);
  EXPECT_EQ(mTenant.Read(id, bytes.size() - 3, 3), std::string(3, '\0'));
  EXPECT_EQ(mTenant.Write(id, 0, bytes), 0);
  EXPECT_EQ(mTenant.Read(id, 0, bytes.size()), bytes);
  EXPECT_EQ(mTenant.Write(id, 1000, "middle"), 0);
  EXPECT_EQ(mTenant.Read(id, 998, 10), bytes.substr(998, 2) + "middle" + bytes.substr(1006, 2));
  EXPECT_NE(mTenant.Allocate(mNode, 1), id);
}

TEST_P(ClientTest, ARangeBeyondTheObjectMovesNothing) {
  const std::uint64_t size = 5U << 20U;
  const std::string id = mTenant.Allocate(mNode, size);
  const std::string other = mTenant.Allocate(mNode, size);
  const std::string whole(size + 1, 'x');
  const Tenant::Context context(mTenant, id);
  const Tenant::Context otherContext(mTenant, other);
  char byte = 'y';
  struct {
    std::uint64_t offset;
    std::uint64_t length;
  } const ranges[] = {{0, size + 1}, {size, 1},      {size + 1, 0},  {1, size},
                      {1, ~0ULL},    {~0ULL, ~0ULL}, {~0ULL - 1, 2}, {1ULL << 63U, 1ULL << 63U}};
  for (const auto& range : ranges) {
    if (range.length <= whole.size()) {
      EXPECT_EQ(mClient.Write(&context, range.offset, range.length, whole.data()), kBmLocalError)
          << range.offset;
    }
    EXPECT_EQ(mClient.Read(&context, range.offset, range.length, &byte), kBmLocalError) << range.offset;
    EXPECT_EQ(mClient.Copy(&context, range.offset, &otherContext, 0, range.length), kBmLocalError)
        << range.offset;
    EXPECT_EQ(mClient.Copy(&otherContext, 0, &context, range.offset, range.length), kBmLocalError)
        << range.offset;
  }
  EXPECT_EQ(mTenant.Read(id, 0, size), std::string(size, '\0'));
  EXPECT_EQ(mTenant.Read(other, 0, size), std::string(size, '\0'));
  EXPECT_EQ(byte, 'y');
  EXPECT_EQ(mTenant.Write(id, size, ""), 0);
  EXPECT_EQ(mTenant.Read(id, size, 0), "");
  // What somebody has cut off the object's file is an error of that object, not of the way to it.
  const FabricPlace& place = mNode == 1 ? mNearPlace : mFarPlace;
  std::filesystem::resize_file(place.Pool() + "/app-1/" + id, 10);
  const std::string gone = std::to_string(mNode == 1 ? kBmLocalError : kBmRemoteFailed);
  EXPECT_EQ(mTenant.Read(id, 5, 10), gone);
  EXPECT_EQ(mTenant.Read(id, 0, size), gone);
  EXPECT_EQ(mTenant.Read(id, 0, 10), std::string(10, '\0'));
}

TEST_P(ClientTest, CopiesAlsoOverlappingRanges) {
  const std::string bytes = Text(2U << 20U);
  const std::string id = mTenant.Allocate(mNode, bytes.size());
  const std::string other = mTenant.Allocate(mNode, bytes.size());
  EXPECT_EQ(mTenant.Write(id, 0, bytes), 0);
  const Tenant::Context context(mTenant, id);
  const Tenant::Context otherContext(mTenant, other);
  EXPECT_EQ(mClient.Copy(&context, 100, &otherContext, 200, 1U << 20U), 0);
  EXPECT_EQ(mTenant.Read(other, 200, 1U << 20U), bytes.substr(100, 1U << 20U));
  for (const auto& [from, to] : {std::pair<std::size_t, std::size_t>{0, 5000}, {5000, 0}}) {
    std::string expected = mTenant.Read(id, 0, bytes.size());
    std::memmove(expected.data() + to, expected.data() + from, bytes.size() - 5000);
    EXPECT_EQ(mClient.Copy(&context, from, &context, to, bytes.size() - 5000), 0);
    EXPECT_EQ(mTenant.Read(id, 0, bytes.size()), expected);
  }
}

TEST_P(ClientTest, ExpandGrowsAndNeverShrinks) {
  const std::string id = mTenant.Allocate(mNode, 5000);
  const Tenant::Context context(mTenant, id);
  EXPECT_EQ(mTenant.Write(id, 4990, "0123456789"), 0);
  EXPECT_EQ(Owner().Stats().used, 8192U);
  EXPECT_EQ(mClient.Expand(&context, 100000), 0);
  EXPECT_EQ(mClient.Expand(&context, 100000), 0);  // again, as after a lost answer
  EXPECT_EQ(Owner().Stats().used, 102400U);
  EXPECT_EQ(mClient.Expand(&context, 99999), kBmLocalError);
  EXPECT_EQ(mClient.Expand(&context, 2ULL << 30U), kBmNotEnoughCapacity);
  EXPECT_EQ(mClient.Expand(&context, ~0ULL), kBmNotEnoughCapacity);
  EXPECT_EQ(mTenant.Read(id, 4990, 12), std::string("0123456789\0\0", 12));
  EXPECT_EQ(mTenant.Write(id, 99999, "e"), 0);
  // The next node on the pool finds it as large.
  Owner().Stop();
  FabricNodeOptions options = (mNode == 1 ? mNearPlace : mFarPlace).Options();
  FabricNode next;
  std::string error;
  std::vector<ObjectInfo> objects;
  ASSERT_TRUE(next.Start(options, error)) << error;
  ASSERT_EQ(next.Objects("app-1", objects), 0);
  ASSERT_EQ(objects.size(), 1U);
  EXPECT_EQ(objects[0].size, 100000U);
  EXPECT_EQ(next.Free("app-1", id), 0);
  EXPECT_EQ(next.Stats().used, 0U);
}

TEST_P(ClientTest, FreesOneAndManyAndSaysWhatWasNotThere) {
  std::vector<std::string> ids;
  std::vector<const char*> pointers;
  for (int index = 0; index < 2500; ++index) {  // more than a frame takes
    ids.push_back(mTenant.Allocate(mNode, 10));
    ids.back().resize(64);  // as callers keep them
  }
  for (const std::string& id : ids) {
    pointers.push_back(id.data());
  }
  EXPECT_EQ(Owner().Stats().objects, 2500U);
  const Tenant::Context first(mTenant, ids[0]);
  EXPECT_EQ(mClient.Free(&first), 0);
  EXPECT_EQ(mClient.Free(&first), -ENOENT);
  EXPECT_EQ(mTenant.Read(ids[0], 0, 1), std::to_string(-ENOENT));
  EXPECT_EQ(mClient.FreeBatch(pointers.data(), 2500, "app-1", "secret"), -ENOENT);  // but the others go
  EXPECT_EQ(Owner().Stats().objects, 0U);
  EXPECT_EQ(Owner().Stats().used, 0U);
  EXPECT_EQ(mClient.FreeBatch(pointers.data(), 0, "app-1", "secret"), 0);
}

TEST_P(ClientTest, TenantsDoNotReachEachOther) {
  const Tenant other{mClient, "app-2", "other"};
  ASSERT_EQ(mClient.CreateNamespace(mNode, "app-2", "other"), 0);
  const std::string id = mTenant.Allocate(mNode, 100);
  ASSERT_EQ(mTenant.Write(id, 0, "mine"), 0);
  struct {
    Tenant tenant;
    std::string id;
    int expected;
  } const cases[] = {
      {other, id, -ENOENT},                            // their own right, somebody else's id
      {{mClient, "app-1", "other"}, id, -EACCES},      // somebody else's namespace
      {{mClient, "app-1", ""}, id, -EACCES},           //
      {{mClient, "app-1", "secret "}, id, -EACCES},    //
      {{mClient, "app-1", "secre"}, id, -EACCES},      //
      {{mClient, "app-3", "secret"}, id, -ENOENT},     // no such namespace
      {{mClient, "../app-1", "secret"}, id, -ENOENT},  // no name at all
      {{mClient, "app-1", std::string(5000, 's')}, id, -EACCES},
      // Who has no right learns nothing of objects.
      {{mClient, "app-1", "guess"}, MakeObjectId(mNode), -EACCES},
      {{mClient, "app-1", "secret"}, MakeObjectId(mNode), -ENOENT},
  };
  for (const auto& one : cases) {
    const Tenant::Context context(one.tenant, one.id);
    const Tenant::Context own(mTenant, id);
    const char* pointers[] = {context.mId.data()};
    char bytes[4] = {};
    EXPECT_EQ(mClient.Read(&context, 0, 4, bytes), one.expected) << one.tenant.ns << one.tenant.token;
    EXPECT_EQ(mClient.Write(&context, 0, 4, "evil"), one.expected);
    EXPECT_EQ(mClient.Copy(&context, 0, &own, 0, 4), one.expected);
    EXPECT_EQ(mClient.Copy(&own, 0, &context, 0, 4), one.expected);
    EXPECT_EQ(mClient.Expand(&context, 200), one.expected);
    EXPECT_EQ(mClient.Free(&context), one.expected);
    EXPECT_EQ(mClient.FreeBatch(pointers, 1, one.tenant.ns.c_str(), one.tenant.token.c_str()), one.expected);
    if (!Outside()) {
      void* address = nullptr;
      EXPECT_EQ(mClient.Map(&context, PROT_READ | PROT_WRITE, MAP_SHARED, &address), one.expected);
    }
    EXPECT_STREQ(bytes, "");
  }
  EXPECT_EQ(mTenant.Read(id, 0, 4), "mine");
  EXPECT_EQ(mClient.CreateNamespace(mNode, "app-1", "secret"), kBmNamespaceExists);
  EXPECT_EQ(mClient.CreateNamespace(mNode, "app-1", "other"), -EACCES);
  EXPECT_EQ(mClient.DestroyNamespace(mNode, "app-1", "other"), -EACCES);
  EXPECT_EQ(mClient.DestroyNamespace(mNode, "app-1", "secret"), 0);
  EXPECT_EQ(mClient.DestroyNamespace(mNode, "app-1", "secret"), -ENOENT);
  EXPECT_EQ(mTenant.Read(id, 0, 4), std::to_string(-ENOENT));
  EXPECT_EQ(mClient.DestroyNamespace(mNode, "app-2", "other"), 0);
  EXPECT_EQ(Owner().Stats().used, 0U);
}

TEST_P(ClientTest, SwapInTakesAPartOfAFileThatThisProcessOpens) {
  const test::TempDir folder;
  const std::string bytes = Text((2U << 20U) + 77);
  const std::string file = folder.Write("data", bytes);
  const std::string id = mTenant.Allocate(mNode, bytes.size());
  const BmBlockRecord block{id.c_str(), "app-1", "secret"};
  const std::uint64_t size = bytes.size();
  struct {
    BmFileRecord file;
    std::uint64_t length;
    int expected;
  } const cases[] = {
      {{-1, 0, file.c_str(), "r", 0, size}, size, 0},
      {{-1, 0, file.c_str(), nullptr, 77, size - 77}, size, 0},
      {{-1, 0, file.c_str(), "r", size, 0}, size, 0},
      {{-1, 0, file.c_str(), "r", 1, size}, size, kBmLocalError},
      {{-1, 0, file.c_str(), "r", ~0ULL, 2}, size, kBmLocalError},
      {{-1, 0, file.c_str(), "r", 0, size}, size - 1, kBmLocalError},
      {{-1, 0, "/no/such/file", "r", 0, 1}, size, kBmLocalError},
      {{-1, 0, folder.Path().c_str(), "r", 0, 1}, size, kBmLocalError},
      {{Outside() ? -1 : 1, 0, file.c_str(), "r", 0, 10}, size, 0},
  };
  for (const auto& one : cases) {
    ASSERT_EQ(mClient.SwapIn(&one.file, &block, one.length), one.expected)
        << one.file.name << one.file.offset;
    if (one.expected == 0) {
      EXPECT_EQ(mTenant.Read(id, 0, one.file.length), bytes.substr(one.file.offset, one.file.length));
    }
  }
  const BmFileRecord elsewhere{7, 0, file.c_str(), "r", 0, 10};
  EXPECT_EQ(mClient.SwapIn(&elsewhere, &block, size), kBmLocalError);
  const BmBlockRecord wrong{id.c_str(), "app-1", "other"};
  const BmFileRecord good{-1, 0, file.c_str(), "r", 0, size};
  EXPECT_EQ(mClient.SwapIn(&good, &wrong, size), -EACCES);
}

TEST_P(ClientTest, GatherLaysPiecesBehindEachOther) {
  const std::string first = Text(100000, 1);
  const std::string second = Text(200000, 2);
  const std::string firstId = mTenant.Allocate(mNode, first.size());
  const std::string secondId = mTenant.Allocate(mNode, second.size());
  ASSERT_EQ(mTenant.Write(firstId, 0, first), 0);
  ASSERT_EQ(mTenant.Write(secondId, 0, second), 0);
  const auto listOf = [](const std::vector<BmGatherPiece>& pieces, std::uint64_t type = kGatherPieces) {
    const BmGatherContext head{type, pieces.size() * sizeof(BmGatherPiece)};
    std::string list(reinterpret_cast<const char*>(&head), sizeof(head));
    return list.append(reinterpret_cast<const char*>(pieces.data()), head.size);
  };
  const auto gather = [&](const std::string& list, unsigned int flags, const BmSecContext* destination) {
    return mClient.Gather(reinterpret_cast<const BmGatherContext*>(list.data()), flags, destination);
  };
  BmGatherPiece pieces[3] = {{"", 500, 1000}, {"", 0, second.size()}, {"", first.size() - 7, 7}};
  std::strcpy(pieces[0].bmId, firstId.c_str());
  std::strcpy(pieces[1].bmId, secondId.c_str());
  std::strcpy(pieces[2].bmId, firstId.c_str());
  const std::string list = listOf({pieces, pieces + 3});
  const std::string expected = first.substr(500, 1000) + second + first.substr(first.size() - 7);

  if (GetParam() == Way::kForwarded) {  // the new object is the own node's, in a namespace of that node
    ASSERT_EQ(mClient.CreateNamespace(1, "app-1", "secret"), 0);
  }
  const Tenant::Context made(mTenant);
  ASSERT_EQ(gather(list, kGatherNew, &made), 0);
  EXPECT_EQ(mTenant.Read(made.mId.c_str(), 0, expected.size()), expected);
  EXPECT_EQ(OwnerOf(made.mId), Outside() ? 2 : 1);

  const Tenant::Context room(mTenant, mTenant.Allocate(mNode, expected.size() + 1));
  ASSERT_EQ(gather(list, kGatherExisting, &room), 0);
  EXPECT_EQ(mTenant.Read(room.mId.c_str(), 0, expected.size() + 1), expected + '\0');

  // A gather that is refused has changed nothing, whichever piece is the wrong one.
  const Tenant::Context little(mTenant, mTenant.Allocate(mNode, 1010));  // the first piece would fit
  EXPECT_EQ(gather(list, kGatherExisting, &little), kBmLocalError);
  EXPECT_EQ(mTenant.Read(little.mId.c_str(), 0, 1010), std::string(1010, '\0'));
  ASSERT_EQ(mTenant.Write(room.mId.c_str(), 0, std::string(1000, '-')), 0);
  std::strcpy(pieces[2].bmId, MakeObjectId(mNode).c_str());
  EXPECT_EQ(gather(listOf({pieces, pieces + 3}), kGatherExisting, &room), -ENOENT);
  EXPECT_EQ(mTenant.Read(room.mId.c_str(), 0, 1000), std::string(1000, '-'));
  std::strcpy(pieces[2].bmId, firstId.c_str());
  EXPECT_EQ(gather(list, 0, &room), kBmLocalError);
  EXPECT_EQ(gather(listOf({pieces, pieces + 1}, 7), kGatherExisting, &room), kBmLocalError);
  pieces[1].offset = 1;  // one byte too far: the new object must go again
  const auto objects = mNear.Stats().objects + mFar.Stats().objects;
  EXPECT_EQ(gather(listOf({pieces, pieces + 3}), kGatherNew, &made), kBmLocalError);
  pieces[1].length = ~0ULL;
  EXPECT_EQ(gather(listOf({pieces, pieces + 3}), kGatherNew, &made), kBmLocalError);
  std::strcpy(pieces[1].bmId, "short");
  EXPECT_EQ(gather(listOf({pieces, pieces + 3}), kGatherNew, &made), kBmLocalError);
  EXPECT_EQ(mNear.Stats().objects + mFar.Stats().objects, objects);
}

TEST_P(ClientTest, RefusesWhatMakesNoSense) {
  const Tenant::Context good(mTenant, mTenant.Allocate(mNode, 10));
  const BmSecContext noToken{good.bmId, "app-1", nullptr};
  const BmSecContext noSpace{good.bmId, nullptr, "secret"};
  const BmSecContext noId{nullptr, "app-1", "secret"};
  const Tenant::Context longId(mTenant, std::string(good.mId.c_str()) + "x");
  const Tenant::Context pathId(mTenant, "../app-1/" + std::string(51, 'x'));
  void* address = nullptr;
  char byte = 0;
  for (const BmSecContext* bad :
       {&noToken, &noSpace, &noId, static_cast<const BmSecContext*>(&longId),
        static_cast<const BmSecContext*>(&pathId), static_cast<const BmSecContext*>(nullptr)}) {
    EXPECT_EQ(mClient.Map(bad, 3, 1, &address), kBmLocalError);
    EXPECT_EQ(mClient.Read(bad, 0, 1, &byte), kBmLocalError);
    EXPECT_EQ(mClient.Free(bad), kBmLocalError);
  }
  EXPECT_EQ(mClient.Read(&good, 0, 1, nullptr), kBmLocalError);
  EXPECT_EQ(mClient.CreateNamespace(mNode, "with space", "t"), kBmNamespaceInvalid);
  EXPECT_EQ(mClient.CreateNamespace(mNode, std::string(256, 'n').c_str(), "t"), kBmNamespaceInvalid);
  EXPECT_EQ(mClient.CreateNamespace(mNode, std::string(255, 'n').c_str(), ""), 0);
  EXPECT_EQ(mClient.CreateNamespace(mNode, nullptr, "t"), kBmLocalError);
  EXPECT_EQ(mClient.CreateNamespace(9, "app-9", "t"), kBmUnconnected);  // nobody knows node 9
  EXPECT_EQ(mTenant.Allocate(9, 1), std::to_string(kBmUnconnected));
  EXPECT_EQ(mTenant.Allocate(mNode, 1ULL << 40U), std::to_string(kBmNotEnoughCapacity));
  EXPECT_EQ(mTenant.Allocate(mNode, ~0ULL), std::to_string(kBmNotEnoughCapacity));
  if (!Outside()) {
    EXPECT_EQ(mClient.Map(&good, 0, 1, &address), kBmLocalError);
    EXPECT_EQ(mClient.Map(&good, 7, 1, &address), kBmLocalError);
    EXPECT_EQ(mClient.Map(&good, 3, 2, &address), kBmLocalError);
  }
  EXPECT_EQ(address, nullptr);
}

class ClientMapTest : public ClientTest {};
INSTANTIATE_TEST_SUITE_P(Ways, ClientMapTest, testing::Values(Way::kOwnNode, Way::kForwarded), NameOf);

TEST_P(ClientMapTest, MappingsOutliveExpandAndFree) {
  const std::string bytes = Text(300000);
  const std::string id = mTenant.Allocate(mNode, bytes.size());
  const Tenant::Context context(mTenant, id);
  ASSERT_EQ(mTenant.Write(id, 0, bytes), 0);
  void* first = nullptr;
  void* second = nullptr;
  ASSERT_EQ(mClient.Map(&context, 3, 1, &first), 0);
  ASSERT_EQ(mClient.Expand(&context, 400000), 0);
  ASSERT_EQ(mClient.Map(&context, 1, 1, &second), 0);
  EXPECT_EQ(std::memcmp(first, bytes.data(), bytes.size()), 0);
  EXPECT_EQ(static_cast<char*>(second)[399999], '\0');
  if (GetParam() == Way::kOwnNode) {
    static_cast<char*>(first)[5] = 'w';
    EXPECT_EQ(static_cast<char*>(second)[5], 'w');
    EXPECT_EQ(mTenant.Read(id, 5, 1), "w");
  }
  ASSERT_EQ(mClient.Free(&context), 0);
  EXPECT_EQ(mNear.Stats().used + mFar.Stats().used, 0U);
  EXPECT_EQ(std::memcmp(static_cast<char*>(second) + 6, bytes.data() + 6, bytes.size() - 6), 0);
  void* third = nullptr;
  EXPECT_EQ(mClient.Map(&context, 3, 1, &third), -ENOENT);
  EXPECT_EQ(mClient.Unmap(MakeObjectId(mNode).c_str(), first), kBmLocalError);
  EXPECT_EQ(mClient.Unmap(id.c_str(), static_cast<char*>(first) + 4096), kBmLocalError);
  EXPECT_EQ(mClient.Unmap(id.c_str(), first), 0);
  EXPECT_EQ(mClient.Unmap(id.c_str(), first), kBmLocalError);
  EXPECT_EQ(mClient.Unmap(id.c_str(), second), 0);

  const std::string empty = mTenant.Allocate(mNode, 0);
  const Tenant::Context emptyContext(mTenant, empty);
  ASSERT_EQ(mClient.Map(&emptyContext, 3, 1, &third), 0);
  EXPECT_NE(third, nullptr);
  EXPECT_EQ(mClient.Unmap(empty.c_str(), third), 0);
}

TEST_P(ClientMapTest, ManyThreadsAndAForkedChildAreServed) {
  const std::string id = mTenant.Allocate(mNode, 8192);
  const Tenant::Context context(mTenant, id);
  ASSERT_EQ(mTenant.Write(id, 0, std::string(8192, 's')), 0);
  std::vector<std::thread> threads;
  std::atomic<int> good{0};
  for (int thread = 0; thread < 8; ++thread) {
    threads.emplace_back([&] {
      for (int round = 0; round < 50; ++round) {
        void* address = nullptr;
        const Tenant::Context own(mTenant, mTenant.Allocate(mNode, 100));
        const bool mapped =
            mClient.Map(&context, 3, 1, &address) == 0 && static_cast<char*>(address)[8191] == 's';
        good += mapped && mClient.Unmap(id.c_str(), address) == 0 && mClient.Free(&own) == 0 ? 1 : 0;
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(good, 400);
  EXPECT_EQ(Owner().Stats().objects, 1U);

  mClient.LockForFork();
  const pid_t child = ::fork();
  mClient.UnlockAfterFork(child == 0);
  if (child == 0) {
    // A connection shared with the parent would mix up both sides' answers.
    bool right = true;
    for (int round = 0; round < 200 && right; ++round) {
      char bytes[10] = {};
      right = mClient.Read(&context, 0, sizeof(bytes), bytes) == 0 && bytes[9] == 's';
    }
    ::_exit(right ? 0 : 1);
  }
  for (int round = 0; round < 200; ++round) {
    ASSERT_EQ(mTenant.Read(id, 0, 3), "sss");
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

TEST_P(ClientMapTest, ALinkOfItsOwnServesAClientOnANode) {
  ASSERT_EQ(mClient.CreateLink(2, "127.0.0.1", mFar.LinkPort()), 0);
  const std::string id = mTenant.Allocate(mNode, 100);
  EXPECT_EQ(mTenant.Write(id, 0, "linked"), 0);
  EXPECT_EQ(mTenant.Read(id, 0, 6), "linked");
  const Tenant::Context context(mTenant, id);
  void* address = nullptr;
  ASSERT_EQ(mClient.Map(&context, 3, 1, &address), 0);
  EXPECT_EQ(std::memcmp(address, "linked", 6), 0);
  EXPECT_EQ(mClient.Unmap(id.c_str(), address), 0);
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
    char byte = 0;
    EXPECT_EQ(client.CreateNamespace(1, "app-1", "secret"), kBmUnconnected);
    EXPECT_EQ(tenant.Allocate(1, 1), std::to_string(kBmUnconnected));
    EXPECT_EQ(client.Read(&context, 0, 1, &byte), kBmUnconnected);
    EXPECT_EQ(client.Map(&context, 3, 1, &address), flag == 0 ? kBmUnconnected : kBmLocalError);
    EXPECT_EQ(client.Query(&attributes), flag == 0 ? kBmUnconnected : kBmLocalError);
  }
  EXPECT_EQ(client.CreateLink(1, "not-an-address", 1), kBmLocalError);
  EXPECT_EQ(client.CreateLink(1, nullptr, 1), kBmLocalError);
  EXPECT_EQ(client.CreateLink(1, "127.0.0.1", 1), kBmUnconnected);
}

TEST(ClientAloneTest, LinksAreCheckedAndReplaced) {
  FabricPlace firstPlace(1);
  FabricPlace secondPlace(1);
  FabricNode first;
  FabricNode second;
  std::string error;
  ASSERT_TRUE(first.Start(firstPlace.Options(), error)) << error;
  ASSERT_TRUE(second.Start(secondPlace.Options(), error)) << error;
  FabricClient client;
  const Tenant tenant{client, "app-1", "secret"};
  ASSERT_EQ(client.Initialize("", 1), 0);
  EXPECT_EQ(client.CreateLink(2, "127.0.0.1", first.LinkPort()), kBmRemoteProtocol);  // it is node 1
  ASSERT_EQ(client.CreateLink(1, "127.0.0.1", first.LinkPort()), 0);
  ASSERT_EQ(client.CreateLink(1, "127.0.0.1", first.LinkPort()), 0);
  EXPECT_TRUE(test::Eventually([&] { return first.Stats().connections == 1; })) << "the link is kept";
  ASSERT_EQ(client.CreateNamespace(1, "app-1", "secret"), 0);
  // A restarted node is found again without a new link, and a new address takes the place of the old one.
  FabricNodeOptions options = firstPlace.Options();
  options.linkPort = first.LinkPort();
  first.Stop();
  EXPECT_EQ(tenant.Allocate(1, 1), std::to_string(kBmUnconnected));
  ASSERT_TRUE(first.Start(options, error)) << error;
  EXPECT_TRUE(IsObjectId(tenant.Allocate(1, 1)));
  ASSERT_EQ(client.CreateLink(1, "127.0.0.1", second.LinkPort()), 0);
  EXPECT_EQ(tenant.Allocate(1, 1), std::to_string(-ENOENT));
}

TEST(ClientAloneTest, AHomeWithALongPathAndTheNodesOwnView) {
  FabricPlace place(3);
  FabricNodeOptions options = place.Options();
  options.home += "/" + std::string(200, 'h');
  std::filesystem::create_directory(options.home);
  FabricNode node;
  std::string error;
  ASSERT_TRUE(node.Start(options, error)) << error;
  FabricClient client;
  ASSERT_EQ(client.Initialize(options.home.c_str(), 0), 0);
  ASSERT_EQ(client.CreateNamespace(3, "app-1", ""), 0);
  const Tenant tenant{client, "app-1", ""};
  EXPECT_TRUE(IsObjectId(tenant.Allocate(3, 5000)));
  NodeAttributes attributes;
  ASSERT_EQ(client.Query(&attributes), 0);
  EXPECT_EQ(attributes.nodeId, 3U);
  EXPECT_EQ(attributes.capacity, 1ULL << 30U);
  EXPECT_EQ(attributes.used, 8192U);
  EXPECT_EQ(attributes.objects, 1U);
  EXPECT_EQ(node.DestroyNamespace("app-1"), 0);
  node.Stop();
  EXPECT_EQ(test::NamesIn(place.Pool()), std::vector<std::string>());
}

}  // namespace
}  // namespace vyn::fabric
