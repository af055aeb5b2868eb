// Two fabric nodes beside a model of their pools: random calls by every way to a node, and after each call
// the same result, the same contents and the same account.

#include "platform/fabric/client/fabric_client.h"
#include "platform/fabric/protocol/names.h"
#include "support/fabric/fabric.h"
#include "support/fabric/link_tls.h"
#include "support/pattern.h"
#include "support/process/commands.h"
#include "support/random_steps.h"

namespace vyn::fabric {
namespace {

using test::Answer;
using test::Object;

constexpr std::uint64_t kPage = 4096;
constexpr std::uint64_t kCapacity = 5000 * kPage + 100;
// More than any object, and than a transfer has under way before its first answer.
constexpr std::uint64_t kBuffer = 21U << 20U;

std::uint64_t Pages(std::uint64_t size) {
  return (std::max<std::uint64_t>(size, 1) + kPage - 1) / kPage * kPage;
}
/// The model refuses by throwing the result that the node is to give.
void Must(bool condition, int refusal) {
  if (!condition) {
    throw refusal;
  }
}
void MustFit(std::uint64_t size, std::uint64_t offset, std::uint64_t length) {
  Must(offset <= size && length <= size - offset, kBmLocalError);
}

/// How the client reaches the nodes. Inside: both through the broker of node 1; Linked: node 2 over a link of
/// its own; Outside: both over links; Secured: both over links under TLS.
class PoolModelTest : public testing::TestWithParam<std::string> {
 protected:
  struct Item {
    Object name;
    std::string bytes;
  };

  static bool Outside() { return GetParam() == "Outside" || GetParam() == "Secured"; }
  /// Starts a node, for the first time or again, and links the client to it.
  void Start(std::uint16_t node) {
    FabricNodeOptions options = mPlaces[node - 1].Options();
    options.capacity = kCapacity;
    options.directory = test::Directory(2, mNodes[1]);
    if (GetParam() == "Secured") {
      mTls.Use(options);
    }
    test::StartAgain(mNodes[node - 1], options);
    if (Outside() || (GetParam() == "Linked" && node == 2)) {
      ASSERT_EQ(mClient.CreateLink(node, "127.0.0.1", mNodes[node - 1].LinkPort()), 0);
    }
  }

  // The model.

  void Enter(std::uint16_t node, const Object& caller) {
    Must(node <= 2 || !IsNamespaceName(caller.ns), kBmUnconnected);
    const auto token = mTokens.find({node, caller.ns});
    Must(token != mTokens.end(), -ENOENT);
    Must(token->second == caller.token, -EACCES);
  }
  std::string& Find(const Object& object) {
    Enter(OwnerOf(object.id), object);
    const auto found = mObjects.find(object.id);
    Must(found != mObjects.end() && found->second.name.ns == object.ns, -ENOENT);
    return found->second.bytes;
  }
  /// Returns: the contents; null where this caller may not find them.
  const std::string* Look(const Object& object) {
    try {
      return &Find(object);
    } catch (int) {
      return nullptr;
    }
  }
  void Made(std::uint16_t node, const Object& object, std::uint64_t size) {
    EXPECT_TRUE(IsObjectId(object.id) && OwnerOf(object.id) == node) << object.id;
    EXPECT_TRUE(mObjects.emplace(object.id, Item{object, std::string(size, '\0')}).second);
  }
  std::uint64_t Used(std::uint16_t node) {
    std::uint64_t used = 0;
    for (const auto& [id, item] : mObjects) {
      used += OwnerOf(id) == node ? Pages(item.bytes.size()) : 0;
    }
    return used;
  }
  /// \param less what is given back for it.
  bool HasRoom(std::uint16_t node, std::uint64_t size, std::uint64_t less = 0) {
    return size <= kCapacity && Used(node) - less + Pages(size) <= kCapacity;
  }
  /// Compares what a node said with what the model says, which takes the step too.
  void Same(const std::string& step, int result, const std::function<void()>& model) {
    mSteps->Note(step);
    int expected = 0;
    try {
      model();
    } catch (int refusal) {
      expected = refusal;
    }
    EXPECT_EQ(result, expected);
  }

  // Random arguments. Most calls are right, the others are wrong in one way.

