#include "platform/zk_helper/zk_helper.h"
#include "services/common/variable_record.h"
#include "services/common/zookeeper_io.h"
#include "services/common/zookeeper_layout.h"
#include "tools/vynctl/commands.h"
#include "tools/vynctl/interruption.h"
#include "vyn/broadcast.h"
#include "vyn/status.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>
#include <optional>
#include <vector>

namespace vyn::tools {

namespace {

using nlohmann::json;

/// A file open for reading.
class Input {
 public:
  explicit Input(const std::string& path) : mValue(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
    if (mValue < 0) {
      throw CommandError(path + ": " + std::strerror(errno));
    }
  }
  ~Input() { close(mValue); }
  Input(const Input&) = delete;
  Input& operator=(const Input&) = delete;
  int Get() const { return mValue; }

 private:
  int mValue;
};

/// Fills a mapped block from the file.
void ReadInto(int descriptor, char* target, std::uint64_t size, std::uint64_t offset,
              const std::string& file) {
  while (size > 0) {
    CheckInterrupted();
    const ssize_t count = pread(descriptor, target, size, static_cast<off_t>(offset));
    if (count < 0 && errno == EINTR) {
      continue;
    }
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
    CheckInterrupted();
    const ssize_t count = write(descriptor, data, size);
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count < 0) {
      throw CommandError(std::string("writing: ") + std::strerror(errno));
    }
    data += count;
    size -= static_cast<std::uint64_t>(count);
  }
}

std::string NameOf(const std::string& application, std::uint32_t id) {
  return "variable " + std::to_string(id) + " of application " + application;
}

/// What ZooKeeper's record says about a variable.
struct Found {
  bool ready;  ///< whether its blocks are known
  std::uint32_t blockNum;
};

/// Returns: nothing when there is no such variable.
std::optional<Found> FindVariable(const std::string& application, std::uint32_t id) {
  std::vector<std::string> names;
  const int result = services::zookeeper::Children(services::AppPath(application), names);
  if (result != ZOK && result != ZNONODE) {
    throw CommandError("cannot read the variables of " + application + ": " +
                       services::zookeeper::ResultText(result));
  }
  const std::string prefix = std::to_string(id) + ".";
  for (const std::string& name : names) {
    services::VariableRecord record;
    if (name.rfind(prefix, 0) == 0 &&
        services::ReadVariableRecord(services::AppPath(application) + "/" + name, record) ==
            services::RecordRead::kRead &&
        record.state != services::RecordState::kDeleted) {
      return Found{record.state == services::RecordState::kReady, record.blockNum};
    }
  }
  return std::nullopt;
}

/// Removes the variable of a failed put in its destructor, so that nobody reads incomplete contents.
class Undo {
 public:
  Undo(const std::string& application, std::uint32_t id) : mApplication(application), mId(id) {}
  ~Undo() {
    if (mDone || IsOfAnother()) {
      return;
    }
    if (Failed(DeleteBroadcastVar(mApplication.c_str(), mId))) {
      std::fprintf(stderr, "vynctl: %s is incomplete and could not be removed\n",
                   NameOf(mApplication, mId).c_str());
    }
  }
  Undo(const Undo&) = delete;
  Undo& operator=(const Undo&) = delete;
  /// Call it once the record holds the blocks of this command.
  void Recorded() { mRecorded = true; }
  /// Call it once the variable is complete. The destructor then keeps it.
  void Done() { mDone = true; }

 private:
  /// Whether the record holds the blocks of another put, which has completed the variable meanwhile.
  bool IsOfAnother() const {
    try {
      const auto found = mRecorded ? std::nullopt : FindVariable(mApplication, mId);
      return found && found->ready;
    } catch (const std::exception&) {
      return false;
    }
  }

