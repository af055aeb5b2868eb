#include "services/config_check/config_check.h"

#include "common/config/configuration.h"
#include "common/config/configuration_catalogue.h"
#include "common/config/kv_parser.h"
#include "common/util/text.h"
#include "services/config_check/use_check.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>

namespace vyn::services {

namespace {

using common::CatalogueGroup;
using common::CatalogueKey;
using common::Configuration;
using common::KVLine;
using common::KVParser;
using common::Ref;

constexpr std::size_t kMaxPath = 4096;

/// Whether `text` is UTF-8 without control characters.
bool IsPlainText(const std::string& text) {
  for (std::size_t i = 0; i < text.size();) {
    const auto first = static_cast<unsigned char>(text[i]);
    const std::size_t length = first < 0x80 ? 1 : first < 0xc2 ? 0 : first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
    if (first < 0x20 || first == 0x7f || length == 0 || first > 0xf4 || i + length > text.size()) {
      return false;
    }
    for (std::size_t k = 1; k < length; ++k) {
      if ((static_cast<unsigned char>(text[i + k]) & 0xc0U) != 0x80U) {
        return false;
      }
    }
    i += length;
  }
  return true;
}

const CatalogueKey* FindRow(const std::string& key) {
  for (const CatalogueGroup* group : common::catalogue::kGroups) {
    for (const CatalogueKey& row : group->keys) {
      if (key == row.key) {
        return &row;
      }
    }
  }
  return nullptr;
}

/// Returns: the key inside the "<...>" of a text of Configuration::Validate.
std::string KeyOf(const std::string& complaint) {
  const auto begin = complaint.find('<');
  const auto end = complaint.find('>', begin);
  return begin == std::string::npos || end == std::string::npos
             ? ""
             : complaint.substr(begin + 1, end - begin - 1);
}

/// Returns: the installation whose configuration the file is; empty unless it is in a folder "conf".
std::string HomeOf(const std::string& file) {
  std::error_code failed;
  const auto folder = std::filesystem::absolute(file, failed).lexically_normal().parent_path();
  const auto home = std::filesystem::weakly_canonical(folder.parent_path(), failed);
  return failed || folder.filename() != "conf" ? "" : home.string();
}

class Check {
 public:
  explicit Check(const std::string& file) : mFile(file) {}

  void Line(unsigned int number, const std::string& line) {
    std::string key;
    std::string value;
    switch (KVParser::ParseLine(line, key, value)) {
      case KVLine::kNoSeparator:
        return Warn(number, "", "no \"=\" in this line; a load skips it");
      case KVLine::kNoKey:
        return Warn(number, "", "no key in front of \"=\"; a load skips this line");
      case KVLine::kPair:
        return Pair(number, key, value);
      default:
        return;
    }
  }

  /// The features that the file turns on.
  ConfigFeatures Features() const {
    ConfigFeatures features;
    features.authentication = mStore->GetBool("vyn.tessel.rpc.enableAuthentication", true);
    features.tls = mStore->GetBool("vyn.tessel.rpc.enableTLS", true);
    features.authorization = mStore->GetBool("vyn.tessel.rpc.enableAuthorization", true);
    features.zookeeperSecurity = mStore->GetBool("vyn.zookeeper.security.enable", true);
    return features;
  }

  std::vector<ConfigComplaint> Finish(const ConfigFeatures& features) {
    std::set<std::string> reported;  // a validator of several features gives its complaint once for each
    for (const std::string& text : mStore->Validate(features.authentication, features.tls,
                                                    features.authorization, features.zookeeperSecurity)) {
      const std::string key = KeyOf(text);
      if (!IsNeedless(*mStore, key) && reported.insert(text).second) {
        mComplaints.push_back({mFile, LineOf(key), key, text});
      }
    }
    for (const UseComplaint& found : CheckUse(mStore, features, HomeOf(mFile))) {
      const bool known = std::any_of(mComplaints.begin(), mComplaints.end(), [&](const auto& complaint) {
        return complaint.key == found.key && !complaint.warning;
      });
      if (!known) {
        mComplaints.push_back({mFile, LineOf(found.key), found.key, found.text, found.warning});
      }
    }
    const auto place = [](const ConfigComplaint& complaint) {
      return complaint.line == 0 ? UINT_MAX : complaint.line;
    };
    std::stable_sort(mComplaints.begin(), mComplaints.end(),
                     [&](const auto& a, const auto& b) { return place(a) < place(b); });
    return std::move(mComplaints);
  }

