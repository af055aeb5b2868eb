#pragma once

// The tokens of the applications that this process has registered, for the functions of vyn/variable.h. Any
// thread may call any function.

#include <optional>
#include <string>

namespace vyn::tessel {

void SetToken(const std::string& application, const std::string& token);
/// Keeps the token that is there.
void AddToken(const std::string& application, const std::string& token);
void RemoveToken(const std::string& application);
/// Returns: nothing for an application that is not registered in this process.
std::optional<std::string> FindToken(const std::string& application);

}  // namespace vyn::tessel
