// Two fabric nodes beside a model of their pools: random calls by every way to a node, and after each call
// the same result, the same contents and the same account.

#include "unit/platform/fabric/pool_model.h"

#include "platform/fabric/client/fabric_client.h"
#include "platform/fabric/protocol/names.h"
#include "support/fabric.h"
#include "support/link_tls.h"
#include "support/temp_dir.h"
#include "support/test.h"

namespace vyn::fabric {
namespace {

/// How the client reaches the nodes: both through the broker of node 1; node 2 over a link of its own; both
/// over links; both over links under TLS.
enum class Way { kInside, kLinked, kOutside, kSecured };

constexpr std::uint64_t kNoise = 16U << 20U;  // more than a transfer has under way before its first answer
constexpr int kSteps = 600;

std::string Noise() {
  std::string noise(kNoise, '\0');
  std::mt19937 numbers(1);
  std::generate(noise.begin(), noise.end(), [&] { return static_cast<char>(numbers()); });
  return noise;
}

class PoolModelTest : public testing::TestWithParam<Way>, protected PoolModel {
 protected:
  static bool Outside() { return GetParam() == Way::kOutside || GetParam() == Way::kSecured; }
  /// Starts a node, for the first time or again, and links the client to it.
  void Start(std::uint16_t node) {
    FabricNodeOptions options = mPlaces[node - 1].Options();
    options.capacity = kCapacity;
    options.sweepSeconds = 3600;
    options.directory = [this](std::uint16_t nodeId, NodeAddress& address) {
      address = {"127.0.0.1", mNodes[1].LinkPort()};
      return nodeId == 2;
    };
    if (mTls != nullptr) {
      mTls->Use(options);
    }
    std::string error;
    mNodes[node - 1].Stop();
    ASSERT_TRUE(mNodes[node - 1].Start(options, error)) << error;
    if (Outside() || (GetParam() == Way::kLinked && node == 2)) {
      ASSERT_EQ(mClient.CreateLink(node, "127.0.0.1", mNodes[node - 1].LinkPort()), 0);
    }
    if (node == 1) {
      mPulled.clear();
    }
  }

