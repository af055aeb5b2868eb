#include "tessel/sdk/variable/variable_reader.h"

#include "common/log/error_info.h"
#include "common/log/logging.h"
#include "tessel/sdk/start_up/sdk_state.h"
#include "vyn/status.h"
#include "vyn/variable.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

namespace vyn::tessel {

namespace {

/// A process may have about 65000 mappings. A variable of more blocks is read instead.
constexpr std::size_t kMaxMappedBlocks = 16384;

/// Whether the blocks can be mapped one behind the other.
bool CanBeMapped(const VariableBlocks& blocks) {
  const auto page = static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
  return blocks.sizes.size() <= kMaxMappedBlocks && blocks.sizes.back() != 0 &&
         std::all_of(blocks.sizes.begin(), blocks.sizes.end() - 1,
                     [page](std::uint64_t size) { return size != 0 && size % page == 0; });
}

/// Links this process to the node, unless it is linked.
std::uint32_t LinkOwner(const VariableKey& key, std::uint32_t nodeId) {
  std::vector<NodeEndpoint> nodes;
  if (const std::uint32_t status = ListNodes(key, false, nodes); Failed(status)) {
    return FailService(key, Service::kMetadata, status);
  }
  const auto owner = std::find_if(nodes.begin(), nodes.end(),
                                  [nodeId](const NodeEndpoint& place) { return place.nodeId == nodeId; });
  const int result = owner == nodes.end() ? kBmUnconnected : LinkNode(owner->nodeId, owner->ip, owner->port);
  return result == 0 ? VYN_OK : FailFabric(key, "reading its blocks", nodeId, result);
}

/// \param missing set when a block is gone.
std::uint32_t LoadBlocksOnce(const VariableKey& key, const FabricAccess& access, const VariableBlocks& blocks,
                             AddressRange& range, bool& missing) {
  missing = false;
  const bool mapped = g_mfClientFlag == 0 && CanBeMapped(blocks);
  if (!range.Reserve(blocks.Total(), !mapped)) {
    return VYN_FAIL(VYN_VARIABLE_NO_MEMORY,
                    "no addresses for the " << blocks.Total() << " bytes of " << key.Text());
  }
  if (g_mfClientFlag != 0) {
    if (const std::uint32_t status = LinkOwner(key, blocks.nodeId); Failed(status)) {
      return status;
    }
  }
  char* place = range.Begin();
  std::uint64_t rest = blocks.Total();
  for (std::size_t i = 0; i < blocks.ids.size(); ++i) {
    const int result = mapped ? MapBlockAt(access, blocks.ids[i], false, place, blocks.sizes[i])
                              : ReadBlock(access, blocks.ids[i], place, blocks.sizes[i]);
    if (result == kBmNotEnoughCapacity) {
      return FailPoolFull(key, g_mfNodeId, rest);
    }
    if (result != 0) {
      missing = result == -ENOENT;
      return FailFabric(key, (mapped ? "mapping block " : "reading block ") + std::to_string(i),
                        blocks.nodeId, result);
    }
    place += blocks.sizes[i];
    rest -= blocks.sizes[i];
  }
  if (!mapped) {
    range.MakeReadOnly(0, blocks.Total());
  }
  return VYN_OK;
}

}  // namespace

std::uint32_t FindPublished(const VariableKey& key, VariableBlocks& blocks) {
  const bool outside = g_mfClientFlag != 0;
  const std::uint32_t status = outside ? LookUpAtLeader(key, blocks) : LookUpAtNode(key, blocks);
  return Failed(status) ? FailService(key, outside ? Service::kMetadata : Service::kNodeServer, status)
                        : VYN_OK;
}

std::uint32_t LoadBlocks(const VariableKey& key, const FabricAccess& access, VariableBlocks& blocks,
                         AddressRange& range) {
  bool missing = false;
  std::uint32_t status = LoadBlocksOnce(key, access, blocks, range, missing);
  if (!missing) {
    return status;
  }
  VariableBlocks present;
  if (const std::uint32_t lookUp = LookUpAtLeader(key, present); Failed(lookUp)) {
    return FailService(key, Service::kMetadata, lookUp);
  }
  if (present.ids != blocks.ids) {
    blocks = std::move(present);
    status = LoadBlocksOnce(key, access, blocks, range, missing);
  }
  return status;
}

}  // namespace vyn::tessel
