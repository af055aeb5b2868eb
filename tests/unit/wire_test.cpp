// Every message class against docs/wire-format.md, and what its readers refuse.

#include "common/message/message_codec.h"
#include "schema/bag_generated.h"
#include "schema/node_generated.h"
#include "schema/tuning_generated.h"
#include "support/all_messages.h"
#include "support/captured_log.h"
#include "support/seed.h"
#include "support/test.h"
#include "tessel/message/shuffle/shuffle_application.h"

#include <flatbuffers/flatbuffers.h>

namespace {

thread_local bool gOutOfMemory = false;  ///< for allocations that may fail

}  // namespace

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return gOutOfMemory ? nullptr : ::operator new(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return gOutOfMemory ? nullptr : ::operator new[](size);
}

namespace vyn::test {
namespace {

using common::Ref;
using namespace tessel;  // NOLINT: the messages under test

constexpr std::uint32_t kRefused = 2020015;

struct Field {
  unsigned long id;
  std::string type;
};
/// The fields by name of the tables by name.
using Page = std::map<std::string, std::map<std::string, Field>>;

Page ReadPage() {
  const std::regex row(R"(\| `(T\w+)` \| .* \| (.*) \|)");
  const std::regex field(R"((\d+) `(\w+)` ([\[\]\w]+))");
  Page page;
  std::ifstream file(VYN_SOURCE_DIR "/docs/wire-format.md");
  for (std::string line; std::getline(file, line);) {
    if (std::smatch cells; std::regex_match(line, cells, row)) {
      const std::string list = cells[2];
      for (std::sregex_iterator found(list.begin(), list.end(), field), end; found != end; ++found) {
        page[cells[1]][(*found)[2]] = {std::stoul((*found)[1]), (*found)[3]};
      }
    }
  }
  return page;
}

/// The bytes of a number of this type; 0 for another type.
unsigned WidthOf(const std::string& type) {
  static const std::map<std::string, unsigned> kWidths = {
      {"bool", 1}, {"ubyte", 1}, {"ushort", 2}, {"uint", 4}, {"ulong", 8}};
  const auto found = kWidths.find(type);
  return found == kWidths.end() ? 0 : found->second;
}

/// Compares a buffer with a message by the page and the rule of the vtable alone.
class PageReader {
 public:
  /// A value that is stored: its entry in the vtable and its own place.
  struct Stored {
    std::string type;
    std::size_t entry;
    std::size_t place;
  };

  PageReader(const Page& page, std::string bytes) : mPage(page), mBytes(std::move(bytes)) {}

  template <typename Class>
  void ExpectMessage(const std::string& table, std::size_t at, Class& message) {
    const auto& names = common::codec::kMemberNames<Class>;
    ExpectTable(table, at, {names.begin(), names.end()}, message.Fields());
  }
  /// What ExpectMessage has found.
  const std::vector<Stored>& Values() const { return mValues; }
  std::uint64_t Number(std::size_t at, unsigned width = 4) const {
    std::uint64_t number = 0;
    std::memcpy(&number, mBytes.substr(at, width).data(), width);
    return number;
  }

 private:
  template <typename Members>
  void ExpectTable(const std::string& table, std::size_t at, std::vector<std::string> names,
                   Members members) {
    auto name = names.begin();
    std::apply([&](const auto&... member) { (ExpectField(table, at, *name++, member), ...); }, members);
  }

  template <typename Member>
  void ExpectField(const std::string& table, std::size_t at, const std::string& name, const Member& member) {
    SCOPED_TRACE(table + " " + name);
    // BlobRequest names its member as no other class does.
    const Field& field = mPage.at(table).at(name == "mBlobId" ? "blobId" : name);
    const std::size_t vtable = at - static_cast<std::int32_t>(Number(at));
    const std::size_t entry = vtable + 4 + 2 * field.id;
    const std::size_t offset = entry < vtable + Number(vtable, 2) ? Number(entry, 2) : 0;
    if constexpr (std::is_arithmetic_v<Member>) {
      EXPECT_EQ(offset == 0, member == 0) << "a zero is not stored";
    } else {
      ASSERT_NE(offset, 0U);
    }
    if (offset != 0) {
      mValues.push_back({field.type, entry, at + offset});
      ExpectValue(field.type, at + offset, member);
    }
  }