  const std::string mApplication;
  const std::uint32_t mId;
  bool mRecorded = false;
  bool mDone = false;
};

/// The destination of a get: standard output, or a file that gets its name only when it is complete.
class Output {
 public:
  explicit Output(const std::string& file) : mFile(file) {
    if (file.empty()) {
      mDescriptor = STDOUT_FILENO;
      return;
    }
    struct stat status {};
    // Write directly into a pipe or a device: a rename would replace it by a regular file.
    if (stat(file.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
      mDescriptor = open(file.c_str(), O_WRONLY | O_CLOEXEC);
      if (mDescriptor < 0) {
        throw CommandError(file + ": " + std::strerror(errno));
      }
      return;
    }
    mTemporary = file + ".XXXXXX";
    mDescriptor = mkostemp(mTemporary.data(), O_CLOEXEC);
    if (mDescriptor < 0) {
      throw CommandError(mTemporary + ": " + std::strerror(errno));
    }
    const mode_t mask = umask(0);
    umask(mask);
    fchmod(mDescriptor, status.st_mode != 0 ? status.st_mode & 0777U : 0666U & ~mask);
  }
  ~Output() {
    if (mDescriptor >= 0 && mDescriptor != STDOUT_FILENO) {
      close(mDescriptor);
    }
    if (!mTemporary.empty()) {
      unlink(mTemporary.c_str());
    }
  }
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;
  int Descriptor() const { return mDescriptor; }
  void Finish() {
    if (mFile.empty()) {
      return;
    }
    const bool closed = close(mDescriptor) == 0;
    mDescriptor = -1;
    if (!closed || (!mTemporary.empty() && rename(mTemporary.c_str(), mFile.c_str()) != 0)) {
      throw CommandError(mFile + ": " + std::strerror(errno));
    }
    mTemporary.clear();
  }

 private:
  const std::string mFile;
  std::string mTemporary;
  int mDescriptor = -1;
};

/// Prints the result of the command: `answer` with Settings::json, otherwise `text`.
void Print(const Settings& settings, const json& answer, const std::string& text) {
  if (settings.json) {
    PrintJson(answer);
  } else {
    std::printf("%s\n", text.c_str());
  }
}

}  // namespace

void PutVariable(const Settings& settings, const std::string& application, std::uint32_t id,
                 const std::string& file, std::uint64_t blockSize) {
  const Input input(file);
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
  // The metadata service lets a repeated creation with the same number of blocks succeed. For an existing
  // variable that would leave a second set of blocks in the pool.
  if (FindVariable(application, id)) {
    throw CommandError("there is " + NameOf(application, id) + " already");
  }
  DeferSignals();
  Require(CreateBroadcastVar(app, id, count), "creating the variable");
  Undo undo(application, id);
  Progress progress("put", total);
  std::uint64_t offset = 0;
  if (registered) {
    Require(CreateBroadcastBlockBatch(app, id, sizes.data(), count), "creating the blocks");
    undo.Recorded();
    for (unsigned int i = 0; i < count; ++i) {
      CheckInterrupted();
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
    undo.Recorded();
    std::vector<char> buffer(std::min(blockSize, total));
    for (unsigned int i = 0; i < count; ++i) {
      CheckInterrupted();
      ReadInto(input.Get(), buffer.data(), sizes[i], offset, file);
      Require(WriteRemoteBlock(app, ids[i].c_str(), buffer.data(), sizes[i], settings.token.c_str()),
              "writing a block");
      offset += sizes[i];
      progress.Add(sizes[i]);
    }
  }
  undo.Done();
  Print(settings, {{"application", application}, {"variable", id}, {"blocks", count}, {"bytes", total}},
        "variable " + std::to_string(id) + " of " + application + ": " + std::to_string(total) +
            " bytes in " + std::to_string(count) + " blocks");
}

void GetVariable(const Settings& settings, const std::string& application, std::uint32_t id,
                 const std::string& file) {
  LoadConfiguration(settings);
  ConnectZooKeeper();
  const auto found = FindVariable(application, id);
  if (!found || !found->ready) {
    throw CommandError("there is no " + NameOf(application, id));
  }
  const std::uint32_t count = found->blockNum;
  StartSdk(settings, false);
  const char* app = application.c_str();
  bool registered = false;
  Require(RegisterBroadcastApp(app, false, settings.token.c_str(), &registered),
          "registering " + application);
  std::vector<unsigned long> sizes(count);
  std::uint32_t fetched = 0;
  Require(FetchBroadcastBlockBatchInto(app, id, sizes.data(), count, &fetched), "fetching the variable");
  if (fetched != count) {
    throw CommandError(NameOf(application, id) + " has changed meanwhile");
  }
  std::uint64_t total = 0;
  for (const unsigned long size : sizes) {
    total += size;
  }
  DeferSignals();
  Output output(file);
  {
    Progress progress("get", total);
    for (std::uint32_t i = 0; i < count; ++i) {
      CheckInterrupted();
      void* address = nullptr;
      Require(ObtainBroadcastBlockAddr(app, id, i, &address), "mapping a block");
      WriteAll(output.Descriptor(), static_cast<const char*>(address), sizes[i]);
      Require(ReleaseBroadcastBlockAddr(app, id, i, address), "releasing a block");
      progress.Add(sizes[i]);
    }
  }
  output.Finish();
  if (!file.empty()) {
    Print(settings, {{"application", application}, {"variable", id}, {"bytes", total}, {"file", file}},
          std::to_string(total) + " bytes in " + file);
  }
}

void RemoveVariable(const Settings& settings, const std::string& application, std::uint32_t id) {
  LoadConfiguration(settings);
  StartSdk(settings, true);
  const bool found = FindVariable(application, id).has_value();
  // Delete even if nothing was found: the metadata service also removes a record that vynctl cannot read.
  Require(DeleteBroadcastVar(application.c_str(), id), "removing the variable");
  if (!found) {
    throw CommandError("there is no " + NameOf(application, id));
  }
  Print(settings, {{"application", application}, {"removed", id}},
        "variable " + std::to_string(id) + " of " + application + " removed");
}

}  // namespace vyn::tools