 private:
  void Add(unsigned int line, const std::string& key, const std::string& text) {
    mComplaints.push_back({mFile, line, key, text});
  }
  unsigned int LineOf(const std::string& key) const {
    const auto line = mLines.find(key);
    return line == mLines.end() ? 0 : line->second;
  }
  void Warn(unsigned int line, const std::string& key, const std::string& text) {
    mComplaints.push_back({mFile, line, key, text, true});
  }

  void Pair(unsigned int number, const std::string& key, const std::string& value) {
    const auto [known, first] = mLines.emplace(key, number);
    if (!first) {
      Warn(number, key,
           "stands in line " + std::to_string(known->second) + " already; the last value counts");
      known->second = number;
    }
    const CatalogueKey* const found = FindRow(key);
    if (found == nullptr) {
      const std::string like = MostLike(key);
      return Add(number, key,
                 "is no key of this release: " + (like.empty() ? "remove it" : "did you mean " + like + "?"));
    }
    const CatalogueKey& row = *found;
    std::string refusal;
    if (!mStore->SetFromText(key, value, refusal)) {
      return Add(number, key, "'" + value + "' is no number: write digits alone");
    }
    long wide = 0;
    if (std::holds_alternative<bool>(row.defaultValue) && value != "true" && value != "false") {
      Add(number, key,
          "is neither true nor false; a load takes it as " +
              std::string(mStore->GetBool(key, false) ? "true" : "false"));
    } else if (std::holds_alternative<int>(row.defaultValue) && common::VynStol(value, wide) &&
               (wide < INT_MIN || wide > INT_MAX)) {
      Add(number, key, "does not fit 32 bits; a load takes it as " + std::to_string(mStore->GetInt(key, 0)));
    } else if (!IsPlainText(value)) {
      Add(number, key,
          value.back() == '\r' ? "ends in a carriage return, which belongs to the value"
                               : "has a control character or is not UTF-8");
    }
  }

  std::string mFile;
  Ref<Configuration> mStore{new Configuration};
  /// The last line of each key.
  std::map<std::string, unsigned int> mLines;
  std::vector<ConfigComplaint> mComplaints;
};

std::string Printable(const std::string& text) {
  if (IsPlainText(text)) {
    return text;
  }
  std::string out;
  for (const char c : text) {
    if (c >= 0x20 && c < 0x7f) {
      out += c;
    } else {
      char code[5];
      std::snprintf(code, sizeof(code), "\\x%02x", static_cast<unsigned char>(c));
      out += code;
    }
  }
  return out;
}

}  // namespace

std::vector<ConfigComplaint> CheckConfig(const std::string& file, const ConfigFeatures& more) {
  std::error_code ignored;
  if (file.size() >= kMaxPath) {
    return {{file.substr(0, 40) + "...", 0, "", "the path has more than 4095 characters"}};
  }
  // Opening a named pipe would block until it has a writer.
  if (std::filesystem::exists(file, ignored) && !std::filesystem::is_regular_file(file, ignored)) {
    return {{file, 0, "", "is not a regular file"}};
  }
  std::ifstream input(file);
  if (!input) {
    return {{file, 0, "", std::string("cannot be read: ") + std::strerror(errno)}};
  }
  Check check(file);
  unsigned int number = 0;
  for (std::string line; std::getline(input, line);) {
    check.Line(++number, line);
  }
  const ConfigFeatures own = check.Features();
  auto complaints = check.Finish({more.authentication || own.authentication, more.tls || own.tls,
                                  more.authorization || own.authorization,
                                  more.zookeeperSecurity || own.zookeeperSecurity});
  if (input.bad()) {
    complaints.push_back({file, 0, "", "cannot be read to its end"});
  }
  return complaints;
}

void SetMarkers(const std::string& file, const std::string& home) {
  const std::string own = HomeOf(file);
  if (!own.empty() || !home.empty()) {
    setenv("VYN_HOME", (own.empty() ? home : own).c_str(), 1);
  }
  setenv("VYN_VERSION", VYN_RELEASE, 1);
  setenv("VYN_BINARY_TYPE", VYN_BINARY_TYPE, 1);
}

bool AnyRefusal(const std::vector<ConfigComplaint>& complaints) {
  return std::any_of(complaints.begin(), complaints.end(),
                     [](const ConfigComplaint& complaint) { return !complaint.warning; });
}

std::string ToLine(const ConfigComplaint& complaint) {
  std::string text = complaint.file + ":";
  if (complaint.line != 0) {
    text += std::to_string(complaint.line) + ":";
  }
  if (complaint.warning) {
    text += " warning:";
  }
  const bool textHasKey = complaint.text.find("<" + complaint.key + ">") != std::string::npos;
  if (!complaint.key.empty() && !textHasKey) {
    text += " " + complaint.key + ":";
  }
  return Printable(text + " " + complaint.text);
}

}  // namespace vyn::services
