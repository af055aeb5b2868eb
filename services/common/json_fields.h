#pragma once

// Reads fields of the JSON records in ZooKeeper. Other programs with access to ZooKeeper can damage these
// records, so a field that is missing or has another type reads as empty or false.
//
// No shared state: any thread may call any function.

#include <cstdint>
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

/// Returns: the number; `otherwise` when there is no such field; the largest number when the field is none.
inline std::uint64_t NumberField(const nlohmann::json& record, const char* name, std::uint64_t otherwise) {
  const auto* field = FindField(record, name);
  if (field == nullptr) {
    return otherwise;
  }
  return field->is_number_unsigned() ? field->get<std::uint64_t>() : ~std::uint64_t{0};
}

inline bool FlagField(const nlohmann::json& record, const char* name) {
  const auto* field = FindField(record, name);
  return field != nullptr && field->is_boolean() && field->get<bool>();
}

}  // namespace vyn::services
