#include "tessel/message/node_messages.h"

#include "common/log/logging.h"
#include "common/message/message_codec.h"
#include "schema/node_generated.h"

#include <new>

template <>
inline constexpr vyn::common::codec::Naming vyn::common::codec::kNaming<vyn::tessel::CapacityInfo>{
    "(instance->", "())"};

namespace vyn::tessel {

namespace codec = common::codec;

VYN_MESSAGE_CODEC(NodeIdResponse, fbBuilder128)
VYN_MESSAGE_CODEC(NodeInformation, fbBuilder128)
VYN_MESSAGE_CODEC(MetaLeaderInformation, fbBuilder128)
VYN_MESSAGE_CODEC(HostMessage, fbBuilder256)
VYN_MESSAGE_CODEC(CapacityInfo, fbBuilder128)
VYN_MESSAGE_CODEC(TimeStamp, fbBuilder128)
VYN_MESSAGE_CODEC(UsingTimeRequest, fbBuilder128)
VYN_MESSAGE_CODEC(ApplicationRegisterRequest, fbBuilder128)
VYN_MESSAGE_CODEC(ShuffleApplication, fbBuilder128)
VYN_MESSAGE_CODEC(ShuffleApplicationIdList, fbBuilder4096)

// Written by hand: the entries are tables of another message class inside the same buffer.
std::uint32_t ClusterCapacityMessage::Serialize() {
  auto& builder = codec::StartBuffer(*this, fbBuilder256);
  std::vector<flatbuffers::Offset<TCapacityInfo>> entries;
  entries.reserve(caps.size());
  for (const auto& cap : caps) {
    VYN_CHECK_POINTER_NAMED(cap, "cap");
    entries.push_back(codec::WriteTable(builder, *cap));
  }
  const auto list = builder.CreateVector(entries);
  const auto name = builder.CreateString(ns);
  return codec::FinishBuffer(*this, builder, CreateTClusterCapacityMessage(builder, name, list));
}

std::uint32_t ClusterCapacityMessage::Deserialize() {
  codec::Input input(*this);
  const auto* root = input.Root<TClusterCapacityMessage>();
  if (root == nullptr) {
    return codec::Refuse(VYN_MESSAGE_PLACE, "(instance)");
  }
  if (root->ns() == nullptr) {
    return codec::Refuse(VYN_MESSAGE_PLACE, "(ns)");
  }
  ns = root->ns()->str();
  if (root->caps() == nullptr) {
    return codec::Refuse(VYN_MESSAGE_PLACE, "(caps)");
  }
  caps.clear();
  caps.reserve(root->caps()->size());
  for (const TCapacityInfo* iter : *root->caps()) {
    if (iter == nullptr) {
      return codec::Refuse(VYN_MESSAGE_PLACE, "(iter)");
    }
    if (iter->host() == nullptr) {
      return codec::Refuse(VYN_MESSAGE_PLACE, "(iter->host())");
    }
    common::Ref<CapacityInfo> info(new (std::nothrow) CapacityInfo);
    if (info == nullptr) {
      return codec::Refuse(VYN_MESSAGE_PLACE, "(info)");
    }
    info->host = iter->host()->str();
    info->capacityA = iter->capacityA();
    info->capacityB = iter->capacityB();
    caps.push_back(info);
  }
  return VYN_OK;
}

}  // namespace vyn::tessel
