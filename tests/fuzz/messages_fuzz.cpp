// Bytes of a stranger to every message class: the first byte picks the class, the rest is the input. Whatever
// is accepted must serialise, and must read back equal.

#include "support/rpc/all_messages.h"

#include <cstdlib>

namespace {

using vyn::test::Read;
using namespace vyn::tessel;  // NOLINT: the messages
using Messages = vyn::test::TableMessages;

void Require(bool condition) {
  if (!condition) {
    std::abort();
  }
}

void TryBlob(std::string_view bytes) {
  ShuffleBlob blob;
  if (!vyn::Failed(Read(blob, bytes))) {
    blob.blobText = blob.blobText.c_str();
    const bool isFull = blob.blobText.size() == ShuffleBlob::kTextRoom;
    Require(isFull == vyn::test::Bytes(blob).empty());
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size >= 2) {
    const std::string_view bytes(reinterpret_cast<const char*>(data + 1), size - 1);
    TryBlob(bytes);
    vyn::test::ForEachIndex<std::tuple_size_v<Messages>>([&](auto index) {
      if (data[0] == index) {
        Require(vyn::test::RefusesOrKeeps<std::tuple_element_t<index, Messages>>(bytes));
      }
    });
  }
  return 0;
}
