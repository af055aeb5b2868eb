// A driver that broadcasts a file as variable ID of the application APP.
//
//   publish_file HOME APP TOKEN ID FILE
//
// It ends the application when it reads a line or the end of its standard input. It runs on a node of the
// memory fabric or outside the fabric.

#include "common.h"

#include <fstream>
#include <iostream>

namespace {

/// Registers the application, and ends it in the destructor, which frees what is left of its variables.
class Application {
 public:
  Application(const char* name, const char* token) : mName(name) {
    Check(RegisterBroadcastApp(name, true, token, &mOnNode), "RegisterBroadcastApp");
    // If this process dies, the heartbeats stop, and the metadata leader removes the application and frees
    // its memory.
    HeartBeat(name, 0, "publish_file", "", true);
  }
  ~Application() {
    HeartBeat(mName, 0, "publish_file", "", false);
    if (mOnNode) {
      UnRegisterBroadcastApp(mName);
    }
    MarkBroadcastApplicationCompleted(mName);
  }
  Application(const Application&) = delete;
  Application& operator=(const Application&) = delete;

  /// Whether this process runs on a node of the fabric.
  bool OnNode() const { return mOnNode; }

 private:
  const char* mName;
  bool mOnNode = false;
};

/// Reads the file into the variable. Nobody sees it before it is complete; if this fails, nothing is left.
void Publish(const char* app, std::uint32_t id, const std::string& path) {
  std::ifstream file(path, std::ios::binary | std::ios::ate);
  if (!file || file.tellg() <= 0) {
    throw std::runtime_error(path + " cannot be read, or is empty");
  }
  const auto size = static_cast<std::uint64_t>(file.tellg());
  file.seekg(0);
  VynVariable* made = nullptr;
  Check(VynVariableCreate(app, id, size, &made), "VynVariableCreate");
  const Variable variable(made);
  if (!file.read(static_cast<char*>(VynVariableData(variable.get())), static_cast<std::streamsize>(size))) {
    throw std::runtime_error("the file has become shorter");
  }
  Check(VynVariablePublish(variable.get()), "VynVariablePublish");
}

void Run(char** arguments) {
  const Sdk sdk(arguments[1], 0);
  const char* app = arguments[2];
  const auto id = static_cast<std::uint32_t>(std::stoul(arguments[4]));
  const Application application(app, arguments[3]);
  Publish(app, id, arguments[5]);
  std::cout << "published " << arguments[5] << " on " << (application.OnNode() ? "this" : "another")
            << " node" << std::endl;
  std::string line;
  std::getline(std::cin, line);
  Check(VynVariableDelete(app, id), "VynVariableDelete");
}

}  // namespace

int main(int argc, char** argv) { return RunProgram(argc, argv, "publish_file HOME APP TOKEN ID FILE", Run); }
