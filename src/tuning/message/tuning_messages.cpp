#include "tuning/message/tuning_messages.h"

#include "common/message/message_codec.h"
#include "schema/tuning_generated.h"

namespace vyn {

using Parameters = std::map<std::string, std::string>;
using ParameterTables = flatbuffers::Vector<flatbuffers::Offset<tuning::TTuningParameter>>;

/// Parameters are sent as a list of pairs, sorted by key. Of pairs with the same key the reader keeps the
/// first.
template <>
struct common::codec::FieldCodec<const ParameterTables*, Parameters> {
  static flatbuffers::Offset<ParameterTables> Write(Builder& builder, const Parameters& member) {
    std::vector<flatbuffers::Offset<tuning::TTuningParameter>> entries;
    entries.reserve(member.size());
    for (const auto& [key, value] : member) {
      const auto keyText = builder.CreateString(key);
      entries.push_back(tuning::CreateTTuningParameter(builder, keyText, builder.CreateString(value)));
    }
    return builder.CreateVector(entries);
  }
  static std::uint32_t Read(const ParameterTables* field, Parameters& member, Place place) {
    member.clear();
    for (const tuning::TTuningParameter* parameter : *field) {
      if (parameter->key() == nullptr) {
        return Refuse(place, "(key)");
      }
      if (parameter->value() == nullptr) {
        return Refuse(place, "(value)");
      }
      member.emplace(parameter->key()->str(), parameter->value()->str());
    }
    return VYN_OK;
  }
};

namespace tuning {

std::string TuningCommonInfo::BuildKey() const { return field + "_" + appId + "_" + queryIdent; }

VYN_MESSAGE_CODEC(TuningSqlMessage, fbBuilder128)
VYN_MESSAGE_CODEC(RegisterResult, fbBuilder128)
VYN_MESSAGE_CODEC(TuningMetrics, fbBuilder4096)
VYN_MESSAGE_CODEC(InferIdentification, fbBuilder4096)
VYN_MESSAGE_CODEC(InferResult, fbBuilder4096)

}  // namespace tuning
}  // namespace vyn
