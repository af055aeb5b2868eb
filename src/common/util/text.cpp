#include "common/util/text.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <sstream>

namespace vyn::common {

namespace {

/// Calls `take` with every piece that SplitStr adds.
template <typename Take>
void ForEachPiece(const std::string& text, const std::string& separator, const Take& take) {
  std::size_t begin = 0;
  if (!separator.empty()) {
    for (auto end = text.find(separator); end != std::string::npos; end = text.find(separator, begin)) {
      take(text.substr(begin, end - begin));
      begin = end + separator.size();
    }
  }
  if (begin < text.size()) {
    take(text.substr(begin));
  }
}

/// Returns: the position of the `count`-th `separator` at or after `begin`, or npos. Requires: `count` is at
/// least 1.
std::size_t FindNth(const std::string& text, char separator, unsigned int count, std::size_t begin) {
  std::size_t position = text.find(separator, begin);
  for (; count > 1 && position != std::string::npos; --count) {
    position = text.find(separator, position + 1);
  }
  return position;
}

}  // namespace

void VynTrimString(std::string& text) {
  text.erase(text.find_last_not_of(' ') + 1);
  text.erase(0, text.find_first_not_of(' '));
}

bool VynStol(const std::string& text, long& value) {
  char* end = nullptr;
  errno = 0;
  value = std::strtol(text.c_str(), &end, 10);
  if (end != text.c_str() + text.size()) {
    return false;
  }
  if (value == LONG_MAX || value == LONG_MIN) {
    return errno != ERANGE;
  }
  return value != 0 || text == "0";
}

void SplitStr(const std::string& text, const std::string& separator, std::vector<std::string>& items) {
  ForEachPiece(text, separator, [&](std::string piece) { items.push_back(std::move(piece)); });
}

void SplitStr(const std::string& text, const std::string& separator, std::set<std::string>& items) {
  ForEachPiece(text, separator, [&](std::string piece) { items.insert(std::move(piece)); });
}

std::vector<std::string> SplitString(const std::string& text, char separator) {
  std::vector<std::string> pieces;
  std::istringstream stream(text);
  for (std::string piece; std::getline(stream, piece, separator);) {
    VynTrimString(piece);
    pieces.push_back(piece);
  }
  return pieces;
}

std::string GetStrPrefix(const std::string& text, char separator) { return GetStrPrefix(text, separator, 1); }

std::string GetStrPrefix(const std::string& text, char separator, int count) {
  if (count < 1) {
    return {};
  }
  const auto position = FindNth(text, separator, static_cast<unsigned int>(count), 0);
  return position == std::string::npos ? std::string() : text.substr(0, position);
}

std::pair<std::string, std::string> GetStrPostfix(const std::string& text, char separator) {
  const auto position = text.rfind(separator);
  if (position == std::string::npos) {
    return {};
  }
  return {text.substr(0, position), text.substr(position + 1)};
}

std::string ParseStr(const std::string& text, char separator, unsigned int skip, unsigned int count) {
  std::size_t begin = 0;
  if (skip > 0) {
    const auto position = FindNth(text, separator, skip, 0);
    if (position == std::string::npos) {
      return {};
    }
    begin = position + 1;
  }
  if (count == 0) {
    return skip == 0 ? std::string() : text.substr(begin);
  }
  const auto end = FindNth(text, separator, count, begin);
  return text.substr(begin, end == std::string::npos ? end : end - begin);
}

std::string ReplaceStr(const std::string& text, const std::string& from, const std::string& to) {
  if (from.empty()) {
    return text;
  }
  // The search continues one character further in the changed text. A replacement that contains `from` is
  // skipped as a whole, because otherwise the loop would not end.
  const std::size_t step = to.find(from) == std::string::npos ? 1 : to.size();
  std::string result = text;
  for (auto found = result.find(from); found != std::string::npos; found = result.find(from, found + step)) {
    result.replace(found, from.size(), to);
  }
  return result;
}

unsigned int GetMetaHostname(const std::string& text, const std::string& name, std::string& hostname) {
  const auto found = text.find(name);
  if (found == std::string::npos || found + name.size() >= text.size()) {
    return 1;
  }
  const auto begin = found + name.size() + 1;
  const auto end = text.find(',', begin);
  hostname = text.substr(begin, end == std::string::npos ? end : end - begin);
  return 0;
}

std::string GenBcVarName(const std::string& appId, unsigned int broadcastId) {
  std::string name;
  GenBcVarName(appId, broadcastId, name);
  return name;
}

void GenBcVarName(std::string_view appId, unsigned int broadcastId, std::string& name) {
  std::array<char, std::numeric_limits<unsigned int>::digits10 + 1> digits;
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), broadcastId).ptr;
  const auto count = static_cast<std::size_t>(end - digits.data());
  name.resize(appId.size() + 1 + count);
  std::memcpy(name.data(), appId.data(), appId.size());
  name[appId.size()] = '-';
  std::memcpy(name.data() + appId.size() + 1, digits.data(), count);
}

}  // namespace vyn::common
