#pragma once

// The process-wide typed key/value store.
//
// A new Configuration holds the whole catalogue (configuration_catalogue.h) at its defaults. A configuration
// file can only change the value of a declared key: an unknown key refuses the file. Loading a file does not
// call Validate.
//
// Threads: Get..., Set, SetWithTypeAutoConvert, Dump and DumpStr may be called from any thread. Add...Conf,
// SetValidator, Validate and the first load of the process's store run during start-up, before other threads
// use the store.

#include "common/config/validator.h"
#include "common/util/ref.h"
#include "platform/sync/mutex.h"

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace vyn::common {

struct CatalogueGroup;

enum ConfValueType : std::uint32_t {
  CONF_INT = 0,
  CONF_FLOAT = 1,
  CONF_STRING = 2,
  CONF_BOOL = 3,
  CONF_LONG = 4,
};

/// When a validator runs. The flags can be combined; kValidateAlways cannot.
enum ValidatorFlags : unsigned int {
  kValidateAlways = 0,
  kValidateAuthentication = 1,
  kValidateTls = 2,
  kValidateAuthorization = 4,
  kValidateZookeeperSecurity = 8,
};

class Configuration : public Referable {
 public:
  /// Holds every key of the catalogue at its default.
  Configuration();
  ~Configuration() override = default;

  /// Returns: the process's store, or an empty Ref before the first successful load.
  static Ref<Configuration> GetInstance();
  /// Loads the process's store from `path` if there is none yet. Returns: the store; an empty Ref if the load
  /// failed; a later call tries again.
  static Ref<Configuration> GetInstance(const std::string& path);
  /// The same load without a result.
  static void InitInstance(const std::string& path);

  /// Returns: a new store with the catalogue's defaults, overridden by the file at `path`. An unreadable
  /// file, an unknown key or a value of the wrong type gives an empty Ref. The last two are printed to
  /// standard output, because the logger may not run yet.
  static Ref<Configuration> FromFile(const std::string& path);
  /// Sets the file's values in the process's store, whichever object this is called on, and skips unknown
  /// keys and wrong values. Without a store, does what InitInstance does. Returns: false, with nothing
  /// changed, if the file is unreadable or has more than 1000000 pairs.
  bool MergeConfig(const std::string& path);

  /// Declare a key with its default. A null validator leaves the key without a rule.
  void AddStrConf(const std::pair<std::string, std::string>& kv, const Ref<Validator>& validator,
                  unsigned int flags);
  void AddIntConf(const std::pair<std::string, int>& kv, const Ref<Validator>& validator, unsigned int flags);
  void AddLongConf(const std::pair<std::string, long>& kv, const Ref<Validator>& validator,
                   unsigned int flags);
  void AddFltConf(const std::pair<std::string, float>& kv, const Ref<Validator>& validator,
                  unsigned int flags);
  void AddBoolConf(const std::pair<std::string, bool>& kv);
  void SetValidator(const std::string& key, const Ref<Validator>& validator, unsigned int flags);

  /// Returns: the value of `key`, or `defaultValue` if no key of this type has that name.
  int GetInt(const std::string& key, int defaultValue);
  long GetLong(const std::string& key, long defaultValue);
  float GetFloat(const std::string& key, float defaultValue);
  bool GetBool(const std::string& key, bool defaultValue);
  /// Copy the result in the same expression. It refers to the stored text, which another thread may change,
  /// or to `defaultValue` itself.
  const std::string& GetString(const std::string& key, const std::string& defaultValue);

  /// Write a value of the given type. Do not declare the key and do not check the value.
  void Set(const std::string& key, int value);
  void Set(const std::string& key, long value);
  void Set(const std::string& key, float value);
  void Set(const std::string& key, bool value);
  void Set(const std::string& key, std::string value);
  /// A literal is a text, not a bool.
  void Set(const std::string& key, const char* value) { Set(key, std::string(value)); }

  /// Writes `value` in the declared type of `key`. Returns: false, with a line on standard output, for an
  /// undeclared key and for a text that does not convert.
  bool SetWithTypeAutoConvert(const std::string& key, const std::string& value);
  /// The same, but stores that line in `complaint` and prints nothing.
  bool SetFromText(const std::string& key, const std::string& value, std::string& complaint);

  /// Applies the rules that always hold and those of each feature that is on. Returns: one text for each
  /// violation. A rule of several features reports a violation once for each of them that is on.
  std::vector<std::string> Validate(bool authentication, bool tls, bool authorization,
                                    bool zookeeperSecurity);
  void ValidateOneValueMap(std::vector<std::string>& errors,
                           const std::map<std::string, Ref<Validator>>& validators);
  void ValidateOneType(const std::string& key, const Ref<Validator>& validator,
                       std::vector<std::string>& errors, ConfValueType& type);

  /// Writes every key and value to standard output.
  void Dump();
  /// Returns: every key and value, a line each; a bool as 1 or 0.
  std::string DumpStr();

  // The catalogue's groups. LoadDefault declares its own and then calls the others.
  void LoadDefault();
  void LoadTesselConf();
  void LoadTimeout();
  void LoadSecurityConf();
  void LoadSecurityTotalConf();
  void LoadBroadcastConf();
  void LoadWaterMarkConf();
  void LoadOrvaneTuningConf();

  /// The process's store. No lock guards this pointer: the first load happens before a second thread uses it.
  /// Never destroyed.
  static Ref<Configuration>& gInstance;

 private:
  void Declare(const CatalogueGroup& group);

  std::map<std::string, int> mIntConf VYN_GUARDED_BY(mLock);
  std::map<std::string, float> mFloatConf VYN_GUARDED_BY(mLock);
  std::map<std::string, std::string> mStrConf VYN_GUARDED_BY(mLock);
  std::map<std::string, bool> mBoolConf VYN_GUARDED_BY(mLock);
  std::map<std::string, long> mLongConf VYN_GUARDED_BY(mLock);
  // The maps below do not change after start-up.

  /// The type of each declared key. It says which value map has the key.
  std::map<std::string, ConfValueType> mTypeMap;
  /// Rules that always run, and those of one feature each.
  std::map<std::string, Ref<Validator>> mValidators;
  std::map<std::string, Ref<Validator>> mAuthValidators;
  std::map<std::string, Ref<Validator>> mTlsValidators;
  std::map<std::string, Ref<Validator>> mAuthorValidators;
  std::map<std::string, Ref<Validator>> mZkValidators;
  sync::Mutex mLock;
};

}  // namespace vyn::common
