#pragma once

// Reads fields of the JSON records in ZooKeeper. Other programs with access to ZooKeeper can damage these
// records, so a field that is missing or has another type reads as empty or false.
//
// No shared state: any thread may call any function.

#include <nlohmann/json.hpp>
#include <string>

namespace vyn::services {

/// Returns: the parsed text. For invalid JSON a value in which FindField finds nothing.
inline nlohmann::json ParseJson(const std::string& text) {
  return nlohmann::json::parse(text, nullptr, false);
}

/// Returns: the field, null when there is none.
inline const nlohmann::json* FindField(const nlohmann::json& record, const char* name) {
  if (!record.is_object()) {
    return nullptr;
  }
  const auto found = record.find(name);
  return found == record.end() ? nullptr : &*found;
}

inline std::string TextField(const nlohmann::json& record, const char* name) {
  const auto* field = FindField(record, name);
  return field != nullptr && field->is_string() ? field->get<std::string>() : std::string();
}

inline bool FlagField(const nlohmann::json& record, const char* name) {
  const auto* field = FindField(record, name);
  return field != nullptr && field->is_boolean() && field->get<bool>();
}

}  // namespace vyn::services