  std::uint64_t Pick(std::uint64_t count) { return mSteps->Wide(count); }
  std::uint16_t AnyNode() { return static_cast<std::uint16_t>(1 + Pick(2)); }
  std::uint64_t Number(std::uint64_t size) {
    return mSteps->Pick<std::uint64_t>({0, 1, size - 1, size, size + 1, Pick(size + 1), 1ULL << 63U, ~0ULL});
  }
  std::uint64_t Size() {
    static const std::vector<std::uint64_t> gSizes = {0,      1,         100,     4095,    4096,     4097,
                                                      400000, 1U << 20U, 4000000, 5000000, 9U << 20U};
    return std::min(mSteps->Pick(gSizes), mSteps->Pick(gSizes));
  }
  /// An offset and a length, which most often lie within the object.
  std::pair<std::uint64_t, std::uint64_t> Range(const Object& object, std::uint64_t most = ~0ULL) {
    const std::string* const bytes = most == 0 ? nullptr : Look(object);
    const std::uint64_t size = bytes == nullptr ? 0 : std::min<std::uint64_t>(bytes->size(), most);
    const std::uint64_t offset = Pick(size + 1);
    return bytes == nullptr || Pick(3) != 0 ? std::pair(offset, Pick(size - offset + 1))
                                            : std::pair(Number(size), Number(size));
  }
  Object Good(const std::string& ns) {
    std::vector<Object> all;
    for (const auto& [id, item] : mObjects) {
      if (ns.empty() || ns == item.name.ns) {
        all.push_back(item.name);
      }
    }
    return all.empty() ? Object{"a", "token-a", MakeObjectId(AnyNode())} : mSteps->Pick(all);
  }
  Object Any() {
    const Object good = Good("");
    const std::string other = good.ns == "a" ? "b" : "a";
    return Pick(4) != 0 ? good
                        : mSteps->Pick<Object>({{good.ns, "other", good.id},
                                                {good.ns, good.token + " ", good.id},
                                                {"../a", good.token, good.id},
                                                {other, "token-" + other, good.id},
                                                {good.ns, good.token, MakeObjectId(AnyNode())},
                                                {good.ns, "other", MakeObjectId(AnyNode())}});
  }

  // The calls.

