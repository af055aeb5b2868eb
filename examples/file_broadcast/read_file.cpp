// A program that opens publish_file's variable and writes its contents to a file.
//
//   read_file HOME APP TOKEN ID FILE
//
// An engine's executor would work on the range instead of copying it. All processes of the node share its
// pages. Each task may open the variable; the first one maps it.

#include "common.h"

#include <fstream>
#include <iostream>

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

void Run(char** arguments) {
  const Sdk sdk(arguments[1], 1);
  const char* app = arguments[2];
  const Registration registration(app, arguments[3]);
  VynVariable* opened = nullptr;
  Check(VynVariableOpen(app, static_cast<std::uint32_t>(std::stoul(arguments[4])), &opened),
        "VynVariableOpen");
  const Variable variable(opened);
  const std::uint64_t size = VynVariableSize(variable.get());
  std::ofstream file(arguments[5], std::ios::binary);
  file.write(static_cast<const char*>(VynVariableData(variable.get())), static_cast<std::streamsize>(size));
  if (!file.flush()) {
    throw std::runtime_error(std::string(arguments[5]) + " cannot be written");
  }
  std::cout << "read " << size << " bytes" << std::endl;
}

}  // namespace

int main(int argc, char** argv) { return RunProgram(argc, argv, "read_file HOME APP TOKEN ID FILE", Run); }
