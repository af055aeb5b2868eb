#pragma once

// The commands of vynctl. Each prints its result on standard output, as a table or, with Settings::json, as
// one JSON object. It throws CommandError on failure. Only the main thread calls them.

#include "tools/vynctl/cluster_access.h"

#include <cstdint>
#include <string>

namespace vyn::tools {

void ShowStatus(const Settings& settings);
void ListApplications(const Settings& settings);
void RemoveApplication(const Settings& settings, const std::string& application);

/// Broadcasts a file as a variable.
void PutVariable(const Settings& settings, const std::string& application, std::uint32_t id,
                 const std::string& file, std::uint64_t blockSize);
/// Writes a variable's contents to `file`, or to standard output when that is empty.
void GetVariable(const Settings& settings, const std::string& application, std::uint32_t id,
                 const std::string& file);
/// Reads the variable's blocks and all copies of them, each on its own node, and prints for each node whether
/// they agree. Returns: whether all do.
bool VerifyVariable(const Settings& settings, const std::string& application, std::uint32_t id);
void RemoveVariable(const Settings& settings, const std::string& application, std::uint32_t id);

}  // namespace vyn::tools
