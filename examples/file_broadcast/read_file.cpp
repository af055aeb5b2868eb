// An executor that reads what publish_file broadcasts, in place, and writes it to a file.
//
//   read_file HOME APP TOKEN ID BLOCKS FILE
//
// BLOCKS is what publish_file printed. An engine's executor would work on the mapped pages instead of copying
// them; all its tasks may obtain a block, the first maps it, and all processes of the node share the pages.

#include "common.h"

#include <fstream>
#include <iostream>
#include <vector>

namespace {

class Registration {
 public:
  Registration(const char* app, const char* token) : mApp(app) {
    bool onNode = false;  // executors always are
    Check(RegisterBroadcastApp(app, false, token, &onNode), "RegisterBroadcastApp");
  }
  ~Registration() { UnRegisterBroadcastApp(mApp); }
  Registration(const Registration&) = delete;
  Registration& operator=(const Registration&) = delete;

 private:
  const char* mApp;
};

void Read(const char* app, unsigned int id, unsigned int blocks, const char* path) {
  std::ofstream file(path, std::ios::binary);
  std::vector<unsigned long> sizes(blocks);  // must have room for all blocks of the variable
  Check(FetchBroadcastBlockBatch(app, id, sizes.data()), "FetchBroadcastBlockBatch");
  unsigned long total = 0;
  for (unsigned int i = 0; i < blocks; ++i) {
    void* address = nullptr;
    Check(ObtainBroadcastBlockAddr(app, id, i, &address), "ObtainBroadcastBlockAddr");
    file.write(static_cast<const char*>(address), static_cast<std::streamsize>(sizes[i]));
    total += sizes[i];
    // Unmaps at once: an engine releases a block when its last task is done with it.
    Check(ReleaseBroadcastBlockAddr(app, id, i, address), "ReleaseBroadcastBlockAddr");
  }
  if (!file.flush()) {
    throw std::runtime_error(std::string(path) + " cannot be written");
  }
  std::cout << "read " << total << " bytes" << std::endl;
}

void Run(char** arguments) {
  const Sdk sdk(arguments[1], 1);
  const char* app = arguments[2];
  const Registration registration(app, arguments[3]);
  Read(app, static_cast<unsigned int>(std::stoul(arguments[4])),
       static_cast<unsigned int>(std::stoul(arguments[5])), arguments[6]);
}

}  // namespace

int main(int argc, char** argv) {
  return RunProgram(argc, argv, "read_file HOME APP TOKEN ID BLOCKS FILE", Run);
}
