#pragma once

// Exact text handling. Re-entrant free functions without state.

#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vyn::common {

/// Removes leading and trailing blanks (0x20 only; tabs and line ends stay).
void VynTrimString(std::string& text);

/// Reads a decimal number, as strtol takes it, into `value`, which is written even when the text is refused.
/// Returns: whether the whole text is one number that fits. Of the forms of zero only "0" is taken.
bool VynStol(const std::string& text, long& value);

/// Adds the pieces of `text` between occurrences of `separator` to `items`, empty pieces too; the rest behind
/// the last separator is added only when it is not empty. An empty separator never occurs.
void SplitStr(const std::string& text, const std::string& separator, std::vector<std::string>& items);
void SplitStr(const std::string& text, const std::string& separator, std::set<std::string>& items);

/// Returns: the pieces of `text`, each trimmed, empty ones too. A separator at the end is followed by no
/// piece.
std::vector<std::string> SplitString(const std::string& text, char separator);

/// Returns: the text before the first `separator`; empty when there is none.
std::string GetStrPrefix(const std::string& text, char separator);
/// Returns: the text before the `count`-th `separator`; empty when there are fewer or `count` is below 1.
std::string GetStrPrefix(const std::string& text, char separator, int count);
/// Returns: the texts before and behind the last `separator`; two empty texts when there is none.
std::pair<std::string, std::string> GetStrPostfix(const std::string& text, char separator);

/// Returns: the piece behind the `skip`-th `separator` (0: from the beginning) and before the `skip +
/// count`-th, or to the end when fewer follow. With `count` 0: to the end behind a skipped separator, empty
/// with `skip` 0. Empty when there are fewer than `skip` separators.
std::string ParseStr(const std::string& text, char separator, unsigned int skip, unsigned int count);

/// Returns: `text` with every occurrence of `from`, read from the left, replaced by `to`. The replacement
/// itself is not searched. An empty `from` never occurs.
std::string ReplaceStr(const std::string& text, const std::string& from, const std::string& to);

/// Finds the host name of `name` in a mapping like "name:host,name2:host2": the text behind the first
/// occurrence of `name` and one further character, up to the next ",". Returns: 0, or 1 with `hostname`
/// untouched when `name` does not occur or nothing follows it.
unsigned int GetMetaHostname(const std::string& text, const std::string& name, std::string& hostname);

/// Returns: the name of a broadcast variable, "<appId>-<broadcastId>".
std::string GenBcVarName(const std::string& appId, unsigned int broadcastId);
/// The same into `name`, whose room is used again: for the path of every block access.
void GenBcVarName(std::string_view appId, unsigned int broadcastId, std::string& name);

}  // namespace vyn::common