  template <typename Member>
  void ExpectValue(const std::string& type, std::size_t at, const Member& member) {
    if constexpr (std::is_arithmetic_v<Member>) {
      EXPECT_EQ(Number(at, WidthOf(type)), static_cast<std::uint64_t>(member)) << type;
      return;
    }
    at += Number(at);
    if constexpr (std::is_same_v<Member, std::string>) {
      EXPECT_EQ(type, "string");
      EXPECT_EQ(mBytes.substr(at + 4, Number(at)), member);
    } else if constexpr (requires { member.Get(); }) {
      ExpectMessage(type, at, *member);
    } else if constexpr (requires { member.second; }) {
      ExpectTable(type, at, {"key", "value"}, std::tie(member.first, member.second));
    } else if constexpr (requires { member.size(); }) {
      ASSERT_EQ(Number(at), member.size()) << type;
      const std::string entry = type.substr(1, type.size() - 2);
      at += 4;
      for (const auto& one : member) {
        ExpectValue(entry, at, one);
        at += WidthOf(entry) == 0 ? 4 : WidthOf(entry);
      }
    }
  }

  const Page& mPage;
  const std::string mBytes;
  std::vector<Stored> mValues;
};

/// A message of random contents, its bytes, and the same bytes with another number in one place.
template <typename Class>
struct Sample {
  explicit Sample(Random& random) {
    Fill(message, random);
    bytes = Bytes(message);
  }
  template <typename Number>
  std::string With(std::size_t at, Number number) const {
    std::string changed = bytes;
    return changed.replace(at, sizeof(number), reinterpret_cast<const char*>(&number), sizeof(number));
  }
  Class message;
  std::string bytes;
};

/// Runs `check`<class>(name of its table, source of random numbers) for each class and each seed.
template <typename Check>
void ForEveryMessage(const Page& page, unsigned long seeds, Check check) {
  const auto run = [&]<typename Class>() {
    const std::string_view mangled = typeid(common::codec::TableOf<Class>*).name();
    const auto row = std::find_if(page.begin(), page.end(), [&](const auto& one) {
      return mangled.ends_with(std::to_string(one.first.size()) + one.first + "E");
    });
    ASSERT_NE(row, page.end()) << "no row on the page for " << mangled;
    for (const unsigned long seed : Seeds(seeds)) {
      SCOPED_TRACE(row->first + ", VYN_SEED=" + std::to_string(seed));
      Random random(seed);
      check.template operator()<Class>(row->first, random);
    }
  };
  [&]<std::size_t... Index>(std::index_sequence<Index...>) {
    (run.template operator()<std::tuple_element_t<Index, TableMessages>>(), ...);
  }
  (std::make_index_sequence<std::tuple_size_v<TableMessages>>());
}

TEST(Wire, EveryFieldStandsWhereThePageSays) {
  const Page page = ReadPage();
  EXPECT_EQ(page.size(), std::tuple_size_v<TableMessages> + 1)
      << "and a table of parameters, which is no message";
  ForEveryMessage(page, 10, [&]<typename Class>(const std::string& table, Random& random) {
    Sample<Class> sample(random);
    PageReader reader(page, sample.bytes);
    reader.ExpectMessage(table, reader.Number(0), sample.message);
    Class back;
    Fill(back, random);  // what it held before goes
    EXPECT_EQ(Read(back, sample.bytes, random() % 2), 0U);
    EXPECT_EQ(Bytes(back), sample.bytes);
    for (const auto& [type, entry, place] : reader.Values()) {
      const std::string absent = sample.With(entry, std::uint16_t{0});
      if (WidthOf(type) != 0) {  // an absent number is zero
        EXPECT_EQ(Read(back, absent), 0U);
        PageReader(page, absent).ExpectMessage(table, reader.Number(0), back);
        continue;
      }
      // Absent, an offset that leads nowhere, and a length that no buffer has.
      const std::size_t target = place + reader.Number(place);
      for (const auto& wrong : {absent, sample.With(place, 0x7FFFFFFF), sample.With(target, 0x7FFFFFF0)}) {
        EXPECT_EQ(Read(back, wrong), kRefused) << type << " " << place;
      }
    }
  });
}

TEST(Wire, CutOrChangedBytesAreRefusedOrReadForWhatTheyAre) {
  ForEveryMessage(ReadPage(), 3, []<typename Class>(const std::string&, Random& random) {
    Sample<Class> sample(random);
    Class untouched;
    EXPECT_EQ(untouched.Deserialize(), kRefused);
    const std::string before = Bytes(untouched);
    for (std::size_t size = 0; size < sample.bytes.size(); ++size) {  // only padding can be spared
      Class back;
      const std::uint32_t status = Read(back, sample.bytes.substr(0, size));
      EXPECT_EQ(Bytes(back), status == kRefused ? before : sample.bytes) << size;
    }
    for (int i = 0; i < 200; ++i) {
      std::string changed = sample.bytes;
      for (auto left = 1 + random() % 3; left != 0; --left) {
        changed[random() % changed.size()] = static_cast<char>(random());
      }
      EXPECT_TRUE(RefusesOrKeeps<Class>(changed)) << testing::PrintToString(changed);
    }
  });
}

TEST(Wire, ThreadsDoNotDisturbEachOther) {
  const auto work = [](unsigned long seed) {
    Random random(seed);
    for (int i = 0; i < 500; ++i) {
      Sample<BroadcastBlockInfo> sample(random);
      BroadcastBlockInfo back;
      EXPECT_EQ(Read(back, sample.bytes), 0U);
      EXPECT_EQ(Bytes(back), sample.bytes) << seed;
    }
  };
  auto other = std::async(std::launch::async, work, 1);
  work(2);
  other.get();
}

TEST(Wire, InputIsTakenAsItIsOrCopied) {
  char bytes[] = "bytes";
  UsingTimeRequest message;
  for (const bool copy : {false, true}) {
    EXPECT_EQ(message.SetInputRawData(nullptr, 5, copy), kRefused);
    EXPECT_EQ(message.SetInputRawData(bytes, 0, copy), kRefused);
    EXPECT_EQ(message.SetInputRawData(bytes, 2147483647, copy), kRefused);
    EXPECT_EQ(message.mInputRawData, nullptr);
  }
  EXPECT_EQ(message.SetInputRawData(bytes, 2147483646, false), 0U);
  EXPECT_EQ(message.mInputRawData, bytes);
  message.mInputRawDataSize = 2147483647;  // past that check: the verifier would stop the process
  EXPECT_EQ(message.Deserialize(), kRefused);

  Random random(1);
  Sample<BlockInfoRequest> sample(random);
  std::string lent = sample.bytes;
  BlockInfoRequest copied;
  EXPECT_EQ(copied.SetInputRawData(lent.data(), lent.size(), true), 0U);
  std::fill(lent.begin(), lent.end(), '\xEE');
  EXPECT_EQ(copied.Deserialize(), 0U);
  EXPECT_EQ(Bytes(copied), sample.bytes);
}

/// The bytes of a buffer with this root.
template <typename Table>
std::string Finished(flatbuffers::FlatBufferBuilder& builder, flatbuffers::Offset<Table> root) {
  builder.Finish(root);
  return {reinterpret_cast<const char*>(builder.GetBufferPointer()), builder.GetSize()};
}

// Entries of a list that share one long text could fill all memory out of few bytes.
TEST(Wire, TextsThatAddUpToMoreThanTheBufferAreRefused) {
  for (const auto& [length, status] : {std::pair{8, 0U}, std::pair{1000, kRefused}}) {
    flatbuffers::FlatBufferBuilder builder;
    const auto text = builder.CreateString(std::string(length, 'x'));
    ShuffleApplicationIdList list;
    const auto texts = builder.CreateVector(std::vector{text, text});
    EXPECT_EQ(Read(list, Finished(builder, CreateTApplicationList(builder, texts))), status);
    EXPECT_EQ(list.appIds.size(), status == 0 ? 2U : 0U);

    const auto pair = tuning::CreateTTuningParameter(builder, text, text);
    const auto pairs = builder.CreateVector(std::vector{pair, pair});
    tuning::InferResult result;
    EXPECT_EQ(Read(result, Finished(builder, tuning::CreateTInferResult(builder, true, pairs))), status);
  }
}

TEST(Wire, NumbersThatDoNotStandWhereTheirWidthAsksAreRefused) {
  BroadcastBlockBatch message;
  message.sizes = {1, 2, 3};
  std::string bytes = Bytes(message);
  bytes[0] += 4;  // the root: all that follows moves by 4
  EXPECT_EQ(Read(message, bytes.insert(4, 4, '\0')), kRefused);
}

TEST(Wire, WhatOnlyAPeerWritesIsRead) {
  flatbuffers::FlatBufferBuilder builder;
  ShuffleApplication application;
  EXPECT_EQ(Read(application, Finished(builder, CreateTShuffleApplicationDirect(builder, "app", "more"))),
            0U);
  EXPECT_EQ(application.appId, "app");
  ShuffleBag bag;
  EXPECT_EQ(Read(bag, Finished(builder, CreateTShuffleBagDirect(builder, 0x100000007, 1, 2, 3, "b", "n"))),
            0U);
  EXPECT_EQ(bag.bagValue0, 7U) << "the low 32 bits";
  const auto pairs =
      builder.CreateVector(std::vector{tuning::CreateTTuningParameterDirect(builder, "k", "v"),
                                       tuning::CreateTTuningParameterDirect(builder, "k", "w")});
  tuning::InferResult result;
  EXPECT_EQ(Read(result, Finished(builder, tuning::CreateTInferResult(builder, true, pairs))), 0U);
  EXPECT_EQ(result.parameters, (std::map<std::string, std::string>{{"k", "v"}})) << "the first of equal keys";
}

TEST(Wire, NullEntriesAreLeftOutOrRefused) {
  const CapturedLog log;
  const Ref<ShuffleBlobId> id(new ShuffleBlobId(1, 2));
  ShuffleBlobIdList list;
  EXPECT_NE(Bytes(list), "");
  EXPECT_EQ(log.Texts(4).size(), 1U) << "an empty list is told";
  BlobBatchDeleteRequest deletion;
  list.blobIdList = deletion.blobIdList = {id, id};
  const std::string bytes = Bytes(list) + Bytes(deletion);
  list.blobIdList = deletion.blobIdList = {id, nullptr, id};
  EXPECT_EQ(Bytes(list) + Bytes(deletion), bytes);
  EXPECT_EQ(log.Texts(4).size(), 3U);

  BlobRequest request;
  EXPECT_EQ(request.Serialize(), kRefused);
  EXPECT_EQ(request.SerializedData(), nullptr);
  ClusterCapacityMessage capacities;
  capacities.caps = {new CapacityInfo, nullptr};
  EXPECT_EQ(capacities.Serialize(), 2000057U);
  EXPECT_EQ(capacities.SerializedData(), nullptr);
  capacities.caps.pop_back();
  EXPECT_EQ(capacities.Serialize(), 0U) << "a half-built buffer is no burden";
}

TEST(Wire, AQueryHasItsKey) { EXPECT_EQ((tuning::TuningCommonInfo{"f", "a", "q"}).BuildKey(), "f_a_q"); }

/// A serialised blob: root offset 8, padding, then the record.
std::string BlobBytes(const std::string& text, std::uint32_t root = 8, std::size_t size = 104) {
  std::string bytes("....\0\0\0\0\x08\x07\x06\x05\x04\x03\x02\x01\x0D\x0C\x0B\x0A", 20);
  std::memcpy(bytes.data(), &root, sizeof(root));
  bytes += "opaque-15-bytes" + text;
  bytes.resize(104, '\0');
  return bytes.substr(0, size);
}

TEST(Blob, IsWrittenWithUpTo63BytesOfTextAndReadWithAllItsRoom) {
  ShuffleBlob blob;
  EXPECT_EQ(blob.Deserialize(), kRefused) << "no input";
  EXPECT_EQ(blob.Serialize(), kRefused) << "no identity";
  blob.mId = new ShuffleBlobId(0x0A0B0C0D, 0x0102030405060708);
  blob.mRecord.fill(0xEE);  // whatever was there before
  std::memcpy(&blob.mRecord[12], "opaque-15-bytes", 15);
  for (const std::size_t length : {63, 5, 0, 64, 65}) {
    blob.blobText.assign(length, 't');
    EXPECT_EQ(Bytes(blob), length < 64 ? BlobBytes(blob.blobText) : "") << length;
  }
  ShuffleBlob back;
  ASSERT_EQ(Read(back, BlobBytes("text"), 1), 0U);
  EXPECT_EQ(back.blobText, "text" + std::string(60, '\0'));
  back.blobText = "text";
  EXPECT_EQ(Bytes(back), BlobBytes("text"));
}

TEST(Blob, IsRefusedWhenItsRecordIsNotWithinTheInput) {
  EXPECT_EQ(Read(*Ref<ShuffleBlob>(new ShuffleBlob), BlobBytes("", 4, 100)), 0U);
  for (const auto& [root, size] :
       std::initializer_list<std::pair<std::uint32_t, std::size_t>>{{3, 104},
                                                                    {9, 104},
                                                                    {0, 104},
                                                                    {0, 95},
                                                                    {0, 4},
                                                                    {8, 1},
                                                                    {8, 3},
                                                                    {8, 95},
                                                                    {8, 103},
                                                                    {0x80000008, 104},
                                                                    {0xFFFFFFFF, 104}}) {
    ShuffleBlob blob;
    EXPECT_EQ(Read(blob, BlobBytes("", root, size)), kRefused) << root << " " << size;
    EXPECT_EQ(blob.mId, nullptr);
  }
}

TEST(Blob, AListIsTakenAsAWholeOrNotAtAll) {
  ShuffleBlobListAndTaskInfo info;
  std::vector<Ref<ShuffleBlob>> blobs{new ShuffleBlob};
  info.valueList = {BlobBytes("one"), BlobBytes("two")};
  EXPECT_EQ(info.DeserializeToShuffleBlobList(blobs), 0U);
  ASSERT_EQ(blobs.size(), 3U);
  EXPECT_STREQ(blobs[2]->blobText.c_str(), "two");
  EXPECT_EQ(blobs[2]->mInputRawData, nullptr) << "it does not refer to the list";
  for (const std::string& bad : {BlobBytes("", 8, 95), std::string()}) {
    info.valueList = {BlobBytes("three"), bad};
    EXPECT_EQ(info.DeserializeToShuffleBlobList(blobs), kRefused);
    EXPECT_EQ(blobs.size(), 3U);
  }
}

/// The status of `action` without memory for what may fail. A failure is one ERROR line.
std::uint32_t WithoutMemory(const std::function<std::uint32_t()>& action) {
  const CapturedLog log;
  gOutOfMemory = true;
  const std::uint32_t status = action();
  gOutOfMemory = false;
  EXPECT_EQ(log.Texts(4).size(), Failed(status) ? 1U : 0U);
  return status;
}

TEST(Wire, WithoutMemoryAMessageIsRefused) {
  ForEveryMessage(ReadPage(), 5, []<typename Class>(const std::string&, Random& random) {
    Sample<Class> sample(random);
    Class back;
    EXPECT_EQ(WithoutMemory([&] { return Read(back, sample.bytes, 1); }), kRefused) << "no room to align it";
    const std::uint32_t status = WithoutMemory([&] { return Read(back, sample.bytes); });
    EXPECT_TRUE(status == kRefused || (status == 0 && Bytes(back) == sample.bytes));
  });
  std::string bytes = BlobBytes("text");
  UsingTimeRequest message;
  EXPECT_EQ(WithoutMemory([&] { return message.SetInputRawData(bytes.data(), 4, true); }), 2000057U);
  Ref<ShuffleBlob> blob(new ShuffleBlob);
  EXPECT_EQ(WithoutMemory([&] { return Read(*blob, bytes); }), kRefused);
  ShuffleBlobListAndTaskInfo info;
  info.valueList = {bytes};
  std::vector<Ref<ShuffleBlob>> blobs;
  EXPECT_EQ(WithoutMemory([&] { return info.DeserializeToShuffleBlobList(blobs); }), 2000057U);
}

}  // namespace
}  // namespace vyn::test