  void MakeNamespace(std::uint16_t node) {
    const std::string names[] = {"a", "b", "a", "b", "c", "with space", "", std::string(256, 'n')};
    const std::string name = names[Pick(std::size(names))];
    const std::string token = Pick(8) == 0 ? "other" : name == "c" ? "" : "token-" + name;
    const int right = Right(node, {name, token, ""});
    const int expected = !IsNamespaceName(name) ? kBmNamespaceInvalid
                         : node > 2             ? kBmUnconnected
                         : right == 0           ? kBmNamespaceExists
                         : right == -ENOENT     ? 0
                                                : right;
    mSteps->Note("create namespace", node, name, token);
    EXPECT_EQ(mClient.CreateNamespace(node, name.c_str(), token.c_str()), expected);
    if (expected == 0) {
      mModel[node][name].token = token;
    }
  }
  void DestroyNamespace(std::uint16_t node, const Object& object) {
    mSteps->Note("destroy namespace", node, object.ns);
    const int expected = Right(node, object);
    EXPECT_EQ(mClient.DestroyNamespace(node, object.ns.c_str(), object.token.c_str()), expected);
    if (expected == 0) {
      mModel[node].erase(object.ns);
    }
  }
  void Allocate(std::uint16_t node, const Object& object) {
    int expected = node > 2 ? kBmUnconnected : Right(node, object);
    const std::uint64_t size = expected == 0 && Pick(10) == 0 ? Number(kCapacity) : Size();
    expected = expected == 0 && !HasRoom(node, size) ? kBmNotEnoughCapacity : expected;
    mSteps->Note("allocate", node, object.ns, size);
    char id[64] = "";
    const BmSecContext context{id, object.ns.c_str(), object.token.c_str()};
    EXPECT_EQ(mClient.Allocate(&context, size, node), expected);
    if (expected == 0) {
      Made(node, object.ns, id, std::string(size, '\0'));
      if (Pick(2) == 0) {  // a move within zeros would not show
        const std::string some = mNoise.substr(Pick(kPage), size);
        EXPECT_EQ((test::Tenant{mClient, object.ns, object.token}.Write(id, 0, some)), 0);
        mModel[node][object.ns].objects[id].replace(0, some.size(), some);
      }
    }
  }
  void Made(std::uint16_t node, const std::string& ns, const std::string& id, const std::string& bytes) {
    ASSERT_TRUE(IsObjectId(id)) << id;
    EXPECT_EQ(OwnerOf(id), node);
    EXPECT_TRUE(mModel[node][ns].objects.emplace(id, bytes).second);
  }
  void Free(const Object& object) {
    std::string* bytes = nullptr;
    const int expected = Find(object, bytes);
    mSteps->Note("free", object.ns, object.id);
    const BmSecContext context = object;
    EXPECT_EQ(mClient.Free(&context), expected);
    if (expected == 0) {
      mModel[OwnerOf(object.id)][object.ns].objects.erase(object.id);
    }
  }
  void FreeBatch(const Object& caller) {
    std::vector<std::string> ids(Pick(8) == 0 ? kMaxIdsPerFrame : 0, MakeObjectId(AnyNode()));
    for (std::uint64_t count = 1 + Pick(4); count > 0; --count) {
      ids.push_back(Good(Pick(4) == 0 ? "" : caller.ns).id);
    }
    int expected = Pick(8) == 0 && Right(1, caller) == 0 ? kBmLocalError : 0;
    std::vector<const char*> pointers(expected != 0 ? 1 : 0, "short");
    for (const std::uint16_t node : {1, 2}) {
      for (const std::string& id : ids) {
        std::string* bytes = nullptr;
        const int result = OwnerOf(id) == node ? Find({caller.ns, caller.token, id}, bytes) : 0;
        expected = expected == 0 ? result : expected;
        if (bytes != nullptr) {
          mModel[node][caller.ns].objects.erase(id);
        }
      }
    }
    for (const std::string& id : ids) {
      pointers.push_back(id.c_str());
    }
    mSteps->Note("free batch", caller.ns, ids.size(), ids.back());
    EXPECT_EQ(mClient.FreeBatch(pointers.data(), static_cast<std::uint32_t>(pointers.size()),
                                caller.ns.c_str(), caller.token.c_str()),
              expected);
  }
  void Expand(const Object& object) {
    std::string* bytes = nullptr;
    int expected = Find(object, bytes);
    std::uint64_t size = 1;
    if (expected == 0) {
      size = Pick(2) == 0 ? Number(bytes->size()) : Size();
      const bool fits = HasRoom(OwnerOf(object.id), size, Pages(bytes->size()));
      expected = size < bytes->size() ? kBmLocalError : fits ? 0 : kBmNotEnoughCapacity;
    }
    mSteps->Note("expand", object.ns, object.id, size);
    const BmSecContext context = object;
    EXPECT_EQ(mClient.Expand(&context, size), expected);
    if (expected == 0) {
      bytes->resize(size);
    }
  }
  void ReadOrWrite(const Object& object, bool write) {
    std::string* bytes = nullptr;
    int expected = Find(object, bytes);
    std::uint64_t offset = 0;
    std::uint64_t length = 0;
    if (expected == 0) {
      Range(bytes->size(), offset, length);
      expected = Fits(bytes->size(), offset, length) ? 0 : kBmLocalError;
    }
    mSteps->Note(write ? "write" : "read", object.ns, object.id, offset, length);
    const std::uint64_t room = expected == 0 ? length : write ? kNoise : std::min(length, kNoise);
    const std::string some = mNoise.substr(Pick(kNoise - room + 1), room);
    std::string seen = some;
    const BmSecContext context = object;
    EXPECT_EQ(write ? mClient.Write(&context, offset, length, some.data())
                    : mClient.Read(&context, offset, length, seen.data()),
              expected);
    if (write && expected == 0) {
      bytes->replace(offset, length, some);
    }
    EXPECT_TRUE(seen == (expected == 0 ? bytes->substr(offset, length) : some));
  }
  void Copy(const Object& source, const Object& destination) {
    std::string* from = nullptr;
    std::string* to = nullptr;
    int expected = Find(source, from);
    const int other = Find(destination, to);
    if (expected != 0 && other != 0) {
      return;  // which of the two is told depends on the way
    }
    expected = expected == 0 ? other : expected;
    std::uint64_t offset = 0;
    std::uint64_t length = 0;
    std::uint64_t target = 0;
    if (expected == 0) {
      Range(from->size(), offset, length);
      target = Pick(4) == 0 ? Number(to->size()) : Pick(to->size() - std::min(to->size(), length) + 1);
      if (from == to && Pick(4) != 0) {  // ranges that overlap
        length = from->size() - from->size() / 8;
        offset = Pick(from->size() / 8 + 1);
        target = Pick(from->size() / 8 + 1);
      }
      expected = Fits(from->size(), offset, length) && Fits(to->size(), target, length) ? 0 : kBmLocalError;
    }
    mSteps->Note("copy", source.ns, source.id, offset, destination.ns, destination.id, target, length);
    const BmSecContext contexts[] = {source, destination};
    EXPECT_EQ(mClient.Copy(&contexts[0], offset, &contexts[1], target, length), expected);
    if (expected == 0) {
      to->replace(target, length, std::string(*from, offset, length));
    }
  }
  void SwapIn(const Object& object) {
    std::string* bytes = nullptr;
    int expected = Find(object, bytes);
    BmFileRecord file{-1, 0, mFile.c_str(), Pick(2) == 0 ? "r" : nullptr, 0, 0};
    std::uint64_t most = kNoise;
    if (expected == 0) {
      Range(std::min<std::uint64_t>(bytes->size() + 1, mFileBytes.size()), file.offset, file.length);
      const auto wrong = Pick(16);
      most = wrong == 0 ? file.length - 1 : kNoise;
      file.name = wrong == 1 ? "/no/such/file" : wrong == 2 ? "/" : file.name;
      file.node = wrong == 3 ? 7 : wrong == 4 ? 1 : -1;
      const bool good = file.length <= most && (wrong > 4 || wrong == 0 || (wrong == 4 && !Outside()));
      expected = good && Fits(mFileBytes.size(), file.offset, file.length) && file.length <= bytes->size()
                     ? 0
                     : kBmLocalError;
    }
    mSteps->Note("swap in", object.ns, object.id, file.node, file.name, file.offset, file.length, most);
    const BmBlockRecord block{object.id.c_str(), object.ns.c_str(), object.token.c_str()};
    EXPECT_EQ(mClient.SwapIn(&file, &block, most), expected);
    if (expected == 0) {
      bytes->replace(0, file.length, mFileBytes, file.offset, file.length);
    }
  }
  void Gather(const Object& destination, bool makes) {
    std::string list(sizeof(BmGatherContext), '\0');
    std::vector<BmGatherPiece> pieces(Pick(4));
    std::uint64_t total = 0;
    int expected = 0;
    std::string* bytes = nullptr;
    for (BmGatherPiece& piece : pieces) {
      const std::string id = Pick(12) == 0 ? MakeObjectId(2) : Good(destination.ns).id;
      std::strcpy(piece.bmId, id.c_str());
      piece.offset = piece.length = 0;
      if (Find({destination.ns, destination.token, id}, bytes) == 0) {
        Range(std::min<std::uint64_t>(bytes->size(), 1U << 20U) + (Pick(8) == 0 ? 1 : 0), piece.offset,
              piece.length);
      }
      expected = total + piece.length < total ? kBmLocalError : expected;
      total += piece.length;
    }
    const auto then = [&expected](int next) { expected = expected == 0 ? next : expected; };
    const auto where = static_cast<std::uint16_t>(!Outside()       ? 1
                                                  : pieces.empty() ? 0
                                                                   : OwnerOf(pieces[0].bmId));
    std::string made;
    std::string* to = &made;
    if (makes) {
      then(!IsNamespaceName(destination.ns) ? -ENOENT : where == 0 ? kBmLocalError : 0);
      then(total > kMaxObjectSize ? kBmNotEnoughCapacity : Right(where, destination));
      then(HasRoom(where, total) ? 0 : kBmNotEnoughCapacity);
    }
    for (const BmGatherPiece& piece : pieces) {
      const int found = Find({destination.ns, destination.token, piece.bmId}, bytes);
      then(found != 0 || Fits(bytes->size(), piece.offset, piece.length) ? found : kBmLocalError);
    }
    if (!makes) {
      const int found = Find(destination, to);
      then(found != 0 || total <= to->size() ? found : kBmLocalError);
    }
    const BmGatherContext head{kGatherPieces, pieces.size() * sizeof(BmGatherPiece)};
    std::memcpy(list.data(), &head, sizeof(head));
    list.append(reinterpret_cast<const char*>(pieces.data()), head.size);
    mSteps->Note("gather", destination.ns, makes ? "new" : destination.id, pieces.size(), "pieces", total);
    char id[64] = "";
    const BmSecContext context{makes ? id : destination.id.c_str(), destination.ns.c_str(),
                               destination.token.c_str()};
    EXPECT_EQ(mClient.Gather(reinterpret_cast<const BmGatherContext*>(list.data()),
                             makes ? kGatherNew : kGatherExisting, &context),
              expected);
    if (expected != 0) {
      return;
    }
    made.resize(makes ? total : 0);
    std::uint64_t done = 0;
    for (const BmGatherPiece& piece : pieces) {
      Find({destination.ns, destination.token, piece.bmId}, bytes);
      to->replace(done, piece.length, std::string(*bytes, piece.offset, piece.length));
      done += piece.length;
    }
    if (makes) {
      Made(where, destination.ns, id, made);
    }
  }
  void Map(const Object& object, bool writable) {
    std::string* bytes = nullptr;
    const int found = Find(object, bytes);
    if (Outside() && found != 0) {
      return;  // Map outside the fabric asks nobody
    }
    const bool own = OwnerOf(object.id) == 1;
    const std::uint64_t pulls = mNodes[0].Stats().pulls;
    mSteps->Note("map", object.ns, object.id, writable);
    void* address = nullptr;
    const BmSecContext context = object;
    const int result = mClient.Map(&context, writable ? 3 : 1, MAP_SHARED, &address);
    const bool full = found == 0 && !own && !HasRoom(1, bytes->size());  // no room for a copy
    EXPECT_TRUE(result == (Outside() ? kBmLocalError : found) || (full && result == kBmNotEnoughCapacity))
        << result;
    if (result != 0) {
      return;
    }
    if (!own && mNodes[0].Stats().pulls != pulls) {
      mPulled[object.id] = *bytes;
    }
    std::string& seen = own ? *bytes : mPulled[object.id];  // a copy stays as it was pulled
    EXPECT_EQ(seen.size(), bytes->size());
    EXPECT_EQ(std::memcmp(address, seen.data(), seen.size()), 0);
    if (own && writable && !seen.empty()) {
      const std::uint64_t changed = Pick(seen.size());
      static_cast<char*>(address)[changed] = seen[changed] = 'w';
    }
    EXPECT_EQ(mClient.Unmap(object.id.c_str(), address), 0);
  }

