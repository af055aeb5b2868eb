// Declares the catalogue's rows as keys of a Configuration, and writes them as text.

#include "common/config/configuration_catalogue.h"
#include "common/util/text.h"

#include <new>

namespace vyn::common {

namespace {

using Kind = CatalogueRule::Kind;

/// Returns: the validator of a row; null when it has none or without memory.
Ref<Validator> MakeValidator(const CatalogueKey& row) {
  const CatalogueRule& rule = row.rule;
  const int start = static_cast<int>(rule.start);
  const int end = static_cast<int>(rule.end);
  switch (rule.kind) {
    case Kind::kNone:
      return nullptr;
    case Kind::kNotEmpty:
      return VStrNotNull::Create(row.key);
    case Kind::kStrRange:
      return VStrRange::Create(row.key, start, end, rule.allowEmpty);
    case Kind::kStrEnum:
      return new (std::nothrow) VStrEnum(row.key, rule.words);
    case Kind::kStrArray:
      return new (std::nothrow) VStrArray(row.key, start, end, rule.itemCount, rule.allowEmpty);
    case Kind::kIntRange:
      return VIntRange::Create(row.key, start, end);
    case Kind::kLongRange:
      return VLongRange::Create(row.key, rule.start, rule.end);
  }
  return nullptr;
}

std::string OrEmpty(const CatalogueRule& rule) { return rule.allowEmpty ? ", or empty" : ""; }

}  // namespace

void Configuration::Declare(const CatalogueGroup& group) {
  for (const CatalogueKey& row : group.keys) {
    const Ref<Validator> validator = MakeValidator(row);
    if (const int* number = std::get_if<int>(&row.defaultValue)) {
      AddIntConf({row.key, *number}, validator, row.flags);
    } else if (const long* longNumber = std::get_if<long>(&row.defaultValue)) {
      AddLongConf({row.key, *longNumber}, validator, row.flags);
    } else if (const bool* flag = std::get_if<bool>(&row.defaultValue)) {
      AddBoolConf({row.key, *flag});
    } else {
      AddStrConf({row.key, std::get<const char*>(row.defaultValue)}, validator, row.flags);
    }
  }
}

void Configuration::LoadDefault() {
  Declare(catalogue::kGeneral);
  LoadTesselConf();
  LoadTimeout();
  LoadSecurityConf();
  LoadBroadcastConf();
  LoadWaterMarkConf();
  LoadOrvaneTuningConf();
}

void Configuration::LoadTesselConf() { Declare(catalogue::kTessel); }

void Configuration::LoadTimeout() { Declare(catalogue::kTimeout); }

void Configuration::LoadSecurityConf() {
  LoadSecurityTotalConf();
  Declare(catalogue::kSecurity);
}

void Configuration::LoadSecurityTotalConf() { Declare(catalogue::kSecurityTotal); }

void Configuration::LoadBroadcastConf() { Declare(catalogue::kBroadcast); }

void Configuration::LoadWaterMarkConf() { Declare(catalogue::kWaterMark); }

void Configuration::LoadOrvaneTuningConf() { Declare(catalogue::kOrvaneTuning); }

namespace catalogue {

std::string TypeText(const CatalogueKey& row) {
  constexpr std::array kNames = {"int", "long", "bool", "string"};
  return kNames[row.defaultValue.index()];
}

std::string DefaultText(const CatalogueKey& row) {
  if (const bool* flag = std::get_if<bool>(&row.defaultValue)) {
    return *flag ? "true" : "false";
  }
  if (const char* const* text = std::get_if<const char*>(&row.defaultValue)) {
    return *text;
  }
  const int* number = std::get_if<int>(&row.defaultValue);
  return std::to_string(number != nullptr ? *number : std::get<long>(row.defaultValue));
}

std::string RuleText(const CatalogueKey& row) {
  const CatalogueRule& rule = row.rule;
  const std::string bounds = std::to_string(rule.start) + " to " + std::to_string(rule.end);
  switch (rule.kind) {
    case Kind::kNone:
      return "";
    case Kind::kNotEmpty:
      return "not empty";
    case Kind::kStrRange:
      return "a range within " + bounds + OrEmpty(rule);
    case Kind::kStrEnum:
      return "one of " + ReplaceStr(rule.words, "||", ", ");
    case Kind::kStrArray:
      return std::to_string(rule.itemCount) + " numbers, each " + bounds + OrEmpty(rule);
    case Kind::kIntRange:
    case Kind::kLongRange:
      return bounds;
  }
  return "";
}

std::string WhenText(const CatalogueKey& row) {
  if (row.rule.kind == Kind::kNone) {
    return "";
  }
  if (row.flags == kAlways) {
    return "always";
  }
  std::string text;
  const auto add = [&](unsigned int flag, const char* name) {
    if ((row.flags & flag) != 0) {
      text += (text.empty() ? "" : ", ") + std::string(name);
    }
  };
  add(kAuthentication, "authentication");
  add(kTls, "TLS");
  add(kAuthorization, "authorization");
  add(kZookeeperSecurity, "ZooKeeper security");
  return text;
}

std::string MarkdownTables() {
  const auto code = [](const std::string& text) { return text.empty() ? "" : "`" + text + "`"; };
  std::string text;
  for (const CatalogueGroup* group : kGroups) {
    text += "## " + std::string(group->title) + "\n\n";
    text += "| Key | Type | Default | Bounds | Checked | Unit | Read by | Meaning |\n";
    text += "|---|---|---|---|---|---|---|---|\n";
    for (const CatalogueKey& row : group->keys) {
      for (const std::string& column :
           {code(row.key), TypeText(row), code(DefaultText(row)), RuleText(row), WhenText(row),
            std::string(row.unit), std::string(row.readers), std::string(row.meaning)}) {
        text += "| " + column + (column.empty() ? "" : " ");
      }
      text += "|\n";
    }
    text += "\n";
  }
  return text;
}

}  // namespace catalogue

}  // namespace vyn::common
