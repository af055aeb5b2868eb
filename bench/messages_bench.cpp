// Serialises and parses BroadcastBlockInfo with 1 and with 1000 blocks. The floor does the same steps in
// handwritten code on the generated FlatBuffers classes.

#include "bench/support/ratio.h"
#include "schema/broadcast_generated.h"
#include "tessel/message/broadcast/broadcast_messages.h"
#include "vyn/status.h"

#include <flatbuffers/flatbuffers.h>
#include <malloc.h>

namespace {

// Stops malloc from returning memory to the kernel between two buffers. The page faults afterwards would hit
// either the measured function or the floor at random.
constexpr int kKeptBytes = 64 << 20;
[[maybe_unused]] const bool gHeapKept =
    mallopt(M_TRIM_THRESHOLD, kKeptBytes) != 0 && mallopt(M_MMAP_THRESHOLD, 32 << 20) != 0;

using vyn::tessel::BroadcastBlockInfo;

class ByHand : public vyn::common::Message<vyn::tessel::TBroadcastBlockInfo> {
 public:
  std::string appId;
  std::uint32_t broadcastId = 0;
  std::vector<std::string> bmIds;
  std::vector<std::uint64_t> sizes;
  std::uint32_t nodeId = 0xFFFFFFFF;

  std::uint32_t Serialize() override {
    auto& builder = fbBuilder4096;
    builder.Reset();
    const auto appIdText = builder.CreateString(appId);
    const auto bmIdList = builder.CreateVectorOfStrings(bmIds);
    const auto sizeList = builder.CreateVector(sizes);
    builder.Finish(
        vyn::tessel::CreateTBroadcastBlockInfo(builder, appIdText, broadcastId, bmIdList, sizeList, nodeId));
    mSerializedData = builder.GetBufferPointer();
    mSerializedDataSize = builder.GetSize();
    return VYN_OK;
  }

  std::uint32_t Deserialize() override {
    const auto* data = reinterpret_cast<const std::uint8_t*>(mInputRawData);
    if (data == nullptr) {
      return VYN_ERR_MESSAGE_DECODE;
    }
    flatbuffers::Verifier verifier(data, mInputRawDataSize, flatbuffers::Verifier::Options());
    if (!verifier.VerifyBuffer<vyn::tessel::TBroadcastBlockInfo>(nullptr)) {
      return VYN_ERR_MESSAGE_DECODE;
    }
    const auto* root = flatbuffers::GetRoot<vyn::tessel::TBroadcastBlockInfo>(data);
    if (root->appId() == nullptr) {
      return VYN_ERR_MESSAGE_DECODE;
    }
    appId = root->appId()->str();
    broadcastId = root->broadcastId();
    nodeId = root->nodeId();
    if (root->bmIds() == nullptr) {
      return VYN_ERR_MESSAGE_DECODE;
    }
    bmIds.clear();
    bmIds.reserve(root->bmIds()->size());
    for (const auto* id : *root->bmIds()) {
      bmIds.emplace_back(id->data(), id->size());
    }
    if (root->sizes() == nullptr) {
      return VYN_ERR_MESSAGE_DECODE;
    }
    sizes.assign(root->sizes()->begin(), root->sizes()->end());
    return VYN_OK;
  }
};

template <typename Info>
void Fill(Info& info, std::int64_t blocks) {
  info.appId = "application_1700000000000_0001";
  info.broadcastId = 42;
  info.bmIds.assign(static_cast<std::size_t>(blocks), "7f3a9c52e1d84b06-0001-00000000002a");
  info.sizes.assign(static_cast<std::size_t>(blocks), 4194304);
  info.nodeId = 3;
}

std::string Bytes(std::int64_t blocks) {
  BroadcastBlockInfo info;
  Fill(info, blocks);
  info.Serialize();
  return {reinterpret_cast<const char*>(info.SerializedData()), info.SerializedDataSize()};
}

template <typename Info>
void Write(benchmark::State& state) {
  Info info;
  Fill(info, state.range(0));
  for (auto _ : state) {
    info.Serialize();
    benchmark::DoNotOptimize(info.SerializedData());
  }
}

template <typename Info>
void Read(benchmark::State& state) {
  std::string bytes = Bytes(state.range(0));
  for (auto _ : state) {
    Info info;
    info.SetInputRawData(bytes.data(), static_cast<unsigned int>(bytes.size()), false);
    if (vyn::Failed(info.Deserialize())) {
      state.SkipWithError("refused");
      break;
    }
    benchmark::DoNotOptimize(info.bmIds.data());
  }
}

void Serialise(benchmark::State& state) { Write<BroadcastBlockInfo>(state); }
void SerialiseByHand(benchmark::State& state) { Write<ByHand>(state); }
void Deserialise(benchmark::State& state) { Read<BroadcastBlockInfo>(state); }
void DeserialiseByHand(benchmark::State& state) { Read<ByHand>(state); }

BENCHMARK(Serialise)->Arg(1)->Arg(1000);
BENCHMARK(SerialiseByHand)->Arg(1)->Arg(1000);
BENCHMARK(Deserialise)->Arg(1)->Arg(1000);
BENCHMARK(DeserialiseByHand)->Arg(1)->Arg(1000);
VYN_RATIO_AT_MOST("Serialise/1", "SerialiseByHand/1", 1.15);
VYN_RATIO_AT_MOST("Serialise/1000", "SerialiseByHand/1000", 1.15);
VYN_RATIO_AT_MOST("Deserialise/1", "DeserialiseByHand/1", 1.15);
VYN_RATIO_AT_MOST("Deserialise/1000", "DeserialiseByHand/1000", 1.15);

}  // namespace
