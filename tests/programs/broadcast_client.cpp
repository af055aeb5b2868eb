// A driver or an executor: uses the exported functions alone. Each line of input is a command, answered by
// one line that begins with "= " and the status; the log goes to standard error. Contents are the pattern of
// a seed, which differs from block to block.
//
//   init HOME FLAG | register APP DRIVER TOKEN -> status registered | complete APP | beat APP
//   create APP ID BLOCKS | fill APP ID BLOCKS SIZE SEED | fetch APP ID BLOCKS | delete APP ID
//   look APP ID BLOCKS SEED   -> status 1 when the mapped bytes are the pattern's; they stay mapped
//   again SEED                -> 0 1 when what is mapped still has the pattern

#include "support/commands.h"
#include "support/pattern.h"
#include "support/test.h"
#include "vyn/broadcast.h"
#include "vyn/status.h"

namespace {

using vyn::Failed;
using vyn::test::Answer;
using Text = std::string;
using Id = unsigned int;

struct Mapped {
  void* address;
  unsigned long size;
};

std::vector<unsigned long> gSizes;
std::vector<Mapped> gMapped;

unsigned int SeedOf(unsigned int block, unsigned int seed) { return seed + block * 11; }

std::uint32_t Fill(Text app, Id id, unsigned int count, unsigned long size, unsigned int seed) {
  const std::vector<unsigned long> sizes(count, size);
  std::uint32_t status = CreateBroadcastBlockBatch(app.c_str(), id, sizes.data(), count);
  for (unsigned int i = 0; i < count && !Failed(status); ++i) {
    void* address = nullptr;
    status = ObtainBroadcastBlockAddr(app.c_str(), id, i, &address);
    if (!Failed(status)) {
      vyn::test::FillPattern(address, size, SeedOf(i, seed));
      status = ReleaseBroadcastBlockAddr(app.c_str(), id, i, address);
    }
  }
  return status;
}

int AllHold(unsigned int seed) {
  for (unsigned int i = 0; i < gMapped.size(); ++i) {
    if (!vyn::test::HoldsPattern(gMapped[i].address, gMapped[i].size, SeedOf(i, seed))) {
      return 0;
    }
  }
  return gMapped.empty() ? 0 : 1;
}

Text Look(Text app, Id id, unsigned int count, unsigned int seed) {
  std::uint32_t status = 0;
  gMapped.clear();
  for (unsigned int i = 0; i < count && !Failed(status); ++i) {
    void* address = nullptr;
    status = ObtainBroadcastBlockAddr(app.c_str(), id, i, &address);
    if (!Failed(status)) {
      gMapped.push_back({address, gSizes.at(i)});
    }
  }
  return Answer(status, Failed(status) ? 0 : AllHold(seed));
}

}  // namespace

int main() {
  vyn::test::ServeCommands(
      {{"init",
        [](Text home, unsigned short flag) {
          return BroadcastInitialize(home.c_str(), "24.0.0", VYN_BINARY_TYPE, flag);
        }},
       {"register",
        [](Text app, int driver, Text token) {
          bool registered = false;
          const auto status = RegisterBroadcastApp(app.c_str(), driver == 1, token.c_str(), &registered);
          return Answer(status, registered);
        }},
       {"create",
        [](Text app, Id id, unsigned blocks) { return CreateBroadcastVar(app.c_str(), id, blocks); }},
       {"fill", &Fill},
       {"fetch",
        [](Text app, Id id, unsigned int blocks) {
          gSizes.assign(blocks, 0);
          unsigned int count = 0;
          return FetchBroadcastBlockBatchInto(app.c_str(), id, gSizes.data(), blocks, &count);
        }},
       {"look", &Look},
       {"again", [](unsigned int seed) { return Answer(0, AllHold(seed)); }},
       {"delete", [](Text app, Id id) { return DeleteBroadcastVar(app.c_str(), id); }},
       {"complete", [](Text app) { return MarkBroadcastApplicationCompleted(app.c_str()); }},
       {"beat", [](Text app) { return HeartBeat(app.c_str(), 0, "driver", "", true); }}},
      "= ");
  return 0;
}
