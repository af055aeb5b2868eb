// A driver or an executor: uses the exported functions alone. Each line of input is a command, answered by
// one line that begins with "= " and the status; the log goes to standard error. Contents are the pattern of
// a seed, which differs from block to block.
//
//   init HOME FLAG | register APP DRIVER TOKEN | complete APP | beat APP | delete APP ID
//   write APP ID BLOCKS SIZE SEED   makes the variable and its blocks and fills them
//   read APP ID BLOCKS SEED         fetches and maps the blocks, which stay mapped, and compares the bytes
//   again SEED                      compares what is mapped once more; "other bytes" when it differs
//   make APP ID SIZE SEED | publish | close | drop APP ID    of vyn/variable.h; make fills the variable
//   open APP ID SEED | still SEED   the same as read and again
//   words                           the text of the last failure

#include "support/pattern.h"
#include "support/process/commands.h"
#include "vyn/broadcast.h"
#include "vyn/variable.h"

#include <memory>

namespace {

using Text = std::string;
using Id = unsigned int;

std::vector<std::string_view> gMapped;

/// Maps every block of a variable in turn. Returns: 0, or the first failure.
std::uint32_t Map(const Text& app, Id id, std::size_t count,
                  const std::function<void(unsigned, void*)>& use) {
  std::uint32_t status = 0;
  for (unsigned int block = 0; block < count && status == 0; ++block) {
    void* address = nullptr;
    status = ObtainBroadcastBlockAddr(app.c_str(), id, block, &address);
    if (status == 0) {
      use(block, address);
    }
  }
  return status;
}

std::uint32_t Write(Text app, Id id, unsigned int count, unsigned long size, unsigned int seed) {
  const std::vector<unsigned long> sizes(count, size);
  std::uint32_t status = CreateBroadcastVar(app.c_str(), id, count);
  status = status != 0 ? status : CreateBroadcastBlockBatch(app.c_str(), id, sizes.data(), count);
  return status != 0 ? status : Map(app, id, count, [&](unsigned int block, void* address) {
    vyn::test::FillPattern(address, size, seed + block * 11);
    ReleaseBroadcastBlockAddr(app.c_str(), id, block, address);
  });
}

Text Again(unsigned int seed) {
  bool same = !gMapped.empty();
  for (std::size_t i = 0; i < gMapped.size(); ++i) {
    same = same && vyn::test::HoldsPattern(gMapped[i].data(), gMapped[i].size(),
                                           static_cast<unsigned int>(seed + i * 11));
  }
  return same ? "0" : "other bytes";
}

Text Read(Text app, Id id, unsigned int count, unsigned int seed) {
  std::vector<unsigned long> sizes(count);
  gMapped.clear();
  unsigned int blocks = 0;
  std::uint32_t status = FetchBroadcastBlockBatchInto(app.c_str(), id, sizes.data(), count, &blocks);
  status = status != 0 ? status : Map(app, id, count, [&](unsigned int block, void* address) {
    gMapped.emplace_back(static_cast<const char*>(address), sizes[block]);
  });
  return status != 0 ? std::to_string(status) : Again(seed);
}

struct CloseVariable {
  void operator()(VynVariable* variable) const { VynVariableClose(variable); }
};
std::unique_ptr<VynVariable, CloseVariable> gVariable;  // of the last make or open that succeeded

std::uint32_t Make(Text app, Id id, unsigned long size, unsigned int seed) {
  VynVariable* made = nullptr;
  const std::uint32_t status = VynVariableCreate(app.c_str(), id, size, &made);
  if (status == 0) {
    gVariable.reset(made);
    vyn::test::FillPattern(VynVariableData(made), size, seed);
  }
  return status;
}

Text Still(unsigned int seed) {
  VynVariable* variable = gVariable.get();
  return vyn::test::HoldsPattern(VynVariableData(variable), VynVariableSize(variable), seed) ? "0"
                                                                                             : "other bytes";
}

Text Open(Text app, Id id, unsigned int seed) {
  VynVariable* opened = nullptr;
  const std::uint32_t status = VynVariableOpen(app.c_str(), id, &opened);
  if (status != 0) {
    return std::to_string(status);
  }
  gVariable.reset(opened);
  return Still(seed);
}

}  // namespace

int main() {
  bool registered = false;
  vyn::test::ServeCommands(
      {{"init",
        [](Text home, unsigned short flag) {
          return BroadcastInitialize(home.c_str(), "24.0.0", VYN_BINARY_TYPE, flag);
        }},
       {"register",
        [&](Text app, int driver, Text token) {
          return RegisterBroadcastApp(app.c_str(), driver == 1, token.c_str(), &registered);
        }},
       {"write", &Write},
       {"read", &Read},
       {"again", &Again},
       {"delete", [](Text app, Id id) { return DeleteBroadcastVar(app.c_str(), id); }},
       {"complete", [](Text app) { return MarkBroadcastApplicationCompleted(app.c_str()); }},
       {"make", &Make},
       {"publish", [] { return VynVariablePublish(gVariable.get()); }},
       {"open", &Open},
       {"still", &Still},
       {"close", [] { return gVariable.reset(), 0; }},
       {"drop", [](Text app, Id id) { return VynVariableDelete(app.c_str(), id); }},
       {"words", [] { return Text(BroadcastGetLastErrorMessage()); }},
       {"beat", [](Text app) { return HeartBeat(app.c_str(), 0, "driver", "", true); }}},
      "= ");
  gVariable.reset();
  return 0;
}
