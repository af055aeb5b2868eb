#include "platform/zk_helper/zk_helper.h"
#include "services/common/variable_record.h"
#include "services/common/zookeeper_io.h"
#include "services/common/zookeeper_layout.h"
#include "tools/vynctl/commands.h"
#include "vyn/broadcast.h"
#include "vyn/status.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>
#include <vector>

namespace vyn::tools {

namespace {

using nlohmann::json;

/// A descriptor that is closed at the end.
class Descriptor {
 public:
  Descriptor(const std::string& path, int flags) : mValue(open(path.c_str(), flags | O_CLOEXEC, 0644)) {
    if (mValue < 0) {
      throw CommandError(path + ": " + std::strerror(errno));
    }
  }
  ~Descriptor() { close(mValue); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int Get() const { return mValue; }

 private:
  int mValue;
};

/// Fills a mapped block from the file.
void ReadInto(int descriptor, char* target, std::uint64_t size, std::uint64_t offset,
              const std::string& file) {
  while (size > 0) {
    const ssize_t count = pread(descriptor, target, size, static_cast<off_t>(offset));
    if (count <= 0) {
      throw CommandError(file +
                         (count == 0 ? " has become shorter" : std::string(": ") + std::strerror(errno)));
    }
    target += count;
    offset += static_cast<std::uint64_t>(count);
    size -= static_cast<std::uint64_t>(count);
  }
}

void WriteAll(int descriptor, const char* data, std::uint64_t size) {
  while (size > 0) {
    const ssize_t count = write(descriptor, data, size);
    if (count < 0) {
      throw CommandError(std::string("writing: ") + std::strerror(errno));
    }
    data += count;
    size -= static_cast<std::uint64_t>(count);
  }
}

std::uint32_t CountBlocks(const std::string& application, std::uint32_t id) {
  std::vector<std::string> names;
  const int result = services::zookeeper::Children(services::AppPath(application), names);
  const std::string prefix = std::to_string(id) + ".";
  if (result == ZOK) {
    for (const std::string& name : names) {
      services::VariableRecord record;
      if (name.rfind(prefix, 0) == 0 &&
          services::ReadVariableRecord(services::AppPath(application) + "/" + name, record) ==
              services::RecordRead::kRead &&
          record.state == services::RecordState::kReady) {
        return record.blockNum;
      }
    }
  }
  throw CommandError("there is no variable " + std::to_string(id) + " of application " + application);
}

/// What the command did, in the form that was asked for.
void Print(const Settings& settings, const json& answer, const std::string& text) {
  std::printf("%s\n", settings.json ? answer.dump().c_str() : text.c_str());
}

}  // namespace

void PutVariable(const Settings& settings, const std::string& application, std::uint32_t id,
                 const std::string& file, std::uint64_t blockSize) {
  const Descriptor input(file, O_RDONLY);
  struct stat status {};
  if (fstat(input.Get(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_size == 0) {
    throw CommandError(file + " is no file with contents");
  }
  const auto total = static_cast<std::uint64_t>(status.st_size);
  std::vector<unsigned long> sizes;
  for (std::uint64_t offset = 0; offset < total; offset += blockSize) {
    sizes.push_back(std::min(blockSize, total - offset));
  }
  const auto count = static_cast<unsigned int>(sizes.size());
  const char* app = application.c_str();
  LoadConfiguration(settings);
  StartSdk(settings, true);
  bool registered = false;
  Require(RegisterBroadcastApp(app, true, settings.token.c_str(), &registered), "registering " + application);
  Require(CreateBroadcastVar(app, id, count), "creating the variable");
  Progress progress("put", total);
  std::uint64_t offset = 0;
  if (registered) {
    Require(CreateBroadcastBlockBatch(app, id, sizes.data(), count), "creating the blocks");
    for (unsigned int i = 0; i < count; ++i) {
      void* address = nullptr;
      Require(ObtainBroadcastBlockAddr(app, id, i, &address), "mapping a block");
      ReadInto(input.Get(), static_cast<char*>(address), sizes[i], offset, file);
      Require(ReleaseBroadcastBlockAddr(app, id, i, address), "releasing a block");
      offset += sizes[i];
      progress.Add(sizes[i]);
    }
  } else {
    std::vector<std::string> candidates;
    std::vector<std::string> nodes;
    std::vector<std::string> hosts;
    std::vector<std::string> ids;
    std::vector<unsigned short> nodeIds;
    Require(GetRemoteNodeInfo(app, candidates, nodes, nodeIds, hosts, true), "choosing a node");
    if (nodes.empty()) {
      throw CommandError("no node of the fabric is alive");
    }
    Require(CreateBroadcastBlockBatchRemote(app, settings.token.c_str(), id, sizes.data(), count,
                                            nodes[0].c_str(), hosts[0].c_str(), nodeIds[0], ids),
            "creating the blocks on " + nodes[0]);
    std::vector<char> buffer(std::min(blockSize, total));
    for (unsigned int i = 0; i < count; ++i) {
      ReadInto(input.Get(), buffer.data(), sizes[i], offset, file);
      Require(WriteRemoteBlock(app, ids[i].c_str(), buffer.data(), sizes[i], settings.token.c_str()),
              "writing a block");
      offset += sizes[i];
      progress.Add(sizes[i]);
    }
  }
  Print(settings, {{"application", application}, {"variable", id}, {"blocks", count}, {"bytes", total}},
        "variable " + std::to_string(id) + " of " + application + ": " + std::to_string(total) +
            " bytes in " + std::to_string(count) + " blocks");
}

void GetVariable(const Settings& settings, const std::string& application, std::uint32_t id,
                 const std::string& file) {
  LoadConfiguration(settings);
  ConnectZooKeeper();
  const std::uint32_t count = CountBlocks(application, id);
  StartSdk(settings, false);
  const char* app = application.c_str();
  bool registered = false;
  Require(RegisterBroadcastApp(app, false, settings.token.c_str(), &registered),
          "registering " + application);
  std::vector<unsigned long> sizes(count);
  Require(FetchBroadcastBlockBatch(app, id, sizes.data()), "fetching the variable");
  std::uint64_t total = 0;
  for (const unsigned long size : sizes) {
    total += size;
  }
  const Descriptor output(file.empty() ? "/dev/stdout" : file, O_WRONLY | O_CREAT | O_TRUNC);
  {
    Progress progress("get", total);
    for (std::uint32_t i = 0; i < count; ++i) {
      void* address = nullptr;
      Require(ObtainBroadcastBlockAddr(app, id, i, &address), "mapping a block");
      WriteAll(output.Get(), static_cast<const char*>(address), sizes[i]);
      Require(ReleaseBroadcastBlockAddr(app, id, i, address), "releasing a block");
      progress.Add(sizes[i]);
    }
  }
  if (!file.empty()) {
    Print(settings, {{"application", application}, {"variable", id}, {"bytes", total}, {"file", file}},
          std::to_string(total) + " bytes in " + file);
  }
}

void RemoveVariable(const Settings& settings, const std::string& application, std::uint32_t id) {
  LoadConfiguration(settings);
  StartSdk(settings, true);
  Require(DeleteBroadcastVar(application.c_str(), id), "removing the variable");
  Print(settings, {{"application", application}, {"removed", id}},
        "variable " + std::to_string(id) + " of " + application + " removed");
}

}  // namespace vyn::tools