  void MakeNamespace(std::uint16_t node) {
    const auto name =
        mSteps->Pick<std::string>({"a", "b", "a", "b", "c", "with space", "", std::string(256, 'n')});
    const std::string token = Pick(8) == 0 ? "other" : name == "c" ? "" : "token-" + name;
    const int result = mClient.CreateNamespace(node, name.c_str(), token.c_str());
    Same(Answer("create", node, name, token), result, [&] {
      Must(IsNamespaceName(name), kBmNamespaceInvalid);
      Must(node <= 2, kBmUnconnected);
      const auto [space, made] = mTokens.try_emplace({node, name}, token);
      Must(made, space->second == token ? kBmNamespaceExists : -EACCES);
    });
  }
  void DestroyNamespace(std::uint16_t node, const Object& object) {
    const int result = mClient.DestroyNamespace(node, object.ns.c_str(), object.token.c_str());
    Same(Answer("destroy", node, object.ns), result, [&] {
      Enter(node, object);
      mTokens.erase({node, object.ns});
      std::erase_if(mObjects, [&](const auto& item) {
        return OwnerOf(item.first) == node && item.second.name.ns == object.ns;
      });
    });
  }
  void Allocate(std::uint16_t node, Object object) {
    const std::uint64_t size = node <= 2 && Pick(10) == 0 ? Number(kCapacity) : Size();
    Same(Answer("allocate", node, object.ns, size), mClient.Allocate(object, size, node), [&] {
      Must(size <= kMaxObjectSize || !IsNamespaceName(object.ns), kBmNotEnoughCapacity);
      Enter(node, object);
      Must(HasRoom(node, size), kBmNotEnoughCapacity);
      Made(node, object, size);
      // A move within zeros would not show.
      const std::string some = mNoise.substr(Pick(kPage), Pick(2) * size);
      EXPECT_EQ(mClient.Write(object, 0, some.size(), some.data()), 0);
      Find(object).replace(0, some.size(), some);
    });
  }
  void FreeBatch(const Object& caller) {
    std::vector<std::string> ids(Pick(8) == 0 ? kMaxIdsPerFrame : 0, MakeObjectId(AnyNode()));
    for (std::uint64_t more = 1 + Pick(4); more > 0; --more) {
      ids.push_back(Good(Pick(4) == 0 ? "" : caller.ns).id);
    }
    std::sort(ids.begin(), ids.end());  // by owner, as the client asks
    std::vector<const char*> pointers;
    for (const std::string& id : ids) {
      pointers.push_back(id.c_str());
    }
    const auto count = static_cast<std::uint32_t>(ids.size());
    const int result =
        count == 1 ? mClient.Free(Object{caller.ns, caller.token, ids[0]})
                   : mClient.FreeBatch(pointers.data(), count, caller.ns.c_str(), caller.token.c_str());
    Same(Answer("free batch", caller.ns, ids.size(), ids.back()), result, [&] {
      int first = 0;
      for (const std::string& id : ids) {
        try {
          Find({caller.ns, caller.token, id});
          mObjects.erase(id);
        } catch (int refusal) {
          first = first == 0 ? refusal : first;
        }
      }
      Must(first == 0, first);
    });
  }
  void Expand(const Object& object) {
    const std::string* const old = Look(object);
    const std::uint64_t size = old != nullptr && Pick(2) == 0 ? Number(old->size()) : Size();
    Same(Answer("expand", object.ns, object.id, size), mClient.Expand(object, size), [&] {
      Must(size <= kMaxObjectSize || !IsNamespaceName(object.ns), kBmNotEnoughCapacity);
      std::string& bytes = Find(object);
      Must(size >= bytes.size(), kBmLocalError);
      Must(HasRoom(OwnerOf(object.id), size, Pages(bytes.size())), kBmNotEnoughCapacity);
      bytes.resize(size);
    });
  }
  void ReadOrWrite(const Object& object, bool write) {
    const auto [offset, length] = Range(object);
    const char* const noise = mNoise.data() + Pick(1U << 20U);
    std::string seen(std::min(length, kBuffer), 's');
    std::string expected = seen;
    const int result = write ? mClient.Write(object, offset, length, noise)
                             : mClient.Read(object, offset, length, seen.data());
    Same(Answer(write ? "write" : "read", object.ns, object.id, offset, length), result,
         [&, at = offset, count = length] {
           std::string& bytes = Find(object);
           MustFit(bytes.size(), at, count);
           write ? bytes.replace(at, count, noise, count) : expected = bytes.substr(at, count);
         });
    EXPECT_TRUE(seen == expected);
  }
  void Copy(const Object& source, const Object& destination) {
    const std::string* const from = Look(source);
    const std::string* const to = Look(destination);
    if (from == nullptr && to == nullptr) {
      return;  // which of the two is told depends on the way
    }
    auto [offset, length] = Range(source, to == nullptr ? 0 : ~0ULL);
    if (from == to && Pick(4) != 0) {  // ranges that overlap
      length = from->size() - from->size() / 8;
      offset = Pick(from->size() / 8 + 1);
    }
    const std::uint64_t target = to == nullptr ? 0 : Pick(to->size() - std::min(to->size(), length) + 1);
    const int result = mClient.Copy(source, offset, destination, target, length);
    Same(Answer("copy", source.id, offset, destination.id, target, length), result,
         [&, at = offset, count = length] {
           const std::string bytes = Find(source);
           std::string& changed = Find(destination);
           MustFit(bytes.size(), at, count);
           MustFit(changed.size(), target, count);
           changed.replace(target, count, bytes, at, count);
         });
  }
  void SwapIn(const Object& object) {
    const auto wrong = Look(object) == nullptr ? 16 : Pick(16);
    BmFileRecord file{-1, 0, mFile.c_str(), "r", 0, 0};
    file.node = wrong == 3 ? 7 : wrong == 4 ? 1 : -1;
    file.name = wrong == 1 ? "/no/such/file" : wrong == 2 ? "/" : file.name;
    std::tie(file.offset, file.length) = Range(object, mFileBytes.size() / 2);

    const BmBlockRecord block{object.id.c_str(), object.ns.c_str(), object.token.c_str()};
    const int result = mClient.SwapIn(&file, &block, wrong == 0 ? file.length - 1 : file.length);
    Same(Answer("swap in", object.ns, object.id, file.node, file.name, file.offset, file.length), result,
         [&] {
           std::string& bytes = Find(object);
           Must(wrong == 0 ? file.length == 0 : wrong > 4 || (wrong == 4 && !Outside()), kBmLocalError);
           MustFit(mFileBytes.size(), file.offset, file.length);
           MustFit(bytes.size(), 0, file.length);
           bytes.replace(0, file.length, mFileBytes, file.offset, file.length);
         });
  }
  void Gather(Object object, bool makes) {
    struct {
      BmGatherContext head;
      BmGatherPiece pieces[3];
    } list{};
    std::vector<Object> sources(Pick(4), object);
    __extension__ unsigned __int128 total = 0;
    for (std::size_t index = 0; index < sources.size(); ++index) {
      BmGatherPiece& piece = list.pieces[index];
      sources[index].id = Pick(12) == 0 ? MakeObjectId(2) : Good(object.ns).id;
      std::strcpy(piece.bmId, sources[index].id.c_str());
      std::tie(piece.offset, piece.length) = Range(sources[index], 1U << 20U);
      total += piece.length;
    }
    list.head = {kBmGatherPieces, sources.size() * sizeof(BmGatherPiece)};
    const std::uint16_t where = !Outside() ? 1 : sources.empty() ? 0 : OwnerOf(sources[0].id);
    const int result = mClient.Gather(&list.head, makes ? kGatherNew : kGatherExisting, object);
    Same(Answer("gather", object.ns, makes ? "new" : "", object.id, sources.size()), result, [&] {
      Must(total <= ~0ULL, kBmLocalError);
      const auto size = static_cast<std::uint64_t>(total);
      if (makes) {
        Must(IsNamespaceName(object.ns), -ENOENT);
        Must(where != 0, kBmLocalError);
        Must(size <= kMaxObjectSize, kBmNotEnoughCapacity);
        Enter(where, object);
        Must(HasRoom(where, size), kBmNotEnoughCapacity);
      }
      for (std::size_t index = 0; index < sources.size(); ++index) {
        MustFit(Find(sources[index]).size(), list.pieces[index].offset, list.pieces[index].length);
      }
      if (makes) {
        Made(where, object, size);
      }
      std::string& to = Find(object);
      MustFit(to.size(), 0, size);
      std::uint64_t done = 0;
      for (std::size_t index = 0; index < sources.size(); done += list.pieces[index++].length) {
        const std::string piece(Find(sources[index]), list.pieces[index].offset, list.pieces[index].length);
        to.replace(done, piece.size(), piece);
      }
    });
  }
  void Map(const Object& object, bool writable) {
    const bool own = OwnerOf(object.id) == 1;
    void* address = nullptr;
    const int result = mClient.Map(object, writable ? 3 : 1, MAP_SHARED, &address);
    Same(Answer("map", object.ns, object.id, writable), result, [&] {
      Must(!Outside() || !IsNamespaceName(object.ns), kBmLocalError);
      std::string& bytes = Find(object);
      Must(own || result == 0 || HasRoom(1, bytes.size()), kBmNotEnoughCapacity);  // no room for a copy
      ASSERT_NE(address, nullptr);
      EXPECT_TRUE(bytes == std::string(static_cast<char*>(address), bytes.size()));
      if (own && writable && !bytes.empty()) {
        const std::uint64_t changed = Pick(bytes.size());
        static_cast<char*>(address)[changed] = bytes[changed] = 'w';
      }
      EXPECT_EQ(mClient.Unmap(object.id.c_str(), address), 0);
    });
  }

