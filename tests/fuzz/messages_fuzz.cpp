// Bytes of a stranger to every message class: the first byte picks the class, the rest is the input. Whatever
// is accepted must serialise, and must read back equal.

#include "support/all_messages.h"

#include <cstdlib>

namespace {

using vyn::test::Bytes;
using vyn::test::Read;
using namespace vyn::tessel;  // NOLINT: the messages

void Require(bool condition) {
  if (!condition) {
    std::abort();
  }
}

void TryBlob(std::string_view bytes) {
  ShuffleBlob blob;
  if (vyn::Failed(Read(blob, bytes))) {
    return;
  }
  Require(blob.blobText.size() == ShuffleBlob::kTextRoom && vyn::Failed(blob.Serialize()));
  blob.blobText = blob.blobText.substr(0, blob.blobText.find('\0'));
  if (blob.blobText.size() == ShuffleBlob::kTextRoom) {
    return;
  }
  ShuffleBlob again;
  Require(!vyn::Failed(Read(again, Bytes(blob))));
  again.blobText = again.blobText.c_str();
  Require(Bytes(again) == Bytes(blob) && !Bytes(blob).empty());
}

template <typename Class>
void Try(std::string_view bytes) {
  Require(vyn::test::RefusesOrKeeps<Class>(bytes));
  if constexpr (std::is_same_v<Class, ShuffleBlobListAndTaskInfo>) {
    Class message;
    if (!vyn::Failed(Read(message, bytes))) {
      std::vector<vyn::common::Ref<ShuffleBlob>> blobs;
      const auto status = message.DeserializeToShuffleBlobList(blobs);
      Require(blobs.size() == (vyn::Failed(status) ? 0 : message.valueList.size()));
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using Messages = vyn::test::TableMessages;
  if (size < 2) {
    return 0;
  }
  const std::size_t choice = data[0];
  const std::string_view bytes(reinterpret_cast<const char*>(data + 1), size - 1);
  if (choice == 0xFF) {
    TryBlob(bytes);
  }
  [&]<std::size_t... Index>(std::index_sequence<Index...>) {
    (void)((choice == Index && (Try<std::tuple_element_t<Index, Messages>>(bytes), true)) || ...);
  }
  (std::make_index_sequence<std::tuple_size_v<Messages>>());
  return 0;
}
