// An executor that maps the blocks of publish_file's variable and writes their contents to a file.
//
//   read_file HOME APP TOKEN ID BLOCKS FILE
//
// BLOCKS is the number that publish_file printed. An engine's executor would work on the mapped pages instead
// of copying them. Each of its tasks may obtain a block; the first one maps it. All processes of the node
// share the pages.

#include "common.h"

#include <fstream>
#include <iostream>
#include <vector>

namespace {

class Registration {
 public:
  Registration(const char* app, const char* token) : mApp(app) {
    bool onNode = false;  // not used: an executor always runs on a node of the fabric
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
  std::vector<unsigned long> sizes(blocks);
  unsigned int count = 0;
  Check(FetchBroadcastBlockBatchInto(app, id, sizes.data(), blocks, &count), "FetchBroadcastBlockBatchInto");
  if (count != blocks) {
    throw std::runtime_error("the variable has " + std::to_string(count) + " blocks");
  }
  unsigned long total = 0;
  for (unsigned int i = 0; i < blocks; ++i) {
    void* address = nullptr;
    Check(ObtainBroadcastBlockAddr(app, id, i, &address), "ObtainBroadcastBlockAddr");
    file.write(static_cast<const char*>(address), static_cast<std::streamsize>(sizes[i]));
    total += sizes[i];
    // An engine releases a block when its last task has finished with it. Here that is now.
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
