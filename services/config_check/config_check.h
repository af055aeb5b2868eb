#pragma once

// Checks a configuration file for an operator. Unlike a load it continues after an invalid line. It also
// reports what a load accepts silently but reads differently than the operator probably meant: for example
// "True" for a bool (which reads as false), a number that does not fit, a line without "=", or a carriage
// return at the end of a value.
//
// A check opens the OpenSSL libraries that the file names, for the whole process. Any thread may call any
// function but SetMarkers.

#include <string>
#include <vector>

namespace vyn::services {

/// The features for which a check applies the validators.
struct ConfigFeatures {
  bool authentication = false;
  bool tls = false;
  bool authorization = false;
  bool zookeeperSecurity = false;
};

struct ConfigComplaint {
  std::string file;
  /// Counted from 1. 0 when the complaint is about the whole file or about a key that is not in the file.
  unsigned int line = 0;
  /// Empty when the complaint is not about a key.
  std::string key;
  std::string text;
  /// Whether the file can be used as it is: a load accepts it and reads every value as it is written.
  bool warning = false;
};

/// Sets the variables that replace ${VYN_HOME} and the other markers in the file, as vynd does. Before the process
/// has threads. \param home the installation if the file is in no folder "conf"; empty for that of the environment.
void SetMarkers(const std::string& file, const std::string& home);

/// Checks a file for the features that it turns on; a switch that it does not set is on. Does not change the
/// configuration of the process. Returns: all complaints and warnings, ordered by line, then those about keys that are
/// not in the file. \param more features to check in addition.
std::vector<ConfigComplaint> CheckConfig(const std::string& file, const ConfigFeatures& more = {});

/// Returns: whether at least one complaint is not a warning.
bool AnyRefusal(const std::vector<ConfigComplaint>& complaints);

/// Returns: "file:line: warning: key: text" without the parts that the complaint does not have, and without
/// the key if the text contains "<key>". Unprintable bytes become \xNN.
std::string ToLine(const ConfigComplaint& complaint);

}  // namespace vyn::services