  void Step() {
    const std::uint16_t node = Pick(20) == 0 ? 9 : AnyNode();  // nobody knows node 9
    const Object object = Any();
    const std::function<void()> calls[] = {
        [&] { MakeNamespace(node); },
        [&] { Allocate(node, node > 2 ? Good("") : object); },
        [&] { Allocate(node, node > 2 ? Good("") : object); },
        [&] { Allocate(node, node > 2 ? Good("") : object); },
        [&] { Pick(3) == 0 ? DestroyNamespace(AnyNode(), object) : FreeBatch(object); },
        [&] { Pick(2) == 0 ? Free(object) : Expand(object); },
        [&] { Expand(object); },
        [&] { ReadOrWrite(object, false); },
        [&] { ReadOrWrite(object, true); },
        [&] { Copy(object, Any()); },
        [&] { Copy(object, object); },
        [&] { SwapIn(object); },
        [&] { Gather(object, Pick(2) == 0); },
        [&] { Map(object, Pick(2) == 0); },
    };
    calls[Pick(std::size(calls))]();
  }
  void CompareAccounts(std::uint16_t node) {
    std::map<std::string, std::uint64_t> expected;
    std::map<std::string, std::uint64_t> seen;
    for (const auto& [name, space] : mModel[node]) {
      expected[name] = space.objects.size();
    }
    for (const NamespaceInfo& info : mNodes[node - 1].Namespaces()) {
      seen[info.name] = info.objects;
    }
    EXPECT_EQ(seen, expected) << "node " << node;
    const FabricNodeStats stats = mNodes[node - 1].Stats();
    EXPECT_EQ(stats.used - stats.copyBytes, Used(node)) << "node " << node;
  }
  void CompareContents() {
    for (auto& [node, spaces] : mModel) {
      for (auto& [name, space] : spaces) {
        EXPECT_EQ(mNodes[node - 1].CheckToken(name, space.token), 0);
        std::vector<ObjectInfo> objects;
        EXPECT_EQ(mNodes[node - 1].Objects(name, objects), 0);
        for (const auto& [id, size] : objects) {
          EXPECT_TRUE((test::Tenant{mClient, name, space.token}.Read(id, 0, size) == space.objects[id]))
              << id;
        }
      }
    }
  }

