#include "platform/net/descriptor.h"
#include "tools/vynctl/commands.h"
#include "tools/vynctl/interruption.h"
#include "vyn/broadcast.h"
#include "vyn/variable.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>

namespace vyn::tools {

namespace {

using nlohmann::json;

/// The bytes that a get writes between two steps of its progress bar.
constexpr std::uint64_t kPiece = std::uint64_t{4} << 20U;

/// Opens a file. Throws CommandError.
net::Descriptor Open(const std::string& path, int flags) {
  net::Descriptor file(open(path.c_str(), flags | O_CLOEXEC));
  if (!file) {
    throw CommandError(path + ": " + std::strerror(errno));
  }
  return file;
}

/// Fills a part of the range from the file.
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

struct CloseVariable {
  void operator()(VynVariable* variable) const { VynVariableClose(variable); }
};
/// A handle of vyn/variable.h. What is not published when it ends is abandoned.
using Variable = std::unique_ptr<VynVariable, CloseVariable>;

char* Data(const Variable& variable) { return static_cast<char*>(VynVariableData(variable.get())); }

void StartWith(const Settings& settings, const std::string& application) {
  LoadConfiguration(settings);
  StartSdk(settings, true);
  bool onNode = false;
  Require(RegisterBroadcastApp(application.c_str(), true, settings.token.c_str(), &onNode),
          "registering " + application);
}

/// The destination of a get: standard output, or a file that gets its name only when it is complete.
class Output {
 public:
  explicit Output(const std::string& file) : mName(file) {
    if (file.empty()) {
      return;
    }
    struct stat status {};
    // Write directly into a pipe or a device: a rename would replace it by a regular file.
    if (stat(file.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
      mFile = Open(file, O_WRONLY);
      return;
    }
    mTemporary = file + ".XXXXXX";
    mFile.Reset(mkostemp(mTemporary.data(), O_CLOEXEC));
    if (!mFile) {
      throw CommandError(file + ": " + std::strerror(errno));
    }
    const mode_t mask = umask(0);
    umask(mask);
    fchmod(mFile.Get(), status.st_mode != 0 ? status.st_mode & 0777U : 0666U & ~mask);
  }
  ~Output() {
    if (!mTemporary.empty()) {
      unlink(mTemporary.c_str());
    }
  }
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;
  int Descriptor() const { return mName.empty() ? STDOUT_FILENO : mFile.Get(); }
  void Finish() {
    if (mName.empty()) {
      return;
    }
    const bool closed = close(mFile.Release()) == 0;  // a file system may report a failed write only now
    if (!closed || (!mTemporary.empty() && rename(mTemporary.c_str(), mName.c_str()) != 0)) {
      throw CommandError(mName + ": " + std::strerror(errno));
    }
    mTemporary.clear();
  }

 private:
  const std::string mName;
  std::string mTemporary;
  net::Descriptor mFile;
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
  const net::Descriptor input = Open(file, O_RDONLY | O_NONBLOCK);  // a pipe would wait for a writer
  struct stat status {};
  if (fstat(input.Get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    throw CommandError(file + " is no regular file, so its size is unknown: copy the data to a file first");
  }
  if (status.st_size == 0) {
    throw CommandError(file + " is empty: a variable has at least one byte");
  }
  const auto total = static_cast<std::uint64_t>(status.st_size);
  StartWith(settings, application);
  DeferSignals();
  const auto page = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
  const std::uint64_t piece = (std::min(blockSize, total) + page - 1) / page * page;
  const VynVariableOptions options{sizeof(VynVariableOptions), piece};
  VynVariable* made = nullptr;
  Require(VynVariableCreateWith(application.c_str(), id, total, &options, &made), "creating the variable");
  const Variable variable(made);
  {
    Progress progress("put", total);
    for (std::uint64_t offset = 0; offset < total; offset += piece) {
      CheckInterrupted();
      const std::uint64_t size = std::min(piece, total - offset);
      ReadInto(input.Get(), Data(variable) + offset, size, offset, file);
      Require(VynVariableFlush(variable.get(), offset, size), "writing a block");
      progress.Add(size);
    }
  }
  Require(VynVariablePublish(variable.get()), "publishing the variable");
  const std::uint64_t count = (total + piece - 1) / piece;
  Print(settings, {{"application", application}, {"variable", id}, {"blocks", count}, {"bytes", total}},
        "variable " + std::to_string(id) + " of " + application + ": " + std::to_string(total) +
            " bytes in " + std::to_string(count) + " blocks");
}

void GetVariable(const Settings& settings, const std::string& application, std::uint32_t id,
                 const std::string& file) {
  StartWith(settings, application);
  VynVariable* opened = nullptr;
  Require(VynVariableOpen(application.c_str(), id, &opened), "opening the variable");
  const Variable variable(opened);
  const std::uint64_t total = VynVariableSize(variable.get());
  DeferSignals();
  Output output(file);
  {
    Progress progress("get", total);
    for (std::uint64_t offset = 0; offset < total; offset += kPiece) {
      const std::uint64_t size = std::min(kPiece, total - offset);
      WriteAll(output.Descriptor(), Data(variable) + offset, size);
      progress.Add(size);
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
  Require(VynVariableDelete(application.c_str(), id), "removing the variable");
  Print(settings, {{"application", application}, {"removed", id}},
        "variable " + std::to_string(id) + " of " + application + " removed");
}

}  // namespace vyn::tools
