#pragma once

// Text functions without state. Any thread may call them.

#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vyn::common {

/// Removes leading and trailing blanks (0x20 only; tabs and line ends stay).
void VynTrimString(std::string& text);

/// Reads a decimal number with strtol into `value`, also when it refuses the text. Returns: whether the whole
/// text is one number that fits. Zero must be written "0".
bool VynStol(const std::string& text, long& value);

/// Splits `text` at every `separator` and adds the pieces to `items`, also empty ones; only the last piece is
/// left out when it is empty. An empty `separator` does not split.
void SplitStr(const std::string& text, const std::string& separator, std::vector<std::string>& items);
void SplitStr(const std::string& text, const std::string& separator, std::set<std::string>& items);

/// Returns: the trimmed pieces of `text`, also empty ones; only an empty last piece is left out.
std::vector<std::string> SplitString(const std::string& text, char separator);

/// Returns: the text before the first `separator`; empty when there is none.
std::string GetStrPrefix(const std::string& text, char separator);
/// Returns: the text before the `count`-th `separator`; empty when there are fewer or `count` is below 1.
std::string GetStrPrefix(const std::string& text, char separator, int count);
/// Returns: the texts before and after the last `separator`; two empty texts when there is none.
std::pair<std::string, std::string> GetStrPostfix(const std::string& text, char separator);

/// Returns: the text after the `skip`-th `separator` (0: from the beginning), up to the `count`-th separator
/// after that, or to the end when there are fewer. `count` 0 means to the end; if `skip` is 0, too, the
/// result is empty. Also empty when there are fewer than `skip` separators.
std::string ParseStr(const std::string& text, char separator, unsigned int skip, unsigned int count);

/// Returns: `text` with every `from`, searched from the left, replaced by `to`. The search continues one
/// character after the start of a replacement, or after its end when `to` contains `from`. An empty `from`
/// replaces nothing.
std::string ReplaceStr(const std::string& text, const std::string& from, const std::string& to);

/// Finds the host name of `name` in a mapping like "name:host,name2:host2": the text after the first
/// occurrence of `name` and one more character, up to the next ",". Returns: 0, or 1 with `hostname`
/// unchanged when `name` does not occur or nothing follows it.
unsigned int GetMetaHostname(const std::string& text, const std::string& name, std::string& hostname);

/// Returns: the name of a broadcast variable, "<appId>-<broadcastId>".
std::string GenBcVarName(const std::string& appId, unsigned int broadcastId);
/// The same into `name`, whose memory is reused: every access to a block calls this.
void GenBcVarName(std::string_view appId, unsigned int broadcastId, std::string& name);

}  // namespace vyn::common