  static const std::string mNoise;
  const test::TempDir mFolder;
  const std::string mFileBytes = mNoise.substr(12345, 3000077);
  const std::string mFile = mFolder.Write("file", mFileBytes);
  std::unique_ptr<test::LinkTls> mTls;
  test::FabricPlace mPlaces[2] = {test::FabricPlace(1), test::FabricPlace(2)};
  FabricNode mNodes[2];
  FabricClient mClient;
  std::map<std::string, std::string> mPulled;  // node 1's copies by id, as they were pulled
};
const std::string PoolModelTest::mNoise = Noise();

std::string NameOf(const testing::TestParamInfo<Way>& way) {
  static const char* const gNames[] = {"Inside", "Linked", "Outside", "Secured"};
  return gNames[static_cast<int>(way.param)];
}
INSTANTIATE_TEST_SUITE_P(Ways, PoolModelTest,
                         testing::Values(Way::kInside, Way::kLinked, Way::kOutside, Way::kSecured), NameOf);

TEST_P(PoolModelTest, NodesAndModelAgree) {
  tls::ClientSetting links;
  if (GetParam() == Way::kSecured) {
    mTls = std::make_unique<test::LinkTls>();
    links = {true, mTls->Trust(), nullptr};
  }
  ASSERT_EQ(mClient.Initialize(mPlaces[0].Home().c_str(), Outside() ? 1 : 0, links), 0);
  for (const unsigned int seed : test::Seeds(1)) {
    mSteps = std::make_unique<test::RandomSteps>(seed);
    Start(1);
    Start(2);
    for (int step = 1; step <= kSteps && !HasFailure(); ++step) {
      Step();
      CompareAccounts(1);
      CompareAccounts(2);
      if (step % 50 == 0) {
        const std::uint16_t node = AnyNode();
        mSteps->Note("restart", node);
        CompareContents();
        Start(node);
        CompareContents();
      }
    }
    EXPECT_FALSE(HasFailure()) << mSteps->Story();
  }
}

}  // namespace
}  // namespace vyn::fabric
