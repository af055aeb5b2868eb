#pragma once

// Checks a configuration file as an operator wants it checked: it goes on past a bad line, and it also tells
// what a load would take in silence but otherwise than it was meant, such as "True" for a bool (which is
// false), a number that does not fit, a line without "=" or a carriage return at the end of a value.

#include <string>
#include <vector>

namespace vyn::services {

/// Which features the file is to be valid for.
struct ConfigFeatures {
  bool authentication = false;
  bool tls = false;
  bool authorization = false;
  bool zookeeperSecurity = false;
};

struct ConfigComplaint {
  std::string file;
  /// Counted from 1; 0 when the complaint is about the whole file or about a key that does not stand in it.
  unsigned int line = 0;
  /// Empty when the complaint is about no key.
  std::string key;
  std::string text;
  /// Told to people only: a load takes the file, and nothing in it comes out otherwise than it is written.
  bool warning = false;
};

/// Returns: all complaints and warnings, in the order of lines, then those about keys that do not stand in
/// the file; none if the file is fine. Touches nothing outside: the process's own configuration stays as it
/// is.
std::vector<ConfigComplaint> CheckConfig(const std::string& file, const ConfigFeatures& features);

/// The same for the features that the file itself turns on; a switch that it does not name is on.
/// \param more on whatever the file says.
std::vector<ConfigComplaint> CheckConfigAsItIs(const std::string& file, const ConfigFeatures& more = {});

/// Returns: whether there is a complaint that is no warning.
bool AnyRefusal(const std::vector<ConfigComplaint>& complaints);

/// Returns: "file:line: warning: key: text" with the parts that there are; without the key when the text
/// names it as "<key>". What is not printable stands as \xNN.
std::string ToLine(const ConfigComplaint& complaint);

}  // namespace vyn::services
