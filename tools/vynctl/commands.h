#pragma once

// The commands of vynctl. Each prints its result on standard output, as a table or, with Settings::json, as
// one JSON object. It throws CommandError on failure. Only the main thread calls them.

#include "tools/vynctl/cluster_access.h"

#include <cstdint>
#include <string>
#include <vector>

namespace vyn::tools {

/// Returns: whether the metadata service has a leader.
bool ShowStatus(const Settings& settings);
void ListApplications(const Settings& settings);
/// \param wait whether to return only when every running node has freed the memory.
void RemoveApplication(const Settings& settings, const std::string& application, bool wait);
/// Waits until every running node has freed what it had of an application that was removed. Requires: a
/// ZooKeeper session.
void AwaitFreed(const std::string& application);
/// Removes the records of a node that is down, and names the variables whose blocks were on it. Refuses a
/// node that runs.
void ForgetNode(const Settings& settings, std::uint32_t nodeId);
/// Returns: "<id> of <application>" for each variable whose blocks are on the node. Requires: a session.
std::vector<std::string> VariablesOn(std::uint32_t nodeId);

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
