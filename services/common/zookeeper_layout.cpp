#include "services/common/zookeeper_layout.h"

#include "services/common/json_fields.h"

#include <charconv>

namespace vyn::services {

namespace {

constexpr const char* kForgottenFlag = "forgotten";

}  // namespace

bool ParseId(const std::string& name, std::uint32_t& id) {
  const char* end = name.data() + name.size();
  const auto [rest, error] = std::from_chars(name.data(), end, id);
  return error == std::errc() && rest == end && std::to_string(id) == name;
}

std::string ReclaimEntry::ToText() const {
  nlohmann::json json{{"app", application},
                      {"path", variablePath},
                      {"variable", variableId},
                      {"owner", owner},
                      {kFormatField, kRecordFormat}};
  if (forgotten) {
    json[kForgottenFlag] = true;
  }
  return json.dump();
}

bool ReclaimEntry::IsPlausible() const {
  if (!IsApplication(application)) {
    return false;
  }
  if (variablePath.empty()) {
    return true;
  }
  const std::string begin = AppPath(application) + "/" + std::to_string(variableId) + ".";
  return variablePath.size() > begin.size() && variablePath.starts_with(begin) &&
         variablePath.find('/', begin.size()) == std::string::npos;
}

bool ReclaimEntry::FromText(const std::string& text, ReclaimEntry& entry) {
  const auto json = ParseJson(text);
  if (!json.is_object() || NumberField(json, kFormatField, 1) > kRecordFormat) {
    return false;
  }
  try {
    entry.application = json.at("app").get<std::string>();
    entry.variablePath = json.at("path").get<std::string>();
    entry.variableId = json.at("variable").get<std::uint32_t>();
    entry.owner = json.at("owner").get<bool>();
  } catch (const nlohmann::json::exception&) {
    return false;
  }
  entry.forgotten = FlagField(json, kForgottenFlag);
  return !entry.application.empty();
}

}  // namespace vyn::services
