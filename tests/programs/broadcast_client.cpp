// A driver or an executor: uses the exported functions alone. Each line of input is a command, answered by
// one line that begins with "= " and the status; the log goes to standard error. Contents are a pattern made
// from a seed.
//
//   init HOME FLAG | register APP DRIVER TOKEN -> status registered | leave APP | complete APP | beat APP
//   end
//   create APP ID BLOCKS | fill APP ID BLOCKS SIZE SEED | delete APP ID
//   place APP ID BLOCKS SIZE SEED TOKEN -> status node: blocks, filled, on a node that the service chooses
//   copy APP ID BLOCKS SIZE SEED TOKEN  -> status 1 when the blocks, copied from there, have the pattern
//   fetch APP ID BLOCKS
//   look APP ID BLOCKS SEED             -> status 1 when the mapped bytes are the pattern's; they stay mapped
//   again SEED           -> 0 1 when what is mapped still has the pattern
//   release APP ID       unmaps what is mapped

#include "vyn/broadcast.h"
#include "vyn/status.h"

#include <iostream>
#include <sstream>
#include <string>
#include <vector>

namespace {

struct Mapped {
  unsigned char* address;
  unsigned long size;
};

std::vector<unsigned long> gSizes;
std::vector<Mapped> gMapped;

unsigned char Pattern(unsigned long offset, unsigned int block, unsigned int seed) {
  return static_cast<unsigned char>(offset * 31 + offset / 4096 + block * 7 + seed);
}

bool HoldsPattern(const Mapped& block, unsigned int index, unsigned int seed) {
  for (unsigned long i = 0; i < block.size; ++i) {
    if (block.address[i] != Pattern(i, index, seed)) {
      return false;
    }
  }
  return true;
}

std::uint32_t Fill(const char* app, unsigned int id, unsigned int count, unsigned long size,
                   unsigned int seed) {
  const std::vector<unsigned long> sizes(count, size);
  std::uint32_t status = CreateBroadcastBlockBatch(app, id, sizes.data(), count);
  for (unsigned int i = 0; i < count && !vyn::Failed(status); ++i) {
    void* address = nullptr;
    status = ObtainBroadcastBlockAddr(app, id, i, &address);
    if (vyn::Failed(status)) {
      break;
    }
    for (unsigned long offset = 0; offset < size; ++offset) {
      static_cast<unsigned char*>(address)[offset] = Pattern(offset, i, seed);
    }
    status = ReleaseBroadcastBlockAddr(app, id, i, address);
  }
  return status;
}

std::string Place(const char* app, unsigned int id, unsigned int count, unsigned long size, unsigned int seed,
                  const char* token) {
  std::vector<std::string> candidates, nodes, hosts, bmIds;
  std::vector<unsigned short> nodeIds;
  std::uint32_t status = GetRemoteNodeInfo(app, candidates, nodes, nodeIds, hosts, true);
  if (vyn::Failed(status) || nodes.empty()) {
    return std::to_string(status) + " none";
  }
  const std::vector<unsigned long> sizes(count, size);
  status = CreateBroadcastBlockBatchRemote(app, token, id, sizes.data(), count, nodes[0].c_str(),
                                           hosts[0].c_str(), nodeIds[0], bmIds);
  for (unsigned int i = 0; i < count && !vyn::Failed(status); ++i) {
    std::vector<unsigned char> bytes(size);
    for (unsigned long offset = 0; offset < size; ++offset) {
      bytes[offset] = Pattern(offset, i, seed);
    }
    status = WriteRemoteBlock(app, bmIds[i].c_str(), bytes.data(), size, token);
  }
  return std::to_string(status) + " " + std::to_string(nodeIds[0]);
}

std::string Copy(const char* app, unsigned int id, unsigned int count, unsigned long size, unsigned int seed,
                 const char* token) {
  std::vector<unsigned char> bytes(size);
  for (unsigned int i = 0; i < count; ++i) {
    if (const std::uint32_t status = ReadRemoteBlock(app, id, i, bytes.data(), token); vyn::Failed(status)) {
      return std::to_string(status) + " 0";
    }
    if (!HoldsPattern({bytes.data(), size}, i, seed)) {
      return "0 0";
    }
  }
  return "0 1";
}

std::uint32_t Map(const char* app, unsigned int id, unsigned int count) {
  gMapped.clear();
  for (unsigned int i = 0; i < count; ++i) {
    void* address = nullptr;
    if (const std::uint32_t status = ObtainBroadcastBlockAddr(app, id, i, &address); vyn::Failed(status)) {
      return status;
    }
    gMapped.push_back({static_cast<unsigned char*>(address), gSizes.at(i)});
  }
  return 0;
}

std::uint32_t Release(const char* app, unsigned int id) {
  std::uint32_t status = 0;
  for (unsigned int i = 0; i < gMapped.size() && !vyn::Failed(status); ++i) {
    status = ReleaseBroadcastBlockAddr(app, id, i, gMapped[i].address);
  }
  gMapped.clear();
  return status;
}

int AllHold(unsigned int seed) {
  for (unsigned int i = 0; i < gMapped.size(); ++i) {
    if (!HoldsPattern(gMapped[i], i, seed)) {
      return 0;
    }
  }
  return gMapped.empty() ? 0 : 1;
}

std::string Do(const std::string& line) {
  std::istringstream words(line);
  std::string command;
  std::string text;
  std::string token;
  unsigned int id = 0;
  unsigned int count = 0;
  unsigned int seed = 0;
  unsigned long size = 0;
  words >> command;
  if (command == "init") {
    words >> text >> id;
    return std::to_string(
        BroadcastInitialize(text.c_str(), "24.0.0", VYN_BINARY_TYPE, static_cast<unsigned short>(id)));
  }
  if (command == "register") {
    bool registered = false;
    words >> text >> id >> token;
    const std::uint32_t status = RegisterBroadcastApp(text.c_str(), id == 1, token.c_str(), &registered);
    return std::to_string(status) + (registered ? " 1" : " 0");
  }
  if (command == "again") {
    words >> seed;
    return "0 " + std::to_string(AllHold(seed));
  }
  if (command == "end") {
    return std::to_string(BroadcastUninitialize());
  }
  words >> text >> id >> count;
  const char* app = text.c_str();
  if (command == "create") {
    return std::to_string(CreateBroadcastVar(app, id, count));
  }
  if (command == "fill") {
    words >> size >> seed;
    return std::to_string(Fill(app, id, count, size, seed));
  }
  if (command == "place" || command == "copy") {
    words >> size >> seed >> token;
    return command == "place" ? Place(app, id, count, size, seed, token.c_str())
                              : Copy(app, id, count, size, seed, token.c_str());
  }
  if (command == "fetch") {
    gSizes.assign(count, 0);
    return std::to_string(FetchBroadcastBlockBatch(app, id, gSizes.data()));
  }
  if (command == "look") {
    words >> seed;
    const std::uint32_t status = Map(app, id, count);
    return std::to_string(status) + " " + std::to_string(AllHold(seed));
  }
  if (command == "release") {
    return std::to_string(Release(app, id));
  }
  if (command == "leave") {
    return std::to_string(UnRegisterBroadcastApp(app));
  }
  if (command == "delete") {
    return std::to_string(DeleteBroadcastVar(app, id));
  }
  if (command == "complete") {
    return std::to_string(MarkBroadcastApplicationCompleted(app));
  }
  if (command == "beat") {
    return std::to_string(HeartBeat(app, 0, "driver", "", true));
  }
  return "unknown";
}

}  // namespace

int main() {
  for (std::string line; std::getline(std::cin, line);) {
    std::cout << "= " << Do(line) << std::endl;
  }
  return 0;
}
