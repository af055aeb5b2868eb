// Bytes of a stranger to every message class: the first byte picks the class, the rest is the input. Whatever
// is accepted must serialise, and must read back equal.

#include "support/all_messages.h"
#include "vyn/status.h"

#include <algorithm>
#include <cstdlib>
#include <memory>

namespace {

using vyn::common::Ref;
using vyn::tessel::ShuffleBlob;

void Require(bool condition) {
  if (!condition) {
    std::abort();
  }
}

/// Reads exactly these bytes, out of memory that ends where they end.
template <typename Class>
bool Accepts(Class& message, const std::uint8_t* data, std::size_t size) {
  const std::unique_ptr<char[]> copy(new char[size]);
  std::copy(data, data + size, copy.get());
  return !vyn::Failed(message.SetInputRawData(copy.get(), static_cast<unsigned int>(size), false)) &&
         !vyn::Failed(message.Deserialize());
}

void TryBlob(const std::uint8_t* data, std::size_t size) {
  ShuffleBlob blob;
  if (!Accepts(blob, data, size)) {
    return;
  }
  Require(blob.blobText.size() == ShuffleBlob::kTextRoom && vyn::Failed(blob.Serialize()));
  blob.blobText = blob.blobText.substr(0, blob.blobText.find('\0'));
  if (blob.blobText.size() == ShuffleBlob::kTextRoom) {
    return;
  }
  Require(!vyn::Failed(blob.Serialize()));
  ShuffleBlob again;
  Require(Accepts(again, blob.SerializedData(), blob.SerializedDataSize()));
  Require(vyn::test::Same(*again.mId, *blob.mId) && again.blobText.c_str() == blob.blobText);
  Require(std::equal(blob.mRecord.begin(), blob.mRecord.begin() + ShuffleBlob::kTextOffset,
                     again.mRecord.begin()));
}

template <typename Class>
void Try(const std::uint8_t* data, std::size_t size) {
  Class message;
  if (!Accepts(message, data, size)) {
    return;
  }
  Require(!vyn::Failed(message.Serialize()));
  Class again;
  Require(Accepts(again, message.SerializedData(), message.SerializedDataSize()));
  Require(vyn::test::Same(message, again));
  if constexpr (std::is_same_v<Class, vyn::tessel::ShuffleBlobListAndTaskInfo>) {
    std::vector<Ref<ShuffleBlob>> blobs;
    const auto status = message.DeserializeToShuffleBlobList(blobs);
    Require(blobs.size() == (vyn::Failed(status) ? 0 : message.valueList.size()));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using Messages = vyn::test::TableMessages;
  if (size < 2) {
    return 0;
  }
  const std::size_t choice = data[0];
  if (choice == 0xFF) {
    TryBlob(data + 1, size - 1);
  }
  [&]<std::size_t... Index>(std::index_sequence<Index...>) {
    (void)((choice == Index && (Try<std::tuple_element_t<Index, Messages>>(data + 1, size - 1), true)) ||
           ...);
  }
  (std::make_index_sequence<std::tuple_size_v<Messages>>());
  return 0;
}