  void Step() {
    const std::uint16_t node = Pick(20) == 0 ? 9 : AnyNode();  // nobody knows node 9
    const Object object = Any();
    const std::function<void()> calls[] = {
        [&] { MakeNamespace(node); },
        [&] { Allocate(node, object); },
        [&] { Allocate(node, object); },
        [&] { Allocate(node, object); },
        [&] { Pick(3) == 0 ? DestroyNamespace(AnyNode(), object) : FreeBatch(object); },
        [&] { Expand(object); },
        [&] { ReadOrWrite(object, Pick(2) == 0); },
        [&] { Copy(object, Pick(2) == 0 ? object : Any()); },
        [&] { SwapIn(object); },
        [&] { Gather(object, Pick(2) == 0); },
        [&] { Map(object, Pick(2) == 0); },
    };
    calls[Pick(std::size(calls))]();
  }
  void CompareAccounts() {
    for (const std::uint16_t node : {1, 2}) {
      const FabricNodeStats stats = mNodes[node - 1].Stats();
      EXPECT_EQ(stats.used - stats.copyBytes, Used(node)) << node;
    }
    EXPECT_EQ(mNodes[0].Stats().objects + mNodes[1].Stats().objects, mObjects.size());
  }
  void CompareContents() {
    for (const auto& [id, item] : mObjects) {
      EXPECT_TRUE(test::ReadObject(mClient, item.name, 0, item.bytes.size()) == item.bytes) << id;
    }
  }

  static const std::string mNoise;
  const test::TempDir mFolder;
  const std::string mFileBytes = mNoise.substr(12345, 3000077);
  const std::string mFile = mFolder.Write("file", mFileBytes);
  const test::LinkTls mTls;
  test::FabricPlace mPlaces[2] = {test::FabricPlace(1), test::FabricPlace(2)};
  FabricNode mNodes[2];
  FabricClient mClient;
  std::unique_ptr<test::RandomSteps> mSteps;
  std::map<std::pair<std::uint16_t, std::string>, std::string> mTokens;  // by node and namespace
  std::map<std::string, Item> mObjects;                                  // by id
};
const std::string PoolModelTest::mNoise = test::Pattern(kBuffer + (1U << 20U), 1);

INSTANTIATE_TEST_SUITE_P(Ways, PoolModelTest, testing::Values("Inside", "Linked", "Outside", "Secured"),
                         [](const auto& way) { return way.param; });

TEST_P(PoolModelTest, NodesAndModelAgree) {
  ASSERT_EQ(mClient.Initialize(mPlaces[0].Home().c_str(), Outside() ? 1 : 0,
                               {GetParam() == "Secured", mTls.Trust(), nullptr}),
            0);
  for (const unsigned int seed : test::Seeds(1)) {
    mSteps = std::make_unique<test::RandomSteps>(seed);
    Start(1);
    Start(2);
    for (int step = 1; step <= 600 && !HasFailure(); ++step) {
      Step();
      CompareAccounts();
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
