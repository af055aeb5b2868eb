#pragma once

// Fields of the JSON records in ZooKeeper. The records are our own, but everything that can write to ZooKeeper can damage
// them: a field that is missing or of another type reads as if it were empty.
//
// Threads: any.

#include <nlohmann/json.hpp>
#include <string>

namespace vyn::services {

/// Returns: the parsed text; for a text that is no JSON a value in which no field is found.
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
