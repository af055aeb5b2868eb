// A driver that broadcasts a file as variable ID of the application APP, in blocks of BLOCK_SIZE bytes.
//
//   publish_file HOME APP TOKEN ID FILE BLOCK_SIZE
//
// It prints the number of blocks, which read_file needs. It ends the application when it reads a line or the
// end of its standard input. It runs on a node of the memory fabric or outside the fabric.

#include "common.h"

#include <fstream>
#include <iostream>
#include <vector>

namespace {

using Blocks = std::vector<unsigned long>;  // the size of each, in bytes

struct Variable {
  const char* app;
  const char* token;
  unsigned int id;
};

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

Blocks Cut(unsigned long size, unsigned long blockSize) {
  Blocks blocks(size / blockSize, blockSize);
  if (size % blockSize != 0) {
    blocks.push_back(size % blockSize);
  }
  return blocks;
}

void ReadInto(std::ifstream& file, void* place, unsigned long size) {
  if (!file.read(static_cast<char*>(place), static_cast<std::streamsize>(size))) {
    throw std::runtime_error("the file has become shorter");
  }
}

/// On a node of the fabric: the node server allocates the blocks, and this process reads the file into the
/// mapped shared pages.
void FillHere(const Variable& variable, const Blocks& blocks, std::ifstream& file) {
  const auto count = static_cast<unsigned int>(blocks.size());
  Check(CreateBroadcastBlockBatch(variable.app, variable.id, blocks.data(), count),
        "CreateBroadcastBlockBatch");
  for (unsigned int i = 0; i < count; ++i) {
    void* address = nullptr;
    Check(ObtainBroadcastBlockAddr(variable.app, variable.id, i, &address), "ObtainBroadcastBlockAddr");
    ReadInto(file, address, blocks[i]);
    Check(ReleaseBroadcastBlockAddr(variable.app, variable.id, i, address), "ReleaseBroadcastBlockAddr");
  }
}

/// Outside the fabric: the metadata service proposes a node, and this process copies the blocks there.
void FillThere(const Variable& variable, const Blocks& blocks, std::ifstream& file) {
  std::vector<std::string> candidates;  // empty: any node may hold the blocks
  std::vector<std::string> nodes;
  std::vector<std::string> hosts;
  std::vector<unsigned short> nodeIds;
  Check(GetRemoteNodeInfo(variable.app, candidates, nodes, nodeIds, hosts, true), "GetRemoteNodeInfo");
  if (nodes.empty()) {
    throw std::runtime_error("the fabric has no node");
  }
  std::vector<std::string> bmIds;
  Check(CreateBroadcastBlockBatchRemote(variable.app, variable.token, variable.id, blocks.data(),
                                        static_cast<unsigned int>(blocks.size()), nodes[0].c_str(),
                                        hosts[0].c_str(), nodeIds[0], bmIds),
        "CreateBroadcastBlockBatchRemote");
  std::vector<char> buffer;
  for (std::size_t i = 0; i < blocks.size(); ++i) {
    buffer.resize(blocks[i]);
    ReadInto(file, buffer.data(), blocks[i]);
    Check(WriteRemoteBlock(variable.app, bmIds[i].c_str(), buffer.data(), blocks[i], variable.token),
          "WriteRemoteBlock");
  }
}

/// Publishes the file and waits for a line or the end of standard input.
void Publish(const Variable& variable, const std::string& path, unsigned long blockSize, bool onNode) {
  std::ifstream file(path, std::ios::binary | std::ios::ate);
  if (!file || file.tellg() <= 0 || blockSize == 0) {
    throw std::runtime_error(path + " cannot be read, is empty, or the block size is 0");
  }
  const Blocks blocks = Cut(static_cast<unsigned long>(file.tellg()), blockSize);
  file.seekg(0);
  Check(CreateBroadcastVar(variable.app, variable.id, static_cast<unsigned int>(blocks.size())),
        "CreateBroadcastVar");
  if (onNode) {
    FillHere(variable, blocks, file);
  } else {
    FillThere(variable, blocks, file);
  }
  std::cout << "published " << blocks.size() << " blocks on " << (onNode ? "this" : "another") << " node"
            << std::endl;
  std::string line;
  std::getline(std::cin, line);
  Check(DeleteBroadcastVar(variable.app, variable.id), "DeleteBroadcastVar");
}

void Run(char** arguments) {
  const Sdk sdk(arguments[1], 0);
  const Variable variable{arguments[2], arguments[3], static_cast<unsigned int>(std::stoul(arguments[4]))};
  const Application application(variable.app, variable.token);
  Publish(variable, arguments[5], std::stoul(arguments[6]), application.OnNode());
}

}  // namespace

int main(int argc, char** argv) {
  return RunProgram(argc, argv, "publish_file HOME APP TOKEN ID FILE BLOCK_SIZE", Run);
}
