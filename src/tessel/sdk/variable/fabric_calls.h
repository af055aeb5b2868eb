#pragma once

// The calls of libbmclient.so that the functions of vyn/variable.h make. They return the library's own
// results, which tell the causes of a failure apart. Each initialises the library at first use; kBmLocalError
// when that fails. Any thread may call any function.

#include "platform/fabric/client/bm_functions.h"

#include <cstdint>
#include <string>
#include <vector>

namespace vyn::tessel {

/// The right to an application's objects.
struct FabricAccess {
  std::string application;
  std::string token;
};

int LinkNode(std::uint16_t nodeId, const std::string& ip, std::uint16_t port);
/// Returns 0 for a namespace that exists.
int MakeNamespace(std::uint16_t nodeId, const FabricAccess& access);
/// Allocates all blocks of a variable, or none, so that its node frees them if this process ends before it
/// publishes the variable. It does not when the libbmclient.so of the installation is too old for that.
int AllocateBlocks(std::uint16_t nodeId, const FabricAccess& access, std::uint32_t variable,
                   const std::vector<std::uint64_t>& sizes, std::vector<std::string>& ids);
/// Makes sure that the node keeps the blocks. \param first of AllocateBlocks. Returns: -ENOENT when the node
/// has freed them, or the library was closed since.
int KeepBlocks(const FabricAccess& access, const std::string& first);
/// The variable is published, or its blocks are freed.
void EndBlocks(const std::string& first);
int FreeBlocks(const FabricAccess& access, const std::vector<std::string>& ids);
/// Maps a block over reserved pages.
int MapBlockAt(const FabricAccess& access, const std::string& id, bool writable, void* address,
               std::uint64_t length);
int ReadBlock(const FabricAccess& access, const std::string& id, void* buffer, std::uint64_t length);
int WriteBlock(const FabricAccess& access, const std::string& id, const void* data, std::uint64_t length);
/// \param nodeId this node, or one that is linked.
int FreeBytes(std::uint32_t nodeId, std::uint64_t& bytes);

}  // namespace vyn::tessel
