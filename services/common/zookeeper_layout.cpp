#include "services/common/zookeeper_layout.h"

#include <nlohmann/json.hpp>

namespace vyn::services {

std::string ReclaimEntry::ToText() const {
  return nlohmann::json{
      {"app", application}, {"path", variablePath}, {"variable", variableId}, {"owner", owner}}
      .dump();
}

bool ReclaimEntry::FromText(const std::string& text, ReclaimEntry& entry) {
  const auto json = nlohmann::json::parse(text, nullptr, false);
  if (!json.is_object()) {
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
  return !entry.application.empty();
}

}  // namespace vyn::services
