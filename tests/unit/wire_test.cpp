// Every message class against docs/wire-format.md, and what its readers refuse.

#include "common/message/message_codec.h"
#include "schema/bag_generated.h"
#include "schema/blob_generated.h"
#include "schema/broadcast_generated.h"
#include "schema/heart_beat_generated.h"
#include "schema/local_blob_generated.h"
#include "schema/node_generated.h"
#include "schema/stage_generated.h"
#include "schema/tuning_generated.h"
#include "support/random_steps.h"
#include "support/rpc/all_messages.h"
#include "support/temp_dir.h"
#include "support/test.h"
#include "tessel/message/shuffle/shuffle_application.h"

namespace vyn::test {
namespace {

using flatbuffers::FlatBufferBuilder;
using namespace common::codec;  // NOLINT: which member has which field
using namespace tessel;         // NOLINT: the messages under test

constexpr std::uint32_t kRefused = 2020015;

// The page's word for a field of the type of the argument.
std::string Word(bool) { return "bool"; }
std::string Word(std::uint8_t) { return "ubyte"; }
std::string Word(std::uint16_t) { return "ushort"; }
std::string Word(std::uint32_t) { return "uint"; }
std::string Word(std::uint64_t) { return "ulong"; }
std::string Word(const flatbuffers::String*) { return "string"; }
template <typename Table>
std::string Word(const Table*) {
  return Table::Traits::name;
}
template <typename Entry>
std::string Word(const flatbuffers::Vector<Entry>*) {
  return "[" + Word(typename flatbuffers::IndirectHelper<Entry>::return_type{}) + "]";
}

/// Compares the fields of a table with its row on the page, which comes without the column of its class, and the
/// numbers and texts in `bytes` with the members of the same names.
template <typename Class>
void ExpectOnPage(const std::string& page, Class& message, const std::string& bytes) {
  using Table = TableOf<Class>;
  const auto* table = flatbuffers::GetRoot<Table>(bytes.data());
  std::string row = std::string("| `") + Table::Traits::name + "`";
  ForEachIndex<kFieldCount<Table>>([&](auto field) {
    row += (field == 0 ? " " : ", ") + std::to_string(field) + " `" + Table::Traits::field_names[field] +
           "` " + Word(FieldType<Table, field>{});
    constexpr std::size_t member = MemberOf<Class>(field);
    if constexpr (member < kMemberCount<Class>) {
      const auto value = table->template get_field<field>();
      if constexpr (std::is_arithmetic_v<decltype(value)>) {
        EXPECT_EQ(value, std::get<member>(message.Fields())) << row;
      } else if constexpr (std::is_same_v<MemberType<Class, member>, std::string>) {
        EXPECT_EQ(value->str(), std::get<member>(message.Fields())) << row;
      }
    }
  });
  EXPECT_NE(page.find(row + " |"), std::string::npos) << row << " is not on the page";
}

/// Runs `check`<class>(source of random numbers) for each class and each seed.
template <typename Check>
void ForEveryMessage(unsigned int seeds, Check check) {
  ForEachIndex<std::tuple_size_v<TableMessages>>([&](auto index) {
    using Class = std::tuple_element_t<index, TableMessages>;
    for (const unsigned int seed : Seeds(seeds)) {
      SCOPED_TRACE(TableOf<Class>::Traits::name + (", VYN_SEED=" + std::to_string(seed)));
      Random random(seed);
      check.template operator()<Class>(random);
    }
  });
}

/// The bytes of a message of random contents.
template <typename Class>
std::string RandomBytes(Random& random) {
  Class message;
  Fill(message, random);
  return Bytes(message);
}

/// The bytes of a buffer with this root.
template <typename Table>
std::string Finished(FlatBufferBuilder& builder, flatbuffers::Offset<Table> root) {
  builder.Finish(root);
  return {reinterpret_cast<const char*>(builder.GetBufferPointer()), builder.GetSize()};
}

TEST(Wire, EveryFieldHasThePlaceThatTheWireFormatPageSays) {
  const std::string page = std::regex_replace(ReadFile(VYN_SOURCE_DIR "/docs/wire-format.md"),
                                              std::regex(R"( \| [^|]* \|(?= 0)| \([^)|]*\)(?= \|))"), "");
  EXPECT_STREQ(tuning::TTuningParameter::Traits::field_names[0], "key");
  ForEveryMessage(10, [&]<typename Class>(Random& random) {
    Class message;
    Fill(message, random);
    const std::string bytes = Bytes(message);
    ExpectOnPage(page, message, bytes);
    Class back;
    Fill(back, random);  // what it held before goes
    EXPECT_EQ(Read(back, bytes, random() % 2), 0U);
    EXPECT_EQ(Bytes(back), bytes);

    // An absent number is zero; whatever else is absent is refused.
    FlatBufferBuilder builder;
    const flatbuffers::Offset<TableOf<Class>> root(builder.EndTable(builder.StartTable()));
    const std::string empty = Finished(builder, root);
    const bool numbers = std::apply(
        [](auto&... member) {
          return (std::is_arithmetic_v<std::remove_reference_t<decltype(member)>> && ...);
        },
        back.Fields());
    EXPECT_EQ(Read(back, empty), numbers ? 0U : kRefused);
    EXPECT_TRUE(!numbers || Bytes(back) == empty);
  });
}

TEST(Wire, TruncatedOrChangedBytesAreRefusedOrReadBackEqual) {
  ForEveryMessage(3, []<typename Class>(Random& random) {
    const std::string bytes = RandomBytes<Class>(random);
    const auto expectSound = [](const std::string& changed) {
      EXPECT_TRUE(RefusesOrKeeps<Class>(changed)) << testing::PrintToString(changed);
    };
    Class untouched;
    EXPECT_EQ(untouched.Deserialize(), kRefused);
    EXPECT_EQ(untouched.SetInputRawData(std::string(bytes).data(), 2147483647, false), kRefused);
    const std::string before = Bytes(untouched);
    for (std::size_t at = 0; at < bytes.size(); ++at) {
      Class back;
      const std::uint32_t status = Read(back, bytes.substr(0, at));
      EXPECT_EQ(Bytes(back), status == kRefused ? before : bytes) << at;   // only padding can be spared
      expectSound(std::string(bytes).replace(at, 2, 2, '\0'));             // absent
      expectSound(std::string(bytes).replace(at, 4, "\xF0\xFF\xFF\x7F"));  // far off
    }
    for (int i = 0; i < 200; ++i) {
      std::string changed = bytes;
      for (auto left = 1 + random() % 3; left != 0; --left) {
        changed[random() % changed.size()] = static_cast<char>(random());
      }
      expectSound(changed);
    }
  });
}

// Entries of a list that share one long text could fill all memory out of few bytes.
TEST(Wire, AMessageWhoseTextsExceedTheBufferIsRefused) {
  for (const auto& [length, status] : {std::pair{8, 0U}, std::pair{1000, kRefused}}) {
    FlatBufferBuilder builder;
    const auto text = builder.CreateString(std::string(length, 'x'));
    ShuffleApplicationIdList list;
    const auto texts = builder.CreateVector(std::vector{text, text});
    EXPECT_EQ(Read(list, Finished(builder, CreateTApplicationList(builder, texts))), status);
    const auto pair = tuning::CreateTTuningParameter(builder, text, text);
    const auto pairs = builder.CreateVector(std::vector{pair, pair});
    tuning::InferResult result;
    EXPECT_EQ(Read(result, Finished(builder, tuning::CreateTInferResult(builder, true, pairs))), status);
  }
}

/// A serialised blob: root offset 8, padding, then the record.
std::string BlobBytes(const std::string& text, std::uint32_t root = 8, std::size_t size = 104) {
  std::string bytes("....\0\0\0\0\x08\x07\x06\x05\x04\x03\x02\x01\x0D\x0C\x0B\x0A", 20);
  std::memcpy(bytes.data(), &root, sizeof(root));
  bytes += "opaque-15-bytes" + text;
  bytes.resize(104, '\0');
  return bytes.substr(0, size);
}

TEST(Blob, ABlobIsWrittenWithUpTo63BytesOfTextAndReadWith64) {
  ShuffleBlob blob;
  EXPECT_EQ(blob.Deserialize(), kRefused) << "no input";
  EXPECT_EQ(blob.Serialize(), kRefused) << "no identity";
  blob.mId = new ShuffleBlobId(0x0A0B0C0D, 0x0102030405060708);
  blob.mRecord.fill(0xEE);  // whatever was there before
  std::memcpy(&blob.mRecord[12], "opaque-15-bytes", 15);
  for (const std::size_t length : {63, 5, 0, 64}) {
    blob.blobText.assign(length, 't');
    EXPECT_EQ(Bytes(blob), length < 64 ? BlobBytes(blob.blobText) : "") << length;
  }
  ASSERT_EQ(Read(blob, BlobBytes("text"), 1), 0U);
  EXPECT_EQ(blob.blobText, "text" + std::string(60, '\0'));
  blob.blobText = "text";
  EXPECT_EQ(Bytes(blob), BlobBytes("text"));
}

TEST(Blob, ABlobListIsReadWholeOrNotAtAllAndKeepsThePartitionOrder) {
  ShuffleBlobListAndTaskInfo info;
  std::vector<common::Ref<ShuffleBlob>> blobs;
  for (const std::size_t size : {95, 104}) {
    info.valueList = {BlobBytes("one"), BlobBytes("two", 8, size)};
    EXPECT_EQ(info.DeserializeToShuffleBlobList(blobs), size == 104 ? 0U : kRefused);
    EXPECT_EQ(blobs.size(), size == 104 ? 2U : 0U);
  }
  ShuffleInfo shuffle;
  shuffle.mPartitions[6] = nullptr;  // a place that somebody else looked up
  for (common::Ref<ShuffleBlob> blob : {blobs[0], blobs[1], common::Ref<ShuffleBlob>()}) {
    shuffle.AddNewShuffleBlob(6, blob);
  }
  EXPECT_THAT(shuffle.mPartitions[6]->mBlobs, testing::ElementsAre(blobs[0], blobs[1]));
}

TEST(Blob, ABlobIsReadWhenItsRecordOf96BytesLiesWithinTheInput) {
  for (std::size_t size = 1; size <= 104; ++size) {
    for (const std::uint32_t root : {0U, 3U, 4U, 8U, 9U, 0x80000008U, 0xFFFFFFFFU}) {
      ShuffleBlob blob;
      const bool good = root >= 4 && root + std::size_t{96} <= size;
      EXPECT_EQ(Read(blob, BlobBytes("", root, size)), good ? 0U : kRefused) << root << " " << size;
      EXPECT_EQ(blob.mId != nullptr, good);
    }
  }
}

}  // namespace
}  // namespace vyn::test
