#include "services/common/variable_record.h"

#include "common/log/logging.h"
#include "platform/zk_helper/zk_helper.h"
#include "services/common/json_fields.h"
#include "services/common/zookeeper_io.h"
#include "services/common/zookeeper_layout.h"

#include <array>
#include <utility>

namespace vyn::services {

namespace {

constexpr std::array<std::pair<RecordState, const char*>, 3> kStates{
    {{RecordState::kNew, "new"}, {RecordState::kReady, "ready"}, {RecordState::kDeleted, "deleted"}}};

RecordRead Failure(int result, const std::string& path) {
  if (result == ZNONODE) {
    return RecordRead::kAbsent;
  }
  VYN_LOG_ERROR("Failed to read " << path << ", zookeeper get error: " << zookeeper::ResultText(result));
  return zookeeper::IsUncertain(result) ? RecordRead::kUnanswered : RecordRead::kFailed;
}

RecordRead Damaged(const std::string& path, const char* what) {
  VYN_LOG_ERROR("The record " << path << " is damaged: " << what);
  return RecordRead::kDamaged;
}

bool ReadHeader(const nlohmann::json& json, VariableRecord& record) {
  try {
    const auto state = json.at("state").get<std::string>();
    record.blockNum = json.at("blockNum").get<std::uint32_t>();
    record.pieces = json.at("pieces").get<std::uint32_t>();
    record.list = json.at("list").get<std::string>();
    record.writer = TextField(json, "writer");
    for (const auto& [value, name] : kStates) {
      if (state == name) {
        record.state = value;
        return true;
      }
    }
  } catch (const nlohmann::json::exception&) {
    return false;
  }
  return false;
}

}  // namespace

std::string RecordHeader(RecordState state, std::uint32_t blockNum, std::uint32_t pieces,
                         const std::string& list, const std::string& writer) {
  const char* name = "";
  for (const auto& [value, text] : kStates) {
    name = value == state ? text : name;
  }
  const nlohmann::json header{{"state", name}, {"blockNum", blockNum}, {"pieces", pieces},
                              {"list", list},  {"writer", writer},     {kFormatField, kRecordFormat}};
  return header.dump() + "\n";
}

std::string PiecePath(const std::string& record, const std::string& list, std::uint32_t index) {
  return record + "/" + list + "." + std::to_string(index);
}

std::string RecordBody(const std::string& text) {
  const std::size_t end = text.find('\n');
  return end == std::string::npos ? std::string() : text.substr(end + 1);
}

RecordRead ReadVariableRecord(const std::string& path, VariableRecord& record) {
  std::string text;
  if (const int result = zookeeper::Get(path, text); result != ZOK) {
    return Failure(result, path);
  }
  const auto header = ParseJson(text.substr(0, text.find('\n')));
  if (NumberField(header, kFormatField, 1) > kRecordFormat) {
    VYN_LOG_ERROR("The record " << path << " was written by a newer build, this one cannot read it");
    return RecordRead::kNewer;
  }
  if (!ReadHeader(header, record)) {
    return Damaged(path, "its first line cannot be read");
  }
  if (record.state == RecordState::kNew) {
    return RecordRead::kRead;
  }
  std::string body = RecordBody(text);
  for (std::uint32_t i = 1; i < record.pieces; ++i) {
    std::string piece;
    if (const int result = zookeeper::Get(PiecePath(path, record.list, i), piece); result != ZOK) {
      return Failure(result, path);
    }
    body += piece;
  }
  if (Failed(record.blocks.SetInputRawData(body.data(), static_cast<unsigned int>(body.size()), false)) ||
      Failed(record.blocks.Deserialize()) || record.blocks.bmIds.size() != record.blocks.sizes.size()) {
    return Damaged(path, "its block list cannot be read");
  }
  return RecordRead::kRead;
}

}  // namespace vyn::services
