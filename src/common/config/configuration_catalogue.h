#pragma once

// Every configuration key of the system with its type, default, rule and a description for operators. There
// are no other keys. docs/configuration.md is the same table; a test compares the two.
//
// Constant data: may be read from any thread, also before main.

#include "common/config/configuration.h"

#include <array>
#include <climits>
#include <span>
#include <string>
#include <variant>

namespace vyn::common {

/// The rule of a key: a validator (validator.h) and its bounds.
struct CatalogueRule {
  enum class Kind { kNone, kNotEmpty, kStrRange, kStrEnum, kStrArray, kIntRange, kLongRange };
  Kind kind = Kind::kNone;
  long start = 0;
  long end = 0;
  unsigned int itemCount = 0;
  bool allowEmpty = false;
  const char* words = "";
};

struct CatalogueKey {
  const char* key;
  /// Its type is the type of the key. ${VYN_HOME} in a default is not replaced.
  std::variant<int, long, bool, const char*> defaultValue;
  CatalogueRule rule;
  /// When the rule is checked: ValidatorFlags added up.
  unsigned int flags;
  /// The unit of the value, or what it names; may be empty.
  const char* unit;
  /// Which parts read the key; "-" for none.
  const char* readers;
  const char* meaning;
};

struct CatalogueGroup {
  const char* title;
  std::span<const CatalogueKey> keys;
};

namespace catalogue {

extern const CatalogueGroup kGeneral;
extern const CatalogueGroup kTessel;
extern const CatalogueGroup kTimeout;
extern const CatalogueGroup kSecurityTotal;
extern const CatalogueGroup kSecurity;
extern const CatalogueGroup kBroadcast;
extern const CatalogueGroup kOrvaneTuning;
/// Four keys of kTessel, declared once more by LoadWaterMarkConf.
extern const CatalogueGroup kWaterMark;

/// Every group without kWaterMark: each key once.
inline constexpr std::array kGroups = {&kGeneral,  &kTessel,    &kTimeout,     &kSecurityTotal,
                                       &kSecurity, &kBroadcast, &kOrvaneTuning};

// The columns of a row as text, for example "int", "3891", "3000 to 65535", "always".
std::string TypeText(const CatalogueKey& row);
std::string DefaultText(const CatalogueKey& row);
std::string RuleText(const CatalogueKey& row);
std::string WhenText(const CatalogueKey& row);
/// Returns: every group as a Markdown table under its title.
std::string MarkdownTables();

// Helpers that the rows are written with.
constexpr int Int(int value) { return value; }
constexpr long Long(long value) { return value; }
constexpr bool Bool(bool value) { return value; }
constexpr const char* Str(const char* value) { return value; }

inline constexpr long kMaxInt = INT_MAX;
inline constexpr long kMaxLong = LONG_MAX;
inline constexpr bool kNotEmpty = false;
inline constexpr bool kMayBeEmpty = true;

inline constexpr CatalogueRule kNoRule{};
constexpr CatalogueRule NotEmpty() { return {.kind = CatalogueRule::Kind::kNotEmpty}; }
constexpr CatalogueRule IntRange(long start, long end) {
  return {.kind = CatalogueRule::Kind::kIntRange, .start = start, .end = end};
}
constexpr CatalogueRule LongRange(long start, long end) {
  return {.kind = CatalogueRule::Kind::kLongRange, .start = start, .end = end};
}
constexpr CatalogueRule RangeText(long start, long end, bool allowEmpty) {
  return {.kind = CatalogueRule::Kind::kStrRange, .start = start, .end = end, .allowEmpty = allowEmpty};
}
constexpr CatalogueRule OneOf(const char* words) {
  return {.kind = CatalogueRule::Kind::kStrEnum, .words = words};
}
constexpr CatalogueRule ListOf(unsigned int itemCount, long start, long end, bool allowEmpty) {
  return {.kind = CatalogueRule::Kind::kStrArray,
          .start = start,
          .end = end,
          .itemCount = itemCount,
          .allowEmpty = allowEmpty};
}

inline constexpr unsigned int kUnchecked = kValidateAlways;  // for a row without a rule
inline constexpr unsigned int kAlways = kValidateAlways;
inline constexpr unsigned int kAuthentication = kValidateAuthentication;
inline constexpr unsigned int kTls = kValidateTls;
inline constexpr unsigned int kAuthorization = kValidateAuthorization;
inline constexpr unsigned int kZookeeperSecurity = kValidateZookeeperSecurity;
inline constexpr unsigned int kAnySecurity = kAuthentication | kTls | kAuthorization;

}  // namespace catalogue

}  // namespace vyn::common
