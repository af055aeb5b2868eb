#include "common/config/configuration.h"

#include "common/util/text.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <sstream>

namespace vyn::common {

namespace {

template <typename T>
const T& Find(const std::map<std::string, T>& values, const std::string& key, const T& defaultValue) {
  const auto entry = values.find(key);
  return entry == values.end() ? defaultValue : entry->second;
}

/// Reads a decimal number. Refuses an absolute value of 1e-06 or less, but for the text "0.0". Returns:
/// whether the whole text is a number.
bool ReadFloat(const std::string& text, float& value) {
  char* end = nullptr;
  errno = 0;
  value = std::strtof(text.c_str(), &end);
  if (end != text.c_str() + text.size() || (value == HUGE_VALF && errno == ERANGE)) {
    return false;
  }
  return !(std::fabs(value) <= 1e-06F) || text == "0.0";
}

bool ReadBool(const std::string& text) {
  bool value = false;
  std::istringstream stream(text);
  stream >> std::boolalpha >> value;
  return value;
}

/// Applies `validator` to the value of `key`. A missing value is an error, too.
template <typename T>
void Check(const std::map<std::string, T>& values, const char* type, const std::string& key,
           const Ref<Validator>& validator, std::vector<std::string>& errors) {
  const auto entry = values.find(key);
  if (entry == values.end()) {
    errors.push_back("Failed to find <" + key + "> in " + type + " value map, which should not happen.");
  } else if (!validator->Validate(entry->second)) {
    errors.push_back(validator->ErrorMessage());
  }
}

}  // namespace

Configuration::Configuration() { LoadDefault(); }

void Configuration::AddStrConf(const std::pair<std::string, std::string>& kv, const Ref<Validator>& validator,
                               unsigned int flags) {
  Set(kv.first, kv.second);
  mTypeMap[kv.first] = CONF_STRING;
  SetValidator(kv.first, validator, flags);
}

void Configuration::AddIntConf(const std::pair<std::string, int>& kv, const Ref<Validator>& validator,
                               unsigned int flags) {
  Set(kv.first, kv.second);
  mTypeMap[kv.first] = CONF_INT;
  SetValidator(kv.first, validator, flags);
}

void Configuration::AddLongConf(const std::pair<std::string, long>& kv, const Ref<Validator>& validator,
                                unsigned int flags) {
  Set(kv.first, kv.second);
  mTypeMap[kv.first] = CONF_LONG;
  SetValidator(kv.first, validator, flags);
}

void Configuration::AddFltConf(const std::pair<std::string, float>& kv, const Ref<Validator>& validator,
                               unsigned int flags) {
  Set(kv.first, kv.second);
  mTypeMap[kv.first] = CONF_FLOAT;
  SetValidator(kv.first, validator, flags);
}

void Configuration::AddBoolConf(const std::pair<std::string, bool>& kv) {
  Set(kv.first, kv.second);
  mTypeMap[kv.first] = CONF_BOOL;
}

void Configuration::SetValidator(const std::string& key, const Ref<Validator>& validator,
                                 unsigned int flags) {
  if (validator == nullptr) {
    return;
  }
  if ((flags & kValidateAuthentication) != 0) {
    mAuthValidators[key] = validator;
  }
  if ((flags & kValidateTls) != 0) {
    mTlsValidators[key] = validator;
  }
  if ((flags & kValidateAuthorization) != 0) {
    mAuthorValidators[key] = validator;
  }
  if ((flags & kValidateZookeeperSecurity) != 0) {
    mZkValidators[key] = validator;
  }
  if (flags == kValidateAlways) {
    mValidators[key] = validator;
  }
}

int Configuration::GetInt(const std::string& key, int defaultValue) {
  sync::MutexLock lock(mLock);
  return Find(mIntConf, key, defaultValue);
}

long Configuration::GetLong(const std::string& key, long defaultValue) {
  sync::MutexLock lock(mLock);
  return Find(mLongConf, key, defaultValue);
}

float Configuration::GetFloat(const std::string& key, float defaultValue) {
  sync::MutexLock lock(mLock);
  return Find(mFloatConf, key, defaultValue);
}

bool Configuration::GetBool(const std::string& key, bool defaultValue) {
  sync::MutexLock lock(mLock);
  return Find(mBoolConf, key, defaultValue);
}

const std::string& Configuration::GetString(const std::string& key, const std::string& defaultValue) {
  sync::MutexLock lock(mLock);
  return Find(mStrConf, key, defaultValue);
}

void Configuration::Set(const std::string& key, int value) {
  sync::MutexLock lock(mLock);
  mIntConf[key] = value;
}

void Configuration::Set(const std::string& key, long value) {
  sync::MutexLock lock(mLock);
  mLongConf[key] = value;
}

void Configuration::Set(const std::string& key, float value) {
  sync::MutexLock lock(mLock);
  mFloatConf[key] = value;
}

void Configuration::Set(const std::string& key, bool value) {
  sync::MutexLock lock(mLock);
  mBoolConf[key] = value;
}

void Configuration::Set(const std::string& key, std::string value) {
  sync::MutexLock lock(mLock);
  mStrConf[key] = std::move(value);
}

bool Configuration::SetWithTypeAutoConvert(const std::string& key, const std::string& value) {
  std::string complaint;
  const bool done = SetFromText(key, value, complaint);
  if (!done) {
    std::cout << complaint << '\n';
  }
  return done;
}

bool Configuration::SetFromText(const std::string& key, const std::string& value, std::string& complaint) {
  sync::MutexLock lock(mLock);
  const auto refuse = [&](const std::string& reason) {
    complaint = "<" + key + ">, " + reason;
    return false;
  };
  const auto refuseType = [&](const std::string& type) {
    return refuse("it was empty or in wrong type, it should be a " + type + " number.");
  };
  const auto declared = mTypeMap.find(key);
  if (declared == mTypeMap.end()) {
    return refuse("it was not validate configure type.");
  }
  switch (declared->second) {
    case CONF_INT: {
      long number = 0;
      if (!VynStol(value, number)) {
        return refuseType("int");
      }
      mIntConf[key] = static_cast<int>(number);
      return true;
    }
    case CONF_FLOAT:
      return ReadFloat(value, mFloatConf[key]) || refuseType("float");
    case CONF_STRING:
      mStrConf[key] = value;
      return true;
    case CONF_BOOL:
      mBoolConf[key] = ReadBool(value);
      return true;
    case CONF_LONG:
      return VynStol(value, mLongConf[key]) || refuseType("long");
  }
  return false;
}

std::vector<std::string> Configuration::Validate(bool authentication, bool tls, bool authorization,
                                                 bool zookeeperSecurity) {
  std::vector<std::string> errors;
  if (authentication) {
    ValidateOneValueMap(errors, mAuthValidators);
  }
  if (tls) {
    ValidateOneValueMap(errors, mTlsValidators);
  }
  if (authorization) {
    ValidateOneValueMap(errors, mAuthorValidators);
  }
  if (zookeeperSecurity) {
    ValidateOneValueMap(errors, mZkValidators);
  }
  ValidateOneValueMap(errors, mValidators);
  return errors;
}

void Configuration::ValidateOneValueMap(std::vector<std::string>& errors,
                                        const std::map<std::string, Ref<Validator>>& validators) {
  for (const auto& [key, validator] : validators) {
    if (validator == nullptr) {
      errors.push_back("The validator of <" + key + "> is null, skip.");
      continue;
    }
    if (!validator->Initialize()) {
      errors.push_back(validator->ErrorMessage());
      continue;
    }
    const auto declared = mTypeMap.find(key);
    if (declared == mTypeMap.end()) {
      errors.push_back("Failed to find <" + key + "> in type map, which should not happen.");
      continue;
    }
    ValidateOneType(key, validator, errors, declared->second);
  }
}

void Configuration::ValidateOneType(const std::string& key, const Ref<Validator>& validator,
                                    std::vector<std::string>& errors, ConfValueType& type) {
  sync::MutexLock lock(mLock);
  switch (type) {
    case CONF_STRING:
      Check(mStrConf, "string", key, validator, errors);
      break;
    case CONF_FLOAT:
      Check(mFloatConf, "float", key, validator, errors);
      break;
    case CONF_INT:
      Check(mIntConf, "int", key, validator, errors);
      break;
    case CONF_LONG:
      Check(mLongConf, "long", key, validator, errors);
      break;
    default:
      break;
  }
}

void Configuration::Dump() {
  sync::MutexLock lock(mLock);
  std::puts("Configuration Dump:");
  for (const auto& [key, value] : mIntConf) {
    std::printf("i] %s = %d\n", key.c_str(), value);
  }
  for (const auto& [key, value] : mFloatConf) {
    std::printf("f] %s = %f\n", key.c_str(), value);
  }
  for (const auto& [key, value] : mStrConf) {
    std::printf("s] %s = %s\n", key.c_str(), value.c_str());
  }
  for (const auto& [key, value] : mBoolConf) {
    std::printf("b] %s = %s\n", key.c_str(), value ? "true" : "false");
  }
  for (const auto& [key, value] : mLongConf) {
    std::printf("l] %s = %ld\n", key.c_str(), value);
  }
}

std::string Configuration::DumpStr() {
  sync::MutexLock lock(mLock);
  std::ostringstream text;
  text << "Configuration Dump:\n";
  const auto append = [&text](const char* prefix, const auto& values) {
    for (const auto& [key, value] : values) {
      text << prefix << key << " = " << value << '\n';
    }
  };
  append("i] ", mIntConf);
  append("f] ", mFloatConf);
  append("s] ", mStrConf);
  append("b] ", mBoolConf);
  append("l] ", mLongConf);
  return text.str();
}

}  // namespace vyn::common
