#pragma once

// Finds values that a load and the validators accept although no program can work with them: a log level that
// does not exist, a transport that this release does not have, a file that is not there.
//
// Opens the OpenSSL libraries that the configuration names, for the whole process. Any thread may call any
// function.

#include "common/config/configuration.h"
#include "services/config_check/config_check.h"

#include <string>
#include <vector>

namespace vyn::services {

struct UseComplaint {
  std::string key;
  std::string text;  ///< what is wrong and what to do
  bool warning = false;
};

/// \param features those that are checked. \param home the installation; empty when it is not known.
std::vector<UseComplaint> CheckUse(const common::Ref<common::Configuration>& conf,
                                   const ConfigFeatures& features, const std::string& home);

/// Whether a validator asks for the key although no program reads its value with this configuration.
bool IsNeedless(common::Configuration& conf, const std::string& key);

/// Returns: the declared key that is most like `key`; empty when none is like it.
std::string MostLike(const std::string& key);

}  // namespace vyn::services
